#include "gateway/UserFolder.h"

#include <cstdlib>

namespace flickr_gateway {

std::string userFolder(const char* variable, const char* inHome) {
    // Only an absolute one counts, as the desktop's rules for these folders say.
    if (const char* folder = std::getenv(variable); folder != nullptr && folder[0] == '/') {
        return std::string(folder) + "/flickr-backup";
    }
    const char* const home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/') return std::string();
    return std::string(home) + inHome + "/flickr-backup";
}

}  // namespace flickr_gateway
