// Fetches the list of one set's photos and videos.

#ifndef CORE_DOWNLOADPHOTOLISTACTIVITY_H
#define CORE_DOWNLOADPHOTOLISTACTIVITY_H

#include <Poco/Activity.h>
#include <Poco/DateTime.h>

#include <cstddef>
#include <istream>
#include <map>
#include <set>
#include <string>

#include "core/Photo.h"
#include "core/PhotoSet.h"
#include "core/SignedRequest.h"
#include "hostapi/ExceptionHandlerMac.h"

namespace Norvale_Plugin_Flickr {

/// Lists a set page by page, on a thread of Poco's default pool, and keeps the items that changed after the
/// from-date. Call setData(), start(), wait for the pool, stop(), and read the results.
class DownloadPhotoListActivity {
public:
    DownloadPhotoListActivity();

    /// photoSetId: the set to list, or "Anonymous" for the items that are in no set. mediaToBackup: "all",
    /// "photo" or "video".
    void setData(std::string photoSetId, PhotoSet set, std::string authToken, std::string apiKey,
                 std::string apiSecret, std::string dataUrl, Poco::DateTime fromDate,
                 std::string mediaToBackup);
    void start();
    /// Waits for the activity's end.
    void stop();
    /// The activity's work.
    void runActivity();

    /// The photos and the videos to back up, oldest update first; of equal times in the order of their ids.
    /// The set's cover is among the photos even when it did not change, unless it would be the only one.
    std::multimap<Poco::DateTime, Photo> getPhotos() const { return photos_; }
    std::multimap<Poco::DateTime, Photo> getVideos() const { return videos_; }
    /// The same without a copy; none are left here.
    std::multimap<Poco::DateTime, Photo> takePhotos() { return std::move(photos_); }
    std::multimap<Poco::DateTime, Photo> takeVideos() { return std::move(videos_); }

private:
    void tryGettingPhotoList();
    int getPhotoList(int attempt);
    int getAllPages();
    SignedRequest pageRequest(int page) const;
    /// Reads a page; whether it named an item that this attempt had not met.
    bool parseDataV2(std::istream& body);
    void sortPhotos();

    Poco::Activity<DownloadPhotoListActivity> activity_;
    std::string photoSetId_;
    PhotoSet photoSet_;
    ServiceAccess access_;
    Poco::DateTime fromDate_;
    std::string mediaToBackup_;
    std::multimap<Poco::DateTime, Photo> photos_;
    std::multimap<Poco::DateTime, Photo> videos_;
    std::map<std::string, Photo> photoMap_;
    std::set<std::string> met_;  // ids of the items named in the current attempt, also of those left out
    std::size_t leftOut_ = 0;    // items left out on its pages
    Norvale_Plugin_Core::ExceptionHandlerMac exceptionHandler_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
