// Fetches the list of the user's photo sets.

#ifndef CORE_DOWNLOADPHOTOSETLISTACTIVITY_H
#define CORE_DOWNLOADPHOTOSETLISTACTIVITY_H

#include <Poco/Activity.h>
#include <Poco/DateTime.h>

#include <istream>
#include <map>
#include <string>

#include "core/PhotoSet.h"
#include "core/SignedRequest.h"
#include "hostapi/ExceptionHandlerMac.h"

namespace Norvale_Plugin_Flickr {

/// Lists the photo sets with flickr.photosets.getList, on a thread of Poco's default pool, and adds the
/// pseudo-set. Call setData(), start(), wait for the pool, stop(), and read the results.
class DownloadPhotoSetListActivity {
public:
    DownloadPhotoSetListActivity();

    /// fromDate and mediaToBackup are kept only; every set is listed.
    void setData(std::string dataUrl, std::string authToken, std::string apiKey, std::string apiSecret,
                 Poco::DateTime fromDate, std::string mediaToBackup);
    void start();
    /// Waits for the activity's end.
    void stop();
    /// The activity's work.
    void runActivity();

    /// The sets by their id.
    std::multimap<std::string, PhotoSet> getPhotoSets() const& { return photoSets_; }
    std::multimap<std::string, PhotoSet> getPhotoSets() && { return std::move(photoSets_); }
    /// False when the last permitted attempt failed.
    bool getDataTypeBackupStatus() const { return dataTypeBackupStatus_; }

private:
    void tryGettingPhotoSetList();
    int getPhotoSetList(int attempt);
    std::map<std::string, PhotoSet> parseDataV2(std::istream& body);
    void insertPhotoSets(std::map<std::string, PhotoSet> sets);

    bool dataTypeBackupStatus_ = true;
    Poco::Activity<DownloadPhotoSetListActivity> activity_;
    ServiceAccess access_;
    Poco::DateTime fromDate_;
    std::string mediaToBackup_;
    std::multimap<std::string, PhotoSet> photoSets_;
    Norvale_Plugin_Core::ExceptionHandlerMac exceptionHandler_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
