// The file service's own list of what it put on a device: ".records/.ledger.db" in the service folder.
//
//   folders   One row for each folder with files of the backup. Files point to it: a renamed folder is one
//             changed row.
//       made      1 for a folder that the file service made itself
//       was       its path before a rename that is not settled yet
//   owners    One row for each set whose row was written: its id and its folder, through every rename and
//             whatever the backup database says.
//   files     One row for each file: whose it is, its size and checksum.
//       item      id of the item, also for its thumbnail
//       was       its name before a rename that is not settled yet
//       pending   a FileState
//   versions  One row for each older version that is kept: the folder in whose ".versions" it stands, the
//             item's id, its size and checksum.
//       aside     the name in that folder that it leaves, until the disk knows that it did; then empty
//   state     A row while the ledger is in use. One that is found when it is opened was left by a kill or a
//             power cut: rows of then may be missing, and half-written files may be there.
//
// A row changes before the file does, and is pending then. After a kill at any moment only the pending rows
// have to be looked at. What only clears up is put off, and written together with a later change.

#ifndef STANDIN_FRAMEWORK_DEVICE_LEDGER_H
#define STANDIN_FRAMEWORK_DEVICE_LEDGER_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "standin/framework/base/Sqlite.h"

namespace flickr_standin {

/// How sure it is that a file is the one that its item's row in the backup database names. The numbers stand
/// in the ledger.
enum class FileState {
    Settled = 0,       ///< it is
    Pending = 1,       ///< it may be
    PendingOlder = 2,  ///< it may be, and may be an older file than size and checksum say
    Removed = 3        ///< it was removed, and the disk may not know yet
};

struct LedgerFile {
    std::string path;
    std::string item;
    std::uint64_t size = 0;
    std::string checksum;  ///< empty when none is kept
    std::string was;
    FileState state = FileState::Pending;
};

struct LedgerFolder {
    std::string path;
    std::string was;
    std::string owner;
};

/// An older version of a file that an edit replaced.
struct LedgerVersion {
    std::string folder;  ///< that of its item
    std::string name;    ///< in the folder's ".versions"
    std::string item;
    std::uint64_t size = 0;
    std::string checksum;  ///< empty when none is kept
    std::string aside;     ///< name in folder that it leaves; empty when it has left it for good

    std::string path() const;
};

/// All paths are relative to the service folder. Every operation may be called from any thread and throws a
/// Poco::Exception when the database fails.
class Ledger {
public:
    /// Opens the ledger at path and makes it when it is missing. Throws with a sentence when it is damaged.
    explicit Ledger(const std::string& path);
    ~Ledger();

    /// True when rows may be missing: no file was ever entered, or the last use did not end by closing.
    bool mayLackRows();

    /// Notes that the ledger is in use, on the disk before anything else of this use is. Every change does
    /// so; whoever makes a file that no row speaks of calls it before.
    void markInUse();
    /// The ledger counts as in use even when it is closed: the next use is to look for what this one left.
    void leaveInUse();

    /// Puts every change on the disk. Others follow within half a minute.
    void flush();

    std::optional<LedgerFile> file(const std::string& path);
    std::vector<LedgerFile> filesOfItem(const std::string& item);
    std::vector<LedgerFile> pendingFiles();
    /// Ids of the items of which nothing is pending.
    std::vector<std::string> settledItems();
    void putFile(const LedgerFile& file);
    void eraseFile(const std::string& path);
    /// Moves the row from one path to another, pending, and notes where it was when the folder is the same.
    void moveFile(const std::string& from, const std::string& to, const std::string& was);
    void setState(const std::string& path, FileState state);
    /// Nothing of the item is pending any more, except files that stand aside or were removed. That is
    /// written by writeSettled(), before a file of the item changes again, and when the ledger is closed.
    /// True when it is to be written now: for the first item of a use, from which on a backup database that
    /// is put back from before this use can be told.
    bool settleItemLater(const std::string& item);
    /// True when many items wait for writeSettled().
    bool isSettlingDue();
    /// Writes it, for items whose rows in the backup database are on the disk.
    void writeSettled();
    /// True when it was written for items whose rows may not be on the disk, since the last writeSettled().
    bool speaksOfUnflushedRows();

    std::vector<LedgerVersion> versions();
    /// The version that is to leave the path, or none.
    std::optional<LedgerVersion> versionFrom(const std::string& path);
    bool hasVersion(const std::string& folder, const std::string& name);
    void putVersion(const LedgerVersion& version);
    void eraseVersion(const LedgerVersion& version);

    bool madeFolder(const std::string& path);
    void addMadeFolder(const std::string& path);
    /// The folder is renamed, pending until it is settled.
    void moveFolder(const std::string& from, const std::string& to);
    /// Takes that back: the folder never moved from there, or has moved back to it.
    void moveFolderBack(const std::string& from, const std::string& to);
    void forgetFolder(const std::string& path);
    void settleFolders(const std::vector<std::string>& paths);
    /// Folders that were made or renamed and are not settled, the deepest first.
    std::vector<LedgerFolder> pendingFolders();
    /// All but the root.
    std::vector<LedgerFolder> folders();
    /// Folders of sets: those in the root that have an owner or are not settled.
    std::vector<LedgerFolder> setFolders();
    /// Id of the set whose folder it is; empty when that is not known.
    std::string folderOwner(const std::string& path);
    /// The folder is that set's, and no other is.
    void setFolderOwner(const std::string& path, const std::string& owner);

private:
    struct Statements;

    /// 0 when the folder is not known.
    std::int64_t folderId(const std::string& path);
    std::int64_t makeFolderId(const std::string& path);
    void renameFolderRow(const std::string& from, const std::string& to, const std::string& was);
    std::string folderPath(std::int64_t id);
    void forgetFolderRows(std::int64_t id);
    std::vector<LedgerFolder> readFolders(const char* where);
    static LedgerFile fileOfRow(const Statement& row, std::string path);
    std::vector<LedgerFile> readFiles(StatementUse& use);
    std::vector<LedgerVersion> readVersions(StatementUse& use);
    /// Runs change in a transaction; writeFor() before it everything that was put off, when that speaks of
    /// the item.
    template <typename Change>
    void write(Change change);
    template <typename Change>
    void writeFor(const std::string& item, Change change);
    void writeLater();
    std::string itemOf(std::int64_t folder, const std::string& name);
    void enterUse();

    std::mutex mutex_;
    const std::string path_;
    SqliteFile database_;
    std::unique_ptr<Statements> sql_;
    bool mayLackRows_ = false;
    bool inUse_ = false;
    bool leftInUse_ = false;
    bool hasSettled_ = false;
    bool speaksOfUnflushedRows_ = false;
    std::map<std::string, std::int64_t> folderIds_;
    std::set<std::string> laterSettled_;
};

}  // namespace flickr_standin

#endif
