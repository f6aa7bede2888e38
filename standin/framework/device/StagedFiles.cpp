#include "standin/framework/device/StagedFiles.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>
#include <set>
#include <utility>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/NewDescription.h"
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

/// A whole file that has not taken its name, with what is known of it besides its bytes.
class StagedFile {
public:
    StagedFile(Device& device, std::unique_ptr<NewFile> file, std::string item,
               const std::string& description);
    /// Without its name it goes, and the ledger says of the path what it said before.
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    const std::string& path() const { return path_; }

private:
    friend class StagedFiles;

    void describe(const ItemDetails& details);
    void enter();
    void takeName();
    void undo();

    Device& device_;
    std::unique_ptr<NewFile> file_;
    const std::string path_;
    const std::string item_;
    std::string text_;  // of the description; empty for none
    std::optional<NewDescription> description_;
    std::optional<LedgerFile> before_;  // the ledger's row of what stands at the path
    std::vector<Descriptor> left_;      // folders in which an older version made way
    bool entered_ = false;
    bool stands_ = false;    // something of the item's stands at the path
    bool kept_ = false;      // it was put aside, to come back when the new file is deleted
    bool replaces_ = false;  // it goes when the name is taken
};

StagedFile::StagedFile(Device& device, std::unique_ptr<NewFile> file, std::string item,
                       const std::string& description)
    : device_(device), file_(std::move(file)), path_(file_->path()), item_(std::move(item)) {
    // Where the description stands says where its file is; see Description.h.
    const bool own = descriptionField(description, "PhysicalFileName") == path_;
    text_ = own ? withDescriptionField(description, "PhysicalFileName", nameOf(path_)) : description;
}

StagedFile::~StagedFile() {
    if (file_->isPlaced()) return;
    file_.reset();  // the file, then its row, and its description at the very end
    if (entered_) undo();
}

void StagedFile::describe(const ItemDetails& details) {
    if (text_.empty()) return;
    if (details.item == item_) {
        text_ = withDetails(text_, details);
        if (const auto time = modificationTime(details)) file_->setTime(*time);
    }
    description_.emplace(device_, folderOf(path_), file_->partName());
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
    ledger.putFile({path_, item_, file_->size(), file_->checksum(), "",
                    replaces_ ? FileState::PendingOlder : FileState::Pending});
    entered_ = true;
    left_ = device_.leftByOlderVersion(path_, item_);
    if (left_.empty()) device_.beforeTaking(path_);
}

void StagedFile::takeName() {
    if (description_) description_->place(nameOf(path_) + kDescriptionExtension);
    file_->place(replaces_);
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

StagedFiles::StagedFiles(Device& device) : device_(device) {}

StagedFiles::~StagedFiles() = default;

void StagedFiles::add(std::unique_ptr<NewFile> file, const std::string& item,
                      const std::string& description) {
    if (holds(file->path())) place();
    auto staged = std::make_unique<StagedFile>(device_, std::move(file), item, description);
    const std::lock_guard<std::mutex> lock(mutex_);
    files_.push_back(std::move(staged));
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
        flushes.push_back({staged.path_, [&] { return staged.file_->flush(); }});
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
        if (folders.insert(folder).second) flushes.push_back(flushOf(file->file_->folder(), file->path_));
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
