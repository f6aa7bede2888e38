#include "sim/Message.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include <algorithm>

namespace flickr_sim {

namespace {

/// Undoes the encoding of a query's names and values; what cannot be decoded stays as it is.
std::string decodeQuery(std::string text) {
    std::replace(text.begin(), text.end(), '+', ' ');
    try {
        std::string decoded;
        Poco::URI::decode(text, decoded);
        return decoded;
    } catch (Poco::Exception&) {
        return text;
    }
}

}  // namespace

std::string Request::header(const std::string& name) const {
    for (const auto& header : headers) {
        if (Poco::icompare(header.first, name) == 0) return header.second;
    }
    return std::string();
}

std::string Request::parameter(const std::string& name) const {
    const auto found = parameters.find(name);
    return found == parameters.end() ? std::string() : found->second;
}

bool Request::hasForm() const {
    const std::string type = "application/x-www-form-urlencoded";
    return Poco::icompare(header("Content-Type"), 0, type.size(), type) == 0;
}

bool parseRequest(const std::string& text, Request& request) {
    const auto lineEnd = [&](std::size_t start) { return std::min(text.find('\n', start), text.size()); };
    const auto lineFrom = [&](std::size_t start, std::size_t end) {
        if (end > start && text[end - 1] == '\r') --end;
        return text.substr(start, end - start);
    };
    std::size_t end = lineEnd(0);
    request.line = lineFrom(0, end);
    const std::size_t first = request.line.find(' ');
    const std::size_t last = request.line.rfind(' ');
    if (first == std::string::npos || first == last || request.line.compare(last, 7, " HTTP/1") != 0)
        return false;
    request.verb = request.line.substr(0, first);
    request.target = request.line.substr(first + 1, last - first - 1);

    while (end < text.size()) {
        const std::size_t start = end + 1;
        end = lineEnd(start);
        const std::string line = lineFrom(start, end);
        if (line.empty()) break;
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) return false;
        request.headers.emplace_back(line.substr(0, colon), Poco::trim(line.substr(colon + 1)));
    }

    std::size_t pathStart = 0;
    const std::size_t scheme = request.target.find("://");
    if (scheme != std::string::npos && scheme < request.target.find_first_of("/?")) {
        pathStart = std::min(request.target.find_first_of("/?", scheme + 3), request.target.size());
    }
    const std::size_t question = std::min(request.target.find('?', pathStart), request.target.size());
    request.path = request.target.substr(pathStart, question - pathStart);
    if (question < request.target.size()) addParameters(request.target.substr(question + 1), request);
    return true;
}

void addParameters(const std::string& form, Request& request) {
    for (std::size_t start = 0, end = 0; start < form.size(); start = end + 1) {
        end = std::min(form.find('&', start), form.size());
        const std::string pair = form.substr(start, end - start);
        const std::size_t equals = std::min(pair.find('='), pair.size());
        std::string name = decodeQuery(pair.substr(0, equals));
        if (name.empty()) continue;
        request.parameters[std::move(name)] =
            equals < pair.size() ? decodeQuery(pair.substr(equals + 1)) : std::string();
    }
}

std::string reasonOf(int status) {
    return Poco::Net::HTTPResponse::getReasonForStatus(
        static_cast<Poco::Net::HTTPResponse::HTTPStatus>(status));
}

Reply plainReply(int status, std::string text) {
    Reply reply;
    reply.status = status;
    reply.headers.emplace_back("Content-Type", "text/plain; charset=utf-8");
    reply.body = Content::bytes(std::move(text));
    return reply;
}

}  // namespace flickr_sim
