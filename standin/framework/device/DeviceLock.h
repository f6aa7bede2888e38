// Keeps two runs off one device, and runs off one that is read.

#ifndef STANDIN_FRAMEWORK_DEVICE_DEVICELOCK_H
#define STANDIN_FRAMEWORK_DEVICE_DEVICELOCK_H

#include <memory>
#include <string>
#include <utility>

#include "standin/framework/base/Descriptor.h"

namespace flickr_standin {

/// Holds a device, or a service's folder on one, for as long as it lives. The lock is the kernel's, on the
/// file ".backup.lock" there: one that a crashed process held is free at once. The empty file stays.
class DeviceLock {
public:
    /// Throws Poco::Exception with a sentence for the user when another run holds the directory, when it is
    /// read for longer than some seconds, and when it is missing or cannot be written.
    explicit DeviceLock(const std::string& directory);

    /// Keeps runs off, and lets others read; none when a run holds the directory. Nothing is written: where
    /// there is no lock, or it cannot be opened, nothing is held.
    static std::unique_ptr<DeviceLock> forReading(const std::string& directory);

private:
    explicit DeviceLock(Descriptor file) : file_(std::move(file)) {}

    Descriptor file_;
};

}  // namespace flickr_standin

#endif
