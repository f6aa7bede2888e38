// Media files for the plug-in, fetched before it asks for them.
//
// The plug-in asks for one file at a time: an item's media file, its thumbnail, the next item. The gateway
// knows the order. So while the plug-in takes one file, the ones that follow are on their way, several at a
// time, and wait for it.

#ifndef GATEWAY_MEDIATRANSFERS_H
#define GATEWAY_MEDIATRANSFERS_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gateway/HttpClient.h"
#include "gateway/KnownItem.h"
#include "gateway/MediaFetch.h"
#include "gateway/Patience.h"
#include "gateway/Spool.h"

namespace flickr_gateway {

/// How much may be under way and wait.
struct TransferLimits {
    unsigned atATime = 4;                       ///< 1 to 8
    std::uint64_t memory = 64u << 20;           ///< bytes that wait in memory
    std::uint64_t temporaryFiles = 256u << 20;  ///< bytes that wait in files
};

/// Can be used from several threads.
class MediaTransfers {
public:
    /// Settles an item that is not: finds its best rendition, asking the service where it has to. Throws
    /// Failure and CancelledFailure.
    using Settle = std::function<void(HttpClient& http, KnownItem& item, const Cancelled& cancelled)>;
    /// Tells of an item whose file could not be had, when it was asked for.
    using Report =
        std::function<void(const KnownItem& item, const std::string& sentence, Failure::Kind kind)>;

    MediaTransfers(const TransferLimits& limits, const HttpTrust& trust, RateLimit& rate,
                   const PatienceLimits& patience, Settle settle, Report report);
    /// Ends all transfers, within a fifth of a second.
    ~MediaTransfers();
    MediaTransfers(const MediaTransfers&) = delete;
    MediaTransfers& operator=(const MediaTransfers&) = delete;

    /// The items that the plug-in will fetch next, in its order; replaces what is left of the former ones.
    /// certain: it will fetch every one of them. Otherwise the first are fetched ahead of it once it has
    /// asked for two items in a row.
    void plan(std::vector<KnownItemPtr> items, bool certain);

    /// The file that the plug-in asks for, already under way or begun now, ahead of all others. Its reader
    /// is attached. Whoever lets go of it early has to cancel it.
    std::shared_ptr<MediaBody> open(const KnownItem& item, bool isThumbnail);

    /// What is left of the wait that the media hosts want.
    std::chrono::milliseconds wait() const { return patience_.remaining(); }

private:
    struct Job {
        KnownItem item;
        bool isThumbnail = false;
        std::shared_ptr<MediaBody> body;
    };

    void work();
    bool nextJob(Job& job);
    void fetch(HttpClient& http, Job& job);
    void drop(std::size_t from, std::size_t to);

    const TransferLimits limits_;
    const HttpTrust trust_;
    RateLimit& rate_;
    Patience patience_;
    const std::chrono::milliseconds retryPause_;
    const Settle settle_;
    const Report report_;
    SpoolRoom room_;

    std::atomic<bool> stopping_{false};
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::vector<Job> asked_;
    unsigned running_ = 0;
    // The plan: entry 2 n is the media file of item n, entry 2 n + 1 its thumbnail.
    std::vector<KnownItemPtr> items_;
    std::map<std::string, std::size_t> places_;                // of items, by id
    std::map<std::size_t, std::shared_ptr<MediaBody>> ahead_;  // by entry
    std::size_t next_ = 0;                                     // the next entry to fetch ahead
    std::size_t lastItem_ = 0;
    unsigned inARow_ = 0;
    bool certain_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace flickr_gateway

#endif
