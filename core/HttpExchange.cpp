#include "core/HttpExchange.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPHeaderStream.h>
#include <Poco/Net/NetException.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "core/ChunkedBody.h"
#include "core/PlainBody.h"
#include "core/RunSupport.h"

namespace Norvale_Plugin_Flickr {

using Poco::Net::HTTPMessage;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::MessageException;

namespace {

constexpr int kMostInterimAnswers = 100;

/// The members of a header that is a list, from all its lines.
std::vector<std::string> membersOf(const HTTPResponse& response, const std::string& header) {
    std::vector<std::string> members;
    for (const auto& [name, value] : response) {
        if (Poco::icompare(name, header) != 0) continue;
        const Poco::StringTokenizer list(value, ",", Poco::StringTokenizer::TOK_TRIM);
        members.insert(members.end(), list.begin(), list.end());
        if (value.empty()) members.emplace_back();
    }
    return members;
}

bool isInterim(const HTTPResponse& response) {
    return response.getStatus() >= 100 && response.getStatus() < 200;
}

}  // namespace

HttpExchange::HttpExchange(const std::string& host, std::uint16_t port, std::string target)
    : HttpExchange(rawConnection<StoppableSession>(host, port), std::move(target)) {}

HttpExchange::HttpExchange(RawConnection connection, std::string target)
    : connection_(std::move(connection)), target_(std::move(target)) {}

HttpExchange::~HttpExchange() = default;

HTTPRequest HttpExchange::request() const {
    if (!fitsRequestLine(target_) || !fitsHost(session().getHost())) {
        throw Poco::InvalidArgumentException("the address holds what no request can carry");
    }
    HTTPRequest request(HTTPRequest::HTTP_GET, target_, HTTPRequest::HTTP_1_1);
    request.setKeepAlive(false);
    request.setHost(session().getHost(), session().getPort());
    return request;
}

const HTTPResponse& HttpExchange::exchange() {
    HTTPRequest built = request();
    try {
        session().sendRequest(built).flush();
        rethrowNetworkFailure();
        int answers = 0;
        do {
            if (++answers > kMostInterimAnswers) throw MessageException("interim answers without end");
            readHeader();
        } while (isInterim(response_));
    } catch (Poco::Exception&) {
        rethrowNetworkFailure();  // It came first.
        if (connectionsEndedByStop() != endedBefore_) throw StoppedException();
        rethrowWithPeer();
    }
    return response_;
}

void HttpExchange::readHeader() {
    response_.clear();
    Poco::Net::HTTPHeaderInputStream header(session());
    response_.read(header);
}

std::istream& HttpExchange::body() {
    if (body_) return *body_;
    RawBytes& bytes = *connection_.bytes;
    if (isChunked()) {
        bodyBuffer_ = std::make_unique<ChunkedBody>(bytes);
    } else {
        bodyBuffer_ = std::make_unique<PlainBody>(bytes, contentLength());
    }
    body_ = std::make_unique<std::istream>(bodyBuffer_.get());
    return *body_;
}

bool HttpExchange::isChunked() const {
    const std::vector<std::string> codings = membersOf(response_, HTTPMessage::TRANSFER_ENCODING);
    if (codings.empty()) return false;
    if (codings.size() > 1 || Poco::icompare(codings.front(), "chunked") != 0) {
        throw MessageException("the answer has a transfer coding that is not known");
    }
    return true;
}

std::int64_t HttpExchange::contentLength() const {
    if (isChunked()) return -1;
    const std::vector<std::string> lengths = membersOf(response_, HTTPMessage::CONTENT_LENGTH);
    if (lengths.empty()) return -1;
    const std::string& length = lengths.front();
    if (std::any_of(lengths.begin(), lengths.end(),
                    [&](const std::string& other) { return other != length; })) {
        throw MessageException("the answer announces two content lengths");
    }
    const bool digits = length.find_first_not_of("0123456789") == std::string::npos;
    Poco::Int64 number = 0;
    if (!digits || !Poco::NumberParser::tryParse64(length, number)) {
        throw MessageException("the answer announces a content length that is none");
    }
    return number;
}

void HttpExchange::rethrowNetworkFailure() const {
    if (session().networkException() == nullptr) return;
    if (connectionsEndedByStop() != endedBefore_) throw StoppedException();
    try {
        session().networkException()->rethrow();
    } catch (Poco::Exception&) {
        rethrowWithPeer();
    }
}

void HttpExchange::rethrowWithPeer() const {
    // The library's texts leave it out. They stay what they are otherwise.
    const std::string peer = session().getHost() + ":" + std::to_string(session().getPort());
    try {
        throw;
    } catch (Poco::TimeoutException&) {
        throw Poco::TimeoutException(peer);
    } catch (Poco::Net::ConnectionRefusedException&) {
        throw Poco::Net::ConnectionRefusedException(peer);
    } catch (Poco::Net::ConnectionResetException&) {
        throw Poco::Net::ConnectionResetException(peer);
    } catch (Poco::Net::ConnectionAbortedException&) {
        throw Poco::Net::ConnectionAbortedException(peer);
    } catch (Poco::Net::NoMessageException&) {
        throw Poco::Net::NoMessageException(peer);
    } catch (Poco::Net::HostNotFoundException&) {
        throw Poco::Net::HostNotFoundException(peer);
    }
}

}  // namespace Norvale_Plugin_Flickr
