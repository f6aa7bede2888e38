#include "core/DownloadPhotoListActivity.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>

#include "core/PhotoListSaxHandler.h"
#include "core/RunLines.h"
#include "core/RunSupport.h"
#include "core/StopWatcher.h"
#include "hostapi/Conventions.h"

namespace Norvale_Plugin_Flickr {

using Norvale_Plugin_Core::kAnonymousSet;
using Norvale_Plugin_Core::kSuccess;

namespace {

// The service's page size for the photos of a set; no request asks for another.
constexpr int kItemsPerPage = 500;
constexpr const char* kStopLine = "Backup Stopped in DownloadPhotoListActivity::getPhotoList()";

}  // namespace

DownloadPhotoListActivity::DownloadPhotoListActivity()
    : activity_(this, &DownloadPhotoListActivity::runActivity), exceptionHandler_(kServiceName) {}

void DownloadPhotoListActivity::setData(std::string photoSetId, PhotoSet set, std::string authToken,
                                        std::string apiKey, std::string apiSecret, std::string dataUrl,
                                        Poco::DateTime fromDate, std::string mediaToBackup) {
    photoSetId_ = std::move(photoSetId);
    photoSet_ = std::move(set);
    access_ = {std::move(dataUrl), std::move(authToken), std::move(apiKey), std::move(apiSecret)};
    fromDate_ = fromDate;
    mediaToBackup_ = std::move(mediaToBackup);
}

void DownloadPhotoListActivity::start() {
    activity_.start();
}

void DownloadPhotoListActivity::stop() {
    activity_.stop();
    activity_.wait();
}

void DownloadPhotoListActivity::runActivity() {
    tryGettingPhotoList();
    sortPhotos();
}

void DownloadPhotoListActivity::tryGettingPhotoList() {
    tryAttempts(kListAttempt.start, "Backup Stopped in tryGettingPhotoList()",
                [this](int attempt) { return getPhotoList(attempt) == kSuccess; });
}

int DownloadPhotoListActivity::getPhotoList(int attempt) {
    try {
        return getAllPages();
    } catch (StoppedException&) {
        logInfo(kStopLine);
        return 0;
    } catch (Poco::Exception& exception) {
        logFailure(kListUnread + exception.displayText());
        exceptionHandler_.handleException(
            exception, std::string(kListFails) + "::getPhotoList(): " + exception.displayText(), attempt);
        return 0;
    }
}

int DownloadPhotoListActivity::getAllPages() {
    const bool anonymous = photoSetId_ == kAnonymousSet;
    const int items = photoSet_.getNumberOfPhotos();
    const int pages = items <= kItemsPerPage ? 1 : items / kItemsPerPage + (items % kItemsPerPage ? 1 : 0);

    // The items in no set are not counted anywhere: their listing ends with a page that names nothing new.
    met_.clear();
    leftOut_ = 0;
    for (int page = 1; anonymous || page <= pages; ++page) {
        if (stoppedAt(kStopLine)) return 0;

        HttpExchange call = pageRequest(page).prepared();
        if (call.exchange().getStatus() != Poco::Net::HTTPResponse::HTTP_OK) {
            throw Poco::Exception(kNoList, 0);
        }
        const bool namesNew = parseDataV2(call.body());
        if (anonymous && !namesNew) return kSuccess;
    }
    const std::size_t listed = photoMap_.size() + leftOut_;
    const bool isShort = items > 0 && listed < static_cast<std::size_t>(items);
    // A stop inside the last page is no shortness of the service's.
    if (isShort && !isStopped()) {
        logFailure(kFewerListed.with(std::to_string(listed) + " of " + std::to_string(items)));
    }
    return kSuccess;
}

SignedRequest DownloadPhotoListActivity::pageRequest(int page) const {
    const bool anonymous = photoSetId_ == kAnonymousSet;
    SignedRequest request(access_, anonymous ? "flickr.photos.getNotInSet" : "flickr.photosets.getPhotos");
    if (!anonymous) request.add("photoset_id", photoSetId_);
    request.addExtras().addToken().add("page", std::to_string(page));
    return request;
}

bool DownloadPhotoListActivity::parseDataV2(std::istream& body) {
    const std::string document = readWhole(body);
    if (stoppedAt("Backup Stopped in DownloadPhotoListActivity::parseDataV2()")) return false;

    // The handler gets no known items: merging its own into the map comes to the same, costs the same for
    // every page of a listing, and leaves the map as it was when the page cannot be read.
    PhotoListSaxHandler handler;
    handler.setData(access_.apiSecret, access_.apiKey, access_.authToken, photoSet_, {}, access_.dataUrl);
    try {
        handler.read(document);
    } catch (Poco::Exception& exception) {
        logFailure("Unable to parse photo list " + exception.displayText());
        throw;
    }
    leftOut_ += handler.leftOut();
    bool namesNew = false;
    for (const std::string& id : handler.namedIds()) namesNew = met_.insert(id).second || namesNew;
    photoMap_.merge(std::move(handler).getPhotoList());
    return namesNew;
}

void DownloadPhotoListActivity::sortPhotos() {
    long ofOtherKind = 0, notUpdated = 0;
    for (auto& [id, photo] : photoMap_) {
        const Poco::DateTime updated = photo.getUpdatedDateTime();
        const std::string mediaType = photo.getMediaType();
        if (updated > fromDate_) {
            if (mediaToBackup_ != "all" && mediaToBackup_ != mediaType) {
                ++ofOtherKind;
                continue;
            }
            if (mediaType == "photo") {
                photos_.emplace(updated, std::move(photo));
            } else if (mediaType == "video") {
                videos_.emplace(updated, std::move(photo));
            }
        } else if (photo.getRawPhotoID() == photoSet_.getCoverImageID()) {
            photos_.emplace(updated, std::move(photo));
        } else {
            ++notUpdated;
        }
    }
    photoMap_.clear();

    if (photos_.size() == 1) {
        const auto& [updated, photo] = *photos_.begin();
        if (photo.getRawPhotoID() == photoSet_.getCoverImageID() && updated < fromDate_) {
            photos_.clear();
            ++notUpdated;
        }
    }
    if (notUpdated > 0) logInfo(kLeftOutByDate.with(std::to_string(notUpdated)));
    if (ofOtherKind > 0) logInfo(kLeftOutByKind.with(std::to_string(ofOtherKind)));
    logInfo(kListEnds.with(std::to_string(photos_.size() + videos_.size())));
}

}  // namespace Norvale_Plugin_Flickr
