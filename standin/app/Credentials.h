// The user's key, secret and token for the service, in a file that only they can read:
//
//   api_key = 0123456789abcdef0123456789abcdef
//   api_secret = 0123456789abcdef
//   token = 72157600000000000-0123456789abcdef
//
// A sign-in of today, by "flickr-backup login", adds
//
//   token_secret = 0123456789abcdef
//   user_id = 12345678@N07
//   user_name = Somebody
//
// and for a server other than the service, such as one for tests,
//
//   service = https://HOST:PORT           /services/rest/ and /services/oauth/ are below it
//   ca = /path/of/authorities.pem         whom to trust instead of the system's authorities
//
// Lines that begin with ";" or "#" are comments.

#ifndef STANDIN_APP_CREDENTIALS_H
#define STANDIN_APP_CREDENTIALS_H

#include <string>
#include <utility>
#include <vector>

namespace flickr_app {

struct Credentials {
    std::string apiKey;
    std::string apiSecret;
    std::string token;
    std::string tokenSecret;  ///< empty: no sign-in of today
    std::string userId;
    std::string userName;
    std::string service;  ///< empty: the service itself
    std::string ca;

    /// Overwrites the secrets.
    ~Credentials();

    /// Whether the service is asked as it is today.
    bool isOfToday() const { return !tokenSecret.empty(); }
};

/// Throws CannotBegin when the file cannot be read or is no ordinary file, when it belongs to another user,
/// when its group or others may read or write it, and when a value is missing or cannot be one. No message
/// holds a value. From the call on the process leaves no core file, which would hold them.
Credentials readCredentials(const std::string& path);

/// The same for a file in which values may be missing, or that may be missing itself.
Credentials readWhatThereIs(const std::string& path);

/// Sets the values in the file, which is made with its folders when it is missing, and removes those that are
/// empty; other lines stay. A line break in a value becomes a blank. Whole or not at all. Throws CannotBegin
/// when it cannot be written.
void changeCredentials(const std::string& path,
                       const std::vector<std::pair<std::string, std::string>>& values);

}  // namespace flickr_app

#endif
