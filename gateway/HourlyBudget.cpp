#include "gateway/HourlyBudget.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <utility>

#include "gateway/Failure.h"

namespace flickr_gateway {

namespace {

using std::chrono::milliseconds;

constexpr std::int64_t kMinute = 60000;
// A minute more than an hour: the oldest one counts until its last request is an hour old.
constexpr std::int64_t kMinutesKept = 61;
constexpr std::size_t kLargestFile = 16 << 10;

struct Usage {
    std::int64_t next = 0;
    std::map<std::int64_t, unsigned> minutes;

    static Usage read(const std::string& text) {
        std::istringstream stream(text);
        Usage usage;
        std::string word;
        if (!(stream >> word >> usage.next) || word != "next") return Usage();
        std::int64_t minute = 0;
        unsigned count = 0;
        while (stream >> minute >> count) usage.minutes[minute] += count;
        return stream.eof() ? usage : Usage();
    }

    std::string text() const {
        std::string text = "next " + std::to_string(next) + "\n";
        for (const auto& [minute, count] : minutes) {
            text += std::to_string(minute) + " " + std::to_string(count) + "\n";
        }
        return text;
    }

    /// Keeps what counts now. What lies in the future was written before the clock was set back.
    void forget(std::int64_t minute) {
        minutes.erase(minutes.begin(), minutes.upper_bound(minute - kMinutesKept));
        minutes.erase(minutes.upper_bound(minute), minutes.end());
        next = std::min(next, (minute + kMinutesKept) * kMinute);
    }

    unsigned used() const {
        unsigned sum = 0;
        for (const auto& each : minutes) sum += each.second;
        return sum;
    }
};

class LockedFile {
public:
    explicit LockedFile(const std::string& path)
        : descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
        if (descriptor >= 0 && ::flock(descriptor, LOCK_EX) == 0) return;
        fail(path);
    }
    ~LockedFile() {
        if (descriptor >= 0) ::close(descriptor);
    }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    std::string text() const {
        char text[kLargestFile];
        const ssize_t size = ::pread(descriptor, text, sizeof text, 0);
        return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    }

    bool write(const std::string& text) const {
        return ::pwrite(descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
               ::ftruncate(descriptor, static_cast<off_t>(text.size())) == 0;
    }

    [[noreturn]] static void fail(const std::string& path) {
        throw Failure(Failure::Kind::Unavailable,
                      "The count of requests cannot be kept in " + path + ": " + std::strerror(errno) + ".");
    }

    const int descriptor;
};

}  // namespace

HourlyBudget::HourlyBudget(std::string file, unsigned limit, Now now)
    : file_(std::move(file)), limit_(limit), now_(std::move(now)) {}

milliseconds HourlyBudget::take() {
    if (file_.empty()) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return takeFrom(count_);
    }
    const LockedFile file(file_);
    std::string count = file.text();
    const milliseconds wait = takeFrom(count);
    if (wait.count() == 0 && !file.write(count)) LockedFile::fail(file_);
    return wait;
}

milliseconds HourlyBudget::takeFrom(std::string& count) const {
    const std::int64_t now = std::chrono::duration_cast<milliseconds>(now_().time_since_epoch()).count();
    const std::int64_t minute = now / kMinute;
    Usage usage = Usage::read(count);
    usage.forget(minute);

    const unsigned used = usage.used();
    // Until the oldest minute no longer counts.
    const std::int64_t relief =
        usage.minutes.empty() ? 0 : (usage.minutes.begin()->first + kMinutesKept) * kMinute - now;
    if (used >= limit_) return milliseconds(std::max<std::int64_t>(relief, 1));
    const unsigned left = limit_ - used;
    const bool low = left <= limit_ / 6;
    if (low && usage.next > now) return milliseconds(usage.next - now);

    usage.next = low ? now + relief / left : now;
    ++usage.minutes[minute];
    count = usage.text();
    return milliseconds(0);
}

}  // namespace flickr_gateway
