// What is settled, in this order, each step harmless to repeat:
//
//   renamed folders   the set's row has the new name: the rows of its items get it too; it has the old name:
//                     the folder gets it back
//   lost rows         only when the ledger was lost or its last use did not end by closing, so that a power
//                     cut may have taken its last rows: half-written files are removed from every recorded
//                     folder, and files that stand aside are looked for beside every recorded file
//   files             see settleAside() and settleWritten()
//   adoption          after lost rows: recorded files that the ledger does not know are entered, without
//   their
//                     checksums
//   made folders      an empty folder that no row names is removed
//   recorded folders  each exists, so that new items find their place

#include "standin/framework/Recovery.h"

#include <map>
#include <optional>
#include <set>

#include "standin/framework/BackupDatabase.h"
#include "standin/framework/Checksum.h"
#include "standin/framework/Device.h"
#include "standin/framework/ItemFiles.h"
#include "standin/framework/ItemRecord.h"
#include "standin/framework/Localisation.h"
#include "standin/framework/Names.h"
#include "standin/framework/RunSettings.h"

namespace Norvale_Plugin_Core {

namespace {

class Recovery {
public:
    Recovery(BackupDatabase& database, Device& device) : database_(database), device_(device) {}

    RecoveryReport run() {
        const bool mayLackRows = device_.ledger().mayLackRows();
        settleRenamedFolders();
        if (mayLackRows) findLostRows();
        settleFiles();
        if (mayLackRows) adoptFiles();
        removeUnusedFolders();
        makeRecordedFolders();
        return report_;
    }

private:
    void findLostRows();
    void findAside(const std::string& path, const ItemRow& row);
    void adoptFiles();
    void adopt(const std::string& path, const std::string& item);
    void settleRenamedFolders();
    void settleFiles();
    void settleAside(const LedgerFile& file, const std::optional<ItemRow>& row);
    void settleWritten(const LedgerFile& file, const std::optional<ItemRow>& row);
    void settleThumbnail(const LedgerFile& file, const ItemRow& row);
    bool hasNewVersion(const LedgerFile& aside, const ItemRow& row);
    std::string checksumOf(const std::string& path);
    void rehash(LedgerFile file);
    void remove(const std::string& path);
    bool isUsedFolder(const std::string& path);
    void removeUnusedFolders();
    void makeRecordedFolders();

    BackupDatabase& database_;
    Device& device_;
    RecoveryReport report_;
};

void Recovery::adopt(const std::string& path, const std::string& item) {
    const std::optional<struct stat> status = device_.status(path);
    if (!status || !S_ISREG(status->st_mode) || device_.ledger().file(path)) return;
    device_.ledger().putFile({path, item, static_cast<std::uint64_t>(status->st_size), "", "", 0});
    ++report_.adopted;
}

void Recovery::adoptFiles() {
    database_.forEachItem([&](const ItemRow& row) {
        adopt(row.mediaPath, row.id);
        for (const std::string& path : thumbnailCandidates(row)) adopt(path, row.id);
    });
    for (const FolderRow& folder : database_.folders()) {
        if (folder.deviceName.empty() || !device_.isFolder(folder.deviceName)) continue;
        if (device_.ledger().madeFolder(folder.deviceName)) continue;
        device_.ledger().addMadeFolder(folder.deviceName);
        device_.ledger().settleFolders({folder.deviceName});
    }
}

void Recovery::findLostRows() {
    std::set<std::string> folders = {""};
    for (const FolderRow& folder : database_.folders()) folders.insert(folder.deviceName);
    for (const std::string& culture : knownCultures()) {
        const std::string word = localisedKeyword(culture, "ThumbnailKey");
        for (const FolderRow& folder : database_.folders()) folders.insert(joinPath(folder.deviceName, word));
        folders.insert(word);
    }
    for (const LedgerFolder& folder : device_.ledger().pendingFolders()) folders.insert(folder.path);
    for (const std::string& folder : folders) {
        if (folder.empty() || device_.isFolder(folder)) report_.removed += device_.removeParts(folder);
    }
    database_.forEachItem([&](const ItemRow& row) {
        std::vector<std::string> paths = thumbnailCandidates(row);
        paths.push_back(row.mediaPath);
        for (const LedgerFile& file : device_.ledger().filesOfItem(row.id)) {
            if (!file.was.empty() || file.path == row.mediaPath || isThumbnailOf(row, file.path)) continue;
            // The ledger is behind the row, which has another name by now.
            paths.push_back(file.path);
            device_.ledger().setPending(file.path, 1);
        }
        for (const std::string& path : paths) findAside(path, row);
    });
}

/// Enters the old version of the file at path, if one stands aside; what has its name is then a newer one.
void Recovery::findAside(const std::string& path, const ItemRow& row) {
    Ledger& ledger = device_.ledger();
    const std::string aside = joinPath(folderOf(path), asideName(nameOf(path)));
    if (!device_.isFile(aside) || ledger.file(aside)) return;
    const bool newer = device_.isFile(path);
    if (folderOf(path) == row.folder) {
        // Its record may not have followed it yet.
        const std::string own = device_.readRecord(row.folder, nameOf(aside) + kRecordExtension);
        const std::string before = device_.readRecord(row.folder, nameOf(path) + kRecordExtension);
        if (recordField(own.empty() && !newer ? before : own, "ID") != row.id) return;
    }
    if (const auto file = ledger.file(path)) {
        ledger.moveFile(path, aside, nameOf(path));
    } else {
        const auto size = static_cast<std::uint64_t>(device_.status(aside)->st_size);
        ledger.putFile({aside, row.id, size, "", nameOf(path), 1});
    }
    for (const std::string& version : versionsOf(path, row)) {
        if (!ledger.file(version) && device_.isFile(version)) ledger.putFile({version, row.id, 0, "", "", 2});
    }
}

void Recovery::settleRenamedFolders() {
    Ledger& ledger = device_.ledger();
    for (const LedgerFolder& folder : ledger.pendingFolders()) {
        if (folder.was.empty()) continue;
        const std::string set = database_.folderIdByDeviceName(folder.path);
        if (!set.empty()) {
            // The set's own row comes first, its items' rows after it.
            database_.moveItems(set, folder.path);
        } else if (!device_.isFolder(folder.was)) {
            const std::string unchanged = database_.folderIdByDeviceName(folder.was);
            if (!unchanged.empty() && device_.isFolder(folder.path)) {
                device_.renameFolder(folder.path, folder.was);
                // Those that were backed up into it under the new name come back with it.
                database_.moveItems(unchanged, folder.was);
                ledger.settleFolders({folder.was});
                ++report_.restored;
                continue;
            }
        } else if (!device_.isFolder(folder.path)) {
            // Killed before the folder itself was renamed.
            ledger.moveFolder(folder.path, folder.was, false);
            continue;
        }
        ledger.settleFolders({folder.path});
    }
}

void Recovery::settleFiles() {
    const std::vector<LedgerFile> files = device_.ledger().pendingFiles();
    // What stands aside first: it may come back.
    for (const LedgerFile& file : files) {
        if (!file.was.empty()) settleAside(file, database_.item(file.item));
    }
    for (const LedgerFile& file : files) {
        if (file.was.empty()) settleWritten(file, database_.item(file.item));
    }
}

/// A file that stands aside under "_Old" until a new version is recorded.
void Recovery::settleAside(const LedgerFile& file, const std::optional<ItemRow>& row) {
    Ledger& ledger = device_.ledger();
    const std::string before = joinPath(folderOf(file.path), file.was);
    if (!device_.isFile(file.path)) {
        // It was never moved, or is back already, or is gone. In the second case the new version may have
        // been entered without ever coming to stand there.
        const bool standing = device_.isFile(before);
        if (standing && (!ledger.file(before) || checksumOf(before) == file.checksum)) {
            device_.moveRecord(file.path, before);
            ledger.moveFile(file.path, before, "");
            ledger.setPending(before, 0);
        } else {
            remove(file.path);
        }
        return;
    }
    if (row && hasNewVersion(file, *row)) {
        remove(file.path);
    } else if (!device_.status(before)) {
        device_.renameFile(file.path, before);
        ledger.setPending(before, 0);
        ++report_.restored;
    }
}

/// True when the file that takes the place of one that stands aside is on the device.
bool Recovery::hasNewVersion(const LedgerFile& aside, const ItemRow& row) {
    const bool thumbnail = folderOf(aside.path) != row.folder;
    if (!thumbnail) return device_.isFile(row.mediaPath);
    for (const LedgerFile& other : device_.ledger().filesOfItem(row.id)) {
        if (other.was.empty() && isThumbnailOf(row, other.path) && device_.isFile(other.path)) return true;
    }
    return false;
}

/// A file that was written and may not be recorded.
void Recovery::settleWritten(const LedgerFile& file, const std::optional<ItemRow>& row) {
    if (!device_.isFile(file.path)) {
        remove(file.path);
        return;
    }
    const bool thumbnail = row && isThumbnailOf(*row, file.path);
    if (row && folderOf(file.path) == row->folder && !device_.status(row->mediaPath)) {
        // A power cut took the row's last change: this is all that there is of the item.
        database_.setDerivedName(row->id, nameOf(file.path));
        device_.ledger().setPending(file.path, 0);
        ++report_.restored;
        return;
    }
    if (!row || (file.path != row->mediaPath && !thumbnail)) {
        remove(file.path);
        return;
    }
    if (file.pending == 2) rehash(file);
    if (thumbnail) settleThumbnail(file, *row);
    device_.ledger().setPending(file.path, 0);
}

/// The item's row gets the extension that its thumbnail has; thumbnails with other extensions, or in the
/// folder of another language, are older.
void Recovery::settleThumbnail(const LedgerFile& file, const ItemRow& row) {
    const std::string extension = splitName(nameOf(file.path)).extension;
    if (!extension.empty()) database_.setImageExtension(row.id, extension.substr(1));
    for (const LedgerFile& other : device_.ledger().filesOfItem(row.id)) {
        const bool older = other.path != file.path && other.path != row.mediaPath && other.pending == 0;
        if (older) remove(other.path);
    }
}

std::string Recovery::checksumOf(const std::string& path) {
    Checksum checksum;
    device_.readFile(path, [&](const char* data, std::size_t size) { checksum.update(data, size); });
    return checksum.text();
}

void Recovery::rehash(LedgerFile file) {
    file.size = static_cast<std::uint64_t>(device_.status(file.path)->st_size);
    file.checksum = checksumOf(file.path);
    device_.ledger().putFile(file);
}

/// Removes the file, if there is one, with its record and its row.
void Recovery::remove(const std::string& path) {
    if (device_.isFile(path)) {
        device_.removeFile(path);
        ++report_.removed;
        return;
    }
    const std::string folder = folderOf(path);
    if (folder.empty() || device_.isFolder(folder)) {
        device_.removeRecord(folder, nameOf(path) + kRecordExtension);
    }
    device_.ledger().eraseFile(path);
}

/// True for the folder of a recorded set and for the folders of its thumbnails.
bool Recovery::isUsedFolder(const std::string& path) {
    if (!database_.folderIdByDeviceName(path).empty()) return true;
    const std::string parent = folderOf(path);
    if (!parent.empty()) return !database_.folderIdByDeviceName(parent).empty();
    return isSystemWord(path) && !database_.derivedName(kNoSetId).empty();
}

void Recovery::removeUnusedFolders() {
    std::vector<std::string> kept;
    for (const LedgerFolder& folder : device_.ledger().pendingFolders()) {
        if (!folder.was.empty()) continue;
        if (device_.isFolder(folder.path) && !isUsedFolder(folder.path)) {
            device_.removeRecord(folder.path, kFolderRecord);
            try {
                device_.removeFolder(folder.path);
                continue;
            } catch (DeviceException&) {
                // It holds something and stays.
            }
        }
        kept.push_back(folder.path);
    }
    device_.ledger().settleFolders(kept);
}

void Recovery::makeRecordedFolders() {
    for (const FolderRow& folder : database_.folders()) {
        if (folder.deviceName.empty() || device_.status(folder.deviceName)) continue;
        device_.makeFolder(folder.deviceName);
        device_.ledger().settleFolders({folder.deviceName});
    }
}

}  // namespace

RecoveryReport recoverDevice(BackupDatabase& database, const std::string& serviceFolder) {
    // A device that another run or check left open may be another one by now.
    Device::close();
    std::string folder = serviceFolder;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    const std::shared_ptr<Device> device = Device::open(folder, currentMountPoint());
    const RecoveryReport report = Recovery(database, *device).run();
    Device::close();
    return report;
}

}  // namespace Norvale_Plugin_Core
