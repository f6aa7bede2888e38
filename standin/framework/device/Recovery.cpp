// What is settled, in this order, each step harmless to repeat; docs/file-service.md has every case:
//
//   folders of sets   every set's row names the folder that is the set's: the folder gets the recorded name
//                     back, or the row takes the folder's name where the recorded one is taken
//   lost rows         only when the ledger was lost or its last use did not end by closing, so that a power
//                     cut may have taken its last rows: half-written files are removed from every recorded
//                     folder, and files that stand aside are looked for beside every recorded file
//   files             see settleAside() and settleWritten(). No file of an item goes while the one that the
//                     item's row names is not there
//   versions          older versions on their way have arrived, or are forgotten
//   adoption          after lost rows: recorded files and older versions that the ledger does not know are
//                     entered, without their checksums
//   made folders      an empty folder that no row names is removed
//   recorded folders  each exists, so that new items find their place
//
// What the ledger forgets is on the disk before: files that are gone, and the rows that settle the others.

#include "standin/framework/device/Recovery.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "standin/framework/base/Checksum.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

namespace {

class Recovery {
public:
    Recovery(BackupDatabase& database, Device& device) : database_(database), device_(device) {}

    RecoveryReport run() {
        const bool mayLackRows = device_.ledger().mayLackRows();
        placeFolders();
        if (mayLackRows) findLostRows();
        settleFiles();
        if (mayLackRows) {
            adoptFiles();
            adoptVersions();
        }
        removeUnusedFolders();
        makeRecordedFolders();
        if (mayLackRows) device_.flushRows();
        return report_;
    }

private:
    void findLostRows();
    void findAside(const std::string& path, const ItemRow& row);
    void adoptFiles();
    void adopt(const std::string& path, const std::string& item);
    void placeFolders();
    void finishRenames();
    std::string placeOf(const FolderRow& set);
    bool isTwinOfAnother(const LedgerFile& file);
    bool isListed(const std::string& path);
    std::string whoseFolder(const std::string& path);
    void readFolderDescriptions();
    void settleFiles();
    void settleAside(const LedgerFile& file, const std::optional<ItemRow>& row);
    void settleWritten(const LedgerFile& file, const std::optional<ItemRow>& row);
    void recordExtension(const ItemRow& row, const std::string& extension);
    void settleThumbnail(const LedgerFile& file, const ItemRow& row);
    void settleReturned(const LedgerFile& aside, const std::string& path, const std::optional<ItemRow>& row);
    bool describesRow(const std::string& path, const std::optional<ItemRow>& row);
    void keepThumbnail(const LedgerFile& file, const ItemRow& row);
    bool hasMedia(const ItemRow& row);
    std::string thumbnailOf(const ItemRow& row, const std::string& except);
    bool hasNewVersion(const LedgerFile& aside, const ItemRow& row);
    bool mayGo(const LedgerFile& file, const std::optional<ItemRow>& row);
    bool isDatabaseOlder();
    bool isUnchanged(const LedgerFile& file);
    void flushNames(const std::string& folder);
    void retire(const std::string& path);
    void finishVersion(const std::string& path);
    void settleVersions();
    void adoptVersions();
    void forgetRemoved();
    std::string checksumOf(const std::string& path);
    void rehash(LedgerFile file);
    void remove(const std::string& path);
    bool isUsedFolder(const std::string& path);
    bool isEmpty(const std::string& path);
    void removeUnusedFolders();
    void makeRecordedFolders();

    BackupDatabase& database_;
    Device& device_;
    RecoveryReport report_;
    std::map<std::string, LedgerFolder> ledgerFolders_;                  // by path
    std::map<std::string, std::string> ownFolders_;                      // by the set's id
    std::optional<std::map<std::string, std::string>> recordedFolders_;  // by the ids of their descriptions
    std::optional<bool> isDatabaseOlder_;
    std::vector<std::string> removed_;
    std::set<std::string> formerlySettled_;  // paths of files that lost rows have made pending
};

void Recovery::adopt(const std::string& path, const std::string& item) {
    const std::optional<struct stat> status = device_.status(path);
    if (!status || !S_ISREG(status->st_mode) || device_.ledger().file(path)) return;
    const std::string owner =
        descriptionField(device_.readDescription(folderOf(path), nameOf(path) + kDescriptionExtension), "ID");
    if (!owner.empty() && owner != item) return;
    device_.ledger().putFile(
        {path, item, static_cast<std::uint64_t>(status->st_size), "", "", FileState::Settled});
    ++report_.adopted;
}

void Recovery::adoptFiles() {
    database_.forEachItem([&](const ItemRow& row) {
        adopt(row.mediaPath, row.id);
        for (const std::string& path : thumbnailCandidates(row, device_.thumbnailWord())) adopt(path, row.id);
    });
    const std::string word = device_.thumbnailWord();
    for (const FolderRow& folder : database_.folders()) {
        for (const std::string& path : {folder.deviceName, joinPath(folder.deviceName, word)}) {
            if (path.empty() || !device_.isFolder(path) || device_.ledger().madeFolder(path)) continue;
            device_.ledger().addMadeFolder(path);
            device_.ledger().settleFolders({path});
        }
    }
}

void Recovery::findLostRows() {
    std::set<std::string> folders = {""};
    for (const FolderRow& folder : database_.folders()) folders.insert(folder.deviceName);
    for (const std::string& culture : knownCultures()) {
        const std::string word = localisedKeyword(culture, kThumbnailKey);
        for (const FolderRow& folder : database_.folders()) folders.insert(joinPath(folder.deviceName, word));
        folders.insert(word);
    }
    for (const LedgerFolder& folder : device_.ledger().folders()) folders.insert(folder.path);
    for (const std::string& folder : folders) {
        if (folder.empty() || device_.isFolder(folder)) report_.removed += device_.removeParts(folder);
    }
    database_.forEachItem([&](const ItemRow& row) {
        std::vector<std::string> paths = thumbnailCandidates(row, device_.thumbnailWord());
        paths.push_back(row.mediaPath);
        for (const LedgerFile& file : device_.ledger().filesOfItem(row.id)) {
            if (!file.was.empty() || file.state == FileState::Removed || file.path == row.mediaPath ||
                isThumbnailOf(row, file.path)) {
                continue;
            }
            // The ledger is behind the row, which has another name by now.
            paths.push_back(file.path);
            if (file.state == FileState::Settled) formerlySettled_.insert(file.path);
            device_.ledger().setState(file.path, FileState::Pending);
        }
        for (const std::string& path : paths) findAside(path, row);
    });
}

/// Enters the old version of the file at path, if one stands aside, and the newer ones of it.
void Recovery::findAside(const std::string& path, const ItemRow& row) {
    Ledger& ledger = device_.ledger();
    const std::string aside = joinPath(folderOf(path), asideName(nameOf(path)));
    if (!device_.isFile(aside)) return;
    const std::vector<LedgerFile> known = ledger.filesOfItem(row.id);
    const bool isKnown = std::any_of(known.begin(), known.end(), [&](const LedgerFile& file) {
        return nameKey(file.path) == nameKey(aside);
    });
    if (!isKnown && !ledger.file(aside)) {
        const auto file = ledger.file(path);
        if (folderOf(path) == row.folder) {
            // Its description may not have followed it yet; what it holds tells it from a file of somebody
            // else's.
            const std::string description =
                device_.readDescription(row.folder, nameOf(aside) + kDescriptionExtension);
            const bool same = description.empty() && file && file->item == row.id && !device_.isFile(path) &&
                              file->checksum == checksumOf(aside);
            if (!same && descriptionField(description, "ID") != row.id) return;
        }
        if (file) {
            ledger.moveFile(path, aside, nameOf(path));
        } else {
            const auto size = static_cast<std::uint64_t>(device_.status(aside)->st_size);
            ledger.putFile({aside, row.id, size, "", nameOf(path), FileState::Pending});
        }
    }
    for (const std::string& version : versionsOf(path, row)) {
        if (!ledger.file(version) && device_.isFile(version))
            ledger.putFile({version, row.id, 0, "", "", FileState::PendingOlder});
    }
}

void Recovery::placeFolders() {
    finishRenames();
    std::vector<std::string> settled;
    for (const FolderRow& set : database_.folders()) {
        if (set.deviceName.empty()) continue;
        std::string place = placeOf(set);
        if (place.empty()) continue;
        const auto known = ledgerFolders_.find(place);
        const std::string was = known == ledgerFolders_.end() ? std::string() : known->second.was;
        const std::string owner = known == ledgerFolders_.end() ? std::string() : known->second.owner;
        if (place != set.deviceName) {
            if (was == set.deviceName && !device_.status(was)) {
                device_.renameFolder(place, was);
                place = was;
            } else {
                database_.setDerivedName(set.id, place);
            }
            ++report_.restored;
        }
        if (place != set.deviceName || !was.empty()) database_.moveItems(set.id, place);
        if (owner != set.id) device_.ledger().setFolderOwner(place, set.id);
        if (was.empty()) continue;
        ledgerFolders_.erase(known);
        settled.push_back(place);
    }
    for (const auto& [path, folder] : ledgerFolders_) {
        if (!folder.was.empty()) settled.push_back(path);
    }
    if (settled.empty()) return;
    device_.flushRows();
    device_.ledger().settleFolders(settled);
}

/// Afterwards the ledger's folders stand where it says.
void Recovery::finishRenames() {
    Ledger& ledger = device_.ledger();
    for (const LedgerFolder& folder : ledger.setFolders()) ledgerFolders_[folder.path] = folder;
    for (LedgerFolder& folder : ledger.setFolders()) {
        const bool happened = folder.was.empty() || (isListed(folder.path) && device_.isFolder(folder.path));
        if (!happened && device_.isFolder(folder.was) && ledgerFolders_.count(folder.was) == 0) {
            // Killed before the folder itself was renamed.
            ledger.moveFolderBack(folder.path, folder.was);
            ledgerFolders_.erase(folder.path);
            folder.path = std::move(folder.was);
            folder.was.clear();
            ledgerFolders_[folder.path] = folder;
        }
        if (!folder.owner.empty()) ownFolders_[folder.owner] = folder.path;
    }
}

/// The folder of a recorded set, or none. The set's id tells, not the name, which another set may have taken.
std::string Recovery::placeOf(const FolderRow& set) {
    const auto own = ownFolders_.find(set.id);
    if (own != ownFolders_.end() && device_.isFolder(own->second)) return own->second;
    const auto mayBe = [&](const std::string& path) {
        const std::string owner = whoseFolder(path);
        return owner.empty() || owner == set.id;
    };
    const bool standing = device_.isFolder(set.deviceName);
    if (standing && mayBe(set.deviceName)) return set.deviceName;
    for (const auto& [path, folder] : ledgerFolders_) {
        if (folder.was == set.deviceName && device_.isFolder(path) && mayBe(path)) return path;
    }
    readFolderDescriptions();
    const auto recorded = recordedFolders_->find(set.id);
    if (recorded != recordedFolders_->end()) return recorded->second;
    return standing && device_.ledger().folderOwner(set.deviceName).empty() ? set.deviceName : std::string();
}

/// True when something stands under that very name, and not only in another case.
bool Recovery::isListed(const std::string& path) {
    bool isListed = false;
    device_.listFolder(folderOf(path),
                       [&](const std::string& name) { isListed = isListed || name == nameOf(path); });
    return isListed;
}

std::string Recovery::whoseFolder(const std::string& path) {
    const std::string owner = device_.ledger().folderOwner(path);
    return owner.empty() ? device_.folderIdByDescription(path) : owner;
}

void Recovery::readFolderDescriptions() {
    if (recordedFolders_) return;
    recordedFolders_.emplace();
    device_.listFolder("", [&](const std::string& name) {
        if (name == kDescriptionFolder || !device_.isFolder(name)) return;
        const std::string set = whoseFolder(name);
        if (!set.empty()) recordedFolders_->emplace(set, name);
    });
}

void Recovery::settleFiles() {
    // What stands aside first: it may come back. Thumbnails last: the name of their item decides.
    for (const LedgerFile& file : device_.ledger().pendingFiles()) {
        const bool aside =
            !file.was.empty() && (file.state != FileState::Removed || device_.isFile(file.path));
        if (aside) settleAside(file, database_.item(file.item));
    }
    std::vector<LedgerFile> others;
    for (const LedgerFile& file : device_.ledger().pendingFiles()) {
        const auto row = database_.item(file.item);
        if (!file.was.empty() || !row || folderOf(file.path) != row->folder) {
            others.push_back(file);
        } else {
            settleWritten(file, row);
        }
    }
    for (const LedgerFile& file : others) {
        if (file.was.empty() || file.state == FileState::Removed)
            settleWritten(file, database_.item(file.item));
    }
    forgetRemoved();
}

/// A file that stands aside until a new version is recorded.
void Recovery::settleAside(const LedgerFile& file, const std::optional<ItemRow>& row) {
    const std::string before = joinPath(folderOf(file.path), file.was);
    const bool foreign = device_.owns(before, file.item) && !isUnchanged(file);
    const auto version = device_.ledger().versionFrom(file.path);
    if (!device_.isFile(file.path) && version && device_.isFile(version->path())) {
        remove(file.path);
    } else if (!device_.isFile(file.path) || foreign) {
        settleReturned(file, before, row);
        device_.ledger().eraseFile(file.path);
    } else if (row && hasNewVersion(file, *row)) {
        retire(file.path);
    } else if (!device_.status(before)) {
        if (version && device_.isFolder(folderOf(version->path()))) {
            device_.moveDescription(version->path(), file.path);
        }
        device_.renameFile(file.path, before);
        ++report_.restored;
    }
}

/// A file that its row says stands aside, and that does not: it was never moved, or is back already, or is
/// gone. What stands at path may also be a newer version of it.
void Recovery::settleReturned(const LedgerFile& aside, const std::string& path,
                              const std::optional<ItemRow>& row) {
    Ledger& ledger = device_.ledger();
    const auto current = ledger.file(path);
    const std::string checksum = device_.isFile(path) ? checksumOf(path) : std::string();
    const bool same = !checksum.empty() && checksum == aside.checksum;
    if (same && (!current || current->item == aside.item)) {
        // An edit of the title or a tag leaves the bytes as they were.
        if (describesRow(path, row)) {
            device_.removeDescription(folderOf(path), nameOf(aside.path) + kDescriptionExtension);
        } else {
            device_.moveDescription(aside.path, path);
        }
        flushNames(folderOf(path));  // no row speaks of the description then
        ledger.moveFile(aside.path, path, "");
        return;
    }
    device_.removeDescription(folderOf(path), nameOf(aside.path) + kDescriptionExtension);
    flushNames(folderOf(path));
    if (checksum.empty() || !device_.owns(path, aside.item)) return;
    if (!current) ledger.putFile({path, aside.item, 0, "", "", FileState::PendingOlder});
    if (current && checksum != current->checksum) ledger.setState(path, FileState::PendingOlder);
}

/// True when the description of the file at path is of the version that the item's row records.
bool Recovery::describesRow(const std::string& path, const std::optional<ItemRow>& row) {
    if (!row || path != row->mediaPath) return false;
    std::string updated = descriptionField(
        device_.readDescription(folderOf(path), nameOf(path) + kDescriptionExtension), "DateUpdated");
    std::replace(updated.begin(), updated.end(), 'T', ' ');
    return updated == row->updated + "Z";
}

/// True when the file on the device is the one that its row describes.
bool Recovery::isUnchanged(const LedgerFile& file) {
    const auto status = device_.status(file.path);
    return status && S_ISREG(status->st_mode) && static_cast<std::uint64_t>(status->st_size) == file.size &&
           (file.checksum.empty() || checksumOf(file.path) == file.checksum);
}

bool Recovery::hasMedia(const ItemRow& row) {
    return device_.owns(row.mediaPath, row.id);
}

/// A thumbnail of the item on the device, other than the one at except; empty when there is none.
std::string Recovery::thumbnailOf(const ItemRow& row, const std::string& except) {
    std::vector<std::string> paths = thumbnailCandidates(row, device_.thumbnailWord());
    for (const LedgerFile& file : device_.ledger().filesOfItem(row.id)) {
        if (file.was.empty() && isThumbnailOf(row, file.path)) paths.push_back(file.path);
    }
    for (const std::string& path : paths) {
        if (path != except && device_.isFile(path) && !device_.isOne(path, except)) return path;
    }
    return {};
}

/// True when the file that takes the place of one that stands aside is on the device.
bool Recovery::hasNewVersion(const LedgerFile& aside, const ItemRow& row) {
    return folderOf(aside.path) == row.folder ? hasMedia(row) : !thumbnailOf(row, aside.path).empty();
}

/// A file that was written and may not be recorded, or that was removed and may be back.
void Recovery::settleWritten(const LedgerFile& file, const std::optional<ItemRow>& row) {
    Ledger& ledger = device_.ledger();
    if (!device_.isFile(file.path)) {
        remove(file.path);
        return;
    }
    if (isTwinOfAnother(file)) {
        ledger.eraseFile(file.path);
        return;
    }
    const bool inFolder = row && folderOf(file.path) == row->folder;
    const bool thumbnail = row && isThumbnailOf(*row, file.path);
    if (inFolder && file.path != row->mediaPath &&
        (!hasMedia(*row) || device_.isOne(file.path, row->mediaPath))) {
        // A power cut, or an older database, took the row's last change: this is all that there is of the
        // item.
        database_.setDerivedName(row->id, nameOf(file.path));
        ++report_.restored;
    } else if (thumbnail || (inFolder && file.path == row->mediaPath)) {
        if (thumbnail) settleThumbnail(file, *row);
    } else if (row && !inFolder && folderOf(folderOf(file.path)) == row->folder &&
               thumbnailOf(*row, file.path).empty()) {
        keepThumbnail(file, *row);
        return;
    } else {
        if (mayGo(file, row)) {
            // What was recorded once is a version that another one has replaced.
            if (formerlySettled_.count(file.path) != 0) {
                retire(file.path);
            } else {
                remove(file.path);
            }
        } else if (file.state == FileState::Removed) {
            ledger.eraseFile(file.path);
        }
        return;
    }
    if (file.state != FileState::Pending) rehash(file);
    ledger.setState(file.path, FileState::Settled);
}

/// On a file system that ignores case one file is found under the names of two rows: that of the item's name
/// before and after a change of case. The row with the name that really stands there is the file's.
bool Recovery::isTwinOfAnother(const LedgerFile& file) {
    for (const LedgerFile& other : device_.ledger().filesOfItem(file.item)) {
        if (other.path == file.path || nameKey(other.path) != nameKey(file.path)) continue;
        if (!device_.isOne(other.path, file.path)) continue;
        if (!isListed(file.path)) return true;
        device_.ledger().eraseFile(other.path);
    }
    return false;
}

/// No file of an item goes while the one that its row names is not there. An item without a row is one that
/// was never recorded, unless the rows are older than the files.
bool Recovery::mayGo(const LedgerFile& file, const std::optional<ItemRow>& row) {
    if (file.state != FileState::PendingOlder && !isUnchanged(file))
        return false;  // somebody made it something else
    if (!row) return !isDatabaseOlder();
    return hasMedia(*row) && !device_.isOne(file.path, row->mediaPath);
}

/// True when the database lacks the row of an item that is known to have had one.
bool Recovery::isDatabaseOlder() {
    if (!isDatabaseOlder_) {
        const std::vector<std::string> items = device_.ledger().settledItems();
        isDatabaseOlder_ = std::any_of(items.begin(), items.end(),
                                       [&](const std::string& item) { return !database_.item(item); });
    }
    return *isDatabaseOlder_;
}

/// The item's row gets the extension that its thumbnail has, before the ledger forgets that it may lack it.
void Recovery::recordExtension(const ItemRow& row, const std::string& extension) {
    if (extension.empty() || extension == "." + row.imageExtension) return;
    database_.setImageExtension(row.id, extension.substr(1));
    device_.flushRows();
}

/// The only thumbnail of an item whose row has another name: it gets that name.
void Recovery::keepThumbnail(const LedgerFile& file, const ItemRow& row) {
    const std::string extension = splitName(nameOf(file.path)).extension;
    const std::string base = splitName(nameOf(row.mediaPath)).base + "_" + row.id;
    const std::string path = joinPath(folderOf(file.path), base + extension);
    if (device_.status(path) && !device_.isOne(path, file.path)) return;
    device_.renameFile(file.path, path);
    recordExtension(row, extension);
    device_.ledger().setState(path, FileState::Settled);
    ++report_.restored;
}

/// Thumbnails with other extensions, or in the folder of another language, are older.
void Recovery::settleThumbnail(const LedgerFile& file, const ItemRow& row) {
    const std::string extension = splitName(nameOf(file.path)).extension;
    recordExtension(row, extension);
    for (const LedgerFile& other : device_.ledger().filesOfItem(row.id)) {
        const bool older = other.path != file.path && other.path != row.mediaPath &&
                           other.state == FileState::Settled && !device_.isOne(other.path, file.path) &&
                           !device_.isOne(other.path, row.mediaPath);
        if (older) retire(other.path);
    }
}

/// Empty for a file that cannot be read.
std::string Recovery::checksumOf(const std::string& path) {
    Checksum checksum;
    try {
        device_.readFile(path, [&](const char* data, std::size_t size) { checksum.update(data, size); });
    } catch (DeviceException&) {
        device_.requireThere();
        return {};
    }
    return checksum.text();
}

void Recovery::rehash(LedgerFile file) {
    file.size = static_cast<std::uint64_t>(device_.status(file.path)->st_size);
    file.checksum = checksumOf(file.path);
    device_.ledger().putFile(file);
}

/// Removes the file, if there is one, with its description.
void Recovery::remove(const std::string& path) {
    if (device_.isFile(path)) {
        device_.removeFile(path);
        ++report_.removed;
    } else {
        finishVersion(path);
        device_.removeDescription(folderOf(path), nameOf(path) + kDescriptionExtension);
        device_.ledger().setState(path, FileState::Removed);
    }
    removed_.push_back(path);
}

void Recovery::flushNames(const std::string& folder) {
    if (folder.empty() || device_.isFolder(folder)) device_.flushFolder(folder);
}

/// The file becomes an older version, or goes, where that can be done.
void Recovery::retire(const std::string& path) {
    device_.retireFile(path);
    if (device_.isFile(path)) {
        report_.leftAside.push_back(path);
        return;
    }
    ++report_.removed;
    removed_.push_back(path);
}

/// The description of a file that has become an older version follows it.
void Recovery::finishVersion(const std::string& path) {
    const auto version = device_.ledger().versionFrom(path);
    if (version && device_.isFile(version->path())) device_.moveDescription(path, version->path());
}

/// Older versions that were on their way are there, on the disk, or will not come.
void Recovery::settleVersions() {
    std::set<std::string> flushed;
    for (LedgerVersion& version : device_.ledger().versions()) {
        if (version.aside.empty()) continue;
        const std::string aside = joinPath(version.folder, version.aside);
        if (device_.isFile(version.path())) {
            const std::string folder = folderOf(version.path());
            if (flushed.insert(folder).second) device_.flushFolder(folder);
            version.aside.clear();
            device_.ledger().putVersion(version);
        } else if (!device_.ledger().file(aside)) {
            device_.ledger().eraseVersion(version);
        }
    }
}

/// Enters older versions that the ledger does not know: their names tell when they were replaced, their
/// descriptions whose they are.
void Recovery::adoptVersions() {
    std::set<std::string> folders = {""};
    for (const FolderRow& folder : database_.folders()) folders.insert(folder.deviceName);
    for (const std::string& folder : folders) {
        const std::string versions = joinPath(folder, kVersionFolder);
        if (!device_.isFolder(versions)) continue;
        device_.listFolder(versions, [&](const std::string& name) {
            const auto status = device_.status(joinPath(versions, name));
            const bool known = !replacedAt(name) || device_.ledger().hasVersion(folder, name);
            if (known || !status || !S_ISREG(status->st_mode)) return;
            const std::string item =
                descriptionField(device_.readDescription(versions, name + kDescriptionExtension), "ID");
            if (item.empty()) return;
            const auto size = static_cast<std::uint64_t>(status->st_size);
            device_.ledger().putVersion({folder, name, item, size, "", ""});
            ++report_.adopted;
        });
    }
}

/// Takes the rows of removed files out of the ledger, as soon as the disk knows of the removal.
void Recovery::forgetRemoved() {
    std::set<std::string> folders;
    for (const std::string& path : removed_) folders.insert(folderOf(path));
    for (const std::string& folder : folders) flushNames(folder);
    settleVersions();
    for (const std::string& path : removed_) {
        const auto file = device_.ledger().file(path);
        if (file && file->state == FileState::Removed) device_.ledger().eraseFile(path);
    }
}

/// True for the folder of a recorded set and for the folders of its thumbnails.
bool Recovery::isUsedFolder(const std::string& path) {
    if (!database_.folderIdByDeviceName(path).empty()) return true;
    const std::string parent = folderOf(path);
    if (!parent.empty()) return !database_.folderIdByDeviceName(parent).empty();
    return device_.isSystemWord(path) && !database_.derivedName(kNoSetId).empty();
}

/// True for a folder with nothing but its own description in it.
bool Recovery::isEmpty(const std::string& path) {
    bool isEmpty = true;
    device_.listFolder(path,
                       [&](const std::string& name) { isEmpty = isEmpty && name == kDescriptionFolder; });
    const std::string descriptions = joinPath(path, kDescriptionFolder);
    if (!device_.isFolder(descriptions)) return isEmpty;
    device_.listFolder(descriptions,
                       [&](const std::string& name) { isEmpty = isEmpty && name == kFolderDescription; });
    return isEmpty;
}

void Recovery::removeUnusedFolders() {
    std::vector<std::string> kept;
    for (const LedgerFolder& folder : device_.ledger().pendingFolders()) {
        if (!folder.was.empty()) continue;
        if (device_.isFolder(folder.path) && !isUsedFolder(folder.path) && isEmpty(folder.path)) {
            device_.removeDescription(folder.path, kFolderDescription);
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

RecoveryReport recoverDevice(BackupDatabase& database, Device& device) {
    return Recovery(database, device).run();
}

}  // namespace flickr_standin
