// Sign-in by OAuth 1.0a: who may ask, with which token, and what is refused.
//
// A token is made in three steps. The application asks for a request token (request_token) and names the
// address to which the user is to be sent back, or "oob". The user allows it on a page of the service
// (authorize) and brings a verifier back: with the redirect, or as nine digits (123-456-789) that are copied.
// The application changes both for the access token (access_token), which stays good until it expires.
//
// What is refused is answered as a form that begins with "oauth_problem":
//
//   400 parameter_absent&oauth_parameters_absent=…, version_rejected, signature_method_rejected
//   401 consumer_key_unknown, timestamp_refused, token_rejected, signature_invalid&debug_sbs=…, nonce_used,
//       verifier_invalid, permission_denied

#ifndef SIM_OAUTHPROVIDER_H
#define SIM_OAUTHPROVIDER_H

#include <atomic>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "sim/Credentials.h"
#include "sim/Message.h"

namespace flickr_sim {

/// One application and its tokens. All operations can be called from any thread.
class OAuthProvider {
public:
    enum class Answer { Allow, Deny };

    /// What the user is asked to allow.
    struct Question {
        std::string callback;  ///< an address or "oob"
        std::string verifier;  ///< empty: not allowed, or not yet
    };

    /// The problem of a refused request, and how it is answered.
    struct Refusal {
        int status;           ///< 400 or 401
        std::string problem;  ///< "signature_invalid"
        std::string details;  ///< what follows it in the answer's form, encoded
    };

    /// The access token of the credentials is good from the start. The credentials must outlive the provider.
    explicit OAuthProvider(const Credentials& credentials) : credentials_(credentials) { grant(); }

    /// Seconds that the service's clock is ahead of this machine's.
    void setClockOffset(std::time_t seconds) { clockOffset_ = seconds; }
    /// From now on no access token given so far is good.
    void expireTokens();

    Reply requestToken(const Request& request);
    Reply accessToken(const Request& request);
    /// What stands behind a request token; none when the token is unknown or used.
    std::optional<Question> question(const std::string& requestToken) const;
    /// The user's answer to it; gives the address to which the user is sent back, or the verifier when there
    /// is none ("oob"; "denied" instead of it). Throws Poco::NotFoundException when there is no such
    /// question.
    std::string decide(const std::string& requestToken, Answer answer);
    /// Whether a call is signed with an access token; what is wrong with it if not.
    std::optional<Refusal> checkCall(const Request& request);

    static Reply reply(const Refusal& refusal);

private:
    using Tokens = std::map<std::string, std::string>;  // secrets by token

    /// secrets: of the tokens that may sign the request; null: it is signed without one.
    std::optional<Refusal> check(const Request& request, const Tokens* secrets);
    void grant();

    const Credentials& credentials_;
    std::atomic<std::time_t> clockOffset_{0};
    mutable std::mutex mutex_;  // guards what follows
    Tokens requestSecrets_;
    std::map<std::string, Question> questions_;  // by request token
    Tokens accessSecrets_;
    std::set<std::pair<std::time_t, std::string>> used_;  // times and nonces
};

}  // namespace flickr_sim

#endif
