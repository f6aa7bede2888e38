// Requests to the service and its media hosts.

#ifndef GATEWAY_HTTPCLIENT_H
#define GATEWAY_HTTPCLIENT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gateway/Failure.h"

namespace flickr_gateway {

/// Whom to trust.
struct HttpTrust {
    std::string caFile;  ///< authorities to trust instead of the system's; empty: the system's
    /// The one host that may have an address of this machine or of a private network; empty: none. It is the
    /// user's own setting: without that an address from an answer or a redirect leads to none of them.
    std::string privateHost;
};

/// The bytes that may pass in a second, over all requests.
class RateLimit {
public:
    /// 0: no limit.
    explicit RateLimit(std::uint64_t bytesPerSecond);
    ~RateLimit();
    /// Waits until the bytes may have passed, or until it is cancelled.
    void pass(std::size_t bytes, const Cancelled& cancelled);

private:
    struct State;
    std::unique_ptr<State> state_;
};

struct HttpRequest {
    std::string url;
    std::vector<std::string> headers;  ///< "Name: value"
    bool compressed = false;           ///< gzip is welcome
    bool followRedirects = false;      ///< over HTTPS only
};

/// The head of an answer.
struct HttpHead {
    int status = 0;
    std::int64_t length = -1;  ///< of the body; -1: not announced
    std::string retryAfter;    ///< header values, empty when missing
    std::string etag;
    std::string lastModified;
    std::string contentRange;
};

/// Asks over HTTPS, with HTTP/2 where the host has it, and keeps its connections. Certificates are verified.
/// A connection has to be made within 30 s; an answer has to begin within 100 s, and to go on within 20 s.
/// Proxies are taken from the environment. To be used by one thread at a time.
class HttpClient {
public:
    HttpClient(const HttpTrust& trust, RateLimit& rate);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    /// Gets a document: onHead once, when the head is whole, and onBody for each piece of the body, which may
    /// take its time. Throws CancelledFailure within a fifth of a second, Failure (Unavailable) when there
    /// is no whole answer, and what the two functions throw.
    void get(const HttpRequest& request, const std::function<void(const HttpHead&)>& onHead,
             const std::function<void(const char* data, std::size_t size)>& onBody,
             const Cancelled& cancelled);

private:
    class Exchange;
    struct Handles;
    const HttpTrust trust_;
    RateLimit& rate_;
    std::unique_ptr<Handles> handles_;
};

}  // namespace flickr_gateway

#endif
