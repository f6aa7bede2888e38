#include "standin/framework/device/NewFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/DeviceFiles.h"

namespace flickr_standin {

namespace {

constexpr std::size_t kPiece = 256 << 10;
constexpr std::size_t kMostPieces = 4;          // that wait for the thread
constexpr std::uint64_t kThreadFrom = 4 << 20;  // a smaller file is written faster than a thread is made
constexpr std::uint64_t kSendFrom = 8 << 20;    // so much at a time is sent to the disk ahead of the flush

}  // namespace

NewFile::NewFile(Device& device, const std::string& path)
    : device_(device), path_(path), folder_(device.openFolder(folderOf(path))) {
    device.ledger().markInUse();
    do {
        partName_ = newOwnName(kPartPrefix);
        file_ = makeFile(folder_.get(), partName_);
    } while (!file_.isOpen() && errno == EEXIST);
    if (!file_.isOpen()) device.fail("make a file for", path, errno);
    piece_.reserve(kPiece);
}

NewFile::~NewFile() {
    if (!placed_) {
        // On a device that fails it stays, for the next run to remove.
        if (::unlinkat(folder_.get(), partName_.c_str(), 0) != 0 && errno != ENOENT)
            device_.ledger().leaveInUse();
        device_.flushFolderWithRows(folderOf(path_));
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        pieces_ = {};
    }
    endThread();
}

void NewFile::add(const char* data, std::size_t size) {
    piece_.append(data, size);
    added_ += size;
    const int error = piece_.size() < kPiece ? 0 : pass();
    if (error != 0) device_.fail("write", path_, error);
}

void NewFile::finish() {
    pass();
    endThread();
    if (error_ != 0) device_.fail("write", path_, error_);
    send();
}

void NewFile::setTime(std::time_t time) {
    const timespec times[] = {{0, UTIME_OMIT}, {time, 0}};
    ::futimens(file_.get(), times);  // the bytes matter more than their date
}

int NewFile::flush() {
    return ::fsync(file_.get()) == 0 ? 0 : errno;
}

void NewFile::place(bool replaces) {
    const std::string name = nameOf(path_);
    int error = 0;
    if (!replaces) {
        error = renameWithoutReplacing(folder_.get(), partName_, folder_.get(), name);
    } else if (::renameat(folder_.get(), partName_.c_str(), folder_.get(), name.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) device_.fail("write", path_, error);
    placed_ = true;
}

/// Writes the piece, or hands it on to the thread, which there is only for a large file.
int NewFile::pass() {
    if (!thread_.joinable() && (added_ < kThreadFrom || !startThread())) {
        if (error_ == 0) error_ = write(piece_);
        piece_.clear();
        return error_;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return pieces_.size() < kMostPieces || error_ != 0; });
    pieces_.push(std::move(piece_));
    piece_.clear();
    if (!spares_.empty()) {
        piece_ = std::move(spares_.back());
        spares_.pop_back();
    }
    const int error = error_;
    lock.unlock();
    changed_.notify_all();
    piece_.reserve(kPiece);
    return error;
}

bool NewFile::startThread() {
    try {
        thread_ = std::thread([this] { writePieces(); });
        return true;
    } catch (std::system_error&) {
        return false;  // the system has none to give: it goes without
    }
}

void NewFile::endThread() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
    }
    changed_.notify_all();
    thread_.join();
    ended_ = false;  // who writes on after a failure gets a thread again
}

void NewFile::writePieces() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return !pieces_.empty() || ended_; });
        if (pieces_.empty()) return;
        std::string piece = std::move(pieces_.front());
        pieces_.pop();
        const bool failed = error_ != 0;
        lock.unlock();
        changed_.notify_all();
        const int error = failed ? 0 : write(piece);
        piece.clear();
        lock.lock();
        if (error != 0) error_ = error;
        spares_.push_back(std::move(piece));
    }
}

int NewFile::write(const std::string& piece) {
    const int error = writeAll(file_, piece.data(), piece.size());
    if (error != 0) return error;
    checksum_.update(piece.data(), piece.size());
    size_ += piece.size();
    if (size_ - sent_ >= kSendFrom) send();
    return 0;
}

void NewFile::send() {
    ::sync_file_range(file_.get(), static_cast<off64_t>(sent_), static_cast<off64_t>(size_ - sent_),
                      SYNC_FILE_RANGE_WRITE);
    sent_ = size_;
}

}  // namespace flickr_standin
