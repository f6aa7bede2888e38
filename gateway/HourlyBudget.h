// The requests that an application may send in an hour.
//
// The count is kept in a file that all runs with the same key share, a line for each minute of the last hour
// in which something was asked, and the moment before which the next request has to wait:
//
//   next 1795561283412
//   29926021 312
//   29926022 87
//
// (milliseconds since 1970, minutes since 1970). A file that cannot be read as that counts as empty.

#ifndef GATEWAY_HOURLYBUDGET_H
#define GATEWAY_HOURLYBUDGET_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace flickr_gateway {

/// Gives requests out at full speed until five sixths of the hour's are used, and then evenly, as fast as
/// older ones fall out of the hour. No sixty minutes see more than the limit.
class HourlyBudget {
public:
    using Now = std::function<std::chrono::system_clock::time_point()>;

    /// file: in the user's state folder; other processes may use it too. Empty: this object counts its own
    /// requests only.
    explicit HourlyBudget(std::string file, unsigned limit = 3600, Now now = &std::chrono::system_clock::now);

    /// Takes one request: 0 when it may be sent now, and otherwise, with nothing taken, the time after which
    /// to ask again. Throws Failure when the file cannot be kept. Can be used from several threads.
    std::chrono::milliseconds take();

private:
    std::chrono::milliseconds takeFrom(std::string& count) const;

    const std::string file_;
    const unsigned limit_;
    const Now now_;
    std::mutex mutex_;
    std::string count_;  // what the file would hold
};

}  // namespace flickr_gateway

#endif
