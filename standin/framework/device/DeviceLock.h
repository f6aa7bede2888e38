// Keeps two runs off one device.

#ifndef STANDIN_FRAMEWORK_DEVICE_DEVICELOCK_H
#define STANDIN_FRAMEWORK_DEVICE_DEVICELOCK_H

#include <string>

namespace flickr_standin {

/// Holds a device, or a service's folder on one, for as long as it lives. The lock is the kernel's, on the
/// file ".backup.lock" there: one that a crashed process held is free at once. The empty file stays.
class DeviceLock {
public:
    /// Throws Poco::Exception with a sentence for the user when another run holds the directory, and when the
    /// directory is missing or cannot be written.
    explicit DeviceLock(const std::string& directory);
    ~DeviceLock();
    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;

    /// Whether somebody holds the directory. Nothing is changed, and what cannot be looked at counts as free.
    static bool isHeld(const std::string& directory);

private:
    int descriptor_;
};

}  // namespace flickr_standin

#endif
