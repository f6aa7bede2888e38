// Signed requests to the Flickr REST interface.
//
// A call is a GET whose parameters travel in the query string. Its last parameter, api_sig, is the MD5, in
// lower-case hexadecimal, of the API secret followed by the name and value of every other parameter, in
// ascending order of the names and without separators. The signature covers the values in plain text; the
// query holds them as they are, but for "extras", whose blanks and commas travel encoded:
//
//   /services/rest/?method=flickr.photosets.getPhotos&api_key=K&photoset_id=1&extras=date_upload%2C+…
//       &auth_token=T&page=2&api_sig=…
//
// (Flickr's original authentication interface.)

#ifndef CORE_SIGNEDREQUEST_H
#define CORE_SIGNEDREQUEST_H

#include <string>
#include <utility>
#include <vector>

#include "core/HttpExchange.h"

namespace Norvale_Plugin_Flickr {

/// Where calls go and on whose behalf. The secrets are overwritten at its end.
struct ServiceAccess {
    std::string dataUrl;  ///< address of the REST endpoint; its host, port and path are used
    std::string authToken;
    std::string apiKey;
    std::string apiSecret;

    ~ServiceAccess();
};

/// One call.
class SignedRequest {
public:
    SignedRequest(const ServiceAccess& access, std::string method);

    /// Adds a parameter behind the ones that are there. The query gets encoded, the signature value.
    SignedRequest& add(std::string name, std::string value, std::string encoded);
    SignedRequest& add(std::string name, std::string value);
    /// Adds the user's token: its place in the query differs from method to method.
    SignedRequest& addToken();
    /// Adds the attributes that both photo lists ask for.
    SignedRequest& addExtras();

    /// The value of api_sig.
    std::string signature() const;

    /// The request target: the endpoint's path and the query.
    std::string target() const;

    /// The call over a connection of its own, plain HTTP, ready for its exchange(). Throws Poco::Exception
    /// when the service's address is none or the request cannot be sent, with words that say what of it is
    /// wrong.
    HttpExchange prepared() const;

private:
    struct Parameter {
        std::string name;
        std::string value;
        std::string encoded;
    };

    std::string query() const;
    void requireSendable(const std::string& path) const;

    const ServiceAccess& access_;
    std::vector<Parameter> parameters_;  // in the order of the query
};

}  // namespace Norvale_Plugin_Flickr

#endif
