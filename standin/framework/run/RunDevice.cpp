#include "standin/framework/run/RunDevice.h"

#include <unistd.h>

#include <mutex>

#include "standin/framework/base/Localisation.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/NewDescription.h"
#include "standin/framework/run/Log.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunState.h"

namespace flickr_standin {

namespace {

struct SharedDevice {
    std::mutex mutex;
    std::shared_ptr<RunDevice> device;
};

SharedDevice& sharedDevice() {
    static SharedDevice shared;
    return shared;
}

/// Does work with the device that is open, if there is one. What fails stays pending, and recovery settles
/// it.
template <typename Work>
void withOpenDevice(Work work) {
    const std::lock_guard<std::mutex> lock(sharedDevice().mutex);
    if (!sharedDevice().device) return;
    try {
        work(*sharedDevice().device);
    } catch (Poco::Exception& exception) {
        recordIfDeviceFailure(exception);
    }
}

/// Whoever gave the description is not there any more to be told that it cannot be written.
void writeOrTell(Device& device, const std::string& folder, const std::string& text) {
    try {
        if (device.isFolder(folder)) writeFolderDescription(device, folder, text);
    } catch (Poco::Exception& exception) {
        recordIfDeviceFailure(exception);
        writeLogLine(LogLine::Failure, "RECORD " + folder + " - " + exception.message(), __FILE__, __LINE__);
        RunJournal::instance().folderDescriptionFailed(folder, exception.message());
    }
}

}  // namespace

bool RunDevice::isTaken(const std::string& path, const std::string& item) {
    if (isWaiting(path)) flushRows();
    return staged_.holds(path) || (status(path) && !owns(path, item));
}

std::string RunDevice::folderDescription(const std::string& folder) {
    {
        const std::lock_guard<std::mutex> lock(descriptionMutex_);
        if (description_ && description_->folder == folder) return description_->text;
    }
    return readDescription(folder, kFolderDescription);
}

void RunDevice::describeFolder(const std::string& folder, const std::string& text) {
    {
        const std::lock_guard<std::mutex> lock(descriptionMutex_);
        if (description_ && description_->folder == folder) {
            description_->text = text;
            return;
        }
    }
    writeWaitingDescription();
    if (folderDescription(folder).empty()) return writeFolderDescription(*this, folder, text);
    const std::lock_guard<std::mutex> lock(descriptionMutex_);
    description_ = {folder, text};
}

void RunDevice::writeWaitingDescription() {
    std::optional<FolderDescription> waiting;
    {
        const std::lock_guard<std::mutex> lock(descriptionMutex_);
        waiting.swap(description_);
    }
    if (waiting) writeOrTell(*this, waiting->folder, waiting->text);
}

void RunDevice::settle() {
    staged_.place();
    writeWaitingDescription();
}

void RunDevice::finish() {
    try {
        staged_.place();
    } catch (Poco::Exception&) {
        ledger().leaveInUse();
    }
    writeWaitingDescription();
    Device::finish();
}

std::shared_ptr<RunDevice> openRunDevice() {
    const std::string folder = currentServiceFolder(), word = wordOf(kThumbnailKey);
    SharedDevice& shared = sharedDevice();
    const std::lock_guard<std::mutex> lock(shared.mutex);
    if (shared.device && shared.device->path() == folder && shared.device->thumbnailWord() == word) {
        shared.device->requireThere();
        return shared.device;
    }
    shared.device.reset();
    shared.device = std::make_shared<RunDevice>(folder, currentMountPoint(), word);
    return shared.device;
}

std::shared_ptr<RunDevice> runDeviceIfThere() {
    const std::string folder = currentServiceFolder();
    if (folder.empty() || ::access(folder.c_str(), F_OK) != 0) return nullptr;
    return openRunDevice();
}

std::shared_ptr<RunDevice> deviceInUse() {
    const std::lock_guard<std::mutex> lock(sharedDevice().mutex);
    return sharedDevice().device;
}

void closeRunDevice() {
    std::shared_ptr<RunDevice> last;
    {
        const std::lock_guard<std::mutex> lock(sharedDevice().mutex);
        last.swap(sharedDevice().device);
    }
    if (last) last->finish();
}

void noteRecorded(const std::string& itemId) {
    withOpenDevice([&](Device& device) {
        if (device.ledger().settleItemLater(itemId)) device.flushRows();
    });
}

void noteFolder(const std::string& setId, const std::string& folder) {
    withOpenDevice([&](Device& device) {
        if (setId != kNoSetId && device.isFolder(folder)) device.ledger().setFolderOwner(folder, setId);
    });
}

void recordIfDeviceFailure(const Poco::Exception& exception) {
    if (const auto* failure = dynamic_cast<const DeviceFailure*>(&exception)) recordDeviceFailure(*failure);
}

void recordDeviceFailure(const DeviceFailure& failure) {
    switch (failure.kind()) {
        case DeviceFailure::Kind::Full:
            return recordCatastrophe(RunErrorDeviceFull, failure.summary());
        case DeviceFailure::Kind::Gone:
            return recordCatastrophe(RunErrorDeviceGone, failure.summary());
        case DeviceFailure::Kind::ReadOnly:
            return recordCatastrophe(RunErrorDeviceReadOnly, failure.summary());
    }
}

}  // namespace flickr_standin
