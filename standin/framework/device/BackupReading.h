// A backup that is only looked at: on a read-only device, without the right to write, after a kill.
//
// SQLite writes beside a database that it reads: the index of its log. Without that it fails, or hides what
// stands in the log only. So the databases are read from copies, with their logs, in a temporary folder, and
// nothing on the device changes. While a run is writing, its backup database is read in place, where the
// index stands anyway.

#ifndef STANDIN_FRAMEWORK_DEVICE_BACKUPREADING_H
#define STANDIN_FRAMEWORK_DEVICE_BACKUPREADING_H

#include <Poco/Exception.h>

#include <functional>
#include <memory>
#include <string>

#include "standin/framework/base/TemporaryFolder.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

/// Where a backup stands. Paths are absolute and real.
struct BackupPlace {
    std::string device;
    std::string database;  ///< path; empty when there is none
    std::string serviceFolder;
    std::string thumbnailWord;                ///< see Device
    std::function<void()> whileCopying = {};  ///< called now and then; what it throws ends the reading
};

class BackupReading {
public:
    /// Keeps runs off the device while it copies. Throws Poco::Exception with a sentence for the user.
    explicit BackupReading(const BackupPlace& place);

    /// Whether another command has the device for itself: the device's ledger is not known then.
    bool isInUse() const { return isInUse_; }
    bool hasDatabase() const { return database_ != nullptr; }
    /// The database, when there is one.
    BackupDatabase& database() const { return *database_; }
    /// The temporary folder in which the copies lie.
    const std::string& folder() const { return folder_.path(); }
    /// The service folder. Throws DeviceException when it is missing.
    Device& device();

    /// Does the work; what it throws names the files on the device, and not their copies.
    template <typename Work>
    auto read(Work work) const {
        try {
            return work();
        } catch (Poco::Exception& exception) {
            throw naming(exception);
        }
    }

private:
    /// The exception with the files on the device in the place of their copies.
    Poco::Exception naming(const Poco::Exception& exception) const;

    const BackupPlace place_;
    TemporaryFolder folder_;
    bool isInUse_ = false;
    std::unique_ptr<BackupDatabase> database_;
    std::unique_ptr<Device> device_;
};

}  // namespace flickr_standin

#endif
