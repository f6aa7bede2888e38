#include "sim/RequestLog.h"

#include <Poco/JSON/Object.h>

#include <sstream>
#include <utility>

namespace flickr_sim {

std::string toJson(const Counts& counts) {
    std::map<std::string, std::uint64_t> methods;
    for (const auto& [name, count] : counts.methods) {
        // A client can send any name; only plain ones are worth reporting.
        const bool isPlain =
            name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
            std::string::npos;
        methods[isPlain ? name : "?"] += count;
    }
    Poco::JSON::Object byMethod;
    for (const auto& [name, count] : methods) byMethod.set(name, count);

    Poco::JSON::Object json(Poco::JSON_PRESERVE_KEY_ORDER);
    json.set("rest", counts.rest).set("media", counts.media).set("thumbnails", counts.thumbnails);
    json.set("oauth", counts.oauth).set("other", counts.other).set("refused", counts.refused);
    json.set("parts", counts.parts).set("connections", counts.connections).set("methods", byMethod);
    std::ostringstream text;
    json.stringify(text);
    return text.str();
}

RequestLog::Hook RequestLog::record(Request& request, bool firstOfConnection) {
    std::lock_guard<std::mutex> lock(mutex_);
    request.number = ++received_;
    if (firstOfConnection) ++counts_.connections;
    switch (request.kind) {
        case Kind::Rest:
            ++counts_.rest;
            ++counts_.methods[request.method];
            break;
        case Kind::Media:
            ++counts_.media;
            break;
        case Kind::Thumbnail:
            ++counts_.thumbnails;
            break;
        case Kind::OAuth:
            ++counts_.oauth;
            break;
        default:
            ++counts_.other;
    }
    if (keepsRequests_) requests_.push_back(request);
    return hook_;
}

void RequestLog::recordStatus(const Request& request) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (request.status == 429) ++counts_.refused;
    if (request.status == 206) ++counts_.parts;
    if (keepsRequests_ && request.number >= firstKept_) {
        requests_[request.number - firstKept_].status = request.status;
    }
}

void RequestLog::onRequest(Hook hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
}

Counts RequestLog::counts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

std::vector<Request> RequestLog::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void RequestLog::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    counts_ = Counts();
    requests_.clear();
    firstKept_ = received_ + 1;
}

}  // namespace flickr_sim
