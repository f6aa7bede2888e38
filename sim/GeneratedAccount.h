// An account of made-up photos and videos.

#ifndef SIM_GENERATEDACCOUNT_H
#define SIM_GENERATEDACCOUNT_H

#include <cstdint>

#include "sim/Account.h"

namespace flickr_sim {

struct Generation {
    unsigned sets = 3;
    unsigned itemsPerSet = 20;
    unsigned videos = 2;  ///< of all items in sets, at most so many are videos
    unsigned loose = 5;   ///< items in no set, besides those in sets
    std::uint64_t itemBytes =
        20000;  ///< size of a photo; one that cannot be as small is as small as possible
    std::uint64_t videoBytes = 200000;  ///< size of a video
    bool awkwardTitles = true;          ///< several scripts and characters that are hard on file systems
    std::uint64_t seed = 1;
};

/// Fills an account. The same values give the same account, ids, times and bytes included.
void generate(Account& account, const Generation& generation);

}  // namespace flickr_sim

#endif
