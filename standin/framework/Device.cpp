#include "standin/framework/Device.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "standin/framework/DatabaseRegistry.h"
#include "standin/framework/ItemRecord.h"
#include "standin/framework/Names.h"
#include "standin/framework/RunSettings.h"

namespace Norvale_Plugin_Core {

namespace {

constexpr const char* kLedgerName = ".ledger.db";
constexpr std::size_t kReadSize = 1 << 20;

std::vector<std::string> namesIn(const std::string& path) {
    std::vector<std::string> names;
    for (std::string::size_type at = 0; at <= path.size();) {
        const std::string::size_type end = std::min(path.find('/', at), path.size());
        names.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return names;
}

std::string quoted(const std::string& path) {
    return "\"" + path + "\"";
}

void makeMissingFolders(const std::string& serviceFolder, const std::string& mountPoint) {
    if (::access(serviceFolder.c_str(), F_OK) == 0) return;
    const bool below =
        !mountPoint.empty() && serviceFolder.compare(0, mountPoint.size() + 1, mountPoint + "/") == 0;
    std::string::size_type end = below ? mountPoint.size() : serviceFolder.rfind('/');
    if (end == std::string::npos) end = 0;
    const std::string base = end == 0 ? "." : serviceFolder.substr(0, end);
    if (::access(base.c_str(), F_OK) != 0) {
        const std::string text = "The backup device is not there: " + base + " does not exist";
        recordCatastrophe(RunErrorDeviceGone, text);
        throw DeviceException(text);
    }
    while (end < serviceFolder.size()) {
        end = std::min(serviceFolder.find('/', end + 1), serviceFolder.size());
        const std::string folder = serviceFolder.substr(0, end);
        if (::mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
            throw DeviceException("The folder " + folder + " cannot be made: " + std::strerror(errno));
        }
    }
}

std::string preparedLedgerPath(int root, const std::string& path) {
    if (::mkdirat(root, kRecordFolder, 0777) != 0 && errno != EEXIST) {
        throw DeviceException("The folder " + path + " cannot be written: " + std::strerror(errno));
    }
    struct stat status = {};
    if (::fstatat(root, kRecordFolder, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(status.st_mode)) {
        throw DeviceException(path + "/" + kRecordFolder + " is not a folder: move it away");
    }
    return path + "/" + kRecordFolder + "/" + kLedgerName;
}

struct SharedDevice {
    std::mutex mutex;
    std::shared_ptr<Device> device;
};

SharedDevice& sharedDevice() {
    static SharedDevice shared;
    return shared;
}

}  // namespace

Descriptor::~Descriptor() {
    if (number_ >= 0) ::close(number_);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        if (number_ >= 0) ::close(number_);
        number_ = other.release();
    }
    return *this;
}

int Descriptor::release() {
    const int number = number_;
    number_ = -1;
    return number;
}

int renameWithoutReplacing(int fromFolder, const std::string& from, int toFolder, const std::string& to) {
    if (::renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EEXIST && errno != EINVAL && errno != ENOSYS) return errno;

    // Either something stands there, or the file system cannot be asked like this. On one that ignores case
    // what stands there may be the same file.
    struct stat source = {}, target = {};
    if (::fstatat(toFolder, to.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0) {
        const bool same = ::fstatat(fromFolder, from.c_str(), &source, AT_SYMLINK_NOFOLLOW) == 0 &&
                          source.st_ino == target.st_ino && source.st_dev == target.st_dev;
        const bool sameName = nameKey(from) == nameKey(to);
        if (!same || !sameName) return EEXIST;
    }
    return ::renameat(fromFolder, from.c_str(), toFolder, to.c_str()) == 0 ? 0 : errno;
}

std::shared_ptr<Device> Device::open(const std::string& serviceFolder, const std::string& mountPoint) {
    if (serviceFolder.empty()) throw DeviceException("No folder on a backup device has been named");
    SharedDevice& shared = sharedDevice();
    const std::lock_guard<std::mutex> lock(shared.mutex);
    if (shared.device && shared.device->path_ == serviceFolder) {
        if (shared.device->isGone()) shared.device->fail("use", serviceFolder, ENODEV);
        return shared.device;
    }
    makeMissingFolders(serviceFolder, mountPoint);
    Descriptor root(::open(serviceFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen()) {
        throw DeviceException("The folder " + serviceFolder + " cannot be opened: " + std::strerror(errno));
    }
    shared.device = std::make_shared<Device>(std::move(root), serviceFolder);
    return shared.device;
}

std::shared_ptr<Device> Device::current() {
    const std::string folder = currentServiceFolder();
    if (folder.empty() || ::access(folder.c_str(), F_OK) != 0) return nullptr;
    return open(folder, currentMountPoint());
}

void Device::close() {
    std::shared_ptr<Device> last;
    const std::lock_guard<std::mutex> lock(sharedDevice().mutex);
    last.swap(sharedDevice().device);
}

void Device::noteRecorded(const std::string& itemId) {
    const std::lock_guard<std::mutex> lock(sharedDevice().mutex);
    if (sharedDevice().device) sharedDevice().device->ledger_.settleItemLater(itemId);
}

Device::Device(Descriptor root, std::string path)
    : root_(std::move(root)), path_(std::move(path)), ledger_(preparedLedgerPath(root_.get(), path_)) {
    ::fstat(root_.get(), &identity_);
}

bool Device::isGone() const {
    struct stat now = {};
    return ::stat(path_.c_str(), &now) != 0 || now.st_dev != identity_.st_dev ||
           now.st_ino != identity_.st_ino;
}

void Device::fail(const std::string& what, const std::string& path, int error) {
    const std::string reason = std::strerror(error);
    std::string text;
    if (error == ENOSPC || error == EDQUOT) {
        text = "The backup device is full: " + path_;
        recordCatastrophe(RunErrorDeviceFull, text);
    } else if (error == EROFS) {
        text = "The backup device is read-only: " + path_;
        recordCatastrophe(RunErrorDeviceReadOnly, text);
    } else if (error == EIO || error == ENODEV || error == ENXIO || error == ESTALE || error == ENOTCONN ||
               isGone()) {
        text = "The backup device is gone or does not answer: " + path_;
        recordCatastrophe(RunErrorDeviceGone, text);
    } else {
        throw DeviceException("Cannot " + what + " " + quoted(path) + ": " + reason);
    }
    throw DeviceException(text + " (" + reason + ")");
}

void Device::checkPath(const std::string& path) {
    if (path.empty()) throw DeviceException("The path is empty");
    if (path.find('\0') != std::string::npos) throw DeviceException("The path holds a NUL character");
    for (const std::string& name : namesIn(path)) {
        if (name.empty() || name == "." || name == "..") {
            throw DeviceException("The path " + quoted(path) + " may lead out of the service folder");
        }
        if (name.size() > kLongestName) {
            throw DeviceException("The path " + quoted(path) + " holds a name of more than 255 bytes");
        }
        const std::string key = nameKey(name);
        if (key == kRecordFolder || key.compare(0, std::strlen(kPartPrefix), kPartPrefix) == 0) {
            throw DeviceException("The path " + quoted(path) + " leads into the file service's own files");
        }
    }
}

Descriptor Device::openFolder(const std::string& folder) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    if (folder.empty()) return Descriptor(::openat(root_.get(), ".", kFlags));
    Descriptor current;
    for (const std::string& name : namesIn(folder)) {
        const int parent = current.isOpen() ? current.get() : root_.get();
        Descriptor next(::openat(parent, name.c_str(), kFlags));
        if (!next.isOpen()) {
            const int error = errno;
            if (error == ELOOP || error == ENOTDIR) {
                throw DeviceException("Cannot use the folder " + quoted(folder) +
                                      ": a symbolic link or a file stands in its place");
            }
            fail("open the folder", folder, error);
        }
        current = std::move(next);
    }
    return current;
}

std::optional<struct stat> Device::status(const std::string& path) {
    struct stat status = {};
    const std::string folder = folderOf(path);
    if (folder.empty()) {
        if (::fstatat(root_.get(), path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
        return status;
    }
    Descriptor current;
    for (const std::string& name : namesIn(folder)) {
        const int parent = current.isOpen() ? current.get() : root_.get();
        Descriptor next(::openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next.isOpen()) return std::nullopt;
        current = std::move(next);
    }
    if (::fstatat(current.get(), nameOf(path).c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return status;
}

bool Device::isFolder(const std::string& path) {
    const auto found = status(path);
    return found && S_ISDIR(found->st_mode);
}

bool Device::isFile(const std::string& path) {
    const auto found = status(path);
    return found && S_ISREG(found->st_mode);
}

bool Device::owns(const std::string& path, const std::string& item) {
    if (!isFile(path)) return false;
    if (const auto file = ledger_.file(path)) return file->item == item;
    // A power cut can take the ledger's last rows and leave the files. An item comes with its record, and the
    // name of a thumbnail ends in the item's id.
    if (isSystemWord(nameOf(folderOf(path)))) {
        const std::string base = splitName(nameOf(path)).base, ending = "_" + item;
        return !item.empty() && base.size() > ending.size() &&
               base.compare(base.size() - ending.size(), ending.size(), ending) == 0;
    }
    const std::string record = readRecord(folderOf(path), nameOf(path) + kRecordExtension);
    return !record.empty() && recordField(record, "ID") == item;
}

bool Device::owns(const std::string& path) {
    if (!isFile(path)) return false;
    return ledger_.file(path) || !readRecord(folderOf(path), nameOf(path) + kRecordExtension).empty();
}

void Device::makeFolder(const std::string& path) {
    const Descriptor parent = openFolder(folderOf(path));
    struct stat status = {};
    if (::fstatat(parent.get(), nameOf(path).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISDIR(status.st_mode)) return;
        throw DeviceException("Cannot make the folder " + quoted(path) + ": something else has that name");
    }
    ledger_.addMadeFolder(path);
    ledger_.flush();
    if (::mkdirat(parent.get(), nameOf(path).c_str(), 0777) != 0 && errno != EEXIST) {
        const int error = errno;
        ledger_.forgetFolder(path);
        fail("make the folder", path, error);
    }
    if (::fsync(parent.get()) != 0) fail("make the folder", path, errno);
}

void Device::removeFolder(const std::string& path) {
    const Descriptor parent = openFolder(folderOf(path));
    const std::string name = nameOf(path);
    // The record folder does not count as content while it holds no item's record.
    {
        const Descriptor folder = openFolder(path);
        ::unlinkat(folder.get(), kRecordFolder, AT_REMOVEDIR);
    }
    if (::unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR) != 0) {
        if (errno == ENOTEMPTY || errno == EEXIST) {
            throw DeviceException("Cannot remove the folder " + quoted(path) + ": it is not empty");
        }
        fail("remove the folder", path, errno);
    }
    ledger_.forgetFolder(path);
}

void Device::renameFolder(const std::string& from, const std::string& to) {
    if (!isFolder(from)) {
        if (isGone()) fail("rename the folder", from, ENODEV);
        throw DeviceException("Cannot rename the folder " + quoted(from) + ": it does not exist");
    }
    if (from == to) return;
    const Descriptor fromParent = openFolder(folderOf(from));
    const Descriptor toParent = openFolder(folderOf(to));
    const auto standing = status(to);
    if (standing && nameKey(from) != nameKey(to)) {
        throw DeviceException("Cannot rename the folder " + quoted(from) + ": " + quoted(to) +
                              " exists already");
    }
    ledger_.moveFolder(from, to, true);
    ledger_.flush();
    const int error = renameWithoutReplacing(fromParent.get(), nameOf(from), toParent.get(), nameOf(to));
    if (error != 0) {
        ledger_.moveFolder(to, from, false);
        fail("rename the folder", from, error);
    }
    if (::fsync(toParent.get()) != 0) fail("rename the folder", from, errno);
}

void Device::removeFile(const std::string& path) {
    const std::optional<LedgerFile> file = ledger_.file(path);
    if (file && !file->was.empty()) {
        ledger_.flush();
        flushOpenDatabases();
    }
    const Descriptor folder = openFolder(folderOf(path));
    if (::unlinkat(folder.get(), nameOf(path).c_str(), 0) != 0 && errno != ENOENT) {
        fail("remove", path, errno);
    }
    removeRecord(folderOf(path), nameOf(path) + kRecordExtension);
    ledger_.eraseFile(path);
}

void Device::moveFileOnly(const std::string& from, const std::string& to) {
    const Descriptor fromFolder = openFolder(folderOf(from));
    const Descriptor toFolder = openFolder(folderOf(to));
    const bool standing = status(to) && nameKey(from) != nameKey(to);
    const int error =
        standing ? EEXIST
                 : renameWithoutReplacing(fromFolder.get(), nameOf(from), toFolder.get(), nameOf(to));
    if (error == EEXIST) {
        throw DeviceException("Cannot rename " + quoted(from) + ": " + quoted(to) + " exists already");
    }
    if (error != 0) fail("rename", from, error);
}

// The ledger's row goes first and says where the file was: if the file did not follow, or has to come back,
// it is found from there.
void Device::putFileAside(const std::string& from, const std::string& to) {
    ledger_.moveFile(from, to, nameOf(from));
    try {
        moveFileOnly(from, to);
    } catch (Poco::Exception&) {
        ledger_.moveFile(to, from, "");
        throw;
    }
    moveRecord(from, to);
}

// The file goes first: until its row has followed, it is found from what the row says of where it was.
void Device::renameFile(const std::string& from, const std::string& to) {
    moveFileOnly(from, to);
    moveRecord(from, to);
    ledger_.moveFile(from, to, "");
}

void Device::listFolder(const std::string& folder, const std::function<void(const std::string&)>& visit) {
    Descriptor descriptor = openFolder(folder);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(descriptor.get()), &::closedir);
    if (!entries) fail("list", folder, errno);
    descriptor.release();
    while (const dirent* entry = ::readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") visit(name);
    }
}

long Device::removeParts(const std::string& folder) {
    long removed = 0;
    for (const std::string& place : {folder, joinPath(folder, kRecordFolder)}) {
        if (!place.empty() && !isFolder(place)) continue;
        std::vector<std::string> parts;
        listFolder(place, [&](const std::string& name) {
            if (name.compare(0, std::strlen(kPartPrefix), kPartPrefix) == 0) parts.push_back(name);
        });
        const Descriptor descriptor = openFolder(place);
        for (const std::string& name : parts) removed += ::unlinkat(descriptor.get(), name.c_str(), 0) == 0;
    }
    return removed;
}

Descriptor Device::openRecordFolder(const std::string& folder, bool create) {
    const Descriptor parent = openFolder(folder);
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    Descriptor records(::openat(parent.get(), kRecordFolder, kFlags));
    if (records.isOpen() || !create) return records;
    if (::mkdirat(parent.get(), kRecordFolder, 0777) != 0 && errno != EEXIST) {
        fail("make the folder", joinPath(folder, kRecordFolder), errno);
    }
    records = Descriptor(::openat(parent.get(), kRecordFolder, kFlags));
    if (!records.isOpen()) fail("open the folder", joinPath(folder, kRecordFolder), errno);
    return records;
}

std::string Device::readRecord(const std::string& folder, const std::string& name) {
    const Descriptor records = openRecordFolder(folder, false);
    if (!records.isOpen()) return {};
    const Descriptor file(::openat(records.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.isOpen()) return {};
    std::string text;
    char block[4096];
    for (ssize_t count; (count = ::read(file.get(), block, sizeof block)) > 0;) {
        text.append(block, static_cast<std::size_t>(count));
    }
    return text;
}

void Device::removeRecord(const std::string& folder, const std::string& name) {
    const Descriptor records = openRecordFolder(folder, false);
    // A record that stays behind its file would never be looked for again: the file's row has to stay as
    // well.
    if (records.isOpen() && ::unlinkat(records.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
        fail("remove", joinPath(folder, name), errno);
    }
}

void Device::moveRecord(const std::string& from, const std::string& to) {
    const Descriptor fromRecords = openRecordFolder(folderOf(from), false);
    if (!fromRecords.isOpen()) return;
    const std::string fromName = nameOf(from) + kRecordExtension;
    struct stat status = {};
    if (::fstatat(fromRecords.get(), fromName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    const Descriptor toRecords = openRecordFolder(folderOf(to), true);
    if (::renameat(fromRecords.get(), fromName.c_str(), toRecords.get(),
                   (nameOf(to) + kRecordExtension).c_str()) != 0) {
        fail("rename the record of", from, errno);
    }
}

void Device::readFile(const std::string& path, const std::function<void(const char*, std::size_t)>& visit) {
    const Descriptor folder = openFolder(folderOf(path));
    const Descriptor file(::openat(folder.get(), nameOf(path).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.isOpen()) fail("read", path, errno);
    std::vector<char> block(kReadSize);
    for (;;) {
        const ssize_t count = ::read(file.get(), block.data(), block.size());
        if (count == 0) return;
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail("read", path, errno);
        visit(block.data(), static_cast<std::size_t>(count));
    }
}

NewRecord::NewRecord(Device& device, const std::string& folder, std::string partName)
    : device_(device),
      folder_(folder),
      partName_(std::move(partName)),
      records_(device.openRecordFolder(folder, true)),
      file_(::openat(records_.get(), partName_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                     0666)) {
    if (!file_.isOpen()) fail(errno);
}

NewRecord::~NewRecord() {
    if (placed_ || ::unlinkat(records_.get(), partName_.c_str(), 0) == 0 || errno == ENOENT) return;
    device_.ledger().leaveInUse();
}

void NewRecord::write(const std::string& text, bool send) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t written = ::write(file_.get(), text.data() + at, text.size() - at);
        if (written < 0 && errno != EINTR) fail(errno);
        if (written > 0) at += static_cast<std::size_t>(written);
    }
    if (send) ::sync_file_range(file_.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
}

void NewRecord::place(const std::string& name, bool flush) {
    if (flush && ::fdatasync(file_.get()) != 0) fail(errno);
    if (::renameat(records_.get(), partName_.c_str(), records_.get(), name.c_str()) != 0) fail(errno);
    placed_ = true;
}

void NewRecord::fail(int error) {
    device_.fail("write in the folder", joinPath(folder_, kRecordFolder), error);
}

}  // namespace Norvale_Plugin_Core
