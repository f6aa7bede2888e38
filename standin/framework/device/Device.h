// A service folder on a backup device, through which nothing outside it can be reached.

#ifndef STANDIN_FRAMEWORK_DEVICE_DEVICE_H
#define STANDIN_FRAMEWORK_DEVICE_DEVICE_H

#include <Poco/Exception.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "standin/framework/device/Ledger.h"

namespace Norvale_Plugin_Core {

class StagedFiles;

/// An open file descriptor, closed with the object. -1 for none.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;

    int get() const { return number_; }
    bool isOpen() const { return number_ >= 0; }
    int release();

private:
    int number_;
};

/// A file operation that was refused or failed; the message is a sentence for the user.
class DeviceException : public Poco::Exception {
public:
    explicit DeviceException(const std::string& message) : Poco::Exception(message) {}
};

/// The service folder with its ledger. Paths are relative to it, in the form of HostServiceClientMac; every
/// step of one is opened without following symbolic links. Failures are thrown as DeviceException, the ones
/// that end a run (the device is full, gone or read-only) after they were recorded as the run's error.
class Device {
public:
    /// The device at serviceFolder, which all callers in the process share until close(). The
    /// folder is made when it is missing, and below mountPoint also the folders that lead to it; the mount
    /// point itself, or without one the parent folder, has to exist: a device that is not there is not
    /// replaced by a folder on another one.
    static std::shared_ptr<Device> open(const std::string& serviceFolder, const std::string& mountPoint);

    /// The device of the current run, or none when there is no service folder yet.
    static std::shared_ptr<Device> current();

    /// Lets go of the shared device, with everything that was put off on the disk; whoever still holds it
    /// keeps it open.
    static void close();

    /// The new files of the device in use take their names, on the disk: an item's row is about to be
    /// written. Throws the DeviceException of the first that cannot.
    static void placeStaged();
    /// The item's row is in the backup database: nothing of it is pending on the device in use.
    static void noteRecorded(const std::string& itemId);
    /// The set's row is in the backup database and names that folder: it is the set's from now on.
    static void noteFolder(const std::string& setId, const std::string& folder);

    /// Whether other users of the machine may read what is written from now on, as far as the process's file
    /// mode mask lets them. Without it all is for its owner only.
    static void share(bool shared);

    Device(Descriptor root, std::string path, const std::string& realPath);
    ~Device();

    Ledger& ledger() { return ledger_; }
    StagedFiles& staged() { return *staged_; }
    const std::string& path() const { return path_; }

    /// Throws for a path that leads out of the service folder or into the service's own folders.
    static void checkPath(const std::string& path);

    Descriptor openFolder(const std::string& folder);
    /// What stands at path, or none.
    std::optional<struct stat> status(const std::string& path);
    bool isFolder(const std::string& path);
    bool isFile(const std::string& path);

    /// True when the file at path was written by the file service for that item.
    bool owns(const std::string& path, const std::string& item);
    /// True when it was written by the file service for any item.
    bool owns(const std::string& path);

    /// True when the folder name can be given to a set: nothing stands there, or the set's own folder, known
    /// by the name in known, or for a set without one a folder that was made for it.
    bool isFolderFree(const std::string& name, const std::string& known, const std::string& setId);

    /// True when that name cannot be given to the item: something of somebody else's has it.
    bool isTaken(const std::string& path, const std::string& item);

    /// To be called before something takes the name path: when a rename has left it in this run, the rows
    /// that speak of the rename, and the rename, are on the disk afterwards.
    void beforeTaking(const std::string& path);
    /// The same for a name that an older version of the item's own file has left, which no row speaks of:
    /// folders to flush before it is taken. None when the name was left by nothing.
    std::vector<Descriptor> leftByOlderVersion(const std::string& path, const std::string& item);
    /// Puts the rows of the backup database and of the ledger on the disk, with the folders' records, and
    /// removes what was waiting for that.
    void flushRows();
    /// Puts the ledger on the disk, and before it the rows that it counts on.
    void flushLedger();
    /// Puts on the disk which names there are in a folder and among its records.
    void flushFolder(const std::string& folder);

    void makeFolder(const std::string& path);
    void removeFolder(const std::string& path);
    void renameFolder(const std::string& from, const std::string& to);
    /// Removes a file with its record; its row stays until the disk knows that both are gone. An old version
    /// that stands aside goes only when the disk knows of what has taken its place. A file that replaced
    /// another one makes way for it again.
    void removeFile(const std::string& path);
    /// Removes an old version that stands aside when rows are flushed the next time.
    void removeFileLater(const std::string& path);
    /// Puts a file aside: its row remembers the name that it had.
    void putFileAside(const std::string& from, const std::string& to);
    /// Puts what stands at path and belongs to the item aside under a name of the file service's own, on the
    /// disk, until the item's row is written. False when an older version of it stands aside already: that
    /// one is the recorded one, and what stands at path may be replaced.
    bool keepReplaced(const std::string& path, const std::string& item);
    /// Renames a file, for one that stands aside back to its own name.
    void renameFile(const std::string& from, const std::string& to);

    /// Calls visit with the name of everything in the folder.
    void listFolder(const std::string& folder, const std::function<void(const std::string&)>& visit);
    /// Removes files that were being written, in the folder and among its records. Returns how many.
    long removeParts(const std::string& folder);

    /// A record's text; empty when there is none.
    std::string readRecord(const std::string& folder, const std::string& name);
    /// Writes a folder's record; it is on the disk when rows are the next time.
    void writeFolderRecord(const std::string& folder, const std::string& text);
    /// Id of the set whose record stands in the folder; empty when there is none.
    std::string folderIdByRecord(const std::string& folder);
    void removeRecord(const std::string& folder, const std::string& name);
    void moveRecord(const std::string& from, const std::string& to);

    /// Calls visit with each block of the file.
    void readFile(const std::string& path, const std::function<void(const char*, std::size_t)>& visit);

    /// Throws what the error number means for doing what to the path; records the run's error for one that
    /// ends a run.
    [[noreturn]] void fail(const std::string& what, const std::string& path, int error);

private:
    friend class NewRecord;

    /// A name in an open folder.
    struct Place {
        Descriptor folder;
        std::string name;
    };
    Place placeOf(const std::string& path);
    std::string replacedBy(const LedgerFile& file);
    void noteLeft(const std::string& path);
    void finish();
    bool isGone() const;
    void refuseStanding(const std::string& from, const std::string& to);
    void moveFileOnly(const std::string& from, const std::string& to);
    Descriptor openRecordFolder(const std::string& folder, bool create);
    void removeFlushed(const std::string& path, const std::optional<LedgerFile>& file);
    void removeWaiting();
    bool isWaiting(const std::string& path);

    Descriptor root_;
    std::string path_;
    struct stat identity_ = {};
    Ledger ledger_;

    std::mutex mutex_;               // for what follows
    std::set<std::string> left_;     // keys of names that a rename has left, and nothing has taken since
    bool leftUnflushed_ = false;     // some of these renames since the rows were flushed last
    std::set<std::string> records_;  // folders whose records were written since then
    std::set<std::string> waiting_;  // old versions that go behind the next flush of rows

    std::unique_ptr<StagedFiles> staged_;
};

/// A description record on its way to the device: it stands there whole or not at all. It is removed again
/// unless place() was reached.
class NewRecord {
public:
    /// Makes the file partName in the record folder of folder, which is made when it is missing.
    NewRecord(Device& device, const std::string& folder, std::string partName);
    ~NewRecord();
    NewRecord(const NewRecord&) = delete;
    NewRecord& operator=(const NewRecord&) = delete;

    void write(const std::string& text);
    /// The disk begins with it, so that the flush does not take long.
    void send();
    /// Its text is on the disk afterwards: 0, or an error number. May be called from another thread.
    int flush();
    void place(const std::string& name);
    /// The folder in which it stands.
    const Descriptor& folder() const { return records_; }

private:
    [[noreturn]] void fail(int error);

    Device& device_;
    std::string folder_;
    std::string partName_;
    Descriptor records_;
    Descriptor file_;
    bool placed_ = false;
};

/// A new file for writing; not open, with errno, when it cannot be made or something has the name.
Descriptor makeFile(int folder, const std::string& name);

/// Renames without replacing anything; 0 or an error number.
int renameWithoutReplacing(int fromFolder, const std::string& from, int toFolder, const std::string& to);

}  // namespace Norvale_Plugin_Core

#endif
