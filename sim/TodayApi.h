// The service as it is today, in front of the methods of RestApi.h: HTTPS only, calls signed by OAuth 1.0a, a
// limit of requests.
//
//   /services/rest/                 the methods and flickr.test.login; by GET or with a form
//   /services/oauth/request_token   as OAuthProvider.h describes
//   /services/oauth/authorize       the page with the form, and what it posts
//   /services/oauth/access_token
//
// A call over plain HTTP is answered with error 95, one without a known key with 100, one whose token is not
// good with 98, and every other flaw of a signature with status 401 or 400 and "oauth_problem=…". Beyond a
// limit the answer is status 429, with the seconds to wait as Retry-After.

#ifndef SIM_TODAYAPI_H
#define SIM_TODAYAPI_H

#include <atomic>
#include <optional>
#include <string>

#include "sim/Message.h"
#include "sim/OAuthProvider.h"
#include "sim/RateLimit.h"

namespace flickr_sim {

struct RestContext;

struct TodayOptions {
    bool originals = true;         ///< the caller may have originals
    bool originalsInLists = true;  ///< lists know the extra "url_o"
    bool signInAtOnce = false;     ///< the page allows without being asked
    bool announceWait = true;      ///< 429 comes with Retry-After
    Limit lists;                   ///< of REST calls
    Limit media;                   ///< of media files and thumbnails
};

class TodayApi {
public:
    /// The credentials must outlive it.
    TodayApi(const Credentials& credentials, const TodayOptions& options);

    OAuthProvider& oauth() { return oauth_; }
    RateLimit& listLimit() { return lists_; }
    RateLimit& mediaLimit() { return media_; }
    void announceWait(bool announce) { announceWait_ = announce; }

    /// Whether a path belongs to the sign-in.
    static bool isOAuthPath(const std::string& path);
    /// The refusal of a request over plain HTTP or beyond a limit; none when it is to be answered.
    std::optional<Reply> refuse(const Request& request);
    /// Answers a call of the REST interface.
    Reply answerRest(const Request& request, const RestContext& context);
    /// Answers a request for a path of the sign-in.
    Reply answerOAuth(const Request& request);

private:
    Reply authorize(const Request& request);

    const Credentials& credentials_;
    const bool signInAtOnce_;
    std::atomic<bool> announceWait_;
    OAuthProvider oauth_;
    RateLimit lists_;
    RateLimit media_;
};

}  // namespace flickr_sim

#endif
