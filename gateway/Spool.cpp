#include "gateway/Spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace flickr_gateway {

namespace {

constexpr std::uint64_t kAheadOfReader = 1 << 20;
constexpr std::size_t kLargestInMemory = 8 << 20;
constexpr std::chrono::milliseconds kLook{100};

int openUnnamedFile() {
    const char* const wish = std::getenv("TMPDIR");
    for (const char* folder : {wish, "/var/tmp", "/tmp"}) {
        if (folder == nullptr || *folder == '\0') continue;
        const int file = ::open(folder, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        if (file >= 0) return file;
        std::string name = std::string(folder) + "/flickr-gateway-XXXXXX";
        const int named = ::mkostemp(name.data(), O_CLOEXEC);
        if (named < 0) continue;
        ::unlink(name.c_str());
        return named;
    }
    return -1;
}

}  // namespace

Spool::~Spool() {
    room_.memoryUsed_ -= memorySize_;
    room_.filesUsed_ -= fileWritten_;
    if (file_ >= 0) ::close(file_);
}

void Spool::append(const char* data, std::size_t size, const Cancelled& cancelled) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!store(data, size)) {
        if (cancelled()) throw CancelledFailure();
        changed_.wait_for(lock, kLook);
    }
    changed_.notify_all();
}

bool Spool::store(const char* data, std::size_t size) {
    const std::uint64_t waiting = memorySize_ + fileWritten_ - fileRead_;
    // What is in the file has to be read up first, or a large body would pass through it whole.
    if (reader_ && (waiting >= kAheadOfReader || fileWritten_ > 0)) return false;
    if (fileWritten_ == 0) {
        bool room =
            memorySize_ + size <= kLargestInMemory && SpoolRoom::take(room_.memoryUsed_, room_.memory_, size);
        if (!room && reader_) {  // The one that is read goes on whatever the others keep.
            room_.memoryUsed_ += size;
            room = true;
        }
        if (room) {
            memory_.emplace_back(data, size);
            memorySize_ += size;
            return true;
        }
    }
    if (!SpoolRoom::take(room_.filesUsed_, room_.files_, size)) return false;
    if (file_ < 0) file_ = openUnnamedFile();
    if (file_ < 0 ||
        ::pwrite(file_, data, size, static_cast<off_t>(fileWritten_)) != static_cast<ssize_t>(size)) {
        room_.filesUsed_ -= size;
        throw Failure(Failure::Kind::Unavailable,
                      std::string("What was fetched ahead cannot be kept in a temporary file: ") +
                          std::strerror(errno) + ".");
    }
    fileWritten_ += size;
    return true;
}

void Spool::end(End how) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    whole_ = how == End::Whole;
    changed_.notify_all();
}

void Spool::attachReader() {
    const std::lock_guard<std::mutex> lock(mutex_);
    reader_ = true;
    changed_.notify_all();
}

Spool::Outcome Spool::read(char* buffer, std::size_t capacity, std::size_t& size,
                           std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto hasBytes = [&] { return memorySize_ > 0 || fileWritten_ > fileRead_; };
    changed_.wait_for(lock, time, [&] { return hasBytes() || ended_; });
    if (!hasBytes()) {
        if (!ended_) return Outcome::Nothing;
        return whole_ ? Outcome::Whole : Outcome::Broken;
    }
    if (memorySize_ > 0) {
        std::string& front = memory_.front();
        size = std::min(capacity, front.size() - frontRead_);
        std::memcpy(buffer, front.data() + frontRead_, size);
        frontRead_ += size;
        memorySize_ -= size;
        room_.memoryUsed_ -= size;
        if (frontRead_ == front.size()) {
            memory_.pop_front();
            frontRead_ = 0;
        }
    } else {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(capacity, fileWritten_ - fileRead_));
        const ssize_t got = ::pread(file_, buffer, wanted, static_cast<off_t>(fileRead_));
        if (got <= 0) return Outcome::Broken;
        size = static_cast<std::size_t>(got);
        fileRead_ += size;
        if (fileRead_ == fileWritten_) {  // Read up: the rest finds its way through memory again.
            room_.filesUsed_ -= fileWritten_;
            fileRead_ = fileWritten_ = 0;
            if (::ftruncate(file_, 0) != 0) return Outcome::Broken;
        }
    }
    changed_.notify_all();
    return Outcome::Bytes;
}

}  // namespace flickr_gateway
