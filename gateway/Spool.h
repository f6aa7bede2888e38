// The bytes of a body between the network and the plug-in.

#ifndef GATEWAY_SPOOL_H
#define GATEWAY_SPOOL_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "gateway/Failure.h"

namespace flickr_gateway {

/// What all bodies together may keep waiting.
class SpoolRoom {
public:
    /// In bytes.
    SpoolRoom(std::uint64_t memory, std::uint64_t files) : memory_(memory), files_(files) {}

    /// Whether another body may be begun ahead of its time.
    bool hasMemory() const { return memoryUsed_ < memory_; }

private:
    friend class Spool;

    static bool take(std::atomic<std::uint64_t>& used, std::uint64_t limit, std::uint64_t size) {
        if (used.fetch_add(size) + size <= limit) return true;
        used -= size;
        return false;
    }

    const std::uint64_t memory_;
    const std::uint64_t files_;
    std::atomic<std::uint64_t> memoryUsed_{0};
    std::atomic<std::uint64_t> filesUsed_{0};
};

/// A queue of bytes with one writer and one reader. They wait in memory, and those of a large body in a file
/// without a name. While there is no reader the writer may go on until the room is used up; a reader that is
/// there is kept a mebibyte ahead of.
class Spool {
public:
    explicit Spool(SpoolRoom& room) : room_(room) {}
    ~Spool();
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    /// Appends, waiting for room. Throws CancelledFailure, and Failure when the file cannot be written.
    void append(const char* data, std::size_t size, const Cancelled& cancelled);
    /// How a body ends.
    enum class End { Whole, BrokenOff };

    /// There will be no more.
    void end(End how);

    /// From now on somebody reads.
    void attachReader();

    enum class Outcome { Bytes, Nothing, Whole, Broken };
    /// Takes up to capacity bytes and says how many in size. Nothing: none came in that time.
    Outcome read(char* buffer, std::size_t capacity, std::size_t& size, std::chrono::milliseconds time);

private:
    bool store(const char* data, std::size_t size);

    SpoolRoom& room_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> memory_;  // first in line
    std::size_t memorySize_ = 0;
    std::size_t frontRead_ = 0;  // of the first piece in memory
    int file_ = -1;              // behind what is in memory
    std::uint64_t fileWritten_ = 0;
    std::uint64_t fileRead_ = 0;
    bool reader_ = false;
    bool ended_ = false;
    bool whole_ = false;
};

}  // namespace flickr_gateway

#endif
