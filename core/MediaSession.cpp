#include "core/MediaSession.h"

#include <Poco/Exception.h>
#include <Poco/Net/AcceptCertificateHandler.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/Session.h>
#include <openssl/ssl.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "core/RunSupport.h"
#include "core/StopWatcher.h"

namespace Norvale_Plugin_Flickr {

using Poco::Net::Context;
using Poco::Net::HTTPSClientSession;

namespace {

constexpr int kVerificationDepth = 9;
constexpr const char* kCipherList = "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH";
// A redirect can name any host: what is kept for them has an end.
constexpr std::size_t kRememberedHosts = 64;
constexpr std::size_t kTlsReadSize = 64 << 10;

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
        HTTPSession::connect(address);  // NOLINT(bugprone-parent-virtual-call): TLS is attached below
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

    RawConnection connect(const std::string& host) {
        return rawConnection<TlsSession>(host, context_, sessionOf(host));
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

/// What stands in the request line: over TLS the path, and otherwise the whole address as it was written.
std::string targetOf(const Poco::URI& address, const std::string& url) {
    if (address.getScheme() != "https") return fitsRequestLine(url) ? url : address.toString();
    const std::string path = address.getPathAndQuery();
    return path.empty() ? "/" : path;
}

RawConnection connectionFor(const Poco::URI& address) {
    if (address.getScheme() == "https") return TlsClient::instance().connect(address.getHost());
    return rawConnection<StoppableSession>(address.getHost(), address.getPort());
}

}  // namespace

bool MediaSession::supports(const Poco::URI& address) {
    return address.getScheme() == "http" || address.getScheme() == "https";
}

MediaSession::MediaSession(const Poco::URI& address, const std::string& url)
    : HttpExchange(connectionFor(address), targetOf(address, url)) {}

MediaSession::~MediaSession() {
    if (!session().secure() || !session().connected()) return;
    try {
        // Asked of the socket, when the answer was read, and not of the session, which only knows the ticket
        // of the handshake: TLS 1.3 sends its tickets behind it.
        Poco::Net::SecureStreamSocket socket(session().socket());
        TlsClient::instance().remember(session().getHost(), socket.currentSession());
    } catch (Poco::Exception&) {
        // The next connection makes a session of its own.
    }
}

}  // namespace Norvale_Plugin_Flickr
