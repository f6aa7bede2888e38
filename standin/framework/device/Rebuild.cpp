#include "standin/framework/device/Rebuild.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeParser.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "standin/framework/base/Checksum.h"
#include "standin/framework/base/Descriptor.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Sqlite.h"
#include "standin/framework/base/TemporaryFolder.h"
#include "standin/framework/device/Catalogue.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/device/Ledger.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

namespace {

constexpr const char* kEndings[] = {"", "-wal", "-shm", "-journal"};

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw Poco::FileException("The file " + path + " cannot be " + what + ": " + std::strerror(errno));
}

bool stands(const std::string& path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0;
}

void flushPath(const std::string& path, int flags) {
    const Descriptor file(::open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    if (!file.isOpen() || ::fsync(file.get()) != 0) fail("written", path);
}

/// A database in the making, beside the place that it is to take. It goes unless it took it.
class NewDatabase {
public:
    explicit NewDatabase(std::string place) : place_(std::move(place)), path_(place_ + ".new") { remove(); }
    ~NewDatabase() { remove(); }
    NewDatabase(const NewDatabase&) = delete;
    NewDatabase& operator=(const NewDatabase&) = delete;

    const std::string& path() const { return path_; }

    /// It is whole and closed: puts it on the disk.
    void flush() const {
        struct stat log = {};
        if (::stat((path_ + "-wal").c_str(), &log) == 0 && log.st_size > 0) {
            throw Poco::FileException("The database " + path_ + " cannot be completed; is the device full?");
        }
        flushPath(path_, O_RDONLY);
    }

    /// Puts what stands in its place aside, and takes the place. Gives the name of what stood there; empty
    /// for nothing.
    std::string takePlace() {
        std::string kept;
        const bool wasThere = std::any_of(std::begin(kEndings), std::end(kEndings),
                                          [&](const char* ending) { return stands(place_ + ending); });
        if (wasThere) {
            kept = place_ + ".old";
            for (int number = 2; stands(kept); ++number) kept = place_ + ".old-" + std::to_string(number);
            // The log before its database: alone it could be taken for the new one's.
            for (const char* ending : {"-wal", "-shm", "-journal", ""}) {
                if (stands(place_ + ending) &&
                    ::rename((place_ + ending).c_str(), (kept + ending).c_str()) != 0)
                    fail("renamed", place_ + ending);
            }
            flushPath(folderOf(place_) + "/", O_RDONLY | O_DIRECTORY);
        }
        if (::rename(path_.c_str(), place_.c_str()) != 0) fail("renamed", path_);
        flushPath(folderOf(place_) + "/", O_RDONLY | O_DIRECTORY);
        return nameOf(kept);
    }

private:
    void remove() {
        for (const char* ending : kEndings) ::unlink((path_ + ending).c_str());
    }

    const std::string place_;
    const std::string path_;
};

/// The ledger that stands there, read from a copy; none when it cannot be read.
class FormerLedger {
public:
    explicit FormerLedger(const std::string& path) {
        try {
            ledger_ = std::make_unique<Ledger>(copyDatabase(path, folder_.path()));
        } catch (Poco::Exception&) {
            // Missing or damaged: the files are taken as they are.
        }
    }

    std::optional<LedgerFile> file(const std::string& path) {
        try {
            return ledger_ ? ledger_->file(path) : std::nullopt;
        } catch (Poco::Exception&) {
            return std::nullopt;
        }
    }

    std::vector<LedgerVersion> versions() {
        try {
            return ledger_ ? ledger_->versions() : std::vector<LedgerVersion>();
        } catch (Poco::Exception&) {
            return {};
        }
    }

private:
    TemporaryFolder folder_;
    std::unique_ptr<Ledger> ledger_;
};

/// True for an id that can be the service's.
bool isId(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '@' ||
               c == '_' || c == '-';
    });
}

std::optional<Poco::DateTime> dateOf(const std::string& text) {
    Poco::DateTime date;
    int zone = 0;
    if (text.empty() || !Poco::DateTimeParser::tryParse(kUpdatedFormat, text, date, zone))
        return std::nullopt;
    return date;
}

class Rebuild {
public:
    Rebuild(const BackupPlace& place, Device& device, BackupDatabase& database, FormerLedger& former,
            const std::function<void(const RebuildReport&)>& progress)
        : place_(place), device_(device), database_(database), former_(former), progress_(progress) {}

    RebuildReport run() {
        Catalogue catalogue(device_, nullptr);
        std::vector<Set> sets = catalogue.sets();
        // Of two folders with one set's description the copy has another name than the set.
        std::stable_sort(sets.begin(), sets.end(), [](const Set& a, const Set& b) {
            return (a.title == a.folder) > (b.title == b.folder);
        });
        for (Set& set : sets) addSet(catalogue, set);
        // Those that are not known here recovery takes in.
        for (LedgerVersion& version : former_.versions()) {
            version.aside.clear();
            if (device_.isFile(version.path())) device_.ledger().putVersion(version);
        }
        database_.fetchAgain(toFetchAgain_);
        for (auto* paths : {&report_.toFetchAgain, &report_.leftOut}) std::sort(paths->begin(), paths->end());
        return std::move(report_);
    }

private:
    void addSet(Catalogue& catalogue, Set& set) {
        const bool isLoose = set.id == kNoSetId;
        const std::string folder = isLoose ? kNoSetId : set.folder;
        const bool fits = isId(set.id) && isBackupName(folder) && sets_.insert(set.id).second;
        if (fits) {
            const Poco::DateTime now;
            database_.put({set.id, set.title, "Flickr", folder, "Flickr", set.id, "Flickr_ID", now, now,
                           kFolderType, "", "", "", ""});
            report_.sets += !isLoose;
        }
        for (Item& item : set.items) catalogue.complete(set, item);
        // Of two files of an item the one of the later change is the item's.
        std::stable_sort(set.items.begin(), set.items.end(), [](const Item& a, const Item& b) {
            return std::tie(a.id, b.updated) < std::tie(b.id, a.updated);
        });
        for (const Item& item : set.items) {
            if (!fits || !addItem(set, item, folder))
                report_.leftOut.push_back(joinPath(set.folder, item.file));
            if (progress_) progress_(report_);
        }
    }

    /// False for a file that does not belong there. One that stands aside recovery puts back.
    bool addItem(const Set& set, const Item& item, const std::string& folder) {
        const std::string ending = "_" + set.id;
        if (item.id.size() <= ending.size() || !isId(item.id) || !isBackupName(item.file)) return false;
        const std::size_t photo = item.id.size() - ending.size();
        if (item.id.compare(photo, std::string::npos, ending) != 0) return false;
        const std::string before = nameBeforeAside(item.file);
        if (!before.empty() && hasFile(set, item.id, before)) return true;
        if (!items_.insert(item.id).second) return false;

        const std::string name = before.empty() ? item.file : before;
        ItemRow row;
        row.id = item.id;
        row.folder = set.folder;
        row.mediaPath = joinPath(set.folder, name);
        const std::string thumbnail = thumbnailOf(row);
        const std::string extension =
            thumbnail.empty() ? "jpg" : splitName(nameOf(thumbnail)).extension.substr(1);
        const auto uploaded = dateOf(item.uploaded), updated = dateOf(item.updated);
        const Poco::DateTime unknown = Poco::Timestamp(0);
        database_.put({item.id, item.title + (item.isVideo ? ".mp4" : ".jpg"), folder, name, folder,
                       item.id.substr(0, photo), set.id, uploaded.value_or(unknown),
                       updated.value_or(unknown), item.isVideo ? "FlickrVideo" : "FlickrPhoto", extension, "",
                       "", ""});
        ++report_.items;
        report_.withoutUpload += !uploaded;
        if (!updated || thumbnail.empty()) {
            toFetchAgain_.insert(item.id);
            report_.toFetchAgain.push_back(row.mediaPath);
        }
        for (const std::string& path : {row.mediaPath, thumbnail}) {
            if (!path.empty() && device_.isFile(path)) enter(path, item.id);
        }
        return true;
    }

    static bool hasFile(const Set& set, const std::string& id, const std::string& name) {
        return std::any_of(set.items.begin(), set.items.end(),
                           [&](const Item& item) { return item.id == id && item.file == name; });
    }

    /// The item's thumbnail, in any language's folder and any format, or where it was before it was put
    /// aside; empty for none.
    std::string thumbnailOf(ItemRow& row) {
        for (const char* extension : {"jpg", "png", "gif", "webp", "tif", "heic"}) {
            row.imageExtension = extension;
            for (const std::string& path : thumbnailCandidates(row, place_.thumbnailWord)) {
                const std::string aside = joinPath(folderOf(path), asideName(nameOf(path)));
                if (device_.isFile(path) || device_.isFile(aside)) return path;
            }
        }
        return {};
    }

    void enter(const std::string& path, const std::string& item) {
        LedgerFile file;
        file.path = path;
        file.item = item;
        file.size = static_cast<std::uint64_t>(device_.status(path)->st_size);
        file.state = FileState::Settled;
        const auto former = former_.file(path);
        if (former && former->item == item && !former->checksum.empty() &&
            former->state == FileState::Settled) {
            file.size = former->size;
            file.checksum = former->checksum;
        } else {
            Checksum checksum;
            device_.readFile(path, [&](const char* data, std::size_t size) { checksum.update(data, size); });
            file.checksum = checksum.text();
            ++report_.newChecksums;
        }
        device_.ledger().putFile(file);
    }

    const BackupPlace& place_;
    Device& device_;
    BackupDatabase& database_;
    FormerLedger& former_;
    const std::function<void(const RebuildReport&)>& progress_;
    std::set<std::string> sets_, items_, toFetchAgain_;  // by id
    RebuildReport report_;
};

}  // namespace

RebuildReport rebuildDatabases(const BackupPlace& place,
                               const std::function<void(const RebuildReport&)>& progress) {
    const std::string records = place.serviceFolder + "/" + kDescriptionFolder;
    struct stat status = {};
    if (::mkdir(records.c_str(), 0700) != 0 && errno != EEXIST) fail("made", records);
    if (::lstat(records.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw Poco::FileException(records + " is not a folder: move it away");
    }
    const std::string ledgerPlace = records + "/" + kLedgerName;
    NewDatabase newDatabase(place.database), newLedger(ledgerPlace);
    RebuildReport report;
    {
        FormerLedger former(ledgerPlace);
        BackupDatabase database(newDatabase.path());
        Device device(place.serviceFolder, place.thumbnailWord, Device::Elsewhere{newLedger.path()});
        report = Rebuild(place, device, database, former, progress).run();
        // The next use looks for what a run that was cut off has left.
        device.ledger().markInUse();
        device.ledger().leaveInUse();
    }
    newDatabase.flush();
    newLedger.flush();
    for (NewDatabase* made : {&newLedger, &newDatabase}) {
        const std::string kept = made->takePlace();
        if (!kept.empty()) report.kept.push_back(kept);
    }
    return report;
}

}  // namespace flickr_standin
