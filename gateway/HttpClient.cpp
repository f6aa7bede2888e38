#include "gateway/HttpClient.h"

#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/URI.h>
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>

namespace flickr_gateway {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr long kConnectMilliseconds = 30000;
constexpr seconds kAnswerBegins{100};
constexpr seconds kAnswerGoesOn{20};
constexpr int kLookMilliseconds = 100;
constexpr long kMaximumRedirects = 10;
constexpr long kBufferSize = 128 << 10;

bool isPrivate(const in_addr& address) {
    const std::uint32_t ip = ntohl(address.s_addr);
    const auto within = [ip](std::uint32_t net, int bits) {
        return (ip >> (32 - bits)) == (net >> (32 - bits));
    };
    return within(0, 8) || within(0x0A000000, 8) || within(0x64400000, 10) || within(0x7F000000, 8) ||
           within(0xA9FE0000, 16) || within(0xAC100000, 12) || within(0xC0000000, 24) ||
           within(0xC0A80000, 16) || within(0xC6120000, 15) || within(0xE0000000, 3);
}

/// Whether an address is this machine's, a private network's or nobody's.
bool isPrivate(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        return isPrivate(reinterpret_cast<const sockaddr_in*>(address)->sin_addr);
    }
    if (address->sa_family != AF_INET6) return true;
    const in6_addr& ip = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    // Only 2000::/3 is given out; in it are no mapped and no local ones.
    return (ip.s6_addr[0] & 0xE0) != 0x20;
}

std::string textOf(const sockaddr* address) {
    char text[NI_MAXHOST] = "";
    const socklen_t size = address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    ::getnameinfo(address, size, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

/// With a proxy the address of a connection is the proxy's, and names are looked up there.
bool usesProxy() {
    static const bool uses = [] {
        for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
            const char* value = std::getenv(name);
            if (value != nullptr && *value != '\0') return true;
        }
        return false;
    }();
    return uses;
}

void startLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { ::curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

struct RateLimit::State {
    std::uint64_t bytesPerSecond;
    std::mutex mutex;
    Clock::time_point free = Clock::now();  // when all bytes so far have had their time
};

RateLimit::RateLimit(std::uint64_t bytesPerSecond) : state_(new State{bytesPerSecond, {}, Clock::now()}) {}
RateLimit::~RateLimit() = default;

void RateLimit::pass(std::size_t bytes, const Cancelled& cancelled) {
    if (state_->bytesPerSecond == 0) return;
    Clock::time_point until;
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        const std::chrono::duration<double> time(static_cast<double>(bytes) /
                                                 static_cast<double>(state_->bytesPerSecond));
        state_->free =
            std::max(state_->free, Clock::now()) + std::chrono::duration_cast<Clock::duration>(time);
        until = state_->free;
    }
    while (Clock::now() < until && !cancelled()) {
        std::this_thread::sleep_for(std::min<Clock::duration>(until - Clock::now(), milliseconds(100)));
    }
}

struct HttpClient::Handles {
    CURLM* multi = ::curl_multi_init();
    CURL* easy = ::curl_easy_init();

    ~Handles() {
        if (easy != nullptr) ::curl_easy_cleanup(easy);
        if (multi != nullptr) ::curl_multi_cleanup(multi);
    }
};

/// One request and its answer.
class HttpClient::Exchange {
public:
    Exchange(HttpClient& client, const HttpRequest& request,
             const std::function<void(const HttpHead&)>& onHead,
             const std::function<void(const char*, std::size_t)>& onBody, const Cancelled& cancelled)
        : client_(client), request_(request), onHead_(onHead), onBody_(onBody), cancelled_(cancelled) {}
    ~Exchange() {
        ::curl_multi_remove_handle(client_.handles_->multi, easy());
        ::curl_easy_reset(easy());  // it points into this object
        ::curl_slist_free_all(headers_);
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    void perform() {
        prepare();
        CURLM* const multi = client_.handles_->multi;
        ::curl_multi_add_handle(multi, easy());
        for (int running = 1; running > 0;) {
            ::curl_multi_perform(multi, &running);
            if (thrown_) std::rethrow_exception(thrown_);
            if (cancelled_()) throw CancelledFailure();
            if (running == 0) break;
            if (Clock::now() - lastSign_ > (headSeen_ ? kAnswerGoesOn : kAnswerBegins)) {
                fail("it has fallen silent");
            }
            ::curl_multi_poll(multi, nullptr, 0, kLookMilliseconds, nullptr);
        }
        int left = 0;
        const CURLMsg* const message = ::curl_multi_info_read(multi, &left);
        if (message == nullptr) fail("the network library gave no outcome");
        if (message->data.result != CURLE_OK) failWith(message->data.result);
        if (!headTold_) tellHead();
    }

private:
    CURL* easy() const { return client_.handles_->easy; }

    template <typename Value>
    void set(CURLoption option, Value value) {
        ::curl_easy_setopt(easy(), option, value);
    }

    void prepare() {
        set(CURLOPT_URL, request_.url.c_str());
        set(CURLOPT_PROTOCOLS_STR, "https");
        set(CURLOPT_REDIR_PROTOCOLS_STR, "https");
        set(CURLOPT_FOLLOWLOCATION, request_.followRedirects ? 1L : 0L);
        set(CURLOPT_MAXREDIRS, kMaximumRedirects);
        set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
        set(CURLOPT_USERAGENT, "flickr-backup/1.0");
        set(CURLOPT_CONNECTTIMEOUT_MS, kConnectMilliseconds);
        set(CURLOPT_BUFFERSIZE, kBufferSize);
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_QUICK_EXIT, 1L);  // a look-up of a name is left behind at a stop
        set(CURLOPT_ERRORBUFFER, error_);
        if (!client_.trust_.caFile.empty()) {
            set(CURLOPT_CAINFO, client_.trust_.caFile.c_str());
            set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
        }
        if (request_.compressed) set(CURLOPT_ACCEPT_ENCODING, "gzip");
        for (const std::string& header : request_.headers) {
            headers_ = ::curl_slist_append(headers_, header.c_str());
        }
        set(CURLOPT_HTTPHEADER, headers_);
        set(CURLOPT_HEADERFUNCTION, &Exchange::headerLine);
        set(CURLOPT_HEADERDATA, this);
        set(CURLOPT_WRITEFUNCTION, &Exchange::bodyPiece);
        set(CURLOPT_WRITEDATA, this);
        if (!usesProxy()) {
            set(CURLOPT_OPENSOCKETFUNCTION, &Exchange::openSocket);
            set(CURLOPT_OPENSOCKETDATA, this);
        }
    }

    static std::size_t headerLine(char* data, std::size_t size, std::size_t count, void* self) {
        return static_cast<Exchange*>(self)->guard(
            size * count, [&](Exchange& exchange) { exchange.readHeader(std::string(data, size * count)); });
    }

    static std::size_t bodyPiece(char* data, std::size_t size, std::size_t count, void* self) {
        return static_cast<Exchange*>(self)->guard(size * count, [&](Exchange& exchange) {
            if (!exchange.headTold_) exchange.tellHead();
            exchange.client_.rate_.pass(size * count, exchange.cancelled_);
            exchange.onBody_(data, size * count);
        });
    }

    static curl_socket_t openSocket(void* self, curlsocktype, curl_sockaddr* address) {
        Exchange& exchange = *static_cast<Exchange*>(self);
        if (isPrivate(&address->addr) && !exchange.isOwnHost(&address->addr)) {
            exchange.privateAddress_ = textOf(&address->addr);
            return CURL_SOCKET_BAD;
        }
        return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    }

    /// Whether the address is one of the host's that the user has set.
    bool isOwnHost(const sockaddr* address) const {
        if (client_.trust_.privateHost.empty()) return false;
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        if (::getaddrinfo(client_.trust_.privateHost.c_str(), nullptr, &hints, &found) != 0) return false;
        const std::string wanted = textOf(address);
        bool own = false;
        for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
            own = own || textOf(each->ai_addr) == wanted;
        }
        ::freeaddrinfo(found);
        return own;
    }

    /// Calls the work, whose exceptions must not pass through the library, which is written in C.
    template <typename Work>
    std::size_t guard(std::size_t size, Work work) {
        try {
            work(*this);
            lastSign_ = Clock::now();  // afterwards: the work may have waited for the reader
            return size;
        } catch (...) {
            thrown_ = std::current_exception();
            return 0;
        }
    }

    void readHeader(const std::string& line) {
        if (line.compare(0, 5, "HTTP/") == 0) {
            head_ = HttpHead();
            headSeen_ = false;
            return;
        }
        if (line == "\r\n") {
            headSeen_ = true;
            return;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) return;
        const std::string name = Poco::toLower(line.substr(0, colon));
        const std::string value = Poco::trim(line.substr(colon + 1));
        if (name == "retry-after") head_.retryAfter = value;
        if (name == "etag") head_.etag = value;
        if (name == "last-modified") head_.lastModified = value;
        if (name == "content-range") head_.contentRange = value;
    }

    void tellHead() {
        long status = 0;
        curl_off_t length = -1;
        ::curl_easy_getinfo(easy(), CURLINFO_RESPONSE_CODE, &status);
        ::curl_easy_getinfo(easy(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        head_.status = static_cast<int>(status);
        head_.length = length;
        headTold_ = true;
        onHead_(head_);
    }

    [[noreturn]] void fail(const std::string& reason) const {
        char* asked = nullptr;
        ::curl_easy_getinfo(easy(), CURLINFO_EFFECTIVE_URL, &asked);
        std::string host;
        try {
            host = Poco::URI(asked != nullptr ? asked : request_.url).getAuthority();
        } catch (...) {
        }
        throw Failure(Failure::Kind::Unavailable, "No whole answer from " + host + ": " + reason + ".");
    }

    [[noreturn]] void failWith(CURLcode code) const {
        if (!privateAddress_.empty()) {
            fail("it has the address " + privateAddress_ + ", which is none of the public network");
        }
        std::string reason = error_[0] != '\0' ? error_ : ::curl_easy_strerror(code);
        while (!reason.empty() && (reason.back() == '.' || reason.back() == '\n')) reason.pop_back();
        fail(reason);
    }

    HttpClient& client_;
    const HttpRequest& request_;
    const std::function<void(const HttpHead&)>& onHead_;
    const std::function<void(const char*, std::size_t)>& onBody_;
    const Cancelled& cancelled_;
    curl_slist* headers_ = nullptr;
    char error_[CURL_ERROR_SIZE] = "";
    HttpHead head_;
    bool headSeen_ = false;
    bool headTold_ = false;
    std::string privateAddress_;  // to which no connection was made
    Clock::time_point lastSign_ = Clock::now();
    std::exception_ptr thrown_;
};

HttpClient::HttpClient(const HttpTrust& trust, RateLimit& rate) : trust_(trust), rate_(rate) {
    startLibrary();
    handles_ = std::make_unique<Handles>();
    if (handles_->multi == nullptr || handles_->easy == nullptr) throw std::bad_alloc();
}

HttpClient::~HttpClient() = default;

void HttpClient::get(const HttpRequest& request, const std::function<void(const HttpHead&)>& onHead,
                     const std::function<void(const char*, std::size_t)>& onBody,
                     const Cancelled& cancelled) {
    Exchange(*this, request, onHead, onBody, cancelled).perform();
}

}  // namespace flickr_gateway
