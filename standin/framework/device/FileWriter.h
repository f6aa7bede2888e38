// How the bytes of a file get to the device.
//
// They are gathered to large pieces: a file system takes one for hardly more than a small one. In a large
// file a thread writes them: the network does not wait for the disk. The disk begins with them while the file
// still grows, and with the rest at its end: the flush is short then.

#ifndef STANDIN_FRAMEWORK_DEVICE_FILEWRITER_H
#define STANDIN_FRAMEWORK_DEVICE_FILEWRITER_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "standin/framework/base/Checksum.h"
#include "standin/framework/base/Descriptor.h"

namespace flickr_standin {

/// Writes one file from its start. Not for several threads. An operation that gives an int gives 0, or the
/// number of the first error that any write met; the file is of no use then.
class FileWriter {
public:
    explicit FileWriter(Descriptor file);
    /// Whatever was not finished is given up.
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    /// Takes a copy of the bytes. An error of writing them may only be told by a later call.
    int add(const char* data, std::size_t size);

    /// Writes what is left; the disk begins with it.
    int finish();
    /// Gives the finished file a modification time, where the file system can hold it.
    void setTime(std::time_t time);
    /// The finished file is on the disk afterwards. May be called from another thread.
    int flush();

    /// Of the finished file: its size in bytes and its checksum.
    std::uint64_t size() const { return size_; }
    std::string checksum() const { return checksum_.text(); }

private:
    int pass();
    bool startThread();
    void writePieces();
    int write(const std::string& piece);
    void send();
    void endThread();

    Descriptor file_;
    std::uint64_t size_ = 0;
    std::uint64_t sent_ = 0;
    Checksum checksum_;
    std::string piece_;
    std::uint64_t added_ = 0;

    std::mutex mutex_;  // for what follows, as soon as there is a thread
    std::condition_variable changed_;
    std::queue<std::string> pieces_;
    std::vector<std::string> spares_;  // empty, to be filled again
    bool ended_ = false;
    int error_ = 0;
    std::thread thread_;
};

}  // namespace flickr_standin

#endif
