// Descriptions on their way to the device.

#ifndef STANDIN_FRAMEWORK_DEVICE_NEWDESCRIPTION_H
#define STANDIN_FRAMEWORK_DEVICE_NEWDESCRIPTION_H

#include <string>

#include "standin/framework/base/Descriptor.h"

namespace flickr_standin {

class Device;

/// A description on its way to the device: it stands there whole or not at all. It is removed again
/// unless place() was reached.
class NewDescription {
public:
    /// Makes the file partName in the description folder of folder, which is made when it is missing.
    NewDescription(Device& device, const std::string& folder, std::string partName);
    ~NewDescription();
    NewDescription(const NewDescription&) = delete;
    NewDescription& operator=(const NewDescription&) = delete;

    void write(const std::string& text);
    /// Its text is on the disk afterwards: 0, or an error number. May be called from another thread.
    int flush();
    void place(const std::string& name);
    /// The folder in which it stands.
    const Descriptor& folder() const { return descriptions_; }

private:
    [[noreturn]] void fail(int error);

    Device& device_;
    std::string folder_;
    std::string partName_;
    Descriptor descriptions_;
    Descriptor file_;
    bool placed_ = false;
};

/// Writes a folder's description; it is on the disk when rows are the next time.
void writeFolderDescription(Device& device, const std::string& folder, const std::string& text);

}  // namespace flickr_standin

#endif
