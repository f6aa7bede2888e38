#include "gateway/Patience.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeParser.h>
#include <Poco/NumberParser.h>

#include <algorithm>
#include <thread>

namespace flickr_gateway {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLongestNamed = std::chrono::hours(24);

/// 0 for a value that names no time.
milliseconds timeNamedBy(const std::string& retryAfter) {
    Poco::UInt64 number = 0;
    if (Poco::NumberParser::tryParseUnsigned64(retryAfter, number)) {
        if (number >= static_cast<Poco::UInt64>(kLongestNamed.count() / 1000)) return kLongestNamed;
        return std::chrono::seconds(number);
    }
    Poco::DateTime date;
    int zone = 0;
    if (!Poco::DateTimeParser::tryParse(Poco::DateTimeFormat::HTTP_FORMAT, retryAfter, date, zone)) {
        return milliseconds(0);
    }
    const Poco::Timestamp::TimeDiff left = date.timestamp() - Poco::Timestamp();
    return std::clamp(milliseconds(left / 1000), milliseconds(0), kLongestNamed);
}

}  // namespace

unsigned Patience::await(const Cancelled& cancelled) {
    for (;;) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            const Clock::time_point now = Clock::now();
            if (now >= until_) return wait_;
            requireHope(now);
        }
        if (cancelled()) throw CancelledFailure();
        std::this_thread::sleep_for(std::min(remaining(), milliseconds(100)));
    }
}

void Patience::refused(unsigned wait, const std::string& retryAfter) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Clock::time_point now = Clock::now();
    if (troubleSince_ == Clock::time_point()) troubleSince_ = now;
    if (wait == wait_) {  // The first to come back from this wait; the others learn nothing new.
        ++wait_;
        next_ = std::clamp(next_ * 2, limits_.first, limits_.longest);
        milliseconds time = timeNamedBy(retryAfter);
        if (time.count() == 0) {
            // Up to a quarter more, so that several machines do not come back together.
            time = next_ + next_ * (random_() % 256) / 1024;
        }
        until_ = now + time;
    }
    requireHope(now);
}

void Patience::requireHope(Clock::time_point now) const {
    if (troubleSince_ == Clock::time_point() || now - troubleSince_ < limits_.giveUp) return;
    throw Failure(Failure::Kind::Unavailable, "The service has only asked us to wait for too long.");
}

void Patience::succeeded() {
    const std::lock_guard<std::mutex> lock(mutex_);
    troubleSince_ = Clock::time_point();
    next_ = milliseconds(0);
}

milliseconds Patience::remaining() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto left = std::chrono::duration_cast<milliseconds>(until_ - Clock::now());
    return std::max(left, milliseconds(0));
}

}  // namespace flickr_gateway
