#include "core/DownloadPhotoSetListActivity.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>

#include <algorithm>

#include "core/PhotosetSaxHandler.h"
#include "core/RunLines.h"
#include "core/RunSupport.h"
#include "core/StopWatcher.h"
#include "hostapi/CSConfigException.h"
#include "hostapi/CSNetworkException.h"
#include "hostapi/Conventions.h"

namespace Norvale_Plugin_Flickr {

using Norvale_Plugin_Core::kAnonymousSet;
using Norvale_Plugin_Core::kSuccess;
using Poco::Net::HTTPResponse;

DownloadPhotoSetListActivity::DownloadPhotoSetListActivity()
    : activity_(this, &DownloadPhotoSetListActivity::runActivity), exceptionHandler_(kServiceName) {}

void DownloadPhotoSetListActivity::setData(std::string dataUrl, std::string authToken, std::string apiKey,
                                           std::string apiSecret, Poco::DateTime fromDate,
                                           std::string mediaToBackup) {
    access_ = {std::move(dataUrl), std::move(authToken), std::move(apiKey), std::move(apiSecret)};
    fromDate_ = fromDate;
    mediaToBackup_ = std::move(mediaToBackup);
}

void DownloadPhotoSetListActivity::start() {
    activity_.start();
}

void DownloadPhotoSetListActivity::stop() {
    activity_.stop();
    activity_.wait();
}

void DownloadPhotoSetListActivity::runActivity() {
    tryGettingPhotoSetList();
}

void DownloadPhotoSetListActivity::tryGettingPhotoSetList() {
    tryAttempts("Getting PhotoSet List Attempt - ", "Backup Stopped in tryGettingPhotoSetList()",
                [this](int attempt) { return getPhotoSetList(attempt) == kSuccess; });
}

int DownloadPhotoSetListActivity::getPhotoSetList(int attempt) {
    try {
        HttpExchange call = SignedRequest(access_, "flickr.photosets.getList").addToken().prepared();
        const HTTPResponse::HTTPStatus status = call.exchange().getStatus();
        if (status == HTTPResponse::HTTP_OK) {
            insertPhotoSets(parseDataV2(call.body()));
            return kSuccess;
        }

        const std::string message = kNoList + (". " + kStatusRefused.with(std::to_string(status)));
        if (status == HTTPResponse::HTTP_UNAUTHORIZED) {
            Norvale_Plugin_Core::CSConfigException refused(0);
            exceptionHandler_.handleException(refused, message, retryAttempts());
        }
        throw Norvale_Plugin_Core::CSNetworkException(message, 0);
    } catch (StoppedException&) {
        logInfo("Backup Stopped in getPhotoSetList()");
        return 0;
    } catch (Poco::Exception& exception) {
        exceptionHandler_.handleException(
            exception, "Exception occurred in getPhotoSetList() : " + exception.displayText(), attempt);
        if (attempt == retryAttempts()) dataTypeBackupStatus_ = false;
        return 0;
    }
}

std::map<std::string, PhotoSet> DownloadPhotoSetListActivity::parseDataV2(std::istream& body) {
    const std::string document = readWhole(body);
    if (stoppedAt("Backup Stopped in DownloadPhotoSetListActivity::parseDataV2()")) return {};

    PhotosetSaxHandler handler;
    try {
        handler.read(document);
    } catch (Poco::Exception& exception) {
        throw Poco::Exception(exception);
    }
    std::map<std::string, PhotoSet> sets = std::move(handler).getPhotosetList();

    PhotoSet anonymous;
    anonymous.setPhotoSetID(kAnonymousSet);
    anonymous.setTitle(kAnonymousSet);
    anonymous.setDescription(kAnonymousSet);
    anonymous.setResourceTitle(anonymous.getTitle());
    sets.emplace(kAnonymousSet, anonymous);
    return sets;
}

void DownloadPhotoSetListActivity::insertPhotoSets(std::map<std::string, PhotoSet> sets) {
    long announced = 0;
    for (auto& [id, set] : sets) {
        announced += std::max(0, set.getNumberOfPhotos());
        photoSets_.emplace(id, std::move(set));
    }
    logInfo(kItemsAnnounced.with(std::to_string(announced)));
    logInfo(kSetsListed.with(std::to_string(photoSets_.size())));
}

}  // namespace Norvale_Plugin_Flickr
