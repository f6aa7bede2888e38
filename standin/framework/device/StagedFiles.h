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
#include <string>
#include <vector>

#include "standin/framework/device/Device.h"
#include "standin/framework/device/ItemDetails.h"
#include "standin/framework/device/NewFile.h"

namespace flickr_standin {

class StagedFile;

/// The whole files of a device that have no names yet. May be called from any thread.
class StagedFiles {
public:
    explicit StagedFiles(Device& device);
    ~StagedFiles();
    StagedFiles(const StagedFiles&) = delete;
    StagedFiles& operator=(const StagedFiles&) = delete;

    /// Takes a finished file of the item. One of the same path takes its name first. The description, unless
    /// it is empty, is written beside when the file is about to take its name.
    void add(std::unique_ptr<NewFile> file, const std::string& item, const std::string& description);

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
