// The device of the current run, which the file service and the database share. Every operation may be called
// from any thread.

#ifndef STANDIN_FRAMEWORK_RUN_RUNDEVICE_H
#define STANDIN_FRAMEWORK_RUN_RUNDEVICE_H

#include <memory>
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

    /// See Device; new files take their names before.
    void finish();

private:
    StagedFiles staged_{*this};
};

/// The device at the run's service folder, opened if it is not open yet. Throws DeviceException.
std::shared_ptr<RunDevice> openRunDevice();

/// The same, or none when there is no service folder yet.
std::shared_ptr<RunDevice> runDeviceIfThere();

/// Lets go of the device, with everything that was put off on the disk; whoever still holds it keeps it open.
void closeRunDevice();

/// The new files on the device that is open take their names, on the disk: the row of the details' item is
/// about to be written. Throws the DeviceException of the first that cannot; a failure of the device is
/// recorded.
void placeNewFiles(const ItemDetails& details = {});
/// The item's row is in the backup database: nothing of it is pending on the device that is open.
void noteRecorded(const std::string& itemId);
/// The set's row is in the backup database and names that folder: it is the set's from now on.
void noteFolder(const std::string& setId, const std::string& folder);

/// Records the failure as the run's error, and stops the run.
void recordDeviceFailure(const DeviceFailure& failure);

}  // namespace flickr_standin

#endif
