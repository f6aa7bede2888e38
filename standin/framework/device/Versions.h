// The older versions on a device, as a user sees them: listed, put back, and removed when they are old.
// Device.h makes them, docs/file-service.md has the order of their steps.

#ifndef STANDIN_FRAMEWORK_DEVICE_VERSIONS_H
#define STANDIN_FRAMEWORK_DEVICE_VERSIONS_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace flickr_standin {

class BackupDatabase;
class Device;

struct Version {
    std::string path;  ///< relative to the service folder
    std::string item;  ///< id
    std::time_t replaced = 0;
    std::uint64_t size = 0;  ///< bytes
};

/// Those that are there, by path.
std::vector<Version> versionsOn(Device& device);

/// Removes versions that were replaced more than daysOfVersions() ago, and forgets those that are gone or
/// somebody else's by now. Returns how many were removed. Throws Poco::Exception when the device fails.
long pruneVersions(Device& device);

/// Makes the version at path the current file of its item; the current file becomes a version, and the item's
/// row stays as it is. Recovery has to have been done. Gives the path of the restored file. Throws
/// Poco::NotFoundException when there is no such version, and DeviceException when it is damaged or its item
/// is not recorded.
std::string restoreVersion(BackupDatabase& database, Device& device, const std::string& path);

}  // namespace flickr_standin

#endif
