// Signatures of OAuth 1.0a with HMAC-SHA1, as RFC 5849 (section 3.4) describes them. What is signed is the
// "signature base string": the verb, the address without its query, and all parameters, each encoded and
// joined by '&':
//
//   GET&https%3A%2F%2Flocalhost%3A8443%2Fservices%2Frest%2F&method%3Dflickr.test.login%26oauth_nonce%3D…
//
// Parameters come from the query, from a body that is a form, and from the Authorization header (its "realm"
// left out); "oauth_signature" itself is not signed. The key is the application's secret and the token's,
// both encoded, joined by '&'.

#ifndef SIM_OAUTHSIGNATURE_H
#define SIM_OAUTHSIGNATURE_H

#include <string>
#include <utility>
#include <vector>

#include "sim/Message.h"

namespace flickr_sim {

/// Percent-encoding of RFC 5849 (section 3.6): all bytes but letters, digits and "-._~", in capitals.
std::string oauthEncode(const std::string& text);

/// All parameters of a request, decoded, repeated ones included.
class OAuthParameters {
public:
    explicit OAuthParameters(const Request& request);

    /// The value of the first parameter of that name; empty when it is missing.
    std::string value(const std::string& name) const;
    bool has(const std::string& name) const;
    /// The request with these parameters as a text to be signed. The address is the one that the Host header
    /// names.
    std::string baseString(const Request& request) const;

private:
    void addForm(const std::string& form);
    void addHeader(const std::string& authorization);

    std::vector<std::pair<std::string, std::string>> pairs_;
};

/// The signature of a base string, in Base64.
std::string oauthSignature(const std::string& baseString, const std::string& applicationSecret,
                           const std::string& tokenSecret);

}  // namespace flickr_sim

#endif
