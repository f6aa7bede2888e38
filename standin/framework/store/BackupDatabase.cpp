#include "standin/framework/store/BackupDatabase.h"

#include <Poco/Data/DataException.h>
#include <Poco/DateTimeFormatter.h>
#include <sys/stat.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <map>
#include <utility>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Sqlite.h"
#include "standin/framework/base/SqliteGuard.h"

namespace flickr_standin {

namespace {

// Number of the table's shape, kept in the file.
constexpr int kSchemaVersion = 1;

constexpr const char* kSchema = R"(
    CREATE TABLE backupmetadata (
        ItemId TEXT NOT NULL PRIMARY KEY, ItemName TEXT, ItemContainerName TEXT, DerivedItemName TEXT,
        DerivedContainerName TEXT, OriginalItemId TEXT, OriginalContainerId TEXT, CreatedOn TEXT,
        ItemUpdatedOn TEXT, ItemType TEXT, ImageExtension TEXT, Reserved1 TEXT, Reserved2 TEXT, Reserved3 TEXT,
        NameSpace TEXT, NameKey TEXT);
    CREATE INDEX metadataoriginal ON backupmetadata (OriginalItemId);
    CREATE INDEX metadatacontainer ON backupmetadata (OriginalContainerId, ItemUpdatedOn);
    CREATE INDEX metadatanames ON backupmetadata (NameSpace, NameKey);
    CREATE INDEX metadatastale ON backupmetadata (ItemId) WHERE NameKey IS NULL;
    CREATE INDEX metadatafolders ON backupmetadata (DerivedItemName) WHERE ItemType = 'FlickrFolder';
    CREATE INDEX metadatalatest ON backupmetadata (ItemType) WHERE ItemType = 'FlickrLatestBackUpDateTime';
    CREATE TABLE containercounts (Folder TEXT NOT NULL PRIMARY KEY, Items INTEGER NOT NULL) WITHOUT ROWID;
    CREATE TRIGGER metadatastalename AFTER UPDATE OF DerivedItemName ON backupmetadata
        WHEN NEW.DerivedItemName IS NOT OLD.DerivedItemName AND NEW.NameKey IS OLD.NameKey
        BEGIN UPDATE backupmetadata SET NameKey = NULL WHERE ItemId = NEW.ItemId; END;
    CREATE TRIGGER metadatacountinsert AFTER INSERT ON backupmetadata
        WHEN NEW.ItemType NOT IN ('FlickrFolder', 'FlickrLatestBackUpDateTime')
        BEGIN
            INSERT INTO containercounts VALUES (IFNULL(NEW.DerivedContainerName, ''), 1)
                ON CONFLICT (Folder) DO UPDATE SET Items = Items + 1;
        END;
    CREATE TRIGGER metadatacountdelete AFTER DELETE ON backupmetadata
        WHEN OLD.ItemType NOT IN ('FlickrFolder', 'FlickrLatestBackUpDateTime')
        BEGIN
            UPDATE containercounts SET Items = Items - 1 WHERE Folder = IFNULL(OLD.DerivedContainerName, '');
        END;
    CREATE TRIGGER metadatacountmove AFTER UPDATE OF DerivedContainerName, ItemType ON backupmetadata
        WHEN NEW.DerivedContainerName IS NOT OLD.DerivedContainerName OR NEW.ItemType IS NOT OLD.ItemType
        BEGIN
            UPDATE containercounts SET Items = Items - 1 WHERE Folder = IFNULL(OLD.DerivedContainerName, '')
                AND OLD.ItemType NOT IN ('FlickrFolder', 'FlickrLatestBackUpDateTime');
            INSERT INTO containercounts
                SELECT IFNULL(NEW.DerivedContainerName, ''), 1
                WHERE NEW.ItemType NOT IN ('FlickrFolder', 'FlickrLatestBackUpDateTime')
                ON CONFLICT (Folder) DO UPDATE SET Items = Items + 1;
        END;
)";

constexpr const char* kPut = R"(
    INSERT INTO backupmetadata VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)
    ON CONFLICT (ItemId) DO UPDATE SET ItemName = excluded.ItemName,
        ItemContainerName = excluded.ItemContainerName, DerivedItemName = excluded.DerivedItemName,
        DerivedContainerName = excluded.DerivedContainerName, OriginalItemId = excluded.OriginalItemId,
        OriginalContainerId = excluded.OriginalContainerId, CreatedOn = excluded.CreatedOn,
        ItemUpdatedOn = excluded.ItemUpdatedOn, ItemType = excluded.ItemType,
        ImageExtension = excluded.ImageExtension, Reserved1 = excluded.Reserved1,
        Reserved2 = excluded.Reserved2, Reserved3 = excluded.Reserved3, NameSpace = excluded.NameSpace,
        NameKey = excluded.NameKey)";

constexpr const char* kItemColumns =
    "SELECT ItemId, DerivedContainerName, DerivedItemName, OriginalContainerId, ItemUpdatedOn, ItemType, "
    "ImageExtension, ItemName, CreatedOn FROM backupmetadata ";

/// The path with the links of its folder, the device's mount point, followed once; what stands in that folder
/// may be none.
std::string realPathOf(const std::string& path) {
    const std::string folder = folderOf(path);
    char real[PATH_MAX];
    if (!::realpath(folder.empty() && path[0] != '/' ? "." : (folder + "/").c_str(), real)) return path;
    return (std::string(real) == "/" ? "" : real) + ("/" + nameOf(path));
}

bool holdsSeparator(const std::string& text) {
    return text.find('/') != std::string::npos || text.find('\0') != std::string::npos;
}

/// Paths on the device are made of what the rows hold, by statements of the plug-in as well.
void checkRows(SqliteFile& file, const std::string& path) {
    const auto rows = file.prepare(
        "SELECT rowid, ItemType, ItemId, DerivedItemName, DerivedContainerName, OriginalContainerId, "
        "ImageExtension FROM backupmetadata");
    while (rows->step()) {
        const bool isNote = rows->text(1) == "FlickrLatestBackUpDateTime";
        const std::string id = rows->text(2), name = rows->text(3), folder = rows->text(4);
        const char* wrong = nullptr;
        if (id.empty() || holdsSeparator(id)) wrong = "ItemId";
        if (!isBackupName(name) && !(isNote && name.empty())) wrong = "DerivedItemName";
        const bool mayLackFolder = isNote || rows->text(5) == kNoSetId;
        if (!isBackupName(folder) && !(mayLackFolder && folder.empty())) wrong = "DerivedContainerName";
        if (holdsSeparator(rows->text(6))) wrong = "ImageExtension";
        if (!wrong) continue;
        throw Poco::DataFormatException("The database " + path + " is not used: what row " + rows->text(0) +
                                        " holds as " + wrong +
                                        " cannot be part of a path. It is damaged or was changed by another "
                                        "program; put an older copy in its place, or move it away to begin a "
                                        "new backup");
    }
}

std::string nameSpaceOf(const std::string& itemType, const std::string& containerId) {
    return itemType == kFolderType || containerId == kNoSetId ? std::string() : containerId;
}

ItemRow itemOfRow(const Statement& row) {
    ItemRow item;
    item.id = row.text(0);
    item.folder = row.text(3) == kNoSetId ? std::string() : row.text(1);
    item.mediaPath = joinPath(item.folder, row.text(2));
    item.updated = row.text(4);
    item.type = row.text(5);
    item.setId = row.text(3);
    item.name = row.text(7);
    item.created = row.text(8);
    item.imageExtension = row.text(6);
    return item;
}

/// The databases that are open in this process, by the path that they were opened with.
struct Registry {
    std::mutex mutex;
    std::map<std::string, BackupDatabase*> open;
};

Registry& registry() {
    static Registry& instance = *new Registry;
    return instance;
}

}  // namespace

struct BackupDatabase::Impl {
    Impl(const std::string& databasePath, Missing missing)
        : path(databasePath), realPath(realPathOf(databasePath)), file(open(missing)) {
        // Sessions that the plug-in opens join the cache of this connection: they find the schema read.
        sqlite3_enable_shared_cache(1);
    }

    struct Statements {
        explicit Statements(sqlite3* db)
            : derivedName(db, "SELECT DerivedItemName FROM backupmetadata WHERE ItemId = ?"),
              imageExtension(db, "SELECT ImageExtension FROM backupmetadata WHERE ItemId = ?"),
              count(db, "SELECT Items FROM containercounts WHERE Folder = ?"),
              put(db, kPut),
              stale(db,
                    "SELECT ItemId, DerivedItemName, ItemType, OriginalContainerId FROM backupmetadata "
                    "WHERE NameKey IS NULL"),
              setKey(db, "UPDATE backupmetadata SET NameSpace = ?, NameKey = ? WHERE ItemId = ?"),
              taken(
                  db,
                  "SELECT 1 FROM backupmetadata WHERE NameSpace = ? AND NameKey = ? AND ItemId <> ? LIMIT 1"),
              item(db, (std::string(kItemColumns) + "WHERE ItemId = ?").c_str()),
              folder(db,
                     "SELECT ItemId FROM backupmetadata WHERE ItemType = 'FlickrFolder' AND "
                     "DerivedItemName = ?") {}

        Statement derivedName, imageExtension, count, put, stale, setKey, taken, item, folder;
    };

    std::string text(Statement& statement, const std::string& key) {
        const std::lock_guard<std::mutex> lock(mutex);
        StatementUse use(statement, key);
        return use.step() ? use->text(0) : std::string();
    }

    /// A statement that is run too seldom to stay prepared.
    template <typename... Values>
    void execute(const char* statement, const Values&... values) {
        const std::lock_guard<std::mutex> lock(mutex);
        StatementUse(*file.prepare(statement), values...).run();
    }

    SqliteFile open(Missing missing);
    void create();
    void refreshNames();

    const std::string path;      // as it was given, and sessions are opened with it
    const std::string realPath;  // the same without links
    std::mutex mutex;
    SqliteFile file;
    std::unique_ptr<Statements> sql;
    std::unique_ptr<const AdmittedDatabase> admitted;
};

/// Nothing is written to what stands there before it is known to be ours.
SqliteFile BackupDatabase::Impl::open(Missing missing) {
    const Schema schema = {kSchema, kSchemaVersion};
    const bool ours = inspectDatabase(realPath, schema, [&](SqliteFile& inspected) {
        if (missing == Missing::Create) {
            const std::string problem = inspected.value("PRAGMA quick_check(1)");
            if (problem != "ok") {
                throw Poco::DataFormatException("The database " + path + " is damaged (" + problem +
                                                "): put an older copy in its place, or move it away to begin "
                                                "a new backup");
            }
        }
        checkRows(inspected, path);
    });
    if (missing == Missing::Create) return {realPath, SqliteFile::Open::OrCreate, SqliteFile::Cache::Shared};
    struct stat status = {};
    if (::lstat(realPath.c_str(), &status) != 0) {
        throw Poco::NotFoundException("The backup database " + path + " does not exist");
    }
    if (!ours) throw Poco::DataFormatException("The database " + path + " is empty: it holds no backup");
    return {realPath, SqliteFile::Open::Existing, SqliteFile::Cache::Shared};
}

void BackupDatabase::Impl::create() {
    Transaction transaction(file);
    // Another program may have made it since.
    if (file.value("SELECT COUNT(*) FROM sqlite_master") == "0") {
        file.execute(kSchema);
        file.execute(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
    }
    transaction.commit();
}

/// Fills in the keys of rows whose names were changed by statements that do not know them.
void BackupDatabase::Impl::refreshNames() {
    std::vector<std::array<std::string, 3>> changes;
    {
        StatementUse stale(sql->stale);
        while (stale.step()) {
            changes.push_back(
                {nameSpaceOf(stale->text(2), stale->text(3)), nameKey(stale->text(1)), stale->text(0)});
        }
    }
    if (changes.empty()) return;
    Transaction transaction(file);
    for (const auto& [space, key, id] : changes) StatementUse(sql->setKey, space, key, id).run();
    transaction.commit();
}

BackupDatabase::BackupDatabase(std::string path, Missing missing)
    : impl_(std::make_unique<Impl>(path, missing)) {
    impl_->file.execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;");
    if (impl_->file.value("SELECT COUNT(*) FROM sqlite_master") == "0") impl_->create();
    impl_->sql = std::make_unique<Impl::Statements>(impl_->file.handle());
    if (missing == Missing::Create) {
        impl_->admitted = std::make_unique<const AdmittedDatabase>(impl_->path, impl_->realPath);
        const std::lock_guard<std::mutex> lock(registry().mutex);
        registry().open[impl_->path] = this;
    }
}

BackupDatabase::~BackupDatabase() {
    const std::lock_guard<std::mutex> lock(registry().mutex);
    const auto found = registry().open.find(impl_->path);
    if (found != registry().open.end() && found->second == this) registry().open.erase(found);
}

UsedDatabase::UsedDatabase(const std::string& path) {
    {
        const std::lock_guard<std::mutex> lock(registry().mutex);
        const auto found = registry().open.find(path);
        if (found != registry().open.end()) database_ = found->second;
    }
    if (database_) {
        database_->requireThere();
    } else {
        database_ = &own_.emplace(path, BackupDatabase::Missing::Refuse);
    }
}

void flushOpenDatabases() {
    std::vector<std::string> paths;
    {
        const std::lock_guard<std::mutex> lock(registry().mutex);
        for (const auto& [path, database] : registry().open) paths.push_back(database->impl_->realPath);
    }
    for (const std::string& path : paths) flushWriteAheadLog(path);
}

void BackupDatabase::requireThere() const {
    if (impl_->admitted && !impl_->admitted->isThere()) {
        throw Poco::NotFoundException("The backup database " + impl_->path + " is not there any more");
    }
}

const std::string& BackupDatabase::path() const {
    return impl_->path;
}

std::vector<FolderRow> BackupDatabase::folders() {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    std::vector<FolderRow> rows;
    const auto statement = impl_->file.prepare(
        "SELECT ItemId, ItemName, DerivedItemName, "
        "IFNULL((SELECT Items FROM containercounts WHERE Folder = DerivedItemName), 0), "
        "(SELECT MAX(ItemUpdatedOn) FROM backupmetadata AS items WHERE items.OriginalContainerId = "
        "backupmetadata.ItemId) FROM backupmetadata WHERE ItemType = 'FlickrFolder' ORDER BY "
        "DerivedItemName");
    while (statement->step()) {
        FolderRow row;
        row.id = statement->text(0);
        row.serviceName = statement->text(1);
        row.deviceName = row.id == kNoSetId ? std::string() : statement->text(2);
        row.items = static_cast<long>(statement->number(3));
        row.updated = statement->text(4);
        if (row.id != kNoSetId || row.items > 0) rows.push_back(std::move(row));
    }
    return rows;
}

void BackupDatabase::forEachItem(const std::function<void(const ItemRow&)>& visit) {
    // On a connection of its own, whose snapshot lasts for the walk.
    SqliteFile file(impl_->realPath, SqliteFile::Open::ExistingReadOnly);
    const auto statement = file.prepare(
        (std::string(kItemColumns) + "WHERE ItemType NOT IN ('FlickrFolder', 'FlickrLatestBackUpDateTime')")
            .c_str());
    while (statement->step()) visit(itemOfRow(*statement));
}

std::string BackupDatabase::integrityProblem() {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    const std::string answer = impl_->file.value("PRAGMA integrity_check");
    return answer == "ok" ? std::string() : answer;
}

std::string BackupDatabase::derivedName(const std::string& id) {
    return impl_->text(impl_->sql->derivedName, id);
}

std::string BackupDatabase::imageExtension(const std::string& id) {
    return impl_->text(impl_->sql->imageExtension, id);
}

int BackupDatabase::itemsInFolder(const std::string& deviceFolder) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    StatementUse use(impl_->sql->count, deviceFolder);
    return use.step() ? static_cast<int>(use->number(0)) : 0;
}

void BackupDatabase::put(const MetadataEntry& entry) {
    const auto text = [](const Poco::DateTime& date) {
        return Poco::DateTimeFormatter::format(date, kUpdatedFormat);
    };
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    StatementUse(impl_->sql->put, entry.itemId, entry.itemName, entry.itemContainerName,
                 entry.derivedItemName, entry.derivedContainerName, entry.originalItemId,
                 entry.originalContainerId, text(entry.createdOn), text(entry.updatedOn), entry.itemType,
                 entry.imageExtension, entry.reserved1, entry.reserved2, entry.reserved3,
                 nameSpaceOf(entry.itemType, entry.originalContainerId), nameKey(entry.derivedItemName))
        .run();
}

bool BackupDatabase::nameTaken(const std::string& nameSpace, const std::string& key,
                               const std::string& exceptId) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->refreshNames();
    return StatementUse(impl_->sql->taken, nameSpace, key, exceptId).step();
}

std::optional<ItemRow> BackupDatabase::item(const std::string& id) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    StatementUse use(impl_->sql->item, id);
    if (!use.step()) return std::nullopt;
    return itemOfRow(*use.operator->());
}

std::string BackupDatabase::folderIdByDeviceName(const std::string& deviceFolder) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    StatementUse use(impl_->sql->folder, deviceFolder);
    return use.step() ? use->text(0) : std::string();
}

void BackupDatabase::moveItems(const std::string& setId, const std::string& deviceFolder) {
    impl_->execute(
        "UPDATE backupmetadata SET ItemContainerName = ?1, DerivedContainerName = ?1 "
        "WHERE OriginalContainerId = ?2 AND DerivedContainerName IS NOT ?1",
        deviceFolder, setId);
}

void BackupDatabase::setDerivedName(const std::string& id, const std::string& name) {
    impl_->execute("UPDATE backupmetadata SET DerivedItemName = ? WHERE ItemId = ?", name, id);
}

void BackupDatabase::fetchAgain(const std::set<std::string>& ids) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    const auto statement =
        impl_->file.prepare("UPDATE backupmetadata SET ItemUpdatedOn = ? WHERE ItemId = ?");
    Transaction transaction(impl_->file);
    for (const std::string& id : ids) StatementUse(*statement, std::string(kToFetchAgain), id).run();
    transaction.commit();
}

void BackupDatabase::setImageExtension(const std::string& id, const std::string& extension) {
    impl_->execute(
        "UPDATE backupmetadata SET ImageExtension = ?1 WHERE ItemId = ?2 AND "
        "ImageExtension IS NOT ?1",
        extension, id);
}

}  // namespace flickr_standin
