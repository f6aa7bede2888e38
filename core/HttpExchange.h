// One request and its answer, with the framing of RFC 9112.

#ifndef CORE_HTTPEXCHANGE_H
#define CORE_HTTPEXCHANGE_H

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include <cstdint>
#include <istream>
#include <memory>
#include <streambuf>
#include <string>
#include <utility>

#include "core/RawBytes.h"
#include "core/StopWatcher.h"

namespace Norvale_Plugin_Flickr {

/// A session of the network library that lets its bytes be read.
template <typename Session>
class RawSession : public Session, public RawBytes {
public:
    using Session::Session;
    int nextByte() override {
        // What peek() and get() answer cannot tell a byte above 0x7f from the end; peek() fills the buffer.
        Session::peek();
        char byte = 0;
        return Session::read(&byte, 1) == 1 ? static_cast<unsigned char>(byte) : -1;
    }
    int readBytes(char* buffer, std::streamsize count) override { return Session::read(buffer, count); }
};

/// A session of any kind, and its own bytes.
struct RawConnection {
    std::unique_ptr<Poco::Net::HTTPClientSession> session;
    RawBytes* bytes;
};

/// Makes a session from the arguments of its constructor.
template <typename Session, typename... Arguments>
RawConnection rawConnection(Arguments&&... arguments) {
    auto session = std::make_unique<RawSession<Session>>(std::forward<Arguments>(arguments)...);
    RawBytes* const bytes = session.get();
    return {std::move(session), bytes};
}

/// One GET over a connection of its own, which a stop request shuts down.
class HttpExchange {
public:
    /// Plain HTTP. target: the request target as it is sent.
    HttpExchange(const std::string& host, std::uint16_t port, std::string target);
    virtual ~HttpExchange();
    HttpExchange(const HttpExchange&) = delete;
    HttpExchange& operator=(const HttpExchange&) = delete;

    /// The request as it is sent. Throws Poco::InvalidArgumentException when target or host hold what would
    /// break its lines up: parts of both can be the service's words.
    Poco::Net::HTTPRequest request() const;

    /// Sends the request and reads the answer's header; interim answers are passed over. Throws what
    /// request() throws, StoppedException when a stop ended the connection and otherwise the network
    /// library's exceptions.
    const Poco::Net::HTTPResponse& exchange();

    /// The answer's body. Its badbit tells a body that broke off from one that ended. Throws
    /// Poco::Exception for a transfer coding that is not known, and as contentLength() does.
    std::istream& body();

    /// The number of bytes that the answer announces for its body, -1 when it announces none. Throws
    /// Poco::Exception for an announcement that makes no sense.
    std::int64_t contentLength() const;

    /// Throws what broke the connection while the body was read, when something did: as exchange().
    void rethrowNetworkFailure() const;
    /// Throws what is being handled, of the network with the name of the peer.
    [[noreturn]] void rethrowWithPeer() const;

protected:
    /// Over another kind of session.
    HttpExchange(RawConnection connection, std::string target);

    Poco::Net::HTTPClientSession& session() const { return *connection_.session; }

private:
    bool isChunked() const;
    void readHeader();

    RawConnection connection_;
    std::string target_;
    std::uint64_t endedBefore_ = connectionsEndedByStop();
    Poco::Net::HTTPResponse response_;
    std::unique_ptr<std::streambuf> bodyBuffer_;
    std::unique_ptr<std::istream> body_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
