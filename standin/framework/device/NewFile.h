// New files on their way to their names, as .part-PID-N beside them.
//
// The bytes are gathered to large pieces: a file system takes one for hardly more than a small one. In a
// large file a thread writes them: the network does not wait for the disk. The disk begins with them while
// the file still grows, and with the rest at its end: the flush is short then.

#ifndef STANDIN_FRAMEWORK_DEVICE_NEWFILE_H
#define STANDIN_FRAMEWORK_DEVICE_NEWFILE_H

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

class Device;

/// A file on its way to its name: it stands there whole or not at all. Its temporary file is removed again
/// unless place() was reached. Not for several threads. What fails is thrown as a DeviceException.
class NewFile {
public:
    /// Makes the temporary file for path, beside it.
    NewFile(Device& device, const std::string& path);
    /// Whatever was not finished is given up.
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    const std::string& path() const { return path_; }
    /// Name of the temporary file.
    const std::string& partName() const { return partName_; }
    /// The folder in which it stands.
    const Descriptor& folder() const { return folder_; }

    /// Takes a copy of the bytes. A failure to write them may only be told by a later call; the file is of no
    /// use then.
    void add(const char* data, std::size_t size);

    /// All bytes are there: writes what is left of them; the disk begins with it.
    void finish();
    /// Gives the finished file a modification time, where the file system can hold it.
    void setTime(std::time_t time);
    /// The finished file is on the disk afterwards: 0, or an error number. May be called from another thread.
    int flush();
    /// The finished file takes its name. What stands there goes when it is to be replaced, and is in the way
    /// otherwise.
    void place(bool replaces);
    bool isPlaced() const { return placed_; }

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

    Device& device_;
    std::string path_;
    std::string partName_;
    Descriptor folder_;
    Descriptor file_;
    bool placed_ = false;
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
