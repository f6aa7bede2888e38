// A service folder on a backup device, through which nothing outside it can be reached.

#ifndef STANDIN_FRAMEWORK_DEVICE_DEVICE_H
#define STANDIN_FRAMEWORK_DEVICE_DEVICE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "standin/framework/base/Descriptor.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/device/DeviceException.h"
#include "standin/framework/device/Flushes.h"
#include "standin/framework/device/Ledger.h"

namespace flickr_standin {

/// Name of the ledger among the descriptions of the service folder.
constexpr const char* kLedgerName = ".ledger.db";

/// The service folder with its ledger. Paths are relative to it, in the form of HostServiceClientMac; every
/// step of one is opened without following symbolic links. What fails is thrown as DeviceException, and as
/// DeviceFailure when the device is full, gone or read-only.
class Device {
public:
    /// Opens the service folder. It is made when it is missing, and below mountPoint also the folders that
    /// lead to it; the mount point itself, or without one the parent folder, has to exist: a device that is
    /// not there is not replaced by a folder on another one. thumbnailWord names the folders of thumbnails.
    Device(const std::string& serviceFolder, const std::string& mountPoint, std::string thumbnailWord);

    /// Opens a service folder that is there, to be read only: nothing is made, and the ledger is a copy, or a
    /// new one, that lies elsewhere.
    struct Elsewhere {
        std::string ledger;  ///< path
    };
    Device(const std::string& serviceFolder, std::string thumbnailWord, const Elsewhere& elsewhere);

    /// To be called at the end of a use: puts what was put off on the disk, so that the ledger, closed,
    /// vouches for all that the disk holds. Where that fails the next use is to look for what this one left.
    void finish();

    /// Throws when the service folder is not the one that was opened any more.
    void requireThere();

    Ledger& ledger() { return ledger_; }
    const std::string& path() const { return path_; }
    const std::string& thumbnailWord() const { return thumbnailWord_; }

    /// True for a name that the system needs at the root and in every set; see systemWords().
    bool isSystemWord(const std::string& name) const { return systemWords_.count(nameKey(name)) != 0; }

    /// Throws for a path that leads out of the service folder or into the service's own folders.
    static void checkPath(const std::string& path);

    Descriptor openFolder(const std::string& folder);
    /// What stands at path, or none.
    std::optional<struct stat> status(const std::string& path);
    /// True when both paths lead to one file or folder: they are equal, or the file system does not see in
    /// what they differ. Throws DeviceFailure when the folder that could tell cannot be read.
    bool isOne(const std::string& path, const std::string& other);
    /// Whether something stands there; a spelling that is remembered of what has gone does not.
    bool stands(const std::string& path);
    bool isFolder(const std::string& path);
    bool isFile(const std::string& path);

    /// True when the file at path was written by the file service for that item.
    bool owns(const std::string& path, const std::string& item);
    /// True when it was written by the file service for any item.
    bool owns(const std::string& path);

    /// True when the folder name can be given to a set: nothing stands there, or the set's own folder, known
    /// by the name in known, or for a set without one a folder that was made for it.
    bool isFolderFree(const std::string& name, const std::string& known, const std::string& setId);

    /// To be called before something takes the name path: when a rename has left it in this run, the rows
    /// that speak of the rename, and the rename, are on the disk afterwards.
    void beforeTaking(const std::string& path);
    /// The same for a name that an older version of the item's own file has left, which no row speaks of:
    /// folders to flush before it is taken. None when the name was left by nothing.
    std::vector<Descriptor> leftByOlderVersion(const std::string& path, const std::string& item);
    /// Puts the rows of the backup database and of the ledger on the disk, with the folders' descriptions,
    /// and lets go what was waiting for that.
    void flushRows();
    /// Puts the ledger on the disk, and before it the rows that it counts on.
    void flushLedger();
    /// A temporary file was removed from the folder, which no row speaks of: on the disk when rows are the
    /// next time. A power cut would bring it back otherwise, behind a use that ended well, and nobody would
    /// look for it.
    void flushFolderWithRows(const std::string& folder);
    /// Waits for all of them at once, and throws for the first that failed.
    void waitForDisk(const std::vector<Flush>& flushes);
    /// Puts on the disk which names there are in a folder and among its descriptions.
    void flushFolder(const std::string& folder);

    void makeFolder(const std::string& path);
    void removeFolder(const std::string& path);
    void renameFolder(const std::string& from, const std::string& to);
    /// Removes a file with its description; its row stays until the disk knows that both are gone. A file
    /// that stands aside is retired. A file that replaced another one makes way for it again.
    void removeFile(const std::string& path);
    /// Makes a file that another one has taken the place of an older version, or removes it when versions are
    /// not kept; but only when the disk knows of what has taken its place. Where it cannot be kept it stays
    /// as it is.
    void retireFile(const std::string& path);
    /// Retires a file that stands aside when rows are flushed the next time.
    void retireFileLater(const std::string& path);
    /// True for such a file.
    bool isWaiting(const std::string& path);
    /// True when there is one.
    bool hasWaiting();
    /// Puts a file aside: its row remembers the name that it had.
    void putFileAside(const std::string& from, const std::string& to);
    /// Puts what stands at path and belongs to the item aside under a name of the file service's own, on the
    /// disk, until the item's row is written. False for a file that the ledger does not know when an older
    /// version of it stands aside already: that one is the recorded one, and what stands at path may be
    /// replaced.
    bool keepReplaced(const std::string& path, const std::string& item);
    /// Renames a file, for one that stands aside back to its own name.
    void renameFile(const std::string& from, const std::string& to);
    /// Moves an older version to path, where nothing stands, as the current file of its item, on the disk.
    /// Its description goes.
    void restoreVersion(const LedgerVersion& version, const std::string& path);

    /// Calls visit with the name of everything in the folder.
    void listFolder(const std::string& folder, const std::function<void(const std::string&)>& visit);
    /// Removes files that were being written, in the folder and among its descriptions. Returns how many.
    long removeParts(const std::string& folder);

    /// The folder of descriptions in a folder; not open when it is missing.
    Descriptor openDescriptionFolder(const std::string& folder);
    /// The same, made when it is missing.
    Descriptor makeDescriptionFolder(const std::string& folder);
    /// A description's text; empty when there is none.
    std::string readDescription(const std::string& folder, const std::string& name);
    /// A folder's description was written: it is on the disk when rows are the next time.
    void flushFolderDescriptionWithRows(const std::string& folder);
    /// Id of the set whose description stands in the folder; empty when there is none.
    std::string folderIdByDescription(const std::string& folder);
    void removeDescription(const std::string& folder, const std::string& name);
    void moveDescription(const std::string& from, const std::string& to);

    /// Calls visit with each block of the file.
    void readFile(const std::string& path, const std::function<void(const char*, std::size_t)>& visit);

    /// Throws what the error number means for doing what to the path.
    [[noreturn]] void fail(const std::string& what, const std::string& path, int error);

private:
    /// A name in an open folder.
    struct Place {
        Descriptor folder;
        std::string name;
    };
    Place placeOf(const std::string& path);
    std::string replacedBy(const LedgerFile& file);
    void noteLeft(const std::string& path);
    bool isGone() const;
    void refuseStanding(const std::string& from, const std::string& to);
    void moveFileOnly(const std::string& from, const std::string& to);
    void removeFlushed(const std::string& path, const std::optional<LedgerFile>& file);
    void makeVersionFolder(const std::string& folder);
    void planVersion(const std::string& path);
    bool repeatsCurrent(const LedgerFile& file);
    void moveToVersions(const std::string& path, const LedgerVersion& version);

    const std::string path_;
    const std::string thumbnailWord_;
    const NameKeys systemWords_;
    std::string realPath_;
    Descriptor root_;
    struct stat identity_ = {};
    Ledger ledger_;

    std::mutex mutex_;                    // for what follows
    std::set<std::string> left_;          // keys of names that a rename has left, and nothing has taken since
    bool leftUnflushed_ = false;          // some of these renames since the rows were flushed last
    std::set<std::string> descriptions_;  // folders whose descriptions were written since then
    std::set<std::string> emptied_;       // folders from which temporary files were removed
    std::set<std::string> waiting_;       // to be retired behind the next flush of rows
};

}  // namespace flickr_standin

#endif
