#include "gateway/MediaFetch.h"

#include <Poco/Checksum.h>

#include <algorithm>
#include <cstdio>

#include "gateway/ServiceClient.h"

namespace flickr_gateway {

namespace {

constexpr int kAttempts = 3;

/// The first byte of the part and the size of the whole, of "bytes 10-99/100"; -1 for what is not there.
struct Part {
    std::int64_t first = -1;
    std::int64_t whole = -1;

    explicit Part(const std::string& contentRange) {
        long long from = -1, to = -1, size = -1;
        if (std::sscanf(contentRange.c_str(), "bytes %lld-%lld/%lld", &from, &to, &size) < 2) return;
        first = from;
        whole = size;
    }
};

/// The transfer of one file over as many requests as it takes.
class Transfer {
public:
    Transfer(MediaBody& body, const Cancelled& cancelled) : body_(body), cancelled_(cancelled) {}

    std::uint64_t received() const { return received_; }

    HttpRequest request(const std::string& url) const {
        HttpRequest request;
        request.url = url;
        request.followRedirects = true;
        // A weak tag says that the file means the same, and not that its bytes are.
        const bool strong = !etag_.empty() && etag_.compare(0, 2, "W/") != 0;
        if (received_ > 0 && (strong || !lastModified_.empty())) {
            request.headers = {"Range: bytes=" + std::to_string(received_) + "-",
                               "If-Range: " + (strong ? etag_ : lastModified_)};
        }
        return request;
    }

    void head(const HttpHead& head) {
        status_ = head.status;
        retryAfter_ = head.retryAfter;
        position_ = 0;
        if (status_ == 206) {
            const Part part(head.contentRange);
            if (part.first != static_cast<std::int64_t>(received_) ||
                (length_ >= 0 && part.whole >= 0 && part.whole != length_)) {
                fail("it answers with another part of the file than was asked for");
            }
            position_ = received_;
        } else if (status_ == 200) {
            if (begun_ && head.length != length_) fail("it has another file now");
            again_ = Poco::Checksum(Poco::Checksum::TYPE_CRC32);
            if (!begun_) begin(head);
        }
    }

    void piece(const char* data, std::size_t size) {
        if (status_ != 200 && status_ != 206) return;
        if (position_ < received_) {  // from the start once more
            const auto known = static_cast<std::size_t>(std::min<std::uint64_t>(size, received_ - position_));
            again_.update(data, static_cast<unsigned>(known));
            position_ += known;
            if (position_ < received_) return;
            if (again_.checksum() != prefix_.checksum()) fail("it has another file now");
            data += known;
            size -= known;
        }
        if (size == 0) return;
        body_.spool().append(data, size, cancelled_);
        prefix_.update(data, static_cast<unsigned>(size));
        position_ += size;
        received_ += size;
    }

    int status() const { return status_; }
    const std::string& retryAfter() const { return retryAfter_; }
    bool isWhole() const {
        return position_ == received_ && (length_ < 0 || received_ == static_cast<std::uint64_t>(length_));
    }

private:
    [[noreturn]] static void fail(const std::string& reason) {
        throw Failure(Failure::Kind::Unavailable, "The media host cannot be used: " + reason + ".");
    }

    void begin(const HttpHead& head) {
        begun_ = true;
        length_ = head.length;
        etag_ = head.etag;
        lastModified_ = head.lastModified;
        body_.begin(length_);
    }

    MediaBody& body_;
    const Cancelled& cancelled_;
    bool begun_ = false;
    std::int64_t length_ = -1;
    std::string etag_;
    std::string lastModified_;
    int status_ = 0;
    std::string retryAfter_;
    std::uint64_t received_ = 0;
    std::uint64_t position_ = 0;  // in the file, of the next piece
    Poco::Checksum prefix_{Poco::Checksum::TYPE_CRC32};
    Poco::Checksum again_{Poco::Checksum::TYPE_CRC32};
};

}  // namespace

void MediaBody::begin(std::int64_t length) {
    const std::lock_guard<std::mutex> lock(mutex_);
    length_ = length;
    state_ = State::Begun;
    changed_.notify_all();
}

void MediaBody::fail(Failure::Kind why) {
    spool_.end(Spool::End::BrokenOff);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::Waiting) {
        state_ = why == Failure::Kind::NotFound ? State::NotFound : State::Failed;
    }
    changed_.notify_all();
}

MediaBody::State MediaBody::await(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, time, [&] { return state_ != State::Waiting; });
    return state_;
}

void fetchMedia(HttpClient& http, const std::string& url, Patience& patience, MediaBody& body,
                std::chrono::milliseconds retryPause, const Cancelled& cancelled) {
    Transfer transfer(body, cancelled);
    for (int attempt = 1;;) {
        const unsigned wait = patience.await(cancelled);
        const std::uint64_t before = transfer.received();
        std::string problem = "it sends less than it announces";
        try {
            http.get(
                transfer.request(url), [&](const HttpHead& head) { transfer.head(head); },
                [&](const char* data, std::size_t size) { transfer.piece(data, size); }, cancelled);
            const int status = transfer.status();
            if (status == 429 || status == 503) {
                patience.refused(wait, transfer.retryAfter());
                continue;
            }
            if (status == 403 || status == 404 || status == 410) {
                throw Failure(Failure::Kind::NotFound,
                              "The media host answers with status " + std::to_string(status) + ".", status);
            }
            if (status == 200 || status == 206) {
                patience.succeeded();
                if (transfer.isWhole()) return;
            } else {
                problem = "it answers with status " + std::to_string(status);
            }
        } catch (Failure& failure) {
            if (failure.kind() != Failure::Kind::Unavailable) throw;
            problem = failure.what();
        }
        attempt = transfer.received() > before ? 1 : attempt + 1;
        if (attempt > kAttempts) throw Failure(Failure::Kind::Unavailable, problem);
        if (attempt > 1) pauseFor(retryPause * (attempt - 1), cancelled);
    }
}

}  // namespace flickr_gateway
