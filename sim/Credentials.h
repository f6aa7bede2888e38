// Who may ask.

#ifndef SIM_CREDENTIALS_H
#define SIM_CREDENTIALS_H

#include <string>

#include "sim/MediaAddress.h"

namespace flickr_sim {

/// What the service accepts; the values are for demonstrations only.
struct Credentials {
    std::string apiKey = "demo0key0for0the0simulated0flickr";
    std::string apiSecret = "demo0secret";
    std::string token = "demo-token-1";
    std::string tokenSecret = "demo1token2secret";  ///< of today's service
    std::string userId = kOwner;                    ///< whose account it is
    std::string userName = "Sim Owner";
    std::string fullName = "Simone Owner";
};

}  // namespace flickr_sim

#endif
