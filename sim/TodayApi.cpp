#include "sim/TodayApi.h"

#include <Poco/Exception.h>

#include "sim/AuthorizePage.h"
#include "sim/OAuthSignature.h"
#include "sim/RestApi.h"

namespace flickr_sim {

namespace {

constexpr const char* kOAuthPath = "/services/oauth/";

Reply xmlReply(std::string xml) {
    Reply reply;
    reply.headers.emplace_back("Content-Type", "text/xml; charset=utf-8");
    reply.body = Content::bytes(std::move(xml));
    return reply;
}

Reply pageReply(int status, std::string page) {
    Reply reply;
    reply.status = status;
    reply.headers.emplace_back("Content-Type", "text/html; charset=utf-8");
    reply.body = Content::bytes(std::move(page));
    return reply;
}

/// Where the user goes once the question is decided.
Reply decided(const std::string& callback, const std::string& outcome) {
    if (callback != "oob") {
        Reply reply = pageReply(302, messagePage("Back to the application", "You are sent back to it."));
        reply.headers.emplace_back("Location", outcome);
        return reply;
    }
    if (outcome == "denied") {
        return pageReply(200, messagePage("Not allowed", "The application cannot see your photos."));
    }
    return pageReply(200, codePage(outcome));
}

}  // namespace

TodayApi::TodayApi(const Credentials& credentials, const TodayOptions& options)
    : credentials_(credentials),
      signInAtOnce_(options.signInAtOnce),
      announceWait_(options.announceWait),
      oauth_(credentials),
      lists_(options.lists),
      media_(options.media) {}

bool TodayApi::isOAuthPath(const std::string& path) {
    return path.compare(0, std::char_traits<char>::length(kOAuthPath), kOAuthPath) == 0;
}

std::optional<Reply> TodayApi::refuse(const Request& request) {
    if (!request.https) {
        if (request.kind == Kind::Rest) {
            return xmlReply(failAnswer(95, "SSL is required to access the Flickr API."));
        }
        return plainReply(403, "This is answered over HTTPS only.\n");
    }
    std::optional<std::chrono::seconds> wait;
    if (request.kind == Kind::Rest) wait = lists_.take();
    if (request.kind == Kind::Media || request.kind == Kind::Thumbnail) wait = media_.take();
    if (!wait) return std::nullopt;
    Reply reply = plainReply(429, "Too many requests.\n");
    if (announceWait_) reply.headers.emplace_back("Retry-After", std::to_string(wait->count()));
    return reply;
}

Reply TodayApi::answerRest(const Request& request, const RestContext& context) {
    const OAuthParameters given(request);
    if (given.value("oauth_consumer_key").empty()) {
        return xmlReply(failAnswer(100, "Invalid API Key (Key has invalid format)"));
    }
    if (const auto refusal = oauth_.checkCall(request)) {
        if (refusal->problem == "consumer_key_unknown") {
            return xmlReply(failAnswer(100, "Invalid API Key (Key not found)"));
        }
        if (refusal->problem == "token_rejected") return xmlReply(failAnswer(98, "Invalid auth token"));
        return OAuthProvider::reply(*refusal);
    }
    return xmlReply(answerMethod(request, context));
}

Reply TodayApi::answerOAuth(const Request& request) {
    const std::string name = request.path.substr(std::char_traits<char>::length(kOAuthPath));
    if (name == "request_token") return oauth_.requestToken(request);
    if (name == "access_token") return oauth_.accessToken(request);
    if (name == "authorize") return authorize(request);
    return plainReply(404, "There is nothing here.\n");
}

Reply TodayApi::authorize(const Request& request) {
    const OAuthParameters given(request);
    const std::string token = given.value("oauth_token");
    const auto question = oauth_.question(token);
    if (!question) {
        return pageReply(400, messagePage("This address is no longer good",
                                          "Go back to the application and sign in from there once more."));
    }
    const bool isAnswer = request.verb == "POST";
    if (!isAnswer && !signInAtOnce_) {
        const std::string asked = given.value("perms");
        return pageReply(200, authorizeForm(credentials_.userName, token, asked.empty() ? "read" : asked));
    }
    const bool allows = !isAnswer || given.value("answer") == "allow";
    return decided(question->callback,
                   oauth_.decide(token, allows ? OAuthProvider::Answer::Allow : OAuthProvider::Answer::Deny));
}

}  // namespace flickr_sim
