// The REST interface: four methods of the service, answered in XML.
//
// A call is a query with "method", "api_key", "auth_token", the method's own parameters and "api_sig": the
// MD5 of the shared secret followed by the names and values of all others, decoded, in ascending order of
// name. Errors are answers too: <rsp stat="fail"><err code="…" msg="…"/></rsp>, with HTTP status 200. The
// first of these that holds is answered: unknown key (100), wrong signature (96), wrong token (98), unknown
// method (112), unknown id (1).

#ifndef SIM_RESTAPI_H
#define SIM_RESTAPI_H

#include <functional>
#include <string>

#include "sim/Account.h"
#include "sim/Credentials.h"
#include "sim/Message.h"

namespace flickr_sim {

/// What answers are made from.
struct RestContext {
    const Account& account;
    const Credentials& credentials;
    std::string mediaBase;        ///< scheme, host and port in front of media paths
    bool repeatLastPage = false;  ///< of flickr.photos.getNotInSet, for pages past the end
    /// Newer labels and flickr.test.login; flickr.photosets.getPhotos wants the owner's id as "user_id".
    bool today = false;
    bool originals = true;         ///< originals are given to the caller
    bool originalsInLists = true;  ///< as the extra "url_o" too
};

/// The XML answer to a call.
///
/// flickr.photosets.getPhotos gives pages of 500, and the last page for any past the end;
/// flickr.photos.getNotInSet pages of 100, empty ones past the end. "per_page" changes that, up to 500.
std::string answerCall(const Request& call, const RestContext& context);

/// The same without a look at key, signature and token.
std::string answerMethod(const Request& call, const RestContext& context);

/// The service's error answer.
std::string failAnswer(int code, const std::string& message);

/// The signature that a call with these parameters has to have.
std::string signatureOf(const std::string& secret, const std::map<std::string, std::string>& parameters);

}  // namespace flickr_sim

#endif
