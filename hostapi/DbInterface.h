// The host's side of the backup metadata database.

#ifndef HOSTAPI_DBINTERFACE_H
#define HOSTAPI_DBINTERFACE_H

#include <Poco/DateTime.h>

#include <string>

#include "hostapi/ExceptionHandlerMac.h"

namespace Norvale_Plugin_Core {

/// Base class of a plug-in's access to the backup metadata database: a SQLite file, made by the host, with
/// the table backupmetadata, which holds one row for each item and each folder that was backed up.
///
/// The operations on the database report failures through the exception handler and do not throw; a query
/// then answers as if nothing had been found.
class DbInterface {
public:
    DbInterface();
    virtual ~DbInterface();

    /// The database's path. To be set before the first operation that reads or writes.
    void setConnectionString(std::string connectionString);

    /// Prepare and release the SQLite connector around sessions that the derived class opens.
    void initialize();
    void uninitialize();

    /// Reads a date in either of two forms: the one of convertToString(), and month/day/year as numbers
    /// joined by "/". Text in neither form gives 1970-01-01 00:00:00 UTC.
    Poco::DateTime convertToDateTime(std::string text);

    /// A date as ItemUpdatedOn holds it: UTC, in whole seconds. convertToDateTime() reads it back.
    std::string convertToString(Poco::DateTime date);

    /// A date as an item's description shows it.
    std::string createFormattedDate(Poco::DateTime date);

    /// A date as the last change stands in an item's and in a folder's description.
    std::string createLatestUpdatedItemDate(Poco::DateTime date);

    /// A file name made from title that is safe on the device and not the name of another item in the same
    /// folder, without regard to case. An item keeps the name that it has when that still fits the title.
    /// The extension is kept.
    std::string generateFileName(std::string title, std::string containerName, std::string containerId,
                                 std::string itemId);

    /// The same for the folder of the container id.
    std::string generateFolderName(std::string title, std::string id);

    /// The device name recorded for an item or folder; empty when there is none.
    std::string getDerivedItemNamebyID(std::string id);

    /// The image extension recorded for an item, without a dot; empty when there is none.
    std::string getImageExtensionByID(std::string id);

    /// How many items (not folders) are recorded in the folder of that device name.
    int getTotalCountInContainer(std::string containerName);

    /// Adds a row, or replaces the one of the same itemId. The last three texts are reserved. Returns 1 when
    /// the row is in the database.
    int createEntry(std::string itemId, std::string itemName, std::string itemContainerName,
                    std::string derivedItemName, std::string derivedContainerName, std::string originalItemId,
                    std::string originalContainerId, Poco::DateTime createdOn, Poco::DateTime updatedOn,
                    std::string itemType, std::string imageExtension, std::string reserved1,
                    std::string reserved2, std::string reserved3);

protected:
    std::string connectionString_;
    ExceptionHandlerMac exceptionHandler_;
};

}  // namespace Norvale_Plugin_Core

#endif
