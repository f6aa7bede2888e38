#include "gateway/SignIn.h"

#include <Poco/Exception.h>
#include <Poco/URI.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <utility>

#include "gateway/ServiceClient.h"

namespace flickr_gateway {

namespace {

constexpr std::size_t kLargestForm = 64 << 10;

std::map<std::string, std::string> readForm(const std::string& body) {
    std::map<std::string, std::string> form;
    try {
        Poco::URI address("http://form/");
        address.setRawQuery(body);
        for (auto& [name, value] : address.getQueryParameters()) form[name] = value;
    } catch (Poco::Exception&) {
        // What cannot be read names no token, and is refused for that.
    }
    return form;
}

std::string sentenceFor(const std::string& problem) {
    if (problem == "timestamp_refused")
        return "The service refuses the time of this computer; set its clock right.";
    if (problem == "verifier_invalid") return "The service does not accept this code; sign in again.";
    if (problem == "permission_denied")
        return "The service was not allowed to let this program read the account.";
    if (problem == "token_rejected") return "The sign-in took too long; begin again.";
    if (problem == "consumer_key_unknown") return "The service does not know this API key; check it.";
    if (problem == "signature_invalid") {
        return "The service does not accept the API key and secret; check them, the secret above all.";
    }
    return "The service refuses the sign-in (" + problem + ").";
}

}  // namespace

SignIn::SignIn(const ServiceAddresses& addresses, const HttpTrust& trust, std::string apiKey,
               std::string apiSecret)
    : addresses_(addresses), http_(trust, rate_), keys_{std::move(apiKey), std::move(apiSecret), "", ""} {}

void SignIn::begin(const std::string& callback, const Cancelled& cancelled) {
    keys_.token.clear();
    keys_.tokenSecret.clear();
    auto form = readForm(ask("request_token", {{"oauth_callback", callback}}, cancelled));
    if (form["oauth_callback_confirmed"] != "true" || form["oauth_token"].empty()) {
        throw Failure(Failure::Kind::Unavailable, "The service gave no token to sign in with.");
    }
    keys_.token = form["oauth_token"];
    keys_.tokenSecret = form["oauth_token_secret"];
}

std::string SignIn::page() const {
    return addresses_.oauth + "authorize?" + queryOf({{"oauth_token", keys_.token}, {"perms", "read"}});
}

SignedIn SignIn::finish(const std::string& verifier, const Cancelled& cancelled) {
    std::string code = verifier;
    code.erase(std::remove_if(code.begin(), code.end(), [](unsigned char c) { return std::isspace(c) != 0; }),
               code.end());
    auto form = readForm(ask("access_token", {{"oauth_verifier", code}}, cancelled));
    if (form["oauth_token"].empty() || form["oauth_token_secret"].empty()) {
        throw Failure(Failure::Kind::Unavailable, "The service gave no token.");
    }
    SignedIn signedIn{keys_, "", ""};
    signedIn.keys.token = form["oauth_token"];
    signedIn.keys.tokenSecret = form["oauth_token_secret"];
    // Who it is, asked the way in which everything will be asked.
    ServiceClient service(addresses_.rest, signedIn.keys, "", PatienceLimits());
    const ServiceAnswer answer = service.call(http_, "flickr.test.login", {}, cancelled);
    signedIn.userId = answer.userId;
    signedIn.userName = answer.userName;
    return signedIn;
}

std::string SignIn::ask(const char* step, const Parameters& protocol, const Cancelled& cancelled) {
    const std::string address = addresses_.oauth + step;
    HttpRequest request;
    request.url = address;
    request.headers = {"Authorization: " + authorizationOf(keys_, address, {}, protocol)};
    int status = 0;
    std::string body;
    http_.get(
        request, [&](const HttpHead& head) { status = head.status; },
        [&](const char* data, std::size_t size) {
            if (body.size() < kLargestForm) body.append(data, size);
        },
        cancelled);
    const std::string problem = readForm(body)["oauth_problem"];
    if (!problem.empty()) throw Failure(Failure::Kind::Refused, sentenceFor(problem));
    if (status != 200) {
        throw Failure(Failure::Kind::Unavailable,
                      "The service answers the sign-in with status " + std::to_string(status) + ".");
    }
    return body;
}

}  // namespace flickr_gateway
