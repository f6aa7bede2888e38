// Compares what is recorded with what is on the device.
//
// The file service notes size and checksum (XXH3, 128 bits) of every file when it closes it, in the ledger
// ".records/.ledger.db" of the service folder. The checksum finds files that decayed or were changed by
// accident; it is no protection against somebody who changes both.

#ifndef STANDIN_FRAMEWORK_DEVICE_BACKUPCHECK_H
#define STANDIN_FRAMEWORK_DEVICE_BACKUPCHECK_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace flickr_standin {

class BackupDatabase;
class Device;

struct BackupReport {
    long items = 0;            ///< recorded items
    long files = 0;            ///< recorded files that were looked at: media and thumbnails
    std::uint64_t bytes = 0;   ///< their size
    long versions = 0;         ///< older versions of files that are kept; looked at when contents are read
    long withoutChecksum = 0;  ///< files whose content could not be compared because no checksum is kept
    std::map<std::string, std::uint64_t> folderBytes;  ///< by device folder, "" for the items in no set
    std::vector<std::string> missing;                  ///< recorded, and not on the device
    std::vector<std::string> altered;     ///< on the device with another size or content, or unreadable
    std::vector<std::string> unrecorded;  ///< on the device, recorded nowhere, no system's
    /// Descriptions that no viewer can use: those of items that are missing, no XML or another item's,
    /// and those of folders that are no XML or another folder's. Only when contents are read.
    std::vector<std::string> descriptions;
    std::vector<std::string> toFetchAgain;  ///< files of items that the next run fetches again
    std::set<std::string> damagedItems;     ///< ids of items of which a file or description is named above
    bool agrees() const {
        return missing.empty() && altered.empty() && unrecorded.empty() && descriptions.empty() &&
               toFetchAgain.empty();
    }
};

/// Told what a check has found so far.
using CheckProgress = std::function<void(const BackupReport&)>;

/// Whether a check reads the files; without, only those of another size count as altered.
enum class Contents { Read, SizesOnly };

/// All paths are relative to the service folder, sorted. progress, when given, is called after each file,
/// and often in a large one; it may throw to end the check. Throws Poco::Exception with a sentence when the
/// database or the device cannot be read.
BackupReport checkBackup(BackupDatabase& database, Device& device, Contents contents,
                         const CheckProgress& progress = {});

}  // namespace flickr_standin

#endif
