// Puts a device in order after a run that was killed, or that left an item half way.

#ifndef STANDIN_FRAMEWORK_DEVICE_RECOVERY_H
#define STANDIN_FRAMEWORK_DEVICE_RECOVERY_H

#include <string>
#include <vector>

namespace flickr_standin {

class BackupDatabase;
class Device;

struct RecoveryReport {
    long removed = 0;   ///< half-written files, files of items that were never recorded, old versions
    long restored = 0;  ///< files and folders that got their recorded names back
    long adopted = 0;   ///< recorded files that the ledger did not know
    /// Paths of files that others have taken the place of, and that cannot become older versions.
    std::vector<std::string> leftAside;
};

/// Brings the files on the device in line with the database: afterwards every file that the interrupted
/// run touched either is the one that its item's row names, whole, or is gone. Files that are not the
/// backup's own are left alone.
///
/// To be called while the device is locked and no run is going on: before a run, and after one, which
/// restores the old version of an edited item that could not be completed. Costs what was left unsettled,
/// plus one look at each recorded folder. Throws Poco::Exception with a sentence for the user.
RecoveryReport recoverDevice(BackupDatabase& database, Device& device);

}  // namespace flickr_standin

#endif
