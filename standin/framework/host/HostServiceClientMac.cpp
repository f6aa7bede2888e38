// How a file comes to the device, so that a kill between any two steps leaves either nothing under its final
// name or all of it:
//
//   openFile     the ledger is marked as in use, then Trip/.part-PID-N is made
//   writeFileV2  bytes go there, see NewFile.h
//   closeFile    the rest of the bytes; the description waits for what the item's row will say
//
// Then the file counts as one of its name for every operation. It takes the name together with the item's
// other files, see StagedFiles.h: when the item's row is about to be written, or an operation needs it under
// its name.
//
// The ledger's row stays pending until the item's row is known to be in the backup database; Recovery.h
// settles what is left.

#include "hostapi/HostServiceClientMac.h"

#include <Poco/Data/DataException.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <initializer_list>
#include <map>

#include "hostapi/Conventions.h"
#include "hostapi/DevLogger.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/device/NewFile.h"
#include "standin/framework/device/StagedFiles.h"
#include "standin/framework/host/ExceptionCode.h"
#include "standin/framework/run/RunDevice.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunState.h"

namespace Norvale_Plugin_Core {

using namespace flickr_standin;

namespace {

constexpr const char* kFailure = "ERR";

/// The plug-in makes a set's thumbnail folder together with the set's. When the language has changed since,
/// or somebody removed the folder, it would be missing for good.
void makeThumbnailFolder(Device& device, const std::string& folder) {
    if (folder.empty() || nameOf(folder) != device.thumbnailWord() || device.status(folder)) return;
    const std::string set = folderOf(folder);
    if (set.empty() || device.isFolder(set)) device.makeFolder(folder);
}

/// The cover that stands on the device: the row of an edited item may name the format that it had before.
std::string standingCover(Device& device, const std::string& cover) {
    if (cover.empty() || device.isFile(cover)) return cover;
    for (const std::string& path :
         withImageExtensions(joinPath(folderOf(cover), splitName(nameOf(cover)).base))) {
        if (device.isFile(path)) return path;
    }
    return cover;
}

}  // namespace

struct HostServiceClientMac::Impl {
    std::shared_ptr<RunDevice> device;
    std::map<long, std::unique_ptr<NewFile>> files;
    std::string lastItem;  // the item closed last: the next file without a description is its thumbnail

    /// The device of the run; the service folder may have changed since the last call.
    RunDevice& current() {
        if (!device || device->path() != currentServiceFolder() || files.empty()) device = openRunDevice();
        return *device;
    }

    /// The same, for an operation on these paths.
    RunDevice& deviceFor(std::initializer_list<std::string> paths) {
        RunDevice& opened = current();
        for (const std::string& path : paths) Device::checkPath(path);
        return opened;
    }

    NewFile& file(long handle) {
        const auto found = files.find(handle);
        if (found == files.end()) throw DeviceException("No file is open under " + std::to_string(handle));
        return *found->second;
    }

    void close(long handle, const std::string& metadata);
};

namespace {

/// The ledger lies on the device: what SQLite says of it is said of the device.
void recordLedgerFailure(int code, const std::string& text) {
    switch (code & 0xff) {
        case SQLITE_FULL:
            return recordCatastrophe(RunErrorDeviceFull, text);
        case SQLITE_IOERR:
            return recordCatastrophe(RunErrorDeviceGone, text);
        case SQLITE_READONLY:
            return recordCatastrophe(RunErrorDeviceReadOnly, text);
        default:
            recordRunError(RunErrorDatabase, text);
    }
}

/// The three texts in which the plug-in gets the answer.
struct Answer {
    std::string& command;
    std::string& result;
    std::string& error;
};

/// What a refusal means for the item that is transferred. Behind the others the plug-in goes on.
enum class Refused { ItemFails, ItemGoesOn };

/// Runs an operation and says how it went; true when it was not refused. In a dry run it is not run.
template <typename Operation>
bool answer(const std::string& description, const Answer& texts, Refused refused, Operation operation) {
    auto& [command, result, error] = texts;
    command = description;
    result = kFileServiceSuccess;
    error.clear();
    if (isDryRun()) return true;
    try {
        operation();
        return true;
    } catch (DeviceFailure& failure) {
        error = failure.message();
        recordDeviceFailure(failure);
    } catch (DeviceException& exception) {
        error = exception.message();
    } catch (Poco::Data::DataException& exception) {
        error = exception.message();
        recordLedgerFailure(exception.code(), error);
    } catch (Poco::Exception& exception) {
        error = exception.displayText();
        recordRunError(runErrorOf(exception), error);
    }
    result = kFailure;
    DevLogger::writeLog(description + " - " + error, LogLevelFailure, __FILE__, __LINE__);
    if (refused == Refused::ItemFails) RunJournal::instance().fileServiceFailed(error);
    return false;
}

}  // namespace

HostServiceClientMac::HostServiceClientMac() : impl_(std::make_unique<Impl>()) {}

HostServiceClientMac::~HostServiceClientMac() = default;

void HostServiceClientMac::connect() {
    std::string command, result, error;
    answer("CONNECT", {command, result, error}, Refused::ItemFails, [&] { impl_->current(); });
}

void HostServiceClientMac::disConnect() {
    if (impl_->files.empty()) impl_->lastItem.clear();
}

long HostServiceClientMac::openFile(std::string path, long mode, std::string& command, std::string& result,
                                    std::string& error) {
    RunJournal::instance().fileOpened(path);
    if (isDryRun()) {
        // Refused, so that the file is not asked for.
        RunJournal::instance().wouldFetch();
        command = "OPEN " + path;
        result = kFailure;
        error = "Nothing is fetched in a dry run";
        return mode;
    }
    answer("OPEN " + path, {command, result, error}, Refused::ItemFails, [&] {
        impl_->files.erase(mode);
        RunDevice& device = impl_->deviceFor({path});
        makeThumbnailFolder(device, folderOf(path));
        impl_->files.emplace(mode, std::make_unique<NewFile>(device, path));
    });
    return mode;
}

void HostServiceClientMac::writeFileV2(int handle, char* buffer, int count, std::string& command,
                                       std::string& result, std::string& error) {
    answer("WRITE " + std::to_string(handle) + " " + std::to_string(count), {command, result, error},
           Refused::ItemFails, [&] {
               NewFile& open = impl_->file(handle);
               if (count < 0 || (count > 0 && !buffer)) throw DeviceException("There are no bytes to write");
               const auto size = static_cast<std::size_t>(count);
               open.add(buffer, size);
               addWrittenBytes(size);
           });
}

void HostServiceClientMac::closeFile(long handle, char* metadata, int length, std::string& command,
                                     std::string& result, std::string& error) {
    answer("CLOSE " + std::to_string(handle), {command, result, error}, Refused::ItemFails, [&] {
        std::string text;
        if (metadata && length > 0) text.assign(metadata, static_cast<std::size_t>(length));
        impl_->close(handle, text);
    });
}

void HostServiceClientMac::Impl::close(long handle, const std::string& metadata) {
    const std::string item = metadata.empty() ? lastItem : descriptionField(metadata, "ID");
    NewFile& open = file(handle);
    open.finish();
    // Refused, it stays open.
    if (device->stands(open.path()) && !device->owns(open.path(), item)) {
        throw DeviceException("Cannot write \"" + open.path() + "\": something else stands there already");
    }
    device->staged().add(std::move(files.extract(handle).mapped()), item, metadata);
    if (!metadata.empty()) {
        lastItem = item;
        addFinishedItem();
    }
}

void HostServiceClientMac::deleteFile(long handle, std::string& command, std::string& result,
                                      std::string& error) {
    answer("DISCARD " + std::to_string(handle), {command, result, error}, Refused::ItemGoesOn, [&] {
        impl_->file(handle);
        impl_->files.erase(handle);
    });
}

void HostServiceClientMac::deleteFile(std::string path, std::string& command, std::string& result,
                                      std::string& error) {
    answer("DELETE " + path, {command, result, error}, Refused::ItemGoesOn, [&] {
        RunDevice& device = impl_->deviceFor({path});
        if (device.staged().discard(path)) return;
        if (!device.status(path)) throw DeviceException("\"" + path + "\" does not exist");
        if (!device.owns(path)) throw DeviceException("\"" + path + "\" was not written by the backup");
        const std::optional<LedgerFile> file = device.ledger().file(path);
        if (file && !file->was.empty()) return device.retireFileLater(path);
        device.removeFile(path);
    });
}

void HostServiceClientMac::renameFile(std::string from, std::string to, std::string& command,
                                      std::string& result, std::string& error) {
    if (isDryRun()) RunJournal::instance().wouldPutAside();
    answer("RENAME " + from + " " + to, {command, result, error}, Refused::ItemGoesOn, [&] {
        RunDevice& device = impl_->deviceFor({from, to});
        device.staged().place();
        if (!device.status(from)) throw DeviceException("\"" + from + "\" does not exist");
        if (!device.owns(from)) throw DeviceException("\"" + from + "\" was not written by the backup");
        if (from == to) return;
        const std::optional<LedgerFile> file = device.ledger().file(from);
        // Back where it was before: nothing is aside any more.
        const bool back = file && file->was == nameOf(to);
        if (!back && folderOf(from) == folderOf(to)) {
            device.putFileAside(from, to);
        } else {
            device.renameFile(from, to);
        }
    });
}

void HostServiceClientMac::createDirectory(std::string path, std::string& command, std::string& result,
                                           std::string& error) {
    const bool made = answer("MKDIR " + path, {command, result, error}, Refused::ItemGoesOn, [&] {
        RunDevice& device = impl_->deviceFor({path});
        device.staged().place();
        device.makeFolder(path);
    });
    if (made) return;
    // A set's thumbnail folder is told as the set's.
    const bool isThumbnails = nameOf(path) == wordOf(kThumbnailKey) && !folderOf(path).empty();
    RunJournal::instance().folderFailed(isThumbnails ? folderOf(path) : path, error);
}

void HostServiceClientMac::renameDirectory(std::string from, std::string to, std::string& command,
                                           std::string& result, std::string& error) {
    const bool renamed =
        answer("RENAMEDIR " + from + " " + to, {command, result, error}, Refused::ItemGoesOn, [&] {
            RunDevice& device = impl_->deviceFor({from, to});
            device.settle();
            device.renameFolder(from, to);
        });
    if (renamed) {
        RunJournal::instance().folderRenamed(from, to);
    } else {
        RunJournal::instance().folderFailed(from + " to " + to, error);
    }
}

void HostServiceClientMac::deleteDirectory(std::string path, std::string& command, std::string& result,
                                           std::string& error) {
    answer("RMDIR " + path, {command, result, error}, Refused::ItemGoesOn, [&] {
        RunDevice& device = impl_->deviceFor({path});
        device.settle();
        device.flushRows();
        device.removeFolder(path);
    });
}

void HostServiceClientMac::writeFolderDataXML(std::string root, std::string description, std::string) {
    const std::string folder = descriptionField(description, "PhysicalFileName");
    std::string command, result, error;
    const bool written = answer("RECORD " + folder, {command, result, error}, Refused::ItemGoesOn, [&] {
        RunDevice& device = impl_->current();
        if (root != device.path() + "/") throw DeviceException("\"" + root + "\" is not the service folder");
        Device::checkPath(folder);
        device.staged().place();
        if (!device.isFolder(folder)) return;  // a set without items on the device has no folder
        const std::string set = descriptionField(description, "ID");
        const std::string owner = device.ledger().folderOwner(folder);
        const std::string before = device.folderDescription(folder);
        const std::string owned = owner.empty() ? descriptionField(before, "ID") : owner;
        // Without any items a set is known here by its title, which another set's folder may have.
        if (!owned.empty() && owned != set) return;
        if (descriptionField(description, "LatestUpdatedItem").empty()) {
            // A run that found no photo in the set knows no latest item. What stands there says more.
            for (const char* field : {"LatestUpdatedItem", "LatestUpdatedDate"}) {
                description = withDescriptionField(description, field, descriptionField(before, field));
            }
        }
        description = withDescriptionField(
            description, "CoverImage", standingCover(device, descriptionField(description, "CoverImage")));
        if (description != before) device.describeFolder(folder, description);
    });
    if (!written) RunJournal::instance().folderDescriptionFailed(folder, error);
}

}  // namespace Norvale_Plugin_Core
