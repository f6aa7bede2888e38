#include "core/SignedRequest.h"

#include <Poco/DigestEngine.h>
#include <Poco/Exception.h>
#include <Poco/MD5Engine.h>
#include <Poco/URI.h>

#include <algorithm>

#include "core/RunSupport.h"

namespace Norvale_Plugin_Flickr {

namespace {

constexpr const char* kExtras =
    "date_upload, last_update, date_taken, media, url_m, url_o, url_t, tags, description";
constexpr const char* kExtrasEncoded =
    "date_upload%2C+last_update%2C+date_taken%2C+media%2C+url_m%2C+url_o%2C+url_t%2C+tags%2C+description";

}  // namespace

ServiceAccess::~ServiceAccess() {
    for (std::string* secret : {&authToken, &apiKey, &apiSecret}) wipe(*secret);
}

SignedRequest::SignedRequest(const ServiceAccess& access, std::string method) : access_(access) {
    add("method", std::move(method));
    add("api_key", access.apiKey);
}

SignedRequest& SignedRequest::add(std::string name, std::string value, std::string encoded) {
    parameters_.push_back({std::move(name), std::move(value), std::move(encoded)});
    return *this;
}

SignedRequest& SignedRequest::add(std::string name, std::string value) {
    std::string encoded = value;
    return add(std::move(name), std::move(value), std::move(encoded));
}

SignedRequest& SignedRequest::addToken() {
    return add("auth_token", access_.authToken);
}

SignedRequest& SignedRequest::addExtras() {
    return add("extras", kExtras, kExtrasEncoded);
}

std::string SignedRequest::signature() const {
    std::vector<const Parameter*> byName;
    for (const Parameter& parameter : parameters_) byName.push_back(&parameter);
    std::sort(byName.begin(), byName.end(),
              [](const Parameter* a, const Parameter* b) { return a->name < b->name; });

    Poco::MD5Engine md5;
    md5.update(access_.apiSecret);
    for (const Parameter* parameter : byName) {
        md5.update(parameter->name);
        md5.update(parameter->value);
    }
    return Poco::DigestEngine::digestToHex(md5.digest());
}

std::string SignedRequest::target() const {
    return Poco::URI(access_.dataUrl).getPath() + query();
}

std::string SignedRequest::query() const {
    std::string query;
    char separator = '?';
    for (const Parameter& parameter : parameters_) {
        query += separator;
        query += parameter.name + '=' + parameter.encoded;
        separator = '&';
    }
    return query + "&api_sig=" + signature();
}

void SignedRequest::requireSendable(const std::string& path) const {
    for (const Parameter& parameter : parameters_) {
        if (fitsRequestLine(parameter.encoded)) continue;
        const std::string what = parameter.name == "auth_token" ? "the token"
                                 : parameter.name == "api_key"  ? "the API key"
                                                                : "the value of " + parameter.name;
        throw Poco::InvalidArgumentException(what + " holds white space or a control character");
    }
    if (!fitsRequestLine(path)) {
        throw Poco::InvalidArgumentException(
            "the service's address holds white space or a control character");
    }
}

HttpExchange SignedRequest::prepared() const {
    const Poco::URI endpoint(access_.dataUrl);
    requireSendable(endpoint.getPath());
    return HttpExchange(endpoint.getHost(), endpoint.getPort(), endpoint.getPath() + query());
}

}  // namespace Norvale_Plugin_Flickr
