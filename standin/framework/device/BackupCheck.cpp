#include "standin/framework/device/BackupCheck.h"

#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "standin/framework/base/Checksum.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

namespace {

constexpr std::size_t kOpenFolders = 64;

/// True for what systems leave on the disks that they meet.
bool isOfSystem(const std::string& name) {
    static const std::set<std::string> kNames = [] {
        std::set<std::string> keys;
        for (const char* known :
             {".DS_Store", ".fseventsd", ".Spotlight-V100", ".TemporaryItems", ".Trashes", "@eaDir",
              "Thumbs.db", "desktop.ini", "System Volume Information", "$RECYCLE.BIN", "lost+found"}) {
            keys.insert(nameKey(known));
        }
        return keys;
    }();
    return startsWith(name, "._") || startsWith(name, ".Trash-") || kNames.count(nameKey(name)) != 0;
}

/// Whether a viewer can read the description, and finds that id in it.
bool isDescriptionOf(const std::string& text, const std::string& id) {
    // A description declares nothing; what a declaration says could lead elsewhere, or grow without end.
    if (descriptionField(text, "ID") != id || text.find("<!") != std::string::npos) return false;
    try {
        Poco::XML::SAXParser().parseString(text);
        return true;
    } catch (Poco::XML::SAXException&) {
        return false;
    }
}

class BackupCheck {
public:
    BackupCheck(BackupDatabase& database, Device& device, Contents contents, const CheckProgress& progress)
        : database_(database),
          device_(device),
          readContents_(contents == Contents::Read),
          progress_(progress) {}

    BackupReport run() {
        database_.forEachItem([&](const ItemRow& row) {
            ++report_.items;
            const std::size_t before = found();
            if (checkFile(row.mediaPath, row)) checkDescription(row);
            checkFile(thumbnailOf(row), row);
            if (found() > before) report_.damagedItems.insert(row.id);
            if (row.isToFetchAgain()) report_.toFetchAgain.push_back(row.mediaPath);
        });
        checkFolderDescriptions();
        checkVersions();
        findUnrecorded("");
        for (auto* list : {&report_.missing, &report_.altered, &report_.unrecorded, &report_.descriptions,
                           &report_.toFetchAgain}) {
            std::sort(list->begin(), list->end());
        }
        return std::move(report_);
    }

private:
    std::size_t found() const {
        return report_.missing.size() + report_.altered.size() + report_.descriptions.size();
    }

    /// Where the thumbnail really is: its row names it by the current language.
    std::string thumbnailOf(const ItemRow& row) {
        const std::string named = thumbnailPath(row, device_.thumbnailWord());
        const auto status = statusOf(named);
        if (status && S_ISREG(status->st_mode)) return named;
        for (const LedgerFile& file : device_.ledger().filesOfItem(row.id)) {
            if (isThumbnailOf(row, file.path) && device_.isFile(file.path)) return file.path;
        }
        for (const std::string& path : thumbnailCandidates(row, device_.thumbnailWord())) {
            if (device_.isFile(path)) return path;
        }
        return named;
    }

    /// False when there is no file.
    bool checkFile(const std::string& path, const ItemRow& row) {
        ++report_.files;
        const auto status = statusOf(path);
        if (!status || !S_ISREG(status->st_mode)) {
            report_.missing.push_back(path);
            return false;
        }
        recorded_.insert(path);
        const auto size = static_cast<std::uint64_t>(status->st_size);
        report_.bytes += size;
        report_.folderBytes[row.folder] += size;
        const auto entry = device_.ledger().file(path);
        if (entry && entry->size != size) {
            report_.altered.push_back(path);
        } else if (!entry || entry->checksum.empty()) {
            ++report_.withoutChecksum;
        } else if (readContents_ && !holds(path, entry->checksum)) {
            report_.altered.push_back(path);
        }
        if (progress_) progress_(report_);
        return true;
    }

    void checkDescription(const ItemRow& row) {
        if (!readContents_) return;
        const std::string name = nameOf(row.mediaPath) + kDescriptionExtension;
        if (isDescriptionOf(device_.readDescription(row.folder, name), row.id)) return;
        report_.descriptions.push_back(joinPath(joinPath(row.folder, kDescriptionFolder), name));
    }

    /// A folder has a description once one of its items was new or edited.
    void checkFolderDescriptions() {
        if (!readContents_) return;
        for (const FolderRow& folder : database_.folders()) {
            const std::string& name = folder.deviceName;
            if (name.empty() || !device_.isFolder(name)) continue;
            const std::string text = device_.readDescription(name, kFolderDescription);
            if (text.empty() || isDescriptionOf(text, folder.id)) continue;
            report_.descriptions.push_back(joinPath(joinPath(name, kDescriptionFolder), kFolderDescription));
        }
    }

    /// Older versions that are there; who needs the room may remove some.
    void checkVersions() {
        for (const LedgerVersion& version : device_.ledger().versions()) {
            const std::string path = version.path();
            const auto status = statusOf(path);
            if (!status || !S_ISREG(status->st_mode)) continue;
            recorded_.insert(path);
            ++report_.versions;
            if (!readContents_) continue;
            const auto size = static_cast<std::uint64_t>(status->st_size);
            report_.bytes += size;
            const bool same =
                size == version.size && (version.checksum.empty() || holds(path, version.checksum));
            if (!same) report_.altered.push_back(path);
            if (progress_) progress_(report_);
        }
    }

    /// What stands at path. Nothing moves folders during a check, so the ones it comes to stay open.
    std::optional<struct stat> statusOf(const std::string& path) {
        const std::string folder = folderOf(path);
        auto known = folders_.find(folder);
        if (known == folders_.end()) {
            if (folders_.size() >= kOpenFolders) folders_.clear();
            const bool there = folder.empty() || device_.isFolder(folder);
            known = folders_.emplace(folder, there ? device_.openFolder(folder) : Descriptor()).first;
        }
        struct stat status = {};
        const bool found = known->second.isOpen() && ::fstatat(known->second.get(), nameOf(path).c_str(),
                                                               &status, AT_SYMLINK_NOFOLLOW) == 0;
        return found ? std::optional(status) : std::nullopt;
    }

    /// False also for a file with a place on the disk that cannot be read any more.
    bool holds(const std::string& path, const std::string& expected) {
        Checksum checksum;
        try {
            device_.readFile(path, [&](const char* data, std::size_t size) {
                checksum.update(data, size);
                if (progress_) progress_(report_);
            });
        } catch (DeviceException&) {
            device_.requireThere();
            return false;
        }
        return checksum.text() == expected;
    }

    bool isOwnFile(const std::string& path) const {
        if (path == ".backup.lock") return true;
        // The database may lie in the service folder.
        const std::string full = device_.path() + "/" + path;
        return startsWith(full, database_.path());
    }

    static bool isOfGallery(const std::string& name) {
        return name == kGalleryPage || name == kGalleryFolder;
    }

    void findUnrecorded(const std::string& folder) {
        device_.listFolder(folder, [&](const std::string& name) {
            if (name == kDescriptionFolder || (folder.empty() && isOfGallery(name))) return;
            const std::string path = joinPath(folder, name);
            if (recorded_.count(path) != 0 || isOfSystem(name)) return;
            if (device_.isFolder(path)) {
                findUnrecorded(path);
            } else if (!isOwnFile(path)) {
                report_.unrecorded.push_back(path);
            }
        });
    }

    BackupDatabase& database_;
    Device& device_;
    const bool readContents_;
    const CheckProgress& progress_;
    std::unordered_map<std::string, Descriptor> folders_;
    std::unordered_set<std::string> recorded_;
    BackupReport report_;
};

}  // namespace

BackupReport checkBackup(BackupDatabase& database, Device& device, Contents contents,
                         const CheckProgress& progress) {
    return BackupCheck(database, device, contents, progress).run();
}

}  // namespace flickr_standin
