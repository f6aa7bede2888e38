// The backup metadata database: a SQLite file with one row for each item and each folder on the device.
//
//   backupmetadata    the rows. The plug-in reads and changes them with statements of its own, over sessions
//                     of its own; every one of those statements finds an index.
//       ItemId, ItemName, ItemContainerName, DerivedItemName, DerivedContainerName, OriginalItemId,
//       OriginalContainerId, CreatedOn, ItemUpdatedOn, ItemType, ImageExtension, Reserved1..3
//       NameSpace     the folder in which DerivedItemName has to be unique: a set's id; '' for the root
//       NameKey       DerivedItemName without the differences that a file system may ignore. It cannot be
//                     computed by SQL: a trigger empties it when a statement of the plug-in changes the name,
//                     and it is filled in before the next look at names.
//   containercounts   items by device folder, kept by triggers, so that counting costs one look-up whoever
//                     changes the rows and however many there are.

#ifndef STANDIN_FRAMEWORK_STORE_BACKUPDATABASE_H
#define STANDIN_FRAMEWORK_STORE_BACKUPDATABASE_H

#include <Poco/DateTime.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace flickr_standin {

/// Form of ItemUpdatedOn for Poco::DateTimeFormatter, UTC.
constexpr const char* kUpdatedFormat = "%Y-%m-%d %H:%M:%S";

/// The ItemUpdatedOn of an item that is to be fetched again: no time of the service, so that the plug-in
/// takes the item for edited, puts its files aside and fetches new ones.
constexpr const char* kToFetchAgain = "0000-00-00 00:00:00";

/// ItemType of a folder's row.
constexpr const char* kFolderType = "FlickrFolder";

/// A folder as status displays list it.
struct FolderRow {
    std::string id;
    std::string serviceName;  ///< the set's title
    std::string deviceName;   ///< the folder, relative to the service folder; "" for the items in no set
    long items = 0;
    std::string
        updated;  ///< latest update among the items, "YYYY-MM-DD hh:mm:ss" UTC; empty when there is none
};

/// An item as checks of the device walk over it. Paths are relative to the service folder.
struct ItemRow {
    std::string id;
    std::string folder;  ///< "" for the root
    std::string mediaPath;
    std::string imageExtension;  ///< of the thumbnail, without a dot
    std::string updated;
    std::string type;  ///< "FlickrPhoto" or "FlickrVideo"
    std::string setId;
    std::string name;     ///< the title as the service has it, with ".jpg" or ".mp4"
    std::string created;  ///< when it was uploaded, in the form of updated

    bool isToFetchAgain() const { return updated == kToFetchAgain; }
};

/// Everything that one row holds of an item or folder.
struct MetadataEntry {
    std::string itemId, itemName, itemContainerName, derivedItemName, derivedContainerName, originalItemId,
        originalContainerId;
    Poco::DateTime createdOn, updatedOn;
    std::string itemType, imageExtension, reserved1, reserved2, reserved3;
};

/// The database, with one connection that stays open for the object's life; sessions that others open on the
/// same file meanwhile are cheap. While the object lives, DbInterface works over it wherever its connection
/// string is this path, and sessions that others open by that path reach this file; see SqliteGuard.h. It
/// holds no lock and no open read between calls.
///
/// Every operation may be called from any thread, and throws a Poco::Exception with a sentence that says what
/// is wrong.
class BackupDatabase {
public:
    enum class Missing { Create, Refuse };

    /// Opens the database at path and, when it is missing and may be created, makes file, table and indexes.
    /// The links of the folder in which it lies, the mount point, are followed once. What stands there is
    /// looked through before anything is written, and left as it is when it is refused. Throws
    /// Poco::NotFoundException for a missing file that may not be created, Poco::DataFormatException for a
    /// link, a schema that is not this program's, a row that cannot be one of its own and, where it may be
    /// created, for a damaged file, and Poco::Data::DataException for a file that is no database.
    explicit BackupDatabase(std::string path, Missing missing = Missing::Create);
    ~BackupDatabase();
    BackupDatabase(const BackupDatabase&) = delete;
    BackupDatabase& operator=(const BackupDatabase&) = delete;

    const std::string& path() const;

    /// Throws Poco::NotFoundException, and ends the run, when the file is not the one that was opened.
    void requireThere() const;

    /// All folders by device name; the one of the items in no set is among them once it holds any.
    std::vector<FolderRow> folders();

    /// Calls visit for every item, in no particular order. The walk reads a snapshot: visit may take its time
    /// and may change the database.
    void forEachItem(const std::function<void(const ItemRow&)>& visit);

    /// Runs SQLite's own check over the whole file; empty when it finds nothing, otherwise what it found.
    std::string integrityProblem();

    // What DbInterface is made of.
    std::string derivedName(const std::string& id);
    std::string imageExtension(const std::string& id);
    int itemsInFolder(const std::string& deviceFolder);
    /// Adds the row or replaces the one of the same id.
    void put(const MetadataEntry& entry);
    /// True when an item or folder other than exceptId has a name of that key in the name space.
    bool nameTaken(const std::string& nameSpace, const std::string& nameKey, const std::string& exceptId);

    // What recovery needs.
    /// The item's row, or none.
    std::optional<ItemRow> item(const std::string& id);
    /// Id of the set that is recorded under the device folder; empty when there is none.
    std::string folderIdByDeviceName(const std::string& deviceFolder);
    /// Makes all items of a set name deviceFolder as their folder.
    void moveItems(const std::string& setId, const std::string& deviceFolder);
    void setImageExtension(const std::string& id, const std::string& extension);
    /// Has the next run fetch the items again.
    void fetchAgain(const std::set<std::string>& ids);
    /// Names the item's file and leaves its update time.
    void setDerivedName(const std::string& id, const std::string& name);

private:
    friend void flushOpenDatabases();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// The BackupDatabase that is open for a path, or one of its own, opened for the object's life.
class UsedDatabase {
public:
    /// Throws Poco::Exception, also for a file that does not exist.
    explicit UsedDatabase(const std::string& path);

    BackupDatabase& operator*() const { return *database_; }
    BackupDatabase* operator->() const { return database_; }

private:
    std::optional<BackupDatabase> own_;
    BackupDatabase* database_ = nullptr;
};

/// Puts every change of the databases that are open in this process on the disk.
void flushOpenDatabases();

}  // namespace flickr_standin

#endif
