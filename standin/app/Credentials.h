// The user's key, secret and token for the service, in a file that only they can read:
//
//   api_key = 0123456789abcdef0123456789abcdef
//   api_secret = 0123456789abcdef
//   token = 72157600000000000-0123456789abcdef
//
// Lines that begin with ";" or "#" are comments.

#ifndef STANDIN_APP_CREDENTIALS_H
#define STANDIN_APP_CREDENTIALS_H

#include <string>

namespace flickr_app {

struct Credentials {
    std::string apiKey;
    std::string apiSecret;
    std::string token;

    /// Overwrites them.
    ~Credentials();
};

/// Throws UsageError when the file cannot be read or is no ordinary file, when it belongs to another user,
/// when its group or others may read or write it, and when a value is missing or cannot be one. No message
/// holds a value. From the call on the process leaves no core file, which would hold them.
Credentials readCredentials(const std::string& path);

}  // namespace flickr_app

#endif
