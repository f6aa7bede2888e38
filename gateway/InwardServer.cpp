#include "gateway/InwardServer.h"

#include <Poco/DigestEngine.h>
#include <Poco/Exception.h>
#include <Poco/MD5Engine.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/NumberParser.h>
#include <Poco/ThreadPool.h>
#include <Poco/URI.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <utility>
#include <vector>

#include "gateway/OAuth.h"
#include "gateway/PluginXml.h"

namespace flickr_gateway {

namespace {

using Poco::Net::HTTPResponse;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr const char* kRestPath = "/services/rest/";
constexpr int kThreads = 16;
constexpr milliseconds kLook{100};
constexpr std::size_t kBlock = 64 << 10;
constexpr int kLoginFailed = 98;

/// Without a hint in its time of how much is right.
bool isSame(const std::string& a, const std::string& b) {
    return a.size() == b.size() && ::CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

using Query = std::map<std::string, std::string>;

Query queryIn(const Poco::URI& target) {
    Query query;
    for (auto& [name, value] : target.getQueryParameters()) query[name] = value;
    return query;
}

std::string valueOf(const Query& query, const char* name) {
    const auto found = query.find(name);
    return found == query.end() ? std::string() : found->second;
}

std::string signatureOf(const std::string& secret, const Query& query) {
    Poco::MD5Engine md5;
    md5.update(secret);
    for (const auto& [name, value] : query) {
        if (name != "api_sig") md5.update(name + value);
    }
    return Poco::DigestEngine::digestToHex(md5.digest());
}

}  // namespace

struct InwardServer::Server {
    Server(std::uint16_t port, milliseconds signOfLife)
        : sign(signOfLife), socket(Poco::Net::SocketAddress("127.0.0.1", port)) {}

    const milliseconds sign;
    Poco::Net::ServerSocket socket;
    Poco::ThreadPool pool{"gateway", 2, kThreads};
    std::unique_ptr<Poco::Net::HTTPServer> http;
    std::atomic<bool> stopping{false};

    std::string mediaPath;
    InwardKeys keys;
    Catalog* catalog = nullptr;
    MediaTransfers* transfers = nullptr;
    std::function<void(const std::string&)> report;
};

/// One request of the plug-in.
class InwardServer::Handler : public Poco::Net::HTTPRequestHandler {
public:
    explicit Handler(Server& server) : server_(server) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        request_ = &static_cast<Poco::Net::HTTPServerRequestImpl&>(request);
        response_ = &response;
        response.setKeepAlive(false);
        try {
            answer();
        } catch (CancelledFailure&) {
            abandon();
        } catch (Poco::Exception&) {
            abandon();
        }
    }

private:
    void answer() {
        if (request_->getMethod() != Poco::Net::HTTPRequest::HTTP_GET) {
            return sendStatus(HTTPResponse::HTTP_METHOD_NOT_ALLOWED);
        }
        const Poco::URI target(request_->getURI());
        const std::string here = server_.socket.address().toString();
        if (request_->getHost() != here || (!target.isRelative() && target.getAuthority() != here)) {
            return sendStatus(HTTPResponse::HTTP_FORBIDDEN);
        }
        if (target.getPath() == kRestPath) return answerCall(queryIn(target));
        answerMedia(target.getPath());
    }

    void answerCall(const Query& query) {
        const InwardKeys& keys = server_.keys;
        if (!isSame(valueOf(query, "api_key"), keys.apiKey))
            return sendXml(failureXml(100, "Invalid API Key"));
        if (!isSame(valueOf(query, "api_sig"), signatureOf(keys.apiSecret, query))) {
            return sendXml(failureXml(96, "Invalid signature"));
        }
        if (!isSame(valueOf(query, "auth_token"), keys.token)) {
            return sendXml(failureXml(kLoginFailed, "Login failed / Invalid auth token"));
        }
        try {
            sendXml(callOf(query));
        } catch (Failure& failure) {
            server_.report(failure.what());
            switch (failure.kind()) {
                case Failure::Kind::Refused:
                    return sendXml(failureXml(kLoginFailed, failure.what()));
                case Failure::Kind::NotFound:
                    return sendXml(failureXml(failure.code(), failure.what()));
                case Failure::Kind::Unavailable:
                    return sendStatus(HTTPResponse::HTTP_SERVICE_UNAVAILABLE);
            }
        }
    }

    std::string callOf(const Query& query) {
        const auto tick = [this] { await(); };
        const std::string method = valueOf(query, "method");
        unsigned page = 1;
        Poco::NumberParser::tryParseUnsigned(valueOf(query, "page"), page);
        page = std::max(page, 1u);
        Catalog& catalog = *server_.catalog;
        if (method == "flickr.photosets.getList") return catalog.setList(tick);
        if (method == "flickr.photos.getNotInSet") return catalog.page("", page, tick);
        if (method == "flickr.photosets.getPhotos") {
            const std::string set = valueOf(query, "photoset_id");
            return isPlainId(set) ? catalog.page(set, page, tick) : failureXml(1, "Photoset not found");
        }
        if (method == "flickr.photos.getSizes") return catalog.sizes(valueOf(query, "photo_id"), tick);
        return failureXml(112, "Method \"" + method + "\" not found");
    }

    void answerMedia(const std::string& path) {
        const std::size_t start = server_.mediaPath.size();
        const std::size_t slash = path.find('/', start);
        if (slash == std::string::npos || !isSame(path.substr(0, start), server_.mediaPath)) {
            return sendStatus(HTTPResponse::HTTP_NOT_FOUND);
        }
        const KnownItemPtr item = server_.catalog->item(path.substr(start, slash - start));
        if (item == nullptr) return sendStatus(HTTPResponse::HTTP_NOT_FOUND);
        const std::shared_ptr<MediaBody> body =
            server_.transfers->open(*item, path.substr(slash + 1) == "thumbnail");
        const Letting letting{*body};
        MediaBody::State state = MediaBody::State::Waiting;
        while ((state = body->await(kLook)) == MediaBody::State::Waiting) await();
        if (state == MediaBody::State::NotFound) return sendStatus(HTTPResponse::HTTP_NOT_FOUND);
        if (state == MediaBody::State::Failed) return sendStatus(HTTPResponse::HTTP_SERVICE_UNAVAILABLE);
        stream(*body);
    }

    /// Once the plug-in lets go, nobody wants the body any more.
    struct Letting {
        MediaBody& body;
        ~Letting() { body.cancel(); }
    };

    void stream(MediaBody& body) {
        response_->setContentType("application/octet-stream");
        if (body.length() >= 0) {
            response_->setContentLength64(body.length());
        } else {
            response_->setChunkedTransferEncoding(true);
        }
        std::ostream& chunks = response_->send();
        chunks.flush();
        headSent_ = true;
        std::vector<char> block(kBlock);
        for (;;) {
            std::size_t size = 0;
            switch (body.spool().read(block.data(), block.size(), size, kLook)) {
                case Spool::Outcome::Bytes:
                    if (body.length() >= 0) {
                        sendBytes(block.data(), size);
                    } else {
                        chunks.write(block.data(), static_cast<std::streamsize>(size)).flush();
                    }
                    break;
                case Spool::Outcome::Nothing:
                    await();
                    break;
                case Spool::Outcome::Whole:
                    return;
                case Spool::Outcome::Broken:
                    return abandon();
            }
        }
    }

    /// Past the library's stream, which sends 4 KiB at a time.
    void sendBytes(const char* data, std::size_t size) {
        while (size > 0) {
            const int sent = request_->socket().sendBytes(data, static_cast<int>(size));
            if (sent <= 0) throw CancelledFailure();
            data += sent;
            size -= static_cast<std::size_t>(sent);
        }
    }

    /// Between two looks at what is waited for.
    void await() {
        if (server_.stopping) throw CancelledFailure();
        Poco::Net::StreamSocket& socket = request_->socket();
        if (socket.poll(Poco::Timespan(0), Poco::Net::Socket::SELECT_READ) && socket.available() == 0) {
            throw CancelledFailure();  // The plug-in has gone.
        }
        if (headSent_ || Clock::now() - lastSign_ < server_.sign) return;
        lastSign_ = Clock::now();
        if (request_->getVersion() == Poco::Net::HTTPMessage::HTTP_1_1) response_->sendContinue();
    }

    void sendStatus(HTTPResponse::HTTPStatus status) {
        response_->setStatusAndReason(status);
        response_->sendBuffer("", 0);
    }

    void sendXml(const std::string& xml) {
        response_->setContentType("text/xml; charset=utf-8");
        response_->sendBuffer(xml.data(), xml.size());
    }

    /// Breaks the connection, so that no end of the body can pass for a proper one.
    void abandon() {
        try {
            request_->socket().shutdown();
        } catch (Poco::Exception&) {
            // It is gone already.
        }
    }

    Server& server_;
    Poco::Net::HTTPServerRequestImpl* request_ = nullptr;
    Poco::Net::HTTPServerResponse* response_ = nullptr;
    bool headSent_ = false;
    Clock::time_point lastSign_ = Clock::now();
};

InwardKeys InwardKeys::random() {
    return {randomHex(16), randomHex(16), randomHex(16), randomHex(16)};
}

InwardServer::InwardServer(std::uint16_t port, milliseconds sign)
    : keys_(InwardKeys::random()), server_(std::make_unique<Server>(port, sign)) {
    server_->keys = keys_;
    server_->mediaPath = mediaPath();
}

InwardServer::~InwardServer() {
    server_->stopping = true;
    if (!server_->http) return;
    server_->http->stopAll(true);
    server_->pool.joinAll();
}

std::string InwardServer::address() const {
    return "http://" + server_->socket.address().toString();
}

std::string InwardServer::dataUrl() const {
    return address() + kRestPath;
}

void InwardServer::serve(Catalog& catalog, MediaTransfers& transfers,
                         std::function<void(const std::string&)> report) {
    class Factory : public Poco::Net::HTTPRequestHandlerFactory {
    public:
        explicit Factory(Server& server) : server_(server) {}
        Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
            return new Handler(server_);
        }

    private:
        Server& server_;
    };

    server_->catalog = &catalog;
    server_->transfers = &transfers;
    server_->report = std::move(report);
    Poco::Net::HTTPServerParams::Ptr params = new Poco::Net::HTTPServerParams;
    params->setMaxThreads(kThreads);
    params->setMaxQueued(4 * kThreads);
    params->setKeepAlive(false);
    server_->http = std::make_unique<Poco::Net::HTTPServer>(new Factory(*server_), server_->pool,
                                                            server_->socket, params);
    server_->http->start();
}

}  // namespace flickr_gateway
