// Signing in: how the application gets a token for the user (OAuth 1.0a, three steps).
//
//   1. request_token   the application asks for a token that means nothing yet
//   2. authorize       the user opens a page of the service and agrees; the service sends them back to the
//                      application's address with a verifier, or shows the verifier as a code
//   3. access_token    the application changes the first token and the verifier for the token that it keeps

#ifndef GATEWAY_SIGNIN_H
#define GATEWAY_SIGNIN_H

#include <string>

#include "gateway/Gateway.h"
#include "gateway/HttpClient.h"
#include "gateway/OAuth.h"

namespace flickr_gateway {

/// What signing in gives.
struct SignedIn {
    OAuthKeys keys;
    std::string userId;  ///< "12345678@N07"
    std::string userName;
};

/// One sign-in. Every step throws Failure, with a sentence for the user, and CancelledFailure.
class SignIn {
public:
    SignIn(const ServiceAddresses& addresses, const HttpTrust& trust, std::string apiKey,
           std::string apiSecret);

    /// callback: the address to which the service sends the user back; "oob" to have it show a code.
    void begin(const std::string& callback, const Cancelled& cancelled);
    /// The page for the user.
    std::string page() const;
    /// Of step 1, to know the answer to the callback by.
    const std::string& requestToken() const { return keys_.token; }
    /// verifier: from the callback, or the code as the user has typed it.
    SignedIn finish(const std::string& verifier, const Cancelled& cancelled);

private:
    std::string ask(const char* step, const Parameters& protocol, const Cancelled& cancelled);

    const ServiceAddresses addresses_;
    RateLimit rate_{0};
    HttpClient http_;
    OAuthKeys keys_;
};

}  // namespace flickr_gateway

#endif
