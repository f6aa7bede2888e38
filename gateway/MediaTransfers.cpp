#include "gateway/MediaTransfers.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace flickr_gateway {

namespace {

// Small files end with these, and not with the room for their bytes.
constexpr std::size_t kMostAhead = 256;
constexpr unsigned kItemsInARow = 2;
constexpr std::chrono::milliseconds kLook{100};

}  // namespace

MediaTransfers::MediaTransfers(const TransferLimits& limits, const HttpTrust& trust, RateLimit& rate,
                               const PatienceLimits& patience, Settle settle, Report report)
    : limits_(limits),
      trust_(trust),
      rate_(rate),
      patience_(patience),
      retryPause_(patience.first / 2),
      settle_(std::move(settle)),
      report_(std::move(report)),
      room_(limits.memory, limits.temporaryFiles) {
    // One more than transfers at a time: what the plug-in asks for does not wait behind what it may ask for.
    for (unsigned i = 0; i <= limits_.atATime; ++i) threads_.emplace_back([this] { work(); });
}

MediaTransfers::~MediaTransfers() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void MediaTransfers::plan(std::vector<KnownItemPtr> items, bool certain) {
    const std::lock_guard<std::mutex> lock(mutex_);
    drop(0, 2 * items_.size());
    items_ = std::move(items);
    places_.clear();
    for (std::size_t i = 0; i < items_.size(); ++i) places_.emplace(items_[i]->id, i);
    next_ = 0;
    lastItem_ = 0;
    inARow_ = 0;
    certain_ = certain;
    changed_.notify_all();
}

std::shared_ptr<MediaBody> MediaTransfers::open(const KnownItem& item, bool isThumbnail) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::shared_ptr<MediaBody> body;
    const auto place = places_.find(item.id);
    if (place != places_.end()) {
        const std::size_t entry = 2 * place->second + isThumbnail;
        if (!isThumbnail) {
            inARow_ = inARow_ > 0 && place->second == lastItem_ + 1 ? inARow_ + 1 : 1;
            lastItem_ = place->second;
        }
        drop(0, entry);  // What was passed over is not wanted.
        const auto found = ahead_.find(entry);
        if (found != ahead_.end()) {
            body = std::move(found->second);
            ahead_.erase(found);
            const MediaBody::State state = body->await(std::chrono::milliseconds(0));
            if (state != MediaBody::State::Waiting && state != MediaBody::State::Begun) body = nullptr;
        }
        next_ = std::max(next_, entry + 1);
    }
    if (body == nullptr) {
        body = std::make_shared<MediaBody>(room_);
        asked_.push_back({item, isThumbnail, body});
    }
    body->attach();
    changed_.notify_all();
    return body;
}

/// Forgets the entries that wait between the two.
void MediaTransfers::drop(std::size_t from, std::size_t to) {
    const auto first = ahead_.lower_bound(from);
    const auto last = ahead_.lower_bound(to);
    for (auto each = first; each != last; ++each) each->second->cancel();
    ahead_.erase(first, last);
}

void MediaTransfers::work() {
    HttpClient http(trust_, rate_);
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        Job job;
        if (!nextJob(job)) {
            // Room becomes free without a word.
            changed_.wait_for(lock, kLook);
            continue;
        }
        ++running_;
        lock.unlock();
        fetch(http, job);
        job = Job();
        lock.lock();
        --running_;
        changed_.notify_one();
    }
}

bool MediaTransfers::nextJob(Job& job) {
    if (!asked_.empty()) {
        job = std::move(asked_.front());
        asked_.erase(asked_.begin());
        return true;
    }
    if (!certain_ && inARow_ < kItemsInARow) return false;
    if (running_ >= limits_.atATime || next_ >= 2 * items_.size()) return false;
    if (ahead_.size() >= kMostAhead || !room_.hasMemory()) return false;
    const std::size_t entry = next_++;
    job = {*items_[entry / 2], entry % 2 == 1, std::make_shared<MediaBody>(room_)};
    ahead_[entry] = job.body;
    return true;
}

void MediaTransfers::fetch(HttpClient& http, Job& job) {
    MediaBody& body = *job.body;
    const Cancelled cancelled = [&] { return stopping_ || body.isCancelled(); };
    const auto fail = [&](const std::string& sentence, Failure::Kind kind) {
        // One step: whoever has begun to wait by now is told, and whoever comes later asks again.
        const std::lock_guard<std::mutex> lock(mutex_);
        if (body.isAwaited()) report_(job.item, sentence, kind);
        body.fail(kind);
    };
    try {
        const auto source = [&]() -> const std::string& {
            return job.isThumbnail ? job.item.renditions.thumbnail.source : job.item.renditions.best.source;
        };
        if (!job.item.settled && (!job.isThumbnail || source().empty())) settle_(http, job.item, cancelled);
        if (source().empty()) {
            return fail("The service names no file of it.", Failure::Kind::NotFound);
        }
        fetchMedia(http, source(), patience_, body, retryPause_, cancelled);
        body.finish();
    } catch (CancelledFailure&) {
        body.fail(Failure::Kind::Unavailable);
    } catch (Failure& failure) {
        fail(failure.what(), failure.kind());
    } catch (std::exception& exception) {
        fail(exception.what(), Failure::Kind::Unavailable);
    }
}

}  // namespace flickr_gateway
