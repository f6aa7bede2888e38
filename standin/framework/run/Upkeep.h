// What is done to a whole backup between runs, each with the device to itself.

#ifndef STANDIN_FRAMEWORK_RUN_UPKEEP_H
#define STANDIN_FRAMEWORK_RUN_UPKEEP_H

#include <cstdint>
#include <functional>
#include <string>

#include "standin/framework/device/BackupCheck.h"
#include "standin/framework/device/Recovery.h"
#include "standin/framework/device/Repair.h"

namespace flickr_standin {

class Device;

/// Calls work with the device at serviceFolder. The run's device is let go of before: it may be another one
/// by now. thumbnailWord: see Device.
void withDevice(const std::string& serviceFolder, const std::string& thumbnailWord,
                const std::function<void(Device&)>& work);

/// recoverDevice() there.
RecoveryReport recoverBackup(BackupDatabase& database, const std::string& serviceFolder,
                             const std::string& thumbnailWord);

/// checkBackup() there, for a folder that has to be there.
BackupReport verifyBackup(BackupDatabase& database, const std::string& serviceFolder,
                          const std::string& thumbnailWord, const CheckProgress& progress = {});
/// repairDevice() there.
BackupReport repairBackup(BackupDatabase& database, const std::string& serviceFolder,
                          const std::string& thumbnailWord, const CheckProgress& progress = {});
/// The same as verifyBackup(), without reading contents.
BackupReport compareBackup(BackupDatabase& database, const std::string& serviceFolder,
                           const std::string& thumbnailWord);

}  // namespace flickr_standin

#endif
