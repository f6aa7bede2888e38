// New files between their last byte and their name. A disk that people plug in takes 10 to 50 ms for a flush:
// what has to be on it before an item's row is written goes there together, in two waits for the whole item:
//
//   add      Trip/.part-PID-N holds all bytes; the disk has begun to write them
//   place    Trip/.records/.part-PID-N holds the description, with what is known of the item by now; the file
//            gets its modification time
//            the ledger's rows are entered as pending
//            wait 1: the files, their descriptions, the ledger, and folders that a rename has left
//            descriptions and files take their names
//            wait 2: the folders that hold the names
//
// A cut before the names leaves rows of files that are not there, and nothing under a final name; one behind
// them whole files that the ledger knows.

#ifndef STANDIN_FRAMEWORK_DEVICE_STAGEDFILES_H
#define STANDIN_FRAMEWORK_DEVICE_STAGEDFILES_H

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "standin/framework/device/Device.h"
#include "standin/framework/device/FileWriter.h"
#include "standin/framework/device/ItemDetails.h"
#include "standin/framework/device/NewDescription.h"

namespace flickr_standin {

/// A file that is being written, or is whole and has not taken its name. Its temporary file goes with it
/// until it is placed.
class StagedFile {
public:
    /// Makes the temporary file for path, beside it. Throws a DeviceException.
    StagedFile(Device& device, const std::string& path);
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    const std::string& path() const { return path_; }
    FileWriter& writer() { return *writer_; }

    /// All bytes are there: writes what is left of them. The description, unless it is empty, is written
    /// beside when the file is about to take its name. Throws a DeviceException, also when somebody else's
    /// file stands at the path.
    void finish(const std::string& item, const std::string& description);

private:
    friend class StagedFiles;

    void describe(const ItemDetails& details);
    void enter();
    void takeName();
    void undo();

    Device& device_;
    std::string path_;
    std::string item_;
    std::string text_;  // of the description; empty for none
    std::string partName_;
    Descriptor folder_;
    std::unique_ptr<FileWriter> writer_;
    std::optional<NewDescription> description_;
    std::optional<LedgerFile> before_;  // the ledger's row of what stands at the path
    std::vector<Descriptor> left_;      // folders in which an older version made way
    bool entered_ = false;
    bool stands_ = false;    // something of the item's stands at the path
    bool kept_ = false;      // it was put aside, to come back when the new file is deleted
    bool replaces_ = false;  // it goes when the name is taken
    bool placed_ = false;
};

/// The whole files of a device that have no names yet. May be called from any thread.
class StagedFiles {
public:
    explicit StagedFiles(Device& device) : device_(device) {}

    /// Takes a finished file. One of the same path takes its name first.
    void add(std::unique_ptr<StagedFile> file);

    bool holds(const std::string& path);

    /// Gives the file up; false when there is none of that path.
    bool discard(const std::string& path);

    /// Every file takes its name; everything about them is on the disk then, those of the details' item with
    /// what these tell. Throws a DeviceException for the first that cannot; files without a name are given up
    /// then.
    void place(const ItemDetails& details = {});

private:
    Device& device_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<StagedFile>> files_;
};

}  // namespace flickr_standin

#endif
