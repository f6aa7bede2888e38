// The device of the current run, which the file service and the database share. Every operation may be called
// from any thread.

#ifndef STANDIN_FRAMEWORK_RUN_RUNDEVICE_H
#define STANDIN_FRAMEWORK_RUN_RUNDEVICE_H

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "standin/framework/device/Device.h"
#include "standin/framework/device/StagedFiles.h"

namespace flickr_standin {

/// A device together with the new files on it that have no names yet.
class RunDevice : public Device {
public:
    using Device::Device;

    StagedFiles& staged() { return staged_; }

    /// True when that name cannot be given to the item: something of somebody else's has it.
    bool isTaken(const std::string& path, const std::string& item);

    /// A folder's description; empty when there is none.
    std::string folderDescription(const std::string& folder);
    /// Gives a folder its description. It changes with each new item and is written once for all of them:
    /// when another folder gets one, before folders change, and at the end of the use. A folder that has none
    /// gets it at once. After a kill the earlier one stands there until the next run, which gives one to
    /// every folder. Throws a DeviceException.
    void describeFolder(const std::string& folder, const std::string& text);

    /// New files take their names, and the folder's description is written. Throws the DeviceException of the
    /// first file that cannot; that a description cannot be written is told in the journal.
    void settle();

    /// See Device; everything is settled before.
    void finish();

private:
    struct FolderDescription {
        std::string folder, text;
    };
    void writeWaitingDescription();

    StagedFiles staged_{*this};
    std::mutex descriptionMutex_;                   // for what follows
    std::optional<FolderDescription> description_;  // that waits
};

/// The device at the run's service folder, opened if it is not open yet. Throws DeviceException.
std::shared_ptr<RunDevice> openRunDevice();

/// The same, or none when there is no service folder yet.
std::shared_ptr<RunDevice> runDeviceIfThere();

/// The device that is open, or none.
std::shared_ptr<RunDevice> deviceInUse();

/// Lets go of the device, with everything that was put off on the disk; whoever still holds it keeps it open.
void closeRunDevice();

/// The item's row is in the backup database: nothing of it is pending on the device that is open.
void noteRecorded(const std::string& itemId);
/// The set's row is in the backup database and names that folder: it is the set's from now on.
void noteFolder(const std::string& setId, const std::string& folder);

/// Records the failure as the run's error, and stops the run.
void recordDeviceFailure(const DeviceFailure& failure);
/// The same for an exception that is one; any other is passed over.
void recordIfDeviceFailure(const Poco::Exception& exception);

}  // namespace flickr_standin

#endif
