// Fetching one media file.

#ifndef GATEWAY_MEDIAFETCH_H
#define GATEWAY_MEDIAFETCH_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "gateway/Failure.h"
#include "gateway/HttpClient.h"
#include "gateway/Patience.h"
#include "gateway/Spool.h"

namespace flickr_gateway {

/// A file that is on its way, from the network's side and from the plug-in's.
class MediaBody {
public:
    explicit MediaBody(SpoolRoom& room) : spool_(room) {}

    // The network's side.

    /// The body begins. length: -1 when it is not known.
    void begin(std::int64_t length);
    /// Nothing comes, or no more.
    void fail(Failure::Kind why);
    void finish() { spool_.end(Spool::End::Whole); }
    bool isCancelled() const { return cancelled_; }

    // The plug-in's side.

    enum class State { Waiting, Begun, NotFound, Failed };
    /// Waits up to that time for something to be known.
    State await(std::chrono::milliseconds time);
    /// Once it has begun.
    std::int64_t length() const { return length_; }
    /// Nobody wants it any more.
    void cancel() { cancelled_ = true; }
    /// It waits for the body, and is to be told why it fails.
    void attach() {
        spool_.attachReader();
        isAwaited_ = true;
    }
    bool isAwaited() const { return isAwaited_; }

    Spool& spool() { return spool_; }

private:
    Spool spool_;
    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = State::Waiting;
    std::int64_t length_ = -1;
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> isAwaited_{false};
};

/// Brings the file at the address into the body: a transfer that breaks off goes on from where it was when
/// the server can do that for the unchanged file (Range, If-Range), and otherwise from the start, with what
/// has come already compared and left out. Waits as the media hosts want it. Fails after three attempts
/// without a new byte.
///
/// Begins the body; does not end it. Throws Failure (NotFound: the address leads nowhere) and
/// CancelledFailure.
void fetchMedia(HttpClient& http, const std::string& url, Patience& patience, MediaBody& body,
                std::chrono::milliseconds retryPause, const Cancelled& cancelled);

}  // namespace flickr_gateway

#endif
