// What the program remembers of a device: that a backup stood at its path, and the last runs.
//
//   ~/.local/state/flickr-backup/devices/ID.json      ID: the start of the SHA-1 of the device's path
//
//   {"device": "/media/usb",
//    "runs": [{"began": "2026-03-01T02:00:00Z", "ended": "2026-03-01T02:14:09Z", "result": "success",
//              "new": 12, …}, …]}                    oldest first; members as in the summary of a run
//
// A run that was cut off has no "ended". The file stands with the user and not on the device, so that it can
// tell of one that is not there.

#ifndef STANDIN_APP_DEVICEHISTORY_H
#define STANDIN_APP_DEVICEHISTORY_H

#include <Poco/JSON/Array.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace flickr_app {

/// One run. Times are ISO 8601, UTC.
struct PastRun {
    std::string began;
    std::string ended;   ///< empty while it lasts, and for ever when it was cut off
    std::string result;  ///< "success", "failed" or "stopped"; empty as ended
    std::int64_t newItems = 0;
    std::int64_t editedItems = 0;
    std::int64_t unchangedItems = 0;
    std::int64_t failures = 0;
    std::int64_t untriedItems = 0;
    std::int64_t untriedSets = 0;
    std::int64_t bytes = 0;
};

/// As the file and "status --json" have them.
Poco::JSON::Array jsonRuns(const std::vector<PastRun>& runs);

/// How many runs are kept.
constexpr std::size_t kMostPastRuns = 100;

/// The memory of one device. Who writes holds the device's lock.
class DeviceHistory {
public:
    /// device: its absolute path. A file that is missing or cannot be read counts as none.
    explicit DeviceHistory(const std::string& device);

    /// Whether a backup stood there.
    bool isKnown() const { return isKnown_; }
    /// Oldest first.
    const std::vector<PastRun>& runs() const { return runs_; }

    // Both answer what went wrong; empty when nothing did, and when the user has no home.
    /// A run begins now.
    std::string begin();
    /// It has ended so, now; "began" and "ended" are filled in.
    std::string end(PastRun run);

private:
    std::string save() const;

    const std::string device_;
    std::string file_;  // empty: nothing is kept
    bool isKnown_ = false;
    std::vector<PastRun> runs_;
};

}  // namespace flickr_app

#endif
