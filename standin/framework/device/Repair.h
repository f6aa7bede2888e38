// Has what is missing or damaged fetched again.

#ifndef STANDIN_FRAMEWORK_DEVICE_REPAIR_H
#define STANDIN_FRAMEWORK_DEVICE_REPAIR_H

#include "standin/framework/device/BackupCheck.h"

namespace flickr_standin {

/// Puts the backup in order, checks it, and marks the items of which something is missing or damaged: the
/// next run takes them for edited. Until it has fetched them their files stay. The device has to be locked.
/// Throws as recoverDevice() and checkBackup() do.
BackupReport repairDevice(BackupDatabase& database, Device& device, const CheckProgress& progress = {});

}  // namespace flickr_standin

#endif
