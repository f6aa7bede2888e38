// Waiting when the service asks for it.

#ifndef GATEWAY_PATIENCE_H
#define GATEWAY_PATIENCE_H

#include <chrono>
#include <mutex>
#include <random>
#include <string>

#include "gateway/Failure.h"

namespace flickr_gateway {

/// How long.
struct PatienceLimits {
    std::chrono::milliseconds first{2000};      ///< the wait after a refusal that names no time; it doubles
    std::chrono::milliseconds longest{300000};  ///< up to this
    std::chrono::milliseconds giveUp{600000};   ///< without one success for so long a request fails
    std::chrono::milliseconds sign{15000};      ///< between the signs of life that the plug-in gets meanwhile
};

/// One wait for all who ask the same hosts. Can be used from several threads.
class Patience {
public:
    using Clock = std::chrono::steady_clock;

    explicit Patience(const PatienceLimits& limits) : limits_(limits) {}

    /// Waits as long as the service wants and returns the number of the wait that is over. Throws
    /// CancelledFailure, and Failure when it has refused everything for too long.
    unsigned await(const Cancelled& cancelled);

    /// The service refused a request that was sent after that wait and named this time (the value of
    /// Retry-After: seconds or a date; empty when it named none). Throws Failure as await() does.
    void refused(unsigned wait, const std::string& retryAfter);

    void succeeded();

    /// What is left of the wait.
    std::chrono::milliseconds remaining() const;

private:
    void requireHope(Clock::time_point now) const;

    const PatienceLimits limits_;
    mutable std::mutex mutex_;
    unsigned wait_ = 0;
    Clock::time_point until_{};
    std::chrono::milliseconds next_{0};
    Clock::time_point troubleSince_{};  // the epoch: there is none
    std::minstd_rand random_{std::random_device()()};
};

}  // namespace flickr_gateway

#endif
