// Checksum of a file's content: XXH3, 128 bits, as 32 hexadecimal digits.

#ifndef STANDIN_FRAMEWORK_BASE_CHECKSUM_H
#define STANDIN_FRAMEWORK_BASE_CHECKSUM_H

#include <xxhash.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

namespace flickr_standin {

class Checksum {
public:
    Checksum() : state_(XXH3_createState(), &XXH3_freeState) { XXH3_128bits_reset(state_.get()); }

    void update(const char* data, std::size_t size) { XXH3_128bits_update(state_.get(), data, size); }

    std::string text() const {
        const XXH128_hash_t hash = XXH3_128bits_digest(state_.get());
        char digits[33];
        std::snprintf(digits, sizeof digits, "%016llx%016llx", static_cast<unsigned long long>(hash.high64),
                      static_cast<unsigned long long>(hash.low64));
        return digits;
    }

private:
    std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state_;
};

}  // namespace flickr_standin

#endif
