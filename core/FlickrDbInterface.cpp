#include "core/FlickrDbInterface.h"

#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/SQLite/Utility.h>
#include <Poco/Data/Session.h>
#include <Poco/Data/Statement.h>
#include <Poco/Exception.h>
#include <sqlite3.h>

#include "core/RunSupport.h"

namespace Norvale_Plugin_Flickr {

using Poco::Data::Session;
using Poco::Data::Keywords::into;
using Poco::Data::Keywords::now;
using Poco::Data::Keywords::use;
using Poco::Data::SQLite::Connector;

namespace {

// For a file that cannot be opened, in seconds: it does not come back soon. The library asks again until
// then, stop or not.
constexpr std::size_t kOpenTimeout = 2;
// For another program's lock, in milliseconds.
constexpr int kLockTimeout = 10000;
constexpr int kLockPause = 10;

int waitForLock(void*, int count) {
    if (isStopped() || count >= kLockTimeout / kLockPause) return 0;
    sqlite3_sleep(kLockPause);
    return 1;
}

/// A session that is closed at the end of its life. It waits for a lock until a stop.
class OpenSession {
public:
    explicit OpenSession(const std::string& path) : session_("SQLite", path, kOpenTimeout) {
        sqlite3_busy_handler(Poco::Data::SQLite::Utility::dbHandle(session_), waitForLock, nullptr);
    }
    ~OpenSession() {
        try {
            session_.close();
        } catch (Poco::Exception&) {
            // What the session did is done; a failed close must not hide how it went.
        }
    }
    OpenSession(const OpenSession&) = delete;
    OpenSession& operator=(const OpenSession&) = delete;

    Session& operator*() { return session_; }

private:
    Session session_;
};

/// The connector, registered by the plug-in itself.
struct OwnConnector {
    OwnConnector() { Connector::registerConnector(); }
    ~OwnConnector() { Connector::unregisterConnector(); }
};

/// The connector as the host prepares it for the two V2 updates.
struct HostConnector {
    explicit HostConnector(FlickrDbInterface& database) : host(database) { host.initialize(); }
    ~HostConnector() { host.uninitialize(); }

    FlickrDbInterface& host;
};

}  // namespace

/// Does work, false when a Poco::Exception ended it; the exception is then reported behind message.
template <typename Work>
bool FlickrDbInterface::guarded(const char* message, Work work) {
    try {
        work();
        return true;
    } catch (Poco::Exception& exception) {
        exceptionHandler_.handleException(exception, message + exception.displayText(), retryAttempts());
        return false;
    }
}

std::string FlickrDbInterface::selectTextById(const char* message, const char* statement, std::string id) {
    std::string text;
    guarded(message, [&] {
        const OwnConnector connector;
        OpenSession session(connectionString_);
        *session << statement, into(text), use(id), now;
    });
    return text;
}

Poco::DateTime FlickrDbInterface::getLatestBackupTime() {
    std::string text;
    guarded("Exception occurred in GetLatestBackupTime() : ", [&] {
        const OwnConnector connector;
        OpenSession session(connectionString_);
        *session << "SELECT ItemUpdatedOn FROM backupmetadata WHERE ItemType = 'FlickrLatestBackUpDateTime'",
            into(text), now;
    });
    return convertToDateTime(text);
}

std::string FlickrDbInterface::getPhotoSetNameById(std::string setId) {
    return selectTextById("Exception occurred in getPhotoSetNameById() :",
                          "SELECT ItemName FROM backupmetadata WHERE ItemId = :photoSetId", std::move(setId));
}

std::string FlickrDbInterface::getPhotoNameById(std::string photoId) {
    return selectTextById("Exception occurred in getPhotoNameById() :",
                          "SELECT ItemName FROM backupmetadata WHERE ItemId = :photoId", std::move(photoId));
}

std::string FlickrDbInterface::getPhotoUpdatedById(std::string photoId) {
    return selectTextById("Exception occurred in getPhotoUpdatedById() :",
                          "SELECT ItemUpdatedOn FROM backupmetadata WHERE ItemId = :photoId",
                          std::move(photoId));
}

void FlickrDbInterface::updateLatestBackupTime(Poco::DateTime time) {
    guarded("Exception occurred in updateLatestBackupTime() :", [&] {
        std::string updated = convertToString(time);
        const OwnConnector connector;
        OpenSession session(connectionString_);
        *session << "UPDATE BackupMetaData SET ItemUpdatedOn = :sLastUpdateddateTime WHERE ItemType = "
                    "'FlickrLatestBackUpDateTime'",
            use(updated), now;
    });
}

void FlickrDbInterface::updatePhotoUpdatedTime(std::string newUpdatedTime, std::string itemId) {
    guarded("Exception occurred in updatePhotoUpdatedTime() :", [&] {
        const OwnConnector connector;
        OpenSession session(connectionString_);
        *session << "UPDATE BackupMetaData SET ItemUpdatedOn = :newUpdatedTime WHERE ItemID = :itemId",
            use(newUpdatedTime), use(itemId), now;
    });
}

bool FlickrDbInterface::updateContainerTitleV2(std::string itemId, std::string orgName,
                                               std::string derivedName, std::string /*oldName*/,
                                               std::string newUpdatedTime) {
    return guarded("Exception in updateContainerTitle(): - ", [&] {
        const HostConnector connector(*this);
        OpenSession session(connectionString_);
        *session << "UPDATE backupmetadata SET ItemName = :orgItemName, DerivedItemName = "
                    ":derivedItemName, ItemUpdatedOn = :newUpdatedTime WHERE OriginalItemId = :itemId",
            use(orgName), use(derivedName), use(newUpdatedTime), use(itemId), now;
        *session << "UPDATE backupmetadata SET ItemContainerName = :orgItemName, DerivedContainerName = "
                    ":derContainerName WHERE OriginalContainerId = :itemId",
            use(derivedName), use(derivedName), use(itemId), now;
    });
}

bool FlickrDbInterface::updateFileTitleV2(std::string itemId, std::string orgName, std::string derivedName,
                                          std::string newUpdatedTime) {
    return guarded("Exception in updateFileTitleV2(): - ", [&] {
        const HostConnector connector(*this);
        OpenSession session(connectionString_);
        *session << "UPDATE backupmetadata SET ItemName = :orgItemName, DerivedItemName = "
                    ":derivedItemName, ItemUpdatedOn = :newUpdatedTime WHERE ItemId = :itemId",
            use(orgName), use(derivedName), use(newUpdatedTime), use(itemId), now;
    });
}

}  // namespace Norvale_Plugin_Flickr
