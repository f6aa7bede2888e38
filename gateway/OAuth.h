// Signatures of requests by OAuth 1.0a (RFC 5849) with HMAC-SHA1, the service's only method.
//
// What is signed is the request's method, its address and all its parameters, sorted by encoded name and
// value; each of the three is percent-encoded once more and they are joined by "&":
//
//   GET&https%3A%2F%2Fapi.flickr.com%2Fservices%2Frest%2F&method%3Dflickr.test.login%26oauth_consumer_key%3D…
//
// The key is the application's secret, "&" and the secret of the token, both encoded. The parameters that
// belong to the protocol travel in the header "Authorization", so that no address holds a key or a token.

#ifndef GATEWAY_OAUTH_H
#define GATEWAY_OAUTH_H

#include <string>
#include <utility>
#include <vector>

namespace flickr_gateway {

/// Names and values as they are, not encoded.
using Parameters = std::vector<std::pair<std::string, std::string>>;

/// Who asks: the application, and the user whom its token stands for. Without a token the last two are empty.
/// The secrets are overwritten at its end.
struct OAuthKeys {
    std::string apiKey;
    std::string apiSecret;
    std::string token;
    std::string tokenSecret;

    ~OAuthKeys();
};

/// Everything but letters, digits, "-", ".", "_" and "~" as "%" and two upper-case digits (RFC 5849, 3.6).
std::string percentEncode(const std::string& text);

/// The query of an address: names and values encoded, without a leading "?".
std::string queryOf(const Parameters& parameters);

/// The text that is signed. address: without a query.
std::string signatureBase(const std::string& method, const std::string& address, Parameters parameters);

/// The signature of such a text, in Base64.
std::string signatureOf(const std::string& base, const std::string& apiSecret,
                        const std::string& tokenSecret);

/// The value of the header "Authorization" for a GET of the address with these parameters. protocol: further
/// parameters of the protocol, such as oauth_verifier. Every call has a nonce of its own and the time of now,
/// so a request that is sent again needs a new one.
std::string authorizationOf(const OAuthKeys& keys, const std::string& address, const Parameters& query,
                            Parameters protocol = {});

/// So many random bytes as lower-case hexadecimal digits.
std::string randomHex(std::size_t bytes);

}  // namespace flickr_gateway

#endif
