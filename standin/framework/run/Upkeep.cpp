#include "standin/framework/run/Upkeep.h"

#include <Poco/Exception.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "standin/framework/base/Paths.h"
#include "standin/framework/run/RunDevice.h"
#include "standin/framework/run/RunState.h"

namespace flickr_standin {

namespace {

BackupReport check(BackupDatabase& database, const std::string& serviceFolder,
                   const std::string& thumbnailWord, Contents contents, const CheckProgress& progress) {
    const std::string folder = withoutEndSlash(serviceFolder);
    struct stat status = {};
    if (::stat(folder.c_str(), &status) != 0) {
        throw Poco::FileNotFoundException("There is no backup at " + folder + ": " + std::strerror(errno));
    }
    BackupReport report;
    withDevice(folder, thumbnailWord,
               [&](Device& device) { report = checkBackup(database, device, contents, progress); });
    return report;
}

}  // namespace

void withDevice(const std::string& serviceFolder, const std::string& thumbnailWord,
                const std::function<void(Device&)>& work) {
    closeRunDevice();
    Device device(withoutEndSlash(serviceFolder), currentMountPoint(), thumbnailWord);
    try {
        work(device);
    } catch (...) {
        device.finish();
        throw;
    }
    device.finish();
}

RecoveryReport recoverBackup(BackupDatabase& database, const std::string& serviceFolder,
                             const std::string& thumbnailWord) {
    RecoveryReport report;
    withDevice(serviceFolder, thumbnailWord,
               [&](Device& device) { report = recoverDevice(database, device); });
    return report;
}

BackupReport verifyBackup(BackupDatabase& database, const std::string& serviceFolder,
                          const std::string& thumbnailWord, const CheckProgress& progress) {
    return check(database, serviceFolder, thumbnailWord, Contents::Read, progress);
}

BackupReport repairBackup(BackupDatabase& database, const std::string& serviceFolder,
                          const std::string& thumbnailWord, const CheckProgress& progress) {
    BackupReport report;
    withDevice(serviceFolder, thumbnailWord,
               [&](Device& device) { report = repairDevice(database, device, progress); });
    return report;
}

BackupReport compareBackup(BackupDatabase& database, const std::string& serviceFolder,
                           const std::string& thumbnailWord) {
    return check(database, serviceFolder, thumbnailWord, Contents::SizesOnly, {});
}

}  // namespace flickr_standin
