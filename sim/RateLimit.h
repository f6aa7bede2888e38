// How many requests a service answers in a while.

#ifndef SIM_RATELIMIT_H
#define SIM_RATELIMIT_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

namespace flickr_sim {

/// A limit's values.
struct Limit {
    std::uint64_t requests = 0;         ///< in a window; 0: no limit
    std::chrono::seconds window{3600};  ///< begins with its first request
};

/// Counts requests window by window. For any number of threads.
class RateLimit {
public:
    explicit RateLimit(Limit limit) : limit_(limit) {}

    /// Replaces the values and begins a new window.
    void set(Limit limit);
    Limit get() const;
    /// Takes one request: none while there is room, otherwise the seconds until the next window, at least 1.
    std::optional<std::chrono::seconds> take();

private:
    using Clock = std::chrono::steady_clock;

    mutable std::mutex mutex_;
    Limit limit_;
    Clock::time_point end_{};  // of the window
    std::uint64_t taken_ = 0;
};

}  // namespace flickr_sim

#endif
