#include "sim/RateLimit.h"

namespace flickr_sim {

void RateLimit::set(Limit limit) {
    std::lock_guard<std::mutex> lock(mutex_);
    limit_ = limit;
    end_ = Clock::time_point{};
}

Limit RateLimit::get() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return limit_;
}

std::optional<std::chrono::seconds> RateLimit::take() {
    std::lock_guard<std::mutex> lock(mutex_);
    const Clock::time_point now = Clock::now();
    if (now >= end_) {
        end_ = now + limit_.window;
        taken_ = 0;
    }
    if (limit_.requests == 0 || taken_ < limit_.requests) {
        ++taken_;
        return std::nullopt;
    }
    return std::chrono::duration_cast<std::chrono::seconds>(end_ - now) + std::chrono::seconds(1);
}

}  // namespace flickr_sim
