#include "standin/framework/device/StagedFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <set>
#include <utility>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/DeviceFiles.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

namespace {

/// An error number in place of what a database throws.
int errorOf(const std::function<void()>& database) {
    try {
        database();
        return 0;
    } catch (Poco::Exception&) {
        return EIO;
    }
}

}  // namespace

StagedFile::StagedFile(Device& device, const std::string& path)
    : device_(device), path_(path), folder_(device.openFolder(folderOf(path))) {
    device.ledger().markInUse();
    Descriptor file;
    do {
        partName_ = newOwnName(kPartPrefix);
        file = makeFile(folder_.get(), partName_);
    } while (!file.isOpen() && errno == EEXIST);
    if (!file.isOpen()) device.fail("make a file for", path, errno);
    writer_ = std::make_unique<FileWriter>(std::move(file));
}

StagedFile::~StagedFile() {
    if (placed_) return;
    // On a device that fails it stays, for the next run to remove.
    if (::unlinkat(folder_.get(), partName_.c_str(), 0) != 0 && errno != ENOENT)
        device_.ledger().leaveInUse();
    device_.flushFolderWithRows(folderOf(path_));
    if (entered_) undo();
}

void StagedFile::finish(const std::string& item, const std::string& description) {
    item_ = item;
    // Where the description stands says where its file is; see Description.h.
    const bool own = descriptionField(description, "PhysicalFileName") == path_;
    text_ = own ? withDescriptionField(description, "PhysicalFileName", nameOf(path_)) : description;
    const int failure = writer_->finish();
    if (failure != 0) device_.fail("write", path_, failure);
    if (device_.stands(path_) && !device_.owns(path_, item_)) {
        throw DeviceException("Cannot write \"" + path_ + "\": something else stands there already");
    }
}

void StagedFile::describe(const ItemDetails& details) {
    if (text_.empty()) return;
    if (details.item == item_) {
        text_ = withDetails(text_, details);
        if (const auto time = modificationTime(details)) writer_->setTime(*time);
    }
    description_.emplace(device_, folderOf(path_), partName_);
    description_->write(text_);
}

/// The ledger's row says whose the file is before it has its name.
void StagedFile::enter() {
    Ledger& ledger = device_.ledger();
    stands_ = device_.stands(path_);
    before_ = stands_ ? ledger.file(path_) : std::nullopt;
    // What was never recorded need not come back.
    const bool recorded = stands_ && (!before_ || before_->state == FileState::Settled);
    kept_ = recorded && device_.keepReplaced(path_, item_);
    replaces_ = stands_ && !kept_;
    ledger.putFile({path_, item_, writer_->size(), writer_->checksum(), "",
                    replaces_ ? FileState::PendingOlder : FileState::Pending});
    entered_ = true;
    left_ = device_.leftByOlderVersion(path_, item_);
    if (left_.empty()) device_.beforeTaking(path_);
}

void StagedFile::takeName() {
    const std::string name = nameOf(path_);
    if (description_) description_->place(name + kDescriptionExtension);
    int error = 0;
    if (!replaces_) {
        error = renameWithoutReplacing(folder_.get(), partName_, folder_.get(), name);
    } else if (::renameat(folder_.get(), partName_.c_str(), folder_.get(), name.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) device_.fail("write", path_, error);
    placed_ = true;
}

void StagedFile::undo() {
    try {
        if (kept_) {
            device_.removeFile(path_);
        } else if (before_) {
            device_.ledger().putFile(*before_);
        } else {
            if (!stands_) device_.removeDescription(folderOf(path_), nameOf(path_) + kDescriptionExtension);
            device_.ledger().eraseFile(path_);
        }
    } catch (Poco::Exception&) {
        device_.ledger().leaveInUse();  // the row stays pending, and the next run looks at it
    }
}

void StagedFiles::add(std::unique_ptr<StagedFile> file) {
    if (holds(file->path())) place();
    const std::lock_guard<std::mutex> lock(mutex_);
    files_.push_back(std::move(file));
}

bool StagedFiles::holds(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(files_.begin(), files_.end(), [&](const auto& file) { return file->path() == path; });
}

bool StagedFiles::discard(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto gone =
        std::remove_if(files_.begin(), files_.end(), [&](const auto& file) { return file->path() == path; });
    const bool found = gone != files_.end();
    files_.erase(gone, files_.end());
    return found;
}

void StagedFiles::place(const ItemDetails& details) {
    std::vector<std::unique_ptr<StagedFile>> files;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        files.swap(files_);
    }
    if (files.empty()) return;

    std::vector<Flush> flushes;
    for (const auto& file : files) {
        file->describe(details);
        file->enter();
        StagedFile& staged = *file;
        flushes.push_back({staged.path_, [&] { return staged.writer_->flush(); }});
        if (staged.description_)
            flushes.push_back({staged.path_, [&] { return staged.description_->flush(); }});
        for (Descriptor& folder : staged.left_) flushes.push_back(flushOf(folder, staged.path_));
    }
    // Rows of earlier items that are to be flushed soon go along.
    Ledger& ledger = device_.ledger();
    const bool settles = ledger.isSettlingDue();
    if (ledger.speaksOfUnflushedRows() || (settles && device_.hasWaiting())) {
        device_.flushRows();
    } else {
        flushes.push_back({kDescriptionFolder, [&] { return errorOf([&] { ledger.flush(); }); }});
        if (settles) flushes.push_back({kDescriptionFolder, [] { return errorOf(&flushOpenDatabases); }});
    }
    device_.waitForDisk(flushes);
    if (settles) ledger.writeSettled();  // nothing is left of it behind flushRows()

    for (const auto& file : files) file->takeName();

    flushes.clear();
    std::set<std::string> folders;
    for (const auto& file : files) {
        const std::string folder = folderOf(file->path_);
        if (folders.insert(folder).second) flushes.push_back(flushOf(file->folder_, file->path_));
        if (file->description_ && folders.insert(joinPath(folder, kDescriptionFolder)).second) {
            flushes.push_back(flushOf(file->description_->folder(), file->path_));
        }
    }
    device_.waitForDisk(flushes);
    for (const auto& file : files) {
        if (file->replaces_) device_.ledger().setState(file->path_, FileState::Pending);
    }
}

}  // namespace flickr_standin
