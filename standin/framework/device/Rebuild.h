// Makes the databases of a backup anew, when its database is lost or damaged.
//
//   backup.db       a row for each item with a description and a file, and for each set with either; the
//                   dates are those of the descriptions
//   .ledger.db      a row for each of these files; the checksum is the one that the ledger before held, where
//                   it can be read, otherwise the file's as it is now
//
// Both are made beside their places, and take them when they are whole and on the disk. What stood there is
// kept as backup.db.old, .old-2 and so on.

#ifndef STANDIN_FRAMEWORK_DEVICE_REBUILD_H
#define STANDIN_FRAMEWORK_DEVICE_REBUILD_H

#include <functional>
#include <string>
#include <vector>

#include "standin/framework/device/BackupReading.h"

namespace flickr_standin {

struct RebuildReport {
    long sets = 0;  ///< the items in no set not counted
    long items = 0;
    long withoutUpload = 0;  ///< items of which it is not known when they were uploaded
    long newChecksums = 0;   ///< files that are taken for whole as they are
    std::vector<std::string>
        toFetchAgain;                  ///< paths of items that lack a thumbnail or the date of their change
    std::vector<std::string> leftOut;  ///< paths of files whose descriptions do not fit their place, sorted
    std::vector<std::string> kept;     ///< names under which the databases that stood there are kept
};

/// place: with the path that the database is to have. The device has to be locked; recoverDevice() is to
/// follow. progress, when given, is called after each item, and may throw to end it: then all is as before. A
/// kill leaves the databases that were there, or the new ones, or none and the next call as good as this one.
/// Throws Poco::Exception with a sentence for the user.
RebuildReport rebuildDatabases(const BackupPlace& place,
                               const std::function<void(const RebuildReport&)>& progress = {});

}  // namespace flickr_standin

#endif
