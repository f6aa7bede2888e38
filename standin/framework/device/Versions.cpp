#include "standin/framework/device/Versions.h"

#include <Poco/Exception.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "standin/framework/base/Checksum.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/NewDescription.h"
#include "standin/framework/device/Recovery.h"
#include "standin/framework/device/VersionDays.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

namespace {

constexpr std::time_t kDay = 24 * 60 * 60;  // seconds

bool isTooOld(const LedgerVersion& version) {
    const int days = daysOfVersions();
    return days == 0 || *replacedAt(version.name) < std::time(nullptr) - days * kDay;
}

LedgerVersion versionAt(Device& device, const std::string& path) {
    for (LedgerVersion& version : device.ledger().versions()) {
        if (version.path() == path && device.isFile(path)) return std::move(version);
    }
    throw Poco::NotFoundException("There is no older version \"" + path +
                                  "\"; \"flickr-backup versions list\" names them");
}

void refuseDamaged(Device& device, const LedgerVersion& version) {
    Checksum checksum;
    std::uint64_t read = 0;
    device.readFile(version.path(), [&](const char* data, std::size_t size) {
        checksum.update(data, size);
        read += size;
    });
    if (read == version.size && (version.checksum.empty() || checksum.text() == version.checksum)) return;
    throw DeviceException(
        "\"" + version.path() +
        "\" is damaged: it does not hold what was backed up; copy it by hand if it is still "
        "of use");
}

/// Writes the version's description as that of the item's file at path, with the names of the current one. A
/// version without a description gets the current one.
void describe(Device& device, const LedgerVersion& version, const std::string& path,
              const std::string& current) {
    std::string text = device.readDescription(folderOf(version.path()), version.name + kDescriptionExtension);
    if (text.empty()) text = current;
    if (text.empty()) return;
    for (const char* field : {"FileName", "ThumbnailName"}) {
        const std::string name = descriptionField(current, field);
        if (!name.empty()) text = withDescriptionField(text, field, name);
    }
    text = withDescriptionField(text, "PhysicalFileName", nameOf(path));
    NewDescription description(device, folderOf(path), newOwnName(kPartPrefix));
    description.write(text);
    if (const int error = description.flush()) device.fail("write the description of", path, error);
    description.place(nameOf(path) + kDescriptionExtension);
}

/// Folders of versions in which nothing is left go.
void removeEmptyFolders(Device& device, const std::string& folder) {
    const std::string versions = joinPath(folder, kVersionFolder);
    const Descriptor open = device.openFolder(versions);
    ::unlinkat(open.get(), kDescriptionFolder, AT_REMOVEDIR);
    ::unlinkat(device.openFolder(folder).get(), kVersionFolder, AT_REMOVEDIR);
}

}  // namespace

std::vector<Version> versionsOn(Device& device) {
    std::vector<Version> found;
    for (const LedgerVersion& version : device.ledger().versions()) {
        const std::string path = version.path();
        if (!device.isFile(path)) continue;
        found.push_back({path, version.item, *replacedAt(version.name), version.size});
    }
    std::sort(found.begin(), found.end(), [](const Version& a, const Version& b) { return a.path < b.path; });
    return found;
}

long pruneVersions(Device& device) {
    long removed = 0;
    std::vector<LedgerVersion> gone;
    std::set<std::string> folders;
    for (LedgerVersion& version : device.ledger().versions()) {
        const std::string path = version.path();
        const auto status = device.status(path);
        const bool there = status && S_ISREG(status->st_mode);
        if (!version.aside.empty() || (there && !isTooOld(version))) continue;
        const bool changed = there && static_cast<std::uint64_t>(status->st_size) != version.size;
        if (!changed && device.isFolder(folderOf(path))) {
            const Descriptor folder = device.openFolder(folderOf(path));
            const bool isRemoved = ::unlinkat(folder.get(), version.name.c_str(), 0) == 0;
            if (!isRemoved && errno != ENOENT) device.fail("remove", path, errno);
            removed += isRemoved;
            device.removeDescription(folderOf(path), version.name + kDescriptionExtension);
            folders.insert(version.folder);
        }
        gone.push_back(std::move(version));
    }
    for (const std::string& folder : folders) device.flushFolder(joinPath(folder, kVersionFolder));
    for (const LedgerVersion& version : gone) device.ledger().eraseVersion(version);
    for (const std::string& folder : folders) removeEmptyFolders(device, folder);
    return removed;
}

// Nothing of it is on the disk by halves: until the version has moved the current file is found from what the
// ledger says of where it was, and behind that it becomes a version like one that a run has replaced.
std::string restoreVersion(BackupDatabase& database, Device& device, const std::string& path) {
    const LedgerVersion version = versionAt(device, path);
    const auto row = database.item(version.item);
    if (!row) {
        throw DeviceException("The item of \"" + path + "\" is not recorded any more; copy the file by hand");
    }
    const std::string current = row->mediaPath;
    if (device.status(current) && !device.owns(current, row->id)) {
        throw DeviceException("Something else stands at \"" + current + "\": move it away");
    }
    refuseDamaged(device, version);
    const std::string described =
        device.readDescription(row->folder, nameOf(current) + kDescriptionExtension);
    try {
        if (device.isFile(current)) device.keepReplaced(current, row->id);
        describe(device, version, current, described);
        device.restoreVersion(version, current);
    } catch (Poco::Exception&) {
        recoverDevice(database, device);
        throw;
    }
    recoverDevice(database, device);
    return current;
}

}  // namespace flickr_standin
