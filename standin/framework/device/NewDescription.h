// Description records on their way to the device.

#ifndef STANDIN_FRAMEWORK_DEVICE_NEWDESCRIPTION_H
#define STANDIN_FRAMEWORK_DEVICE_NEWDESCRIPTION_H

#include <string>

#include "standin/framework/base/Descriptor.h"

namespace flickr_standin {

class Device;

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

/// Writes a folder's record; it is on the disk when rows are the next time.
void writeFolderRecord(Device& device, const std::string& folder, const std::string& text);

}  // namespace flickr_standin

#endif
