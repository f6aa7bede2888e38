#include "sim/Listener.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>
#include <csignal>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace flickr_sim {

namespace {

constexpr std::size_t kGathered = 32 * 1024;   // small pieces are sent together up to this size
constexpr std::size_t kHeaderMax = 64 * 1024;  // of a request
constexpr std::size_t kFormMax = 64 * 1024;
constexpr std::size_t kThreadsMax = 512;
constexpr int kIdleSeconds = 60;

}  // namespace

/// One connection, plain or TLS.
class Listener::Connection : public Wire {
public:
    Connection(Listener& listener, int socket) : listener_(listener), socket_(socket) {
        const int on = 1;
        ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const timeval idle{kIdleSeconds, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &idle, sizeof idle);
        if (listener_.tls_) tls_ = listener_.tls_->accept(socket_);
    }

    ~Connection() override {
        flush();
        if (reset_) {
            const linger hard{1, 0};
            ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        }
        if (tls_ != nullptr) {
            if (!reset_ && !broken_ && SSL_is_init_finished(tls_)) SSL_shutdown(tls_);
            SSL_free(tls_);
        }
        {
            std::lock_guard<std::mutex> lock(listener_.mutex_);
            listener_.connected_.erase(socket_);
        }
        ::close(socket_);
    }

    using Wire::write;

    bool send(const char* data, std::size_t length) override {
        if (gathered_.size() + length <= kGathered) {
            gathered_.append(data, length);
            return !broken_;
        }
        if (tls_ != nullptr) return flush() && writeTls(data, length);
        const bool sent = writePlain(data, length);
        gathered_.clear();
        return sent;
    }

    bool flush() override {
        if (!gathered_.empty()) {
            if (tls_ != nullptr) {
                writeTls(gathered_.data(), gathered_.size());
            } else {
                writePlain(nullptr, 0);
            }
            gathered_.clear();
        }
        return !broken_;
    }

    bool wait(std::chrono::milliseconds time) override { return listener_.waitUnlessStopping(time); }
    void resetOnClose() override { reset_ = true; }

    /// Reads up to the empty line behind a request's headers; false at the end of the connection.
    bool readHeader(std::string& header) {
        for (std::size_t from = 0;;) {
            const std::size_t end = received_.find("\r\n\r\n", from);
            if (end != std::string::npos) {
                header.assign(received_, 0, end);
                received_.erase(0, end + 4);
                return true;
            }
            if (received_.size() > kHeaderMax) return false;
            from = received_.size() < 3 ? 0 : received_.size() - 3;
            if (!receive()) return false;
        }
    }

    /// Passes over a request's body.
    bool skip(std::uint64_t length) {
        while (length > received_.size()) {
            length -= received_.size();
            received_.clear();
            if (!receive()) return false;
        }
        received_.erase(0, length);
        return true;
    }

    /// Reads a request's body.
    bool read(std::size_t length, std::string& body) {
        while (received_.size() < length) {
            if (!receive()) return false;
        }
        body.assign(received_, 0, length);
        received_.erase(0, length);
        return true;
    }

private:
    bool receive() {
        char block[8192];
        const auto got = tls_ != nullptr ? static_cast<ssize_t>(SSL_read(tls_, block, sizeof block))
                                         : ::recv(socket_, block, sizeof block, 0);
        if (got <= 0) {
            broken_ = broken_ || got < 0;
            return false;
        }
        received_.append(block, static_cast<std::size_t>(got));
        return true;
    }

    /// Sends what is gathered and then the data.
    bool writePlain(const char* data, std::size_t length) {
        iovec parts[2] = {{gathered_.data(), gathered_.size()}, {const_cast<char*>(data), length}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = 2;
        while (!broken_ && parts[0].iov_len + parts[1].iov_len > 0) {
            ssize_t sent = ::sendmsg(socket_, &message, MSG_NOSIGNAL);
            if (sent < 0 && errno == EINTR) continue;
            if (sent < 0) broken_ = true;
            for (iovec& part : parts) {
                const std::size_t of =
                    std::min(part.iov_len, static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
                part.iov_base = static_cast<char*>(part.iov_base) + of;
                part.iov_len -= of;
                sent -= static_cast<ssize_t>(of);
            }
        }
        return !broken_;
    }

    bool writeTls(const char* data, std::size_t length) {
        std::size_t sent = 0;
        if (length > 0 && !broken_ && SSL_write_ex(tls_, data, length, &sent) != 1) broken_ = true;
        return !broken_;
    }

    Listener& listener_;
    const int socket_;
    SSL* tls_ = nullptr;
    std::string received_;
    std::string gathered_;
    bool broken_ = false;
    bool reset_ = false;
};

Listener::Listener(const std::string& address, std::uint16_t port, std::unique_ptr<TlsContext> tls,
                   Handler handler)
    : handler_(std::move(handler)), tls_(std::move(tls)) {
    const std::string where = address + ":" + std::to_string(port);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1 ||
        (ntohl(name.sin_addr.s_addr) >> 24) != 127) {
        throw Poco::InvalidArgumentException(
            "The simulator listens on loopback addresses (127.x.y.z) only, not on " + address + ".");
    }

    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t length = sizeof name;
    if (socket_ < 0 || ::bind(socket_, reinterpret_cast<sockaddr*>(&name), length) != 0 ||
        ::listen(socket_, 1024) != 0 ||
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&name), &length) != 0) {
        const std::string reason = std::strerror(errno);
        if (socket_ >= 0) ::close(socket_);
        throw Poco::IOException("The simulator cannot listen on " + where + ": " + reason + ".");
    }
    port_ = ntohs(name.sin_port);
    for (int i = 0; i < 2; ++i) addThread();
}

Listener::~Listener() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        ::shutdown(socket_, SHUT_RDWR);  // ends every accept()
        for (const int socket : connected_) ::shutdown(socket, SHUT_RDWR);
        threads.swap(threads_);
    }
    stop_.notify_all();
    for (std::thread& thread : threads) thread.join();
    ::close(socket_);
}

void Listener::addThread() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_ || threads_.size() >= kThreadsMax) return;
    ++idle_;
    threads_.emplace_back([this] { acceptConnections(); });
}

void Listener::acceptConnections() {
    // Signals are the program's business; a client that is gone shows as an error of the write.
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);

    while (!stopping_) {
        const int socket = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) {
            if (errno != EINTR && errno != ECONNABORTED) waitUnlessStopping(std::chrono::milliseconds(10));
            continue;
        }
        if (--idle_ == 0) addThread();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            connected_.insert(socket);
            if (stopping_) ::shutdown(socket, SHUT_RDWR);
        }
        {
            Connection connection(*this, socket);
            serve(connection);
        }
        ++idle_;
    }
}

void Listener::serve(Connection& connection) {
    std::string header;
    bool keepAlive = true;
    for (bool first = true; keepAlive && !stopping_ && connection.readHeader(header); first = false) {
        Request request;
        request.https = tls_ != nullptr;
        std::uint64_t bodyLength = 0;
        const bool isRequest = parseRequest(header, request);
        const std::string announced = request.header("Content-Length");
        if (!isRequest ||
            (!announced.empty() && !Poco::NumberParser::tryParseUnsigned64(announced, bodyLength)) ||
            !request.header("Transfer-Encoding").empty()) {
            connection.write("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
            return;
        }
        if (request.hasForm() && bodyLength <= kFormMax) {
            if (!connection.read(bodyLength, request.body)) return;
            addParameters(request.body, request);
        } else if (!connection.skip(bodyLength)) {
            return;
        }
        const std::string wish = Poco::toLower(request.header("Connection"));
        keepAlive = request.line.back() == '1' ? wish != "close" : wish == "keep-alive";
        handler_(connection, request, first, keepAlive);
        if (!connection.flush()) return;
    }
}

bool Listener::waitUnlessStopping(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !stop_.wait_for(lock, time, [this] { return stopping_.load(); });
}

}  // namespace flickr_sim
