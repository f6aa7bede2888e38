#include "standin/framework/device/Device.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <list>
#include <mutex>
#include <utility>
#include <vector>

#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/DeviceFiles.h"
#include "standin/framework/device/VersionDays.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

namespace {

constexpr std::size_t kMostWaiting = 64;  // old versions, until rows are flushed for them
constexpr std::size_t kMostFlushes = 16;  // at once: each holds a file open and takes a thread
constexpr std::size_t kReadSize = 1 << 20;
constexpr std::size_t kLongestDescription = 1 << 20;

std::string quoted(const std::string& path) {
    return "\"" + path + "\"";
}

/// Puts the folder's name in its parent on the disk, whoever made it: what is flushed below is lost without
/// it. Once in a process for each folder.
void flushNameOf(const Descriptor& folder, const Descriptor& parent) {
    static std::mutex mutex;
    static std::set<std::pair<dev_t, ino_t>> known;
    struct stat status = {};
    if (::fstat(folder.get(), &status) != 0) return;
    const std::lock_guard<std::mutex> lock(mutex);
    if (known.count({status.st_dev, status.st_ino}) != 0) return;
    if (::fsync(parent.get()) == 0) known.insert({status.st_dev, status.st_ino});
}

enum class WhenMissing { Make, Refuse };

/// The service folder. The folder on which it stands is resolved once, to its real
/// path, which gets its own part and is given back in real; below it no link is followed.
Descriptor openServiceFolder(const std::string& serviceFolder, const std::string& mountPoint,
                             WhenMissing whenMissing, std::string& real) {
    if (serviceFolder.empty()) throw DeviceException("No folder on a backup device has been named");
    const bool below = !mountPoint.empty() && startsWith(serviceFolder, mountPoint + "/");
    std::string::size_type end = below ? mountPoint.size() : serviceFolder.rfind('/');
    if (end == std::string::npos) end = 0;
    const std::string base = end != 0 ? serviceFolder.substr(0, end) : serviceFolder[0] == '/' ? "/" : ".";
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(base.c_str(), nullptr), &std::free);
    Descriptor current(resolved ? ::open(resolved.get(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)
                                : -1);
    if (!current.isOpen()) {
        throw DeviceFailure(DeviceFailure::Kind::Gone,
                            "The backup device is not there: " + base + " does not exist");
    }
    real = resolved.get();
    for (const std::string& name : namesIn(serviceFolder.substr(end))) {
        if (name.empty()) continue;
        real += "/" + name;
        if (!isPlainName(name)) throw DeviceException("The folder " + serviceFolder + " cannot be used");
        Descriptor next = openBelow(current.get(), name, O_RDONLY);
        if (!next.isOpen() && errno == ENOENT) {
            if (whenMissing == WhenMissing::Refuse) {
                throw DeviceException("There is no backup at " + serviceFolder);
            }
            if (::mkdirat(current.get(), name.c_str(), folderMode()) != 0 && errno != EEXIST) {
                throw DeviceException("The folder " + real + " cannot be made: " + std::strerror(errno));
            }
            next = openBelow(current.get(), name, O_RDONLY);
        }
        if (!next.isOpen()) {
            throw DeviceException("The folder " + real + " cannot be opened: " +
                                  (isLinkOrFile(errno) ? "a symbolic link or a file stands in its place"
                                                       : std::strerror(errno)));
        }
        if (whenMissing == WhenMissing::Make) flushNameOf(next, current);
        current = std::move(next);
    }
    return current;
}

Descriptor openDirectlyBelow(const Descriptor& parent, const char* name) {
    return Descriptor(::openat(parent.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

std::string preparedLedgerPath(int root, const std::string& path) {
    if (::mkdirat(root, kDescriptionFolder, folderMode()) == 0) {
        ::fsync(root);
    } else if (errno != EEXIST) {
        throw DeviceException("The folder " + path + " cannot be written: " + std::strerror(errno));
    }
    struct stat status = {};
    if (::fstatat(root, kDescriptionFolder, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(status.st_mode)) {
        throw DeviceException(path + "/" + kDescriptionFolder + " is not a folder: move it away");
    }
    return path + "/" + kDescriptionFolder + "/" + kLedgerName;
}

}  // namespace

Device::Device(const std::string& serviceFolder, const std::string& mountPoint, std::string thumbnailWord)
    : path_(serviceFolder),
      thumbnailWord_(std::move(thumbnailWord)),
      systemWords_(systemWords(thumbnailWord_)),
      root_(openServiceFolder(serviceFolder, mountPoint, WhenMissing::Make, realPath_)),
      ledger_(preparedLedgerPath(root_.get(), realPath_)) {
    ::fstat(root_.get(), &identity_);
}

Device::Device(const std::string& serviceFolder, std::string thumbnailWord, const Elsewhere& elsewhere)
    : path_(serviceFolder),
      thumbnailWord_(std::move(thumbnailWord)),
      systemWords_(systemWords(thumbnailWord_)),
      root_(openServiceFolder(serviceFolder, "", WhenMissing::Refuse, realPath_)),
      ledger_(elsewhere.ledger) {
    ::fstat(root_.get(), &identity_);
}

void Device::finish() {
    try {
        flushRows();
    } catch (Poco::Exception&) {
        ledger_.leaveInUse();
    }
}

void Device::requireThere() {
    if (isGone()) fail("use", path_, ENODEV);
}

bool Device::isGone() const {
    struct stat now = {};
    return ::stat(path_.c_str(), &now) != 0 || now.st_dev != identity_.st_dev ||
           now.st_ino != identity_.st_ino;
}

void Device::fail(const std::string& what, const std::string& path, int error) {
    using Kind = DeviceFailure::Kind;
    const std::string reason = std::strerror(error);
    if (error == ENOSPC || error == EDQUOT) {
        throw DeviceFailure(Kind::Full, "The backup device is full: " + path_, reason);
    }
    if (error == EROFS)
        throw DeviceFailure(Kind::ReadOnly, "The backup device is read-only: " + path_, reason);
    if (error == EIO || error == ENODEV || error == ENXIO || error == ESTALE || error == ENOTCONN ||
        isGone()) {
        throw DeviceFailure(Kind::Gone, "The backup device is gone or does not answer: " + path_, reason);
    }
    throw DeviceException("Cannot " + what + " " + quoted(path) + ": " + reason);
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
        if (key == kDescriptionFolder || key == kVersionFolder || startsWith(key, kPartPrefix) ||
            startsWith(key, kKeptPrefix)) {
            throw DeviceException("The path " + quoted(path) + " leads into the file service's own files");
        }
    }
}

Descriptor Device::openFolder(const std::string& folder) {
    Descriptor opened = openBelow(root_.get(), folder, O_RDONLY);
    if (opened.isOpen()) return opened;
    const int error = errno;
    if (isLinkOrFile(error)) {
        throw DeviceException("Cannot use the folder " + quoted(folder) +
                              ": a symbolic link or a file stands in its place");
    }
    fail("open the folder", folder, error);
}

Device::Place Device::placeOf(const std::string& path) {
    if (!isPlainName(nameOf(path))) throw DeviceException("There can be no file " + quoted(path));
    return {openFolder(folderOf(path)), nameOf(path)};
}

std::optional<struct stat> Device::status(const std::string& path) {
    struct stat status = {};
    if (!isPlainName(nameOf(path))) return std::nullopt;
    const Descriptor folder = openBelow(root_.get(), folderOf(path), O_PATH);
    const bool found =
        folder.isOpen() && ::fstatat(folder.get(), nameOf(path).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    return found ? std::optional(status) : std::nullopt;
}

bool Device::isFolder(const std::string& path) {
    const auto found = status(path);
    return found && S_ISDIR(found->st_mode);
}

bool Device::isFile(const std::string& path) {
    const auto found = status(path);
    return found && S_ISREG(found->st_mode);
}

bool Device::stands(const std::string& path) {
    if (!status(path)) return false;
    return ledger_.file(path) || entriesLike(openFolder(folderOf(path)).get(), nameOf(path)) != 0;
}

bool Device::isOne(const std::string& path, const std::string& other) {
    if (!status(path) || !status(other)) return false;
    const std::string folder = folderOf(path), otherFolder = folderOf(other);
    if (folder != otherFolder && !isOne(folder, otherFolder)) return false;
    const std::optional<bool> answer = isOneEntry(openFolder(folder).get(), nameOf(path), nameOf(other));
    if (!answer) fail("list", folder, errno);  // whoever takes one file for two may remove it
    return *answer;
}

bool Device::owns(const std::string& path, const std::string& item) {
    if (!isFile(path)) return false;
    if (const auto file = ledger_.file(path)) return file->item == item;
    // A power cut can take the ledger's last rows and leave the files. An item comes with its description,
    // and the name of a thumbnail ends in the item's id.
    if (isSystemWord(nameOf(folderOf(path)))) {
        const std::string base = splitName(nameOf(path)).base, ending = "_" + item;
        return !item.empty() && base.size() > ending.size() &&
               base.compare(base.size() - ending.size(), ending.size(), ending) == 0;
    }
    const std::string description = readDescription(folderOf(path), nameOf(path) + kDescriptionExtension);
    return !description.empty() && descriptionField(description, "ID") == item;
}

bool Device::owns(const std::string& path) {
    if (!isFile(path)) return false;
    return ledger_.file(path) ||
           !readDescription(folderOf(path), nameOf(path) + kDescriptionExtension).empty();
}

bool Device::isFolderFree(const std::string& name, const std::string& known, const std::string& setId) {
    if (!status(name)) return true;
    // On a file system that ignores case a set that is renamed in case only finds its own folder.
    if (!known.empty()) return isOne(known, name);
    const std::string owner = ledger_.folderOwner(name);
    if (!owner.empty()) return owner == setId;
    const std::string recorded = folderIdByDescription(name);
    return ledger_.madeFolder(name) && (recorded.empty() || recorded == setId);
}

void Device::noteLeft(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    left_.insert(nameKey(path));
    leftUnflushed_ = true;
}

void Device::beforeTaking(const std::string& path) {
    bool flush = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (left_.erase(nameKey(path)) == 0) return;
        std::swap(flush, leftUnflushed_);
    }
    if (flush) flushRows();
    const Descriptor folder = openFolder(folderOf(path));
    if (::fsync(folder.get()) != 0) fail("write", path, errno);
}

std::vector<Descriptor> Device::leftByOlderVersion(const std::string& path, const std::string& item) {
    for (const LedgerFile& other : ledger_.filesOfItem(item)) {
        if (other.was != nameOf(path) || folderOf(other.path) != folderOf(path)) continue;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            left_.erase(nameKey(path));
        }
        std::vector<Descriptor> folders;
        folders.push_back(openFolder(folderOf(path)));
        Descriptor descriptions = openDescriptionFolder(folderOf(path));
        if (descriptions.isOpen()) folders.push_back(std::move(descriptions));
        return folders;
    }
    return {};
}

// What the ledger no longer calls pending has to be in the database: that goes first.
void Device::flushRows() {
    std::set<std::string> folders, emptied, waiting;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        folders.swap(descriptions_);
        emptied.swap(emptied_);
        waiting.swap(waiting_);
    }
    // What cannot be retired stays aside in the ledger, and the next run tries again.
    const auto retire = [&](auto step) {
        for (auto path = waiting.begin(); path != waiting.end();) {
            try {
                step(*path);
                ++path;
            } catch (DeviceException&) {
                path = waiting.erase(path);
            }
        }
    };
    retire([&](const std::string& path) { planVersion(path); });
    std::list<Descriptor> opened;
    std::vector<Flush> flushes;
    const auto waitForThese = [&] {
        waitForDisk(flushes);
        flushes.clear();
        opened.clear();
    };
    const auto add = [&](Descriptor descriptor, const std::string& path) {
        if (!descriptor.isOpen()) return;
        opened.push_back(std::move(descriptor));
        flushes.push_back(flushOf(opened.back(), path));
        if (opened.size() == kMostFlushes) waitForThese();
    };
    for (const std::string& folder : emptied) {
        if (!folder.empty() && !isFolder(folder)) continue;
        add(openFolder(folder), folder);
        add(openDescriptionFolder(folder), folder);
    }
    for (const std::string& folder : folders) {
        Descriptor descriptions = isFolder(folder) ? openDescriptionFolder(folder) : Descriptor();
        if (!descriptions.isOpen()) continue;
        const std::string path = joinPath(folder, kDescriptionFolder);
        add(openRegular(descriptions.get(), kFolderDescription), path);
        add(std::move(descriptions), path);
    }
    waitForThese();
    flushOpenDatabases();
    ledger_.writeSettled();
    ledger_.flush();
    retire([&](const std::string& path) { removeFlushed(path, ledger_.file(path)); });
}

void Device::waitForDisk(const std::vector<Flush>& flushes) {
    const auto failed = waitFor(flushes);
    if (!failed) return;
    ledger_.leaveInUse();  // it may not be there after a power cut, and no later flush says so
    fail("write", failed->path, failed->error);
}

void Device::flushLedger() {
    if (ledger_.speaksOfUnflushedRows()) return flushRows();
    ledger_.flush();
}

void Device::flushFolderWithRows(const std::string& folder) {
    const std::lock_guard<std::mutex> lock(mutex_);
    emptied_.insert(folder);
}

void Device::flushFolder(const std::string& folder) {
    const Descriptor descriptor = openFolder(folder);
    const Descriptor descriptions = openDescriptionFolder(folder);
    if (::fsync(descriptor.get()) != 0 || (descriptions.isOpen() && ::fsync(descriptions.get()) != 0)) {
        fail("write in the folder", folder, errno);
    }
}

void Device::makeFolder(const std::string& path) {
    const auto [parent, name] = placeOf(path);
    struct stat status = {};
    if (::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISDIR(status.st_mode)) return;
        throw DeviceException("Cannot make the folder " + quoted(path) + ": something else has that name");
    }
    beforeTaking(path);
    ledger_.addMadeFolder(path);
    flushLedger();
    if (::mkdirat(parent.get(), name.c_str(), folderMode()) != 0 && errno != EEXIST) {
        const int error = errno;
        ledger_.forgetFolder(path);
        fail("make the folder", path, error);
    }
    if (::fsync(parent.get()) != 0) fail("make the folder", path, errno);
}

void Device::removeFolder(const std::string& path) {
    const auto [parent, name] = placeOf(path);
    // The description folder does not count as content while it holds no item's description.
    {
        const Descriptor folder = openFolder(path);
        ::unlinkat(folder.get(), kDescriptionFolder, AT_REMOVEDIR);
    }
    if (::unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR) != 0) {
        if (errno == ENOTEMPTY || errno == EEXIST) {
            throw DeviceException("Cannot remove the folder " + quoted(path) + ": it is not empty");
        }
        fail("remove the folder", path, errno);
    }
    // A folder that is back after a power cut, and that no row knows, would keep a set from its name.
    if (::fsync(parent.get()) != 0) fail("remove the folder", path, errno);
    ledger_.forgetFolder(path);
}

void Device::renameFolder(const std::string& from, const std::string& to) {
    if (!isFolder(from)) {
        if (isGone()) fail("rename the folder", from, ENODEV);
        throw DeviceException("Cannot rename the folder " + quoted(from) + ": it does not exist");
    }
    if (from == to) return;
    const auto [fromParent, fromName] = placeOf(from);
    const auto [toParent, toName] = placeOf(to);
    const auto standing = status(to);
    if (standing && nameKey(from) != nameKey(to)) {
        throw DeviceException("Cannot rename the folder " + quoted(from) + ": " + quoted(to) +
                              " exists already");
    }
    beforeTaking(to);
    flushRows();
    ledger_.moveFolder(from, to);
    flushLedger();
    const int error = renameWithoutReplacing(fromParent.get(), fromName, toParent.get(), toName);
    if (error != 0) {
        ledger_.moveFolderBack(to, from);
        fail("rename the folder", from, error);
    }
    noteLeft(from);
    if (::fsync(toParent.get()) != 0) fail("rename the folder", from, errno);
}

void Device::removeFile(const std::string& path) {
    const std::optional<LedgerFile> file = ledger_.file(path);
    if (file && !file->was.empty()) return retireFile(path);
    removeFlushed(path, file);
}

void Device::retireFile(const std::string& path) {
    retireFileLater(path);
    flushRows();
}

/// Makes the folder for versions of the folder's files, and that of their descriptions, on the disk: what is
/// moved into a folder that the disk does not know is lost with it.
void Device::makeVersionFolder(const std::string& folder) {
    const std::string versions = joinPath(folder, kVersionFolder);
    for (const std::string& path : {versions, joinPath(versions, kDescriptionFolder)}) {
        const auto [parent, name] = placeOf(path);
        if (openDirectlyBelow(parent, name.c_str()).isOpen()) continue;
        if (::mkdirat(parent.get(), name.c_str(), folderMode()) != 0 || ::fsync(parent.get()) != 0) {
            fail("make the folder", path, errno);
        }
    }
}

/// Enters the version that the file at path is to become; nothing for one that is not worth it. Throws when
/// there is no place for it.
void Device::planVersion(const std::string& path) {
    const std::optional<LedgerFile> file = ledger_.file(path);
    if (!file || !isFile(path)) return;
    if (const auto planned = ledger_.versionFrom(path)) {
        if (!status(planned->path())) return;
        ledger_.eraseVersion(*planned);  // somebody took its name
    }
    const std::string folder = folderOf(path);
    const bool isThumbnail = isSystemWord(nameOf(folder));
    if (isThumbnail || daysOfVersions() == 0 || repeatsCurrent(*file)) return;
    makeVersionFolder(folder);
    LedgerVersion version{folder, "", file->item, file->size, file->checksum, nameOf(path)};
    std::time_t moment = std::time(nullptr);
    do {
        version.name = versionName(file->was.empty() ? nameOf(path) : file->was, moment++);
    } while (ledger_.hasVersion(folder, version.name) || status(version.path()));
    ledger_.putVersion(version);
}

/// True when the file has the bytes of the one that has taken its place.
bool Device::repeatsCurrent(const LedgerFile& file) {
    const std::vector<LedgerFile> others = ledger_.filesOfItem(file.item);
    return std::any_of(others.begin(), others.end(), [&](const LedgerFile& other) {
        const bool isCurrent = other.path != file.path && folderOf(other.path) == folderOf(file.path) &&
                               other.was.empty() && other.state != FileState::Removed &&
                               other.state != FileState::PendingOlder && isFile(other.path);
        return isCurrent && !file.checksum.empty() && other.checksum == file.checksum &&
               other.size == file.size;
    });
}

void Device::moveToVersions(const std::string& path, const LedgerVersion& version) {
    const auto [folder, name] = placeOf(path);
    const auto [versions, versionName] = placeOf(version.path());
    const int error = renameWithoutReplacing(folder.get(), name, versions.get(), versionName);
    if (error != 0) fail("keep the older version", path, error);
    noteLeft(path);
    const std::string description = joinPath(folderOf(path), kDescriptionFolder);
    if (isFile(joinPath(description, name + kDescriptionExtension))) {
        moveDescription(path, version.path());
    } else {
        removeDescription(folderOf(path), name + kDescriptionExtension);
    }
    ledger_.setState(path, FileState::Removed);
}

void Device::restoreVersion(const LedgerVersion& version, const std::string& path) {
    const auto [versions, versionName] = placeOf(version.path());
    const auto [folder, name] = placeOf(path);
    ledger_.putFile({path, version.item, version.size, version.checksum, "", FileState::Pending});
    flushRows();
    const int error = renameWithoutReplacing(versions.get(), versionName, folder.get(), name);
    if (error != 0) fail("restore", version.path(), error);
    for (const Descriptor& changed : {std::cref(folder), std::cref(versions)}) {
        if (::fsync(changed.get()) != 0) fail("restore", version.path(), errno);
    }
    removeDescription(folderOf(version.path()), version.name + kDescriptionExtension);
    ledger_.eraseVersion(version);
}

/// Removes it when the disk knows of what speaks of it.
void Device::removeFlushed(const std::string& path, const std::optional<LedgerFile>& file) {
    if (const auto version = ledger_.versionFrom(path); version && isFile(path)) {
        return moveToVersions(path, *version);
    }
    const auto [folder, name] = placeOf(path);
    const std::string kept = file && file->was.empty() ? replacedBy(*file) : std::string();
    if (!kept.empty()) {
        if (::renameat(folder.get(), nameOf(kept).c_str(), folder.get(), name.c_str()) != 0) {
            fail("remove", path, errno);
        }
        moveDescription(kept, path);
        flushFolder(folderOf(path));
        ledger_.moveFile(kept, path, "");
        return;
    }
    if (::unlinkat(folder.get(), name.c_str(), 0) != 0 && errno != ENOENT) fail("remove", path, errno);
    removeDescription(folderOf(path), name + kDescriptionExtension);
    if (file) ledger_.setState(path, FileState::Removed);
}

void Device::retireFileLater(const std::string& path) {
    std::size_t waiting = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        waiting_.insert(path);
        waiting = waiting_.size();
    }
    if (waiting >= kMostWaiting) flushRows();
}

bool Device::isWaiting(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return waiting_.count(path) != 0;
}

bool Device::hasWaiting() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return !waiting_.empty();
}

/// Path of the version that the file has replaced and that is kept; empty when there is none.
std::string Device::replacedBy(const LedgerFile& file) {
    for (const LedgerFile& other : ledger_.filesOfItem(file.item)) {
        if (other.was == nameOf(file.path) && folderOf(other.path) == folderOf(file.path) &&
            isOwnName(nameOf(other.path), kKeptPrefix) && isFile(other.path)) {
            return other.path;
        }
    }
    return {};
}

bool Device::keepReplaced(const std::string& path, const std::string& item) {
    if (!ledger_.file(path)) {
        for (const LedgerFile& other : ledger_.filesOfItem(item)) {
            if (other.was == nameOf(path) && folderOf(other.path) == folderOf(path) && isFile(other.path)) {
                return false;
            }
        }
        ledger_.putFile(
            {path, item, static_cast<std::uint64_t>(status(path)->st_size), "", "", FileState::Pending});
    }
    putFileAside(path, joinPath(folderOf(path), newOwnName(kKeptPrefix)));
    beforeTaking(path);
    return true;
}

void Device::refuseStanding(const std::string& from, const std::string& to) {
    if (isWaiting(to)) flushRows();
    if (nameKey(from) == nameKey(to) || !status(to)) return;
    throw DeviceException("Cannot rename " + quoted(from) + ": " + quoted(to) + " exists already");
}

void Device::moveFileOnly(const std::string& from, const std::string& to) {
    const auto [fromFolder, fromName] = placeOf(from);
    const auto [toFolder, toName] = placeOf(to);
    refuseStanding(from, to);
    const int error = renameWithoutReplacing(fromFolder.get(), fromName, toFolder.get(), toName);
    if (error != 0) fail("rename", from, error);
    noteLeft(from);
}

// The ledger's row goes first and says where the file was: if the file did not follow, or has to come back,
// it is found from there. Under a name of the file service's own it is found from there only.
void Device::putFileAside(const std::string& from, const std::string& to) {
    refuseStanding(from, to);  // before the row claims what is somebody else's
    beforeTaking(to);
    const std::optional<LedgerFile> before = ledger_.file(from);
    ledger_.moveFile(from, to, nameOf(from));
    if (isOwnName(nameOf(to), kKeptPrefix)) flushLedger();
    try {
        moveFileOnly(from, to);
    } catch (DeviceException&) {
        try {
            ledger_.moveFile(to, from, "");
            if (before) ledger_.putFile(*before);  // recorded as ever: what replaces it now has to keep it
        } catch (Poco::Exception&) {
            // The row stays pending, and recovery sees that the file never moved.
        }
        throw;
    }
    moveDescription(from, to);
}

// The file goes first: until its row has followed, it is found from what the row says of where it was. Under
// a name of the file service's own it is found from there only, so the disk has to know the new one before.
void Device::renameFile(const std::string& from, const std::string& to) {
    moveFileOnly(from, to);
    moveDescription(from, to);
    if (isOwnName(nameOf(from), kKeptPrefix)) flushFolder(folderOf(to));
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
    for (const std::string& place : {folder, joinPath(folder, kDescriptionFolder)}) {
        if (!place.empty() && !isFolder(place)) continue;
        std::vector<std::string> parts;
        listFolder(place, [&](const std::string& name) {
            if (isOwnName(name, kPartPrefix) && isFile(joinPath(place, name))) parts.push_back(name);
        });
        const Descriptor descriptor = openFolder(place);
        for (const std::string& name : parts) removed += ::unlinkat(descriptor.get(), name.c_str(), 0) == 0;
    }
    if (removed > 0) flushFolderWithRows(folder);
    return removed;
}

Descriptor Device::openDescriptionFolder(const std::string& folder) {
    return openDirectlyBelow(openFolder(folder), kDescriptionFolder);
}

Descriptor Device::makeDescriptionFolder(const std::string& folder) {
    const Descriptor parent = openFolder(folder);
    Descriptor descriptions = openDirectlyBelow(parent, kDescriptionFolder);
    if (descriptions.isOpen()) return descriptions;
    if (::mkdirat(parent.get(), kDescriptionFolder, folderMode()) != 0 && errno != EEXIST) {
        fail("make the folder", joinPath(folder, kDescriptionFolder), errno);
    }
    descriptions = openDirectlyBelow(parent, kDescriptionFolder);
    if (!descriptions.isOpen()) fail("open the folder", joinPath(folder, kDescriptionFolder), errno);
    return descriptions;
}

std::string Device::readDescription(const std::string& folder, const std::string& name) {
    const Descriptor descriptions = openDescriptionFolder(folder);
    if (!descriptions.isOpen() || !isPlainName(name)) return {};
    const Descriptor file = openRegular(descriptions.get(), name);
    if (!file.isOpen()) return {};
    std::string text;
    if (readAll(file, text, kLongestDescription) != 0 || text.size() > kLongestDescription) return {};
    return text;
}

void Device::flushFolderDescriptionWithRows(const std::string& folder) {
    const std::lock_guard<std::mutex> lock(mutex_);
    descriptions_.insert(folder);
}

std::string Device::folderIdByDescription(const std::string& folder) {
    return descriptionField(readDescription(folder, kFolderDescription), "ID");
}

void Device::removeDescription(const std::string& folder, const std::string& name) {
    if (!folder.empty() && !isFolder(folder)) return;
    const Descriptor descriptions = openDescriptionFolder(folder);
    // A description that stays behind its file would never be looked for again: the file's row has to stay as
    // well.
    if (descriptions.isOpen() && ::unlinkat(descriptions.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
        fail("remove", joinPath(folder, name), errno);
    }
}

void Device::moveDescription(const std::string& from, const std::string& to) {
    const Descriptor fromDescriptions = openDescriptionFolder(folderOf(from));
    if (!fromDescriptions.isOpen()) return;
    const std::string fromName = nameOf(from) + kDescriptionExtension;
    struct stat status = {};
    if (::fstatat(fromDescriptions.get(), fromName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    const Descriptor toDescriptions = makeDescriptionFolder(folderOf(to));
    if (::renameat(fromDescriptions.get(), fromName.c_str(), toDescriptions.get(),
                   (nameOf(to) + kDescriptionExtension).c_str()) != 0) {
        fail("rename the description of", from, errno);
    }
}

void Device::readFile(const std::string& path, const std::function<void(const char*, std::size_t)>& visit) {
    const auto [folder, name] = placeOf(path);
    const Descriptor file = openRegular(folder.get(), name);
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

}  // namespace flickr_standin
