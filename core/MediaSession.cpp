#include "core/MediaSession.h"

#include <Poco/Exception.h>
#include <Poco/Net/AcceptCertificateHandler.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/Session.h>
#include <Poco/NumberParser.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "core/ChunkedBody.h"
#include "core/PlainBody.h"
#include "core/RunSupport.h"
#include "core/StopWatcher.h"

namespace Norvale_Plugin_Flickr {

using Poco::Net::Context;
using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPMessage;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::HTTPSClientSession;

namespace {

constexpr int kVerificationDepth = 9;
constexpr const char* kCipherList = "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH";
// A redirect can name any host: what is kept for them has an end.
constexpr std::size_t kRememberedHosts = 64;
constexpr std::size_t kTlsReadSize = 64 << 10;

/// A session that lets its bytes be read.
template <typename Session>
class RawSession : public Session, public RawBytes {
public:
    using Session::Session;
    int nextByte() override { return Session::get(); }
    int readBytes(char* buffer, std::streamsize count) override { return Session::read(buffer, count); }
};

/// TLS over a socket that a stop request shuts down.
class TlsSession : public HTTPSClientSession {
public:
    TlsSession(const std::string& host, Context::Ptr context, Poco::Net::Session::Ptr former)
        : HTTPSClientSession(host, HTTPS_PORT, context, former),
          context_(std::move(context)),
          former_(std::move(former)) {}

protected:
    void connect(const Poco::Net::SocketAddress& address) override {
        attachSocket(stoppableSocket());
        HTTPSession::connect(address);
        attachSocket(Poco::Net::SecureStreamSocket::attach(socket(), getHost(), context_, former_));
    }

private:
    Context::Ptr context_;
    Poco::Net::Session::Ptr former_;
};

/// The process's TLS settings and the sessions by which its connections are resumed.
class TlsClient {
public:
    static TlsClient& instance() {
        // Never destroyed: other threads may still be connected when the process ends.
        static TlsClient& client = *new TlsClient;
        return client;
    }

    std::unique_ptr<HTTPClientSession> connect(const std::string& host) {
        return std::make_unique<RawSession<TlsSession>>(host, context_, sessionOf(host));
    }

    void remember(const std::string& host, Poco::Net::Session::Ptr session) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (sessions_.size() >= kRememberedHosts) sessions_.clear();
        sessions_[host] = session;
    }

private:
    TlsClient()
        : context_(new Context(Context::CLIENT_USE, "", "", "", Context::VERIFY_NONE, kVerificationDepth,
                               false, kCipherList)) {
        context_->enableSessionCache(true);
        // All that has arrived at a time: by itself OpenSSL asks the system twice for each record.
        SSL_CTX_set_read_ahead(context_->sslContext(), 1);
        SSL_CTX_set_default_read_buffer_len(context_->sslContext(), kTlsReadSize);
        Poco::Net::SSLManager::instance().initializeClient(
            nullptr, new Poco::Net::AcceptCertificateHandler(false), context_);
    }

    Poco::Net::Session::Ptr sessionOf(const std::string& host) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = sessions_.find(host);
        return found == sessions_.end() ? Poco::Net::Session::Ptr() : found->second;
    }

    Context::Ptr context_;
    std::mutex mutex_;
    std::map<std::string, Poco::Net::Session::Ptr> sessions_;
};

std::string pathAndQuery(const Poco::URI& address) {
    const std::string path = address.getPathAndQuery();
    return path.empty() ? "/" : path;
}

}  // namespace

bool MediaSession::supports(const Poco::URI& address) {
    return address.getScheme() == "http" || address.getScheme() == "https";
}

MediaSession::MediaSession(const Poco::URI& address, const std::string& url) : host_(address.getHost()) {
    if (address.getScheme() == "https") {
        session_ = TlsClient::instance().connect(host_);
        target_ = pathAndQuery(address);
    } else {
        session_ = std::make_unique<RawSession<StoppableSession>>(host_, address.getPort());
        target_ = fitsRequestLine(url) ? url : address.toString();
    }
}

MediaSession::~MediaSession() {
    if (!session_->secure() || !session_->connected()) return;
    try {
        // Asked of the socket, when the answer was read, and not of the session, which only knows the ticket
        // of the handshake: TLS 1.3 sends its tickets behind it.
        Poco::Net::SecureStreamSocket socket(session_->socket());
        TlsClient::instance().remember(host_, socket.currentSession());
    } catch (Poco::Exception&) {
        // The next connection makes a session of its own.
    }
}

const HTTPResponse& MediaSession::exchange() {
    HTTPRequest request(HTTPRequest::HTTP_GET, target_, HTTPRequest::HTTP_1_1);
    session_->sendRequest(request);
    session_->receiveResponse(response_);
    return response_;
}

std::istream& MediaSession::body() {
    if (body_) return *body_;
    auto& bytes = dynamic_cast<RawBytes&>(*session_);
    if (response_.getChunkedTransferEncoding()) {
        bodyBuffer_ = std::make_unique<ChunkedBody>(bytes);
    } else {
        bodyBuffer_ = std::make_unique<PlainBody>(bytes, contentLength());
    }
    body_ = std::make_unique<std::istream>(bodyBuffer_.get());
    return *body_;
}

std::int64_t MediaSession::contentLength() const {
    if (response_.getChunkedTransferEncoding() || !response_.hasContentLength()) return -1;
    const std::string& announced = response_.get(HTTPMessage::CONTENT_LENGTH);
    for (const auto& [name, value] : response_) {
        if (Poco::icompare(name, HTTPMessage::CONTENT_LENGTH) == 0 && value != announced) {
            throw Poco::Net::MessageException("the answer announces two content lengths");
        }
    }
    const std::int64_t length = Poco::NumberParser::parse64(announced);
    if (length < 0) throw Poco::Net::MessageException("the answer announces a negative content length");
    return length;
}

void MediaSession::rethrowNetworkFailure() const {
    if (session_->networkException()) session_->networkException()->rethrow();
}

}  // namespace Norvale_Plugin_Flickr
