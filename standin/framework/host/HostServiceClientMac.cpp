// How a file comes to the device, so that a kill between any two steps leaves either nothing under its final
// name or all of it:
//
//   openFile     the ledger is marked as in use, then Trip/.part-PID-N is made
//   writeFileV2  bytes go there, see FileWriter.h
//   closeFile    the record is written beside, under the same temporary name; both are flushed; the ledger
//                enters the final name as pending; the record takes its name, and its folder is flushed; the
//                file takes its own name, and its folder is flushed
//
// The ledger's row stays pending until the item's row is known to be in the backup database; Recovery.h
// settles what is left.

#include "hostapi/HostServiceClientMac.h"

#include <Poco/Data/DataException.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <map>

#include "hostapi/DevLogger.h"
#include "hostapi/HostServiceUsageParams.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/FileWriter.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunState.h"

namespace Norvale_Plugin_Core {

namespace {

constexpr const char* kSuccess = "SUC";
constexpr const char* kFailure = "ERR";

struct OpenFile {
    std::string path;
    std::string partName;
    Descriptor folder;
    std::unique_ptr<FileWriter> writer;
};

/// The plug-in makes a set's thumbnail folder together with the set's. When the language has changed since,
/// or somebody removed the folder, it would be missing for good.
void makeThumbnailFolder(Device& device, const std::string& folder) {
    const std::string word = HostServiceUsageParams::getInstance()->getValue("ThumbnailKey");
    if (folder.empty() || nameOf(folder) != word || device.status(folder)) return;
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
    std::shared_ptr<Device> device;
    std::map<long, OpenFile> files;
    std::string lastItem;  // the item closed last: the next file without a record is its thumbnail

    /// The device of the run; the service folder may have changed since the last call.
    Device& current() {
        const std::string folder = currentServiceFolder();
        if (!device || device->path() != folder || files.empty()) {
            device = Device::open(folder, currentMountPoint());
        }
        return *device;
    }

    OpenFile& file(long handle) {
        const auto found = files.find(handle);
        if (found == files.end()) throw DeviceException("No file is open under " + std::to_string(handle));
        return found->second;
    }

    void discard(long handle) {
        OpenFile& open = file(handle);
        // On a device that fails it stays, for the next run to remove.
        const bool gone = ::unlinkat(open.folder.get(), open.partName.c_str(), 0) == 0 || errno == ENOENT;
        if (!gone) device->ledger().leaveInUse();
        files.erase(handle);
    }

    void close(long handle, const std::string& metadata);
    void place(OpenFile& open, const std::string& item, std::optional<NewRecord>& record);
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

/// Runs an operation and turns how it went into the three texts.
template <typename Operation>
void answer(const std::string& description, std::string& command, std::string& result, std::string& error,
            bool isReason, Operation operation) {
    command = description;
    result = kSuccess;
    error.clear();
    try {
        operation();
        return;
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
    if (isReason) RunJournal::instance().fileServiceFailed(error);
}

}  // namespace

HostServiceClientMac::HostServiceClientMac() : impl_(std::make_unique<Impl>()) {}

HostServiceClientMac::~HostServiceClientMac() {
    while (!impl_->files.empty()) impl_->discard(impl_->files.begin()->first);
}

void HostServiceClientMac::connect() {
    std::string command, result, error;
    answer("CONNECT", command, result, error, true, [&] { impl_->current(); });
}

void HostServiceClientMac::disConnect() {
    if (impl_->files.empty()) impl_->lastItem.clear();
}

long HostServiceClientMac::openFile(std::string path, long mode, std::string& command, std::string& result,
                                    std::string& error) {
    RunJournal::instance().fileOpened(path);
    answer("OPEN " + path, command, result, error, true, [&] {
        if (impl_->files.count(mode) != 0) impl_->discard(mode);
        Device& device = impl_->current();
        Device::checkPath(path);
        makeThumbnailFolder(device, folderOf(path));
        OpenFile open;
        open.path = path;
        open.folder = device.openFolder(folderOf(path));
        device.ledger().markInUse();
        Descriptor file;
        do {
            open.partName = newOwnName(kPartPrefix);
            file = makeFile(open.folder.get(), open.partName);
        } while (!file.isOpen() && errno == EEXIST);
        if (!file.isOpen()) device.fail("make a file for", path, errno);
        open.writer = std::make_unique<FileWriter>(std::move(file));
        impl_->files.emplace(mode, std::move(open));
    });
    return mode;
}

void HostServiceClientMac::writeFileV2(int handle, char* buffer, int count, std::string& command,
                                       std::string& result, std::string& error) {
    answer("WRITE " + std::to_string(handle) + " " + std::to_string(count), command, result, error, true,
           [&] {
               OpenFile& open = impl_->file(handle);
               if (count < 0 || (count > 0 && !buffer)) throw DeviceException("There are no bytes to write");
               const auto size = static_cast<std::size_t>(count);
               const int failure = open.writer->add(buffer, size);
               if (failure != 0) impl_->device->fail("write", open.path, failure);
               addWrittenBytes(size);
           });
}

void HostServiceClientMac::closeFile(long handle, char* metadata, int length, std::string& command,
                                     std::string& result, std::string& error) {
    answer("CLOSE " + std::to_string(handle), command, result, error, true, [&] {
        std::string text;
        if (metadata && length > 0) text.assign(metadata, static_cast<std::size_t>(length));
        impl_->close(handle, text);
    });
}

void HostServiceClientMac::Impl::close(long handle, const std::string& metadata) {
    OpenFile& open = file(handle);
    const std::string item = metadata.empty() ? lastItem : recordField(metadata, "ID");
    std::optional<NewRecord> record;
    if (!metadata.empty()) {
        // Where the record stands says where its file is; see ItemRecord.h. It goes to the disk beside the
        // file, in whose flush most file systems then include it.
        const bool own = recordField(metadata, "PhysicalFileName") == open.path;
        record.emplace(*device, folderOf(open.path), open.partName);
        record->write(own ? withRecordField(metadata, "PhysicalFileName", nameOf(open.path)) : metadata,
                      true);
    }
    const int failure = open.writer->finish();
    if (failure != 0) device->fail("write", open.path, failure);

    place(open, item, record);
    files.erase(handle);
    if (!metadata.empty()) {
        lastItem = item;
        addFinishedItem();
    }
}

void HostServiceClientMac::Impl::place(OpenFile& open, const std::string& item,
                                       std::optional<NewRecord>& record) {
    Ledger& ledger = device->ledger();
    const std::string folder = folderOf(open.path), name = nameOf(open.path), part = open.partName;
    struct stat status = {};
    const bool standing = ::fstatat(open.folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (standing && !device->owns(open.path, item)) {
        throw DeviceException("Cannot write \"" + open.path + "\": something else stands there already");
    }

    device->beforeTaking(open.path);
    const std::optional<LedgerFile> before = standing ? ledger.file(open.path) : std::nullopt;
    // What was never recorded need not come back.
    const bool recorded = standing && (!before || before->pending == 0);
    const bool kept = recorded && device->keepReplaced(open.path, item);
    const bool replaces = standing && !kept;
    ledger.putFile({open.path, item, open.writer->size(), open.writer->checksum(), "", replaces ? 2 : 1});
    const auto undo = [&] {
        if (kept) {
            device->removeFile(open.path);
        } else if (before) {
            ledger.putFile(*before);
        } else {
            if (!standing) device->removeRecord(folder, name + kRecordExtension);
            ledger.eraseFile(open.path);
        }
    };
    try {
        if (record) {
            // On a file system that lets names reach the disk in any order the file would be nobody's.
            record->place(name + kRecordExtension, true);
            if (::fsync(record->folder().get()) != 0) device->fail("write", open.path, errno);
        }
        int error = 0;
        if (replaces) {
            if (::renameat(open.folder.get(), part.c_str(), open.folder.get(), name.c_str()) != 0)
                error = errno;
        } else {
            error = renameWithoutReplacing(open.folder.get(), part, open.folder.get(), name);
        }
        if (error != 0) device->fail("write", open.path, error);
    } catch (Poco::Exception&) {
        undo();
        throw;
    }
    if (::fsync(open.folder.get()) != 0) device->fail("write", open.path, errno);
    if (replaces) ledger.setPending(open.path, 1);
}

void HostServiceClientMac::deleteFile(long handle, std::string& command, std::string& result,
                                      std::string& error) {
    answer("DISCARD " + std::to_string(handle), command, result, error, false,
           [&] { impl_->discard(handle); });
}

void HostServiceClientMac::deleteFile(std::string path, std::string& command, std::string& result,
                                      std::string& error) {
    answer("DELETE " + path, command, result, error, false, [&] {
        Device& device = impl_->current();
        Device::checkPath(path);
        if (!device.status(path)) throw DeviceException("\"" + path + "\" does not exist");
        if (!device.owns(path)) throw DeviceException("\"" + path + "\" was not written by the backup");
        device.removeFile(path);
    });
}

void HostServiceClientMac::renameFile(std::string from, std::string to, std::string& command,
                                      std::string& result, std::string& error) {
    answer("RENAME " + from + " " + to, command, result, error, false, [&] {
        Device& device = impl_->current();
        Device::checkPath(from);
        Device::checkPath(to);
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
    answer("MKDIR " + path, command, result, error, true, [&] {
        Device& device = impl_->current();
        Device::checkPath(path);
        device.makeFolder(path);
    });
}

void HostServiceClientMac::renameDirectory(std::string from, std::string to, std::string& command,
                                           std::string& result, std::string& error) {
    answer("RENAMEDIR " + from + " " + to, command, result, error, true, [&] {
        Device& device = impl_->current();
        Device::checkPath(from);
        Device::checkPath(to);
        device.renameFolder(from, to);
    });
}

void HostServiceClientMac::deleteDirectory(std::string path, std::string& command, std::string& result,
                                           std::string& error) {
    answer("RMDIR " + path, command, result, error, false, [&] {
        Device& device = impl_->current();
        Device::checkPath(path);
        device.removeFolder(path);
    });
}

void HostServiceClientMac::writeFolderDataXML(std::string root, std::string record, std::string) {
    const std::string folder = recordField(record, "PhysicalFileName");
    std::string command, result, error;
    answer("RECORD " + folder, command, result, error, false, [&] {
        Device& device = impl_->current();
        if (root != device.path() + "/") throw DeviceException("\"" + root + "\" is not the service folder");
        Device::checkPath(folder);
        if (!device.isFolder(folder)) return;  // a set without items on the device has no folder
        const std::string set = recordField(record, "ID");
        const std::string owner = device.ledger().folderOwner(folder);
        const std::string before = device.readRecord(folder, kFolderRecord);
        const std::string owned = owner.empty() ? recordField(before, "ID") : owner;
        // Without any items a set is known here by its title, which another set's folder may have.
        if (!owned.empty() && owned != set) return;
        if (recordField(record, "LatestUpdatedItem").empty()) {
            // A run that found no photo in the set knows no latest item. What stands there says more.
            for (const char* field : {"LatestUpdatedItem", "LatestUpdatedDate"}) {
                record = withRecordField(record, field, recordField(before, field));
            }
        }
        record =
            withRecordField(record, "CoverImage", standingCover(device, recordField(record, "CoverImage")));
        if (record != before) device.writeFolderRecord(folder, record);
    });
    if (result != kSuccess) RunJournal::instance().folderRecordFailed(folder, error);
}

}  // namespace Norvale_Plugin_Core
