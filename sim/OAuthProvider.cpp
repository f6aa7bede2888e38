#include "sim/OAuthProvider.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>

#include "sim/OAuthSignature.h"

namespace flickr_sim {

namespace {

constexpr std::time_t kTolerance = 300;  // seconds that a request's time may be off

std::uint64_t randomNumber() {
    std::uint64_t number = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number) != 1) {
        throw Poco::SystemException("OpenSSL has no random numbers");
    }
    return number;
}

std::string randomDigits16() {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(randomNumber()));
    return text;
}

/// As the page shows it: 123-456-789.
std::string randomCode() {
    const unsigned number = static_cast<unsigned>(randomNumber() % 1000000000);
    char text[16];
    std::snprintf(text, sizeof text, "%03u-%03u-%03u", number / 1000000, number / 1000 % 1000, number % 1000);
    return text;
}

std::string withoutHyphens(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '-'), text.end());
    return text;
}

bool isSame(const std::string& one, const std::string& other) {
    return one.size() == other.size() && CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace

void OAuthProvider::grant() {
    accessSecrets_[credentials_.token] = credentials_.tokenSecret;
}

void OAuthProvider::expireTokens() {
    std::lock_guard<std::mutex> lock(mutex_);
    accessSecrets_.clear();
}

Reply OAuthProvider::reply(const Refusal& refusal) {
    return plainReply(refusal.status, "oauth_problem=" + refusal.problem + refusal.details);
}

std::optional<OAuthProvider::Refusal> OAuthProvider::check(const Request& request, const Tokens* secrets) {
    const OAuthParameters given(request);
    std::string absent;
    for (const char* name : {"oauth_consumer_key", "oauth_token", "oauth_signature_method", "oauth_timestamp",
                             "oauth_nonce", "oauth_signature"}) {
        if (!given.value(name).empty() || (secrets == nullptr && name == std::string("oauth_token")))
            continue;
        absent += (absent.empty() ? "" : "&") + std::string(name);
    }
    if (!absent.empty()) {
        return Refusal{400, "parameter_absent", "&oauth_parameters_absent=" + oauthEncode(absent)};
    }
    if (given.has("oauth_version") && given.value("oauth_version") != "1.0") {
        return Refusal{400, "version_rejected", "&oauth_acceptable_versions=1.0-1.0"};
    }
    if (given.value("oauth_signature_method") != "HMAC-SHA1") {
        return Refusal{400, "signature_method_rejected", ""};
    }
    if (given.value("oauth_consumer_key") != credentials_.apiKey) {
        return Refusal{401, "consumer_key_unknown", ""};
    }
    const std::time_t now = std::time(nullptr) + clockOffset_;
    Poco::Int64 time = 0;
    if (!Poco::NumberParser::tryParse64(given.value("oauth_timestamp"), time) || time < now - kTolerance ||
        time > now + kTolerance) {
        return Refusal{401, "timestamp_refused",
                       "&oauth_acceptable_timestamps=" + std::to_string(now - kTolerance) + '-' +
                           std::to_string(now + kTolerance)};
    }

    std::lock_guard<std::mutex> lock(mutex_);
    std::string tokenSecret;
    if (secrets != nullptr) {
        const auto known = secrets->find(given.value("oauth_token"));
        if (known == secrets->end()) return Refusal{401, "token_rejected", ""};
        tokenSecret = known->second;
    }
    const std::string base = given.baseString(request);
    if (!isSame(given.value("oauth_signature"), oauthSignature(base, credentials_.apiSecret, tokenSecret))) {
        return Refusal{401, "signature_invalid", "&debug_sbs=" + oauthEncode(base)};
    }
    // Only what is signed counts as used; what is too old to be taken again need not be remembered.
    used_.erase(used_.begin(), used_.lower_bound({now - kTolerance, std::string()}));
    if (!used_.emplace(time, given.value("oauth_token") + ' ' + given.value("oauth_nonce")).second) {
        return Refusal{401, "nonce_used", ""};
    }
    return std::nullopt;
}

std::optional<OAuthProvider::Refusal> OAuthProvider::checkCall(const Request& request) {
    return check(request, &accessSecrets_);
}

Reply OAuthProvider::requestToken(const Request& request) {
    const OAuthParameters given(request);
    if (const auto refusal = check(request, nullptr)) return reply(*refusal);
    const std::string callback = given.value("oauth_callback");
    if (callback.empty()) {
        return reply({400, "parameter_absent", "&oauth_parameters_absent=oauth_callback"});
    }
    const std::string token = "72157720000000000-" + randomDigits16();
    const std::string secret = randomDigits16();
    std::lock_guard<std::mutex> lock(mutex_);
    requestSecrets_[token] = secret;
    questions_[token].callback = callback;
    return plainReply(200,
                      "oauth_callback_confirmed=true&oauth_token=" + token + "&oauth_token_secret=" + secret);
}

std::optional<OAuthProvider::Question> OAuthProvider::question(const std::string& requestToken) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = questions_.find(requestToken);
    return found == questions_.end() ? std::nullopt : std::optional<Question>(found->second);
}

std::string OAuthProvider::decide(const std::string& requestToken, Answer answer) {
    const bool allow = answer == Answer::Allow;
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = questions_.find(requestToken);
    if (found == questions_.end()) throw Poco::NotFoundException("there is no such request token");
    Question& question = found->second;
    const bool isOutOfBand = question.callback == "oob";
    question.verifier = !allow ? std::string() : isOutOfBand ? randomCode() : randomDigits16();
    if (isOutOfBand) return allow ? question.verifier : "denied";
    return question.callback + (question.callback.find('?') == std::string::npos ? '?' : '&') +
           (allow ? "oauth_token=" + oauthEncode(requestToken) + "&oauth_verifier=" + question.verifier
                  : "oauth_problem=permission_denied&oauth_token=" + oauthEncode(requestToken));
}

Reply OAuthProvider::accessToken(const Request& request) {
    const OAuthParameters given(request);
    if (const auto refusal = check(request, &requestSecrets_)) return reply(*refusal);
    if (!given.has("oauth_verifier")) {
        return reply({400, "parameter_absent", "&oauth_parameters_absent=oauth_verifier"});
    }
    const std::string token = given.value("oauth_token");
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = questions_.find(token);
    if (found == questions_.end()) return reply({401, "token_rejected", ""});
    if (found->second.verifier.empty()) return reply({401, "permission_denied", ""});
    if (!isSame(withoutHyphens(given.value("oauth_verifier")), withoutHyphens(found->second.verifier))) {
        return reply({401, "verifier_invalid", ""});
    }
    questions_.erase(found);
    requestSecrets_.erase(token);
    const std::string accessToken = "72157720000000001-" + randomDigits16();
    const std::string secret = randomDigits16();
    accessSecrets_[accessToken] = secret;
    return plainReply(200, "fullname=" + oauthEncode(credentials_.fullName) + "&oauth_token=" + accessToken +
                               "&oauth_token_secret=" + secret +
                               "&user_nsid=" + oauthEncode(credentials_.userId) +
                               "&username=" + oauthEncode(credentials_.userName));
}

}  // namespace flickr_sim
