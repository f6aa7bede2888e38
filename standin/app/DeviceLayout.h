// Where a backup stands on a device.
//
//   DEVICE/backup.db                               the metadata database
//   DEVICE/Brightkettle/My Flickr Items/           the service folder, named in the culture of the backup
//
// A device holds one service folder, and the database belongs to it: with another culture's words, or
// without the database, the plug-in would take what is there for missing, or what is missing for there.

#ifndef STANDIN_APP_DEVICELAYOUT_H
#define STANDIN_APP_DEVICELAYOUT_H

#include <string>

#include "standin/app/Signals.h"
#include "standin/framework/device/BackupReading.h"

namespace flickr_app {

constexpr const char* kDefaultDatabase = "backup.db";

struct DeviceLayout {
    std::string device;         ///< absolute, without links and "/" at its end
    std::string culture;        ///< "en"
    std::string thumbnailWord;  ///< the culture's word for thumbnail folders
    std::string databasePath;   ///< absolute
    std::string serviceFolder;
    bool holdsBackup = false;  ///< there is something in the service folder

    flickr_standin::BackupPlace place() const {
        return {device, databasePath, serviceFolder, thumbnailWord, throwIfStopped};
    }
};

/// The service folder of a culture on a device.
std::string serviceFolderOn(const std::string& device, const std::string& culture);

/// Finds a device's backup, or the place for a new one. culture: empty for that of the backup there, English
/// for a new one. Throws UsageError, and changes nothing, when the device is no directory, when the
/// database's name is no file name or the culture is not known, when the backup there is of another culture,
/// and when its database is missing.
DeviceLayout layoutOf(const std::string& device, const std::string& databaseName, const std::string& culture);

/// The same for a backup that has to be there.
DeviceLayout existingBackup(const std::string& device, const std::string& databaseName);

/// The same for a backup that is only looked at: without its database databasePath is empty. Throws
/// UsageError when there is neither database nor backup.
DeviceLayout backupToShow(const std::string& device, const std::string& databaseName);

/// The same for a backup whose database may be missing, empty or damaged: databasePath is where it belongs.
/// Throws UsageError when there is no backup.
DeviceLayout backupToRebuild(const std::string& device, const std::string& databaseName);

}  // namespace flickr_app

#endif
