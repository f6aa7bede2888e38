#include "sim/FlickrSim.h"

#include <Poco/DeflatingStream.h>
#include <Poco/Exception.h>
#include <Poco/Hash.h>
#include <Poco/NumberParser.h>
#include <Poco/URI.h>
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <sstream>

#include "sim/ByteRange.h"
#include "sim/Control.h"
#include "sim/Listener.h"
#include "sim/MediaAddress.h"
#include "sim/RestApi.h"

namespace flickr_sim {

namespace {

constexpr const char* kRestPath = "/services/rest/";
// The query parameter that counts the redirects that are still to come.
constexpr const char* kHops = "hops";

std::string typeOf(const Request& request, const Item& item) {
    if (isVideoLabel(request.label)) return "video/mp4";
    const std::string extension = request.label == "Original" ? item.extension : "jpg";
    if (extension == "jpg" || extension == "jpeg") return "image/jpeg";
    return "image/" + (extension == "tif" ? std::string("tiff") : extension);
}

/// 128 random bits in hexadecimal.
std::string randomWord() {
    std::random_device random;
    char part[16];
    std::string word;
    for (int i = 0; i < 4; ++i) {
        std::snprintf(part, sizeof part, "%08x", random());
        word += part;
    }
    return word;
}

/// Whether a Host header names this machine's loopback. A page that a browser has loaded from elsewhere can
/// lead its own name here, and reads the answers then; the header still holds that name. Over HTTPS the
/// certificate keeps it out.
bool isOwnHost(const std::string& header) {
    const std::string host = header.substr(0, header.rfind(':'));
    in_addr address = {};
    return header.empty() || host == "localhost" ||
           (::inet_pton(AF_INET, host.c_str(), &address) == 1 && ntohl(address.s_addr) >> 24 == 127);
}

/// What a file is known by: another content of the item gets another.
std::string tagOf(const Request& request, const Item& item, const Content& content) {
    char text[24];
    std::snprintf(text, sizeof text, "%zx-%llx", Poco::hash(request.path),
                  static_cast<unsigned long long>(content.size()));
    return text + ('-' + std::to_string(item.updated));
}

void compress(Reply& reply) {
    std::ostringstream packed;
    Poco::DeflatingOutputStream packer(packed, Poco::DeflatingStreamBuf::STREAM_GZIP, 1);
    packer << reply.body.text();
    packer.close();
    reply.body = Content::bytes(packed.str());
    reply.headers.emplace_back("Content-Encoding", "gzip");
}

}  // namespace

FlickrSim::FlickrSim(Account& account, SimOptions options)
    : account_(account),
      options_(std::move(options)),
      orderWord_(randomWord()),
      log_(options_.keepLog),
      repeatLastPage_(options_.repeatLastPage),
      today_(options_.today ? std::make_unique<TodayApi>(options_.credentials, *options_.today) : nullptr),
      delivery_(options_.delivery) {
    const auto handler = [this](Wire& wire, Request& request, bool first, bool& keepAlive) {
        serve(wire, request, first, keepAlive);
    };
    // The lock keeps a first request waiting until both ports are known.
    std::lock_guard<std::mutex> lock(mutex_);
    if (options_.httpsPort || today_) {
        auto tls = std::make_unique<TlsContext>(options_.address, options_.tlsNames);
        authorityPem_ = tls->authorityPem();
        https_ = std::make_unique<Listener>(options_.address, options_.httpsPort.value_or(0), std::move(tls),
                                            handler);
        httpsPort_ = https_->port();
    }
    http_ = std::make_unique<Listener>(options_.address, options_.port, nullptr, handler);
    port_ = http_->port();
}

FlickrSim::~FlickrSim() {
    http_.reset();
    https_.reset();
}

std::string FlickrSim::ownLoopbackAddress() {
    const unsigned id = static_cast<unsigned>(::getpid());
    char text[24];
    std::snprintf(text, sizeof text, "127.%u.%u.%u", 1 + (id >> 16) % 250, (id >> 8) & 255, 1 + id % 250);
    return text;
}

std::string FlickrSim::dataUrl() const {
    return baseUrl() + kRestPath;
}

std::string FlickrSim::baseUrl(Scheme scheme) const {
    const bool isHttps = scheme == Scheme::Https;
    const std::string host = (isHttps ? "https://" : "http://") + options_.address;
    if (isHttps && httpsPort() == 443) return host;
    return host + ':' + std::to_string(isHttps ? httpsPort() : port());
}

std::string FlickrSim::mediaUrl(const std::string& itemId, const std::string& label) const {
    return baseUrl(mediaScheme()) + mediaPath(*account_.item(itemId), label);
}

Scheme FlickrSim::mediaScheme() const {
    return today_ || delivery().https ? Scheme::Https : Scheme::Http;
}

MediaDelivery FlickrSim::delivery() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return delivery_;
}

void FlickrSim::setDelivery(const MediaDelivery& delivery) {
    std::lock_guard<std::mutex> lock(mutex_);
    delivery_ = delivery;
}

void FlickrSim::serve(Wire& wire, Request& request, bool first, bool& keepAlive) {
    classify(request);
    Reply reply;
    if (!request.https && !isOwnHost(request.header("Host"))) {
        reply = plainReply(403, "Only requests to a loopback address are answered.\n");
    } else if (request.kind == Kind::Control) {
        reply = obey(request, {orderWord_, account_, faults_, log_, today_.get()});
    } else {
        const RequestLog::Hook hook = log_.record(request, first);
        if (hook) hook(request);
        reply = answer(request);
        faults_.apply(request, reply);
        if (today_ && request.kind == Kind::Rest && reply.status == 200 && !reply.raw &&
            request.header("Accept-Encoding").find("gzip") != std::string::npos) {
            compress(reply);
        }
        request.status = reply.raw ? 0 : reply.status;
        log_.recordStatus(request);
    }
    transmit(wire, request, reply, keepAlive);
}

void FlickrSim::classify(Request& request) const {
    if (request.path == kRestPath || request.path + '/' == kRestPath) {
        request.kind = Kind::Rest;
        request.method = request.parameter("method");
        request.itemId = request.parameter("photo_id");
    } else if (today_ && TodayApi::isOAuthPath(request.path)) {
        request.kind = Kind::OAuth;
    } else if (request.path.compare(0, 5, "/sim/") == 0) {
        request.kind = Kind::Control;
    } else if (parseMediaPath(request.path, request.itemId, request.label)) {
        request.kind = request.label == "Thumbnail" ? Kind::Thumbnail : Kind::Media;
    }
}

Reply FlickrSim::answer(const Request& request) {
    const bool takesForms = today_ && (request.kind == Kind::Rest || request.kind == Kind::OAuth);
    if (request.verb != "GET" && request.verb != (takesForms ? "POST" : "HEAD")) {
        return plainReply(405, takesForms ? "Only GET and POST are answered.\n" : "Only GET is answered.\n");
    }
    if (today_) {
        if (auto refusal = today_->refuse(request)) return *refusal;
    }
    switch (request.kind) {
        case Kind::Rest:
            return restReply(request);
        case Kind::OAuth:
            return today_->answerOAuth(request);
        case Kind::Media:
        case Kind::Thumbnail:
            return mediaReply(request);
        default:
            return plainReply(404, "There is nothing here.\n");
    }
}

/// Addresses lead back the way by which the request came, through a relay too.
std::string FlickrSim::addressFor(const Request& request, Scheme scheme) const {
    const std::string host = request.header("Host");
    const bool isHttps = scheme == Scheme::Https;
    if (host.empty() || isHttps != request.https) return baseUrl(scheme);
    return (isHttps ? "https://" : "http://") + host;
}

Reply FlickrSim::restReply(const Request& request) {
    RestContext context{account_, options_.credentials, addressFor(request, mediaScheme()), repeatLastPage_};
    Reply reply;
    if (today_) {
        context.today = true;
        context.originals = options_.today->originals;
        context.originalsInLists = options_.today->originalsInLists;
        return today_->answerRest(request, context);
    }
    reply.headers.emplace_back("Content-Type", "text/xml; charset=utf-8");
    reply.body = Content::bytes(answerCall(request, context));
    return reply;
}

Reply FlickrSim::mediaReply(const Request& request) {
    Account::ItemPtr item;
    try {
        item = account_.item(request.itemId);
    } catch (Poco::NotFoundException&) {
        return plainReply(404, "There is no such item.\n");
    }
    const MediaDelivery how = delivery();
    const bool isFilm = today_ && isVideoLabel(request.label);
    if (isFilm && request.label == "Video Player") {
        return plainReply(200, "A page that plays the video.\n");
    }
    unsigned hops = how.redirects + (how.redirectToHttps || isFilm ? 1 : 0);
    Poco::NumberParser::tryParseUnsigned(request.parameter(kHops), hops);
    if (hops > 0) {
        const bool toHttps = how.redirectToHttps && hops == 1;
        const bool relative = how.relativeLocations && !toHttps;
        const Scheme scheme = toHttps || request.https ? Scheme::Https : Scheme::Http;
        Reply reply = plainReply(how.redirectStatus, "Elsewhere.\n");
        reply.headers.emplace_back("Location", (relative ? "" : addressFor(request, scheme)) + request.path +
                                                   '?' + kHops + '=' + std::to_string(hops - 1));
        return reply;
    }
    Reply reply;
    reply.body = contentOf(*item, request.label);
    if (!reply.body) return plainReply(404, "There is no such rendition.\n");
    reply.headers.emplace_back("Content-Type", typeOf(request, *item));
    reply.framing = how.framing;
    if (today_) offerRanges(request, reply, tagOf(request, *item, reply.body), item->updated);
    return reply;
}

void FlickrSim::transmit(Wire& wire, const Request& request, const Reply& reply, bool& keepAlive) {
    if (reply.reset) wire.resetOnClose();
    if (reply.raw || reply.status == 0) keepAlive = false;
    if (reply.raw) return reply.raw(request, wire);
    if (reply.status == 0) return;

    const std::uint64_t size = reply.body.size();
    const std::uint64_t limit = request.verb == "HEAD" ? 0 : std::min(size, reply.bodyLimit);
    const bool chunked = reply.framing == Framing::Chunked;
    keepAlive = keepAlive && reply.framing != Framing::Close && !reply.announcedLengths &&
                reply.bodyLimit >= size && reply.headerLimit == UINT64_MAX;
    std::string header = "HTTP/1.1 " + std::to_string(reply.status) + ' ' + reasonOf(reply.status) + "\r\n";
    for (const auto& line : reply.headers) header += line.first + ": " + line.second + "\r\n";
    if (reply.announcedLengths) {
        for (const std::string& length : *reply.announcedLengths)
            header += "Content-Length: " + length + "\r\n";
    } else if (reply.framing == Framing::ContentLength) {
        header += "Content-Length: " + std::to_string(size) + "\r\n";
    }
    if (chunked) header += "Transfer-Encoding: chunked\r\n";
    header += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";

    const bool isSlow = reply.blockSize > 0;
    const auto pause = [&] { return !isSlow || (wire.flush() && wire.wait(reply.blockDelay)); };
    if (!pause()) return;
    if (reply.headerLimit < header.size()) {
        wire.send(header.data(), static_cast<std::size_t>(reply.headerLimit));
        return;
    }
    wire.write(header);
    std::uint64_t sent = 0;
    const auto sendBlock = [&](const char* data, std::size_t length) {
        if (length == 0) return true;
        char chunk[24];
        if (chunked)
            wire.send(chunk, static_cast<std::size_t>(std::snprintf(chunk, sizeof chunk, "%zx\r\n", length)));
        sent += length;
        return wire.send(data, length) && (!chunked || wire.send("\r\n", 2));
    };
    reply.body.send(
        [&](const char* data, std::size_t length) {
            const std::size_t step = isSlow ? reply.blockSize : length;
            for (std::size_t at = 0; at < length; at += step) {
                if (!sendBlock(data + at, std::min(step, length - at)) || !pause()) return false;
            }
            return true;
        },
        limit);
    if (sent < limit) keepAlive = false;  // the client is gone, or a file became shorter
    if (chunked && sent == size) wire.write("0\r\n\r\n");
}

}  // namespace flickr_sim
