// The plug-in's access to the backup metadata database.
//
// Columns of table backupmetadata that are used here:
//   ItemId                 a set's id, or an item's PhotoID
//   ItemName               the name as the service gave it
//   DerivedItemName        the name on the device
//   ItemUpdatedOn          the time of the last update, as DbInterface::convertToString() writes it
//   ItemType               the row 'FlickrLatestBackUpDateTime' holds the time of the latest backup
//   ItemContainerName, DerivedContainerName   the folder that holds an item, on the device
//   OriginalItemId, OriginalContainerId       the service's ids of an item and of its set

#ifndef CORE_FLICKRDBINTERFACE_H
#define CORE_FLICKRDBINTERFACE_H

#include <Poco/DateTime.h>

#include <string>

#include "hostapi/DbInterface.h"

namespace Norvale_Plugin_Flickr {

/// Reads and updates what earlier runs recorded. Every operation opens a session of its own. Failures are
/// reported through the host's exception handler and do not throw: a query then answers the empty text, an
/// update false.
class FlickrDbInterface : public Norvale_Plugin_Core::DbInterface {
public:
    Poco::DateTime getLatestBackupTime();
    void updateLatestBackupTime(Poco::DateTime time);

    /// The recorded name of a set or, by its PhotoID, of an item; empty when there is none.
    std::string getPhotoSetNameById(std::string setId);
    std::string getPhotoNameById(std::string photoId);

    /// The recorded update time of an item, as text; empty when there is none.
    std::string getPhotoUpdatedById(std::string photoId);
    void updatePhotoUpdatedTime(std::string newUpdatedTime, std::string itemId);

    /// Records a renamed set: its service title and device folder in its own row, the folder in the rows of
    /// its items. oldName is not used.
    bool updateContainerTitleV2(std::string itemId, std::string orgName, std::string derivedName,
                                std::string oldName, std::string newUpdatedTime);

    /// Records that an item's file was written again.
    bool updateFileTitleV2(std::string itemId, std::string orgName, std::string derivedName,
                           std::string newUpdatedTime);

private:
    template <typename Work>
    bool guarded(const char* message, Work work);
    std::string selectTextById(const char* message, const char* statement, std::string id);
};

}  // namespace Norvale_Plugin_Flickr

#endif
