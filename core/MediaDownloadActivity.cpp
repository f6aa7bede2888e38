#include "core/MediaDownloadActivity.h"

#include <Poco/Buffer.h>
#include <Poco/DateTime.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPStreamFactory.h>
#include <Poco/Net/NetException.h>
#include <Poco/URI.h>
#include <Poco/URIStreamOpener.h>

#include <algorithm>

#include "core/MediaSession.h"
#include "core/PhotoSetProcessor.h"
#include "core/RunLines.h"
#include "core/RunSupport.h"
#include "core/StopWatcher.h"
#include "hostapi/HostServiceUsageParams.h"
#include "hostapi/ItemDataManager.h"
#include "hostapi/MediaTemplate.h"
#include "hostapi/Utils.h"

namespace Norvale_Plugin_Flickr {

using Norvale_Plugin_Core::HostServiceUsageParams;
using Norvale_Plugin_Core::kAnonymousSet;
using Norvale_Plugin_Core::Utils;
using Poco::Net::HTTPResponse;

namespace {

constexpr const char* kStopLine = "Backup Stopped in downloadMedia()";
// The two kinds of transfers: the item itself, and its thumbnail.
constexpr bool kMedia = true;
constexpr bool kThumbnail = false;

bool isRedirect(HTTPResponse::HTTPStatus status) {
    return status == HTTPResponse::HTTP_MOVED_PERMANENTLY || status == HTTPResponse::HTTP_FOUND ||
           status == HTTPResponse::HTTP_SEE_OTHER || status == HTTPResponse::HTTP_TEMPORARY_REDIRECT;
}

/// The address to which a redirect leads, RFC 3986 section 5. An absolute one is kept as it was written.
std::string resolve(const Poco::URI& base, const std::string& location) {
    if (location.empty()) throw Poco::Net::MessageException("a redirect leads nowhere");
    if (location.compare(0, 2, "//") == 0) return base.getScheme() + ":" + location;
    if (!Poco::URI(location).isRelative()) return location;
    Poco::URI resolved(base);
    resolved.resolve(location);
    return resolved.toString();
}

/// Puts "_Old" before the extension of the path's file name.
std::string asideName(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string::size_type dot = path.rfind('.');
    const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    std::string aside = path;
    return aside.insert(hasExtension ? dot : path.size(), "_Old");
}

}  // namespace

MediaDownloadActivity::MediaDownloadActivity() : exceptionHandler_(kServiceName) {}

void MediaDownloadActivity::registerFactory() {
    // The registry outlives the run, and refuses a scheme that it has.
    if (Poco::URIStreamOpener::defaultOpener().supportsScheme("http")) return;
    Poco::Net::HTTPStreamFactory::registerFactory();
}

void MediaDownloadActivity::initialize(std::string dbConnectionString) {
    dbConnectionString_ = std::move(dbConnectionString);
    database_.setConnectionString(dbConnectionString_);
    client_.connect();
}

void MediaDownloadActivity::tearDown() {
    client_.disConnect();
}

void MediaDownloadActivity::setData(PhotoSet photoSet, Photo photo, bool updateExisting, bool titleChanged,
                                    bool titleResolved) {
    photoSet_ = std::move(photoSet);
    photo_ = std::move(photo);
    updateExisting_ = updateExisting;
    titleChanged_ = titleChanged;
    titleResolved_ = titleResolved;
}

void MediaDownloadActivity::runActivity() {
    try {
        if (!stoppedAt("Backup Stopped in MediaDownloadActivity")) transferItem();
    } catch (Poco::Exception& exception) {
        exceptionHandler_.handleException(
            exception, std::string(kTransferFails) + " : " + exception.displayText(), retryAttempts());
    }
    client_.disConnect();
}

void MediaDownloadActivity::transferItem() {
    thumbnailFolder_ = HostServiceUsageParams::getInstance()->getValue("ThumbnailKey");
    const std::string listedTitle = photo_.getPhotoTitle();
    if (!titleResolved_ || titleChanged_) {
        photo_.setPhotoTitle(database_.generateFileName(listedTitle, photoSet_.getTitle(),
                                                        photoSet_.getPhotoSetID(), photo_.getPhotoID()));
    }

    ItemPaths oldFiles;
    if (updateExisting_) {
        // They stand under the names that the last backup gave them, the thumbnail with the extension that
        // it had then. The download goes ahead when a rename fails: the device keeps the old file until the
        // new one is complete.
        oldFiles = filesOf(database_.getDerivedItemNamebyID(photo_.getPhotoID()),
                           database_.getImageExtensionByID(photo_.getPhotoID()));
        moveFiles(oldFiles, oldFiles.aside());
    }

    const std::string mediaPath = setFolder() + photo_.getPhotoTitle();
    if (tryDownload(photo_.getImagePath(), mediaPath, kMedia) == DownloadSucceeded) {
        transferThumbnail(listedTitle, oldFiles);
    } else if (updateExisting_) {
        moveFiles(oldFiles.aside(), oldFiles);
    }
}

void MediaDownloadActivity::transferThumbnail(const std::string& listedTitle, const ItemPaths& oldFiles) {
    const std::string itemType = isVideo() ? "FlickrVideo" : "FlickrPhoto";
    const ItemPaths newFiles = filesOf(photo_.getPhotoTitle(), thumbnailExtension());
    if (tryDownload(photo_.getThumbnailUrl(), newFiles.thumbnail, kThumbnail) != DownloadSucceeded) {
        // The old files of an edited item stay aside: the next run tries again from there.
        deleteFile(newFiles.media);
        return;
    }

    if (!recordItem(listedTitle, itemType)) {
        deleteFiles(newFiles);
        if (updateExisting_) moveFiles(oldFiles.aside(), oldFiles);
        return;
    }

    if (updateExisting_) deleteFiles(oldFiles.aside());
    logInfo(photo_.getPhotoTitle() + " successfully downloaded.");
    if (photoSet_.getPhotoSetID() != kAnonymousSet) writeFolderDescription();
}

bool MediaDownloadActivity::recordItem(const std::string& listedTitle, const std::string& itemType) {
    if (updateExisting_) {
        return database_.updateFileTitleV2(photo_.getPhotoID(), listedTitle, photo_.getPhotoTitle(),
                                           database_.convertToString(photo_.getUpdatedDateTime()));
    }
    return database_.createEntry(photo_.getPhotoID(), listedTitle, photoSet_.getResourceTitle(),
                                 photo_.getPhotoTitle(), photoSet_.getTitle(), photo_.getRawPhotoID(),
                                 photoSet_.getPhotoSetID(), photo_.getUploadDateTime(),
                                 photo_.getUpdatedDateTime(), itemType, photo_.getImageExtension(), "", "",
                                 "") == Norvale_Plugin_Core::kSuccess;
}

void MediaDownloadActivity::writeFolderDescription() {
    if (photo_.getRawPhotoID() == photoSet_.getCoverImageID()) {
        coverImageName_ = photo_.getPhotoTitle();
        coverImageExtension_ = photo_.getImageExtension();
        photoSet_.setCoverImageName(coverImageName_);
        photoSet_.setCoverImageExtension(coverImageExtension_);
    }
    std::string coverName = photoSet_.getCoverImageName();
    std::string coverExtension = photoSet_.getCoverImageExtension();
    if (coverName.empty()) {
        const std::string coverId = photoSet_.getCoverImageID() + "_" + photoSet_.getPhotoSetID();
        coverName = database_.getDerivedItemNamebyID(coverId);
        coverExtension = database_.getImageExtensionByID(coverId);
    }
    std::string serviceName = kServiceName;
    PhotoSetProcessor processor(serviceName);
    processor.initialize(dbConnectionString_, "", "", "", "", "");
    processor.writeDataXML(photoSet_, photo_, coverName, coverExtension);
}

int MediaDownloadActivity::tryDownload(std::string url, std::string devicePath, bool isMedia) {
    int result = DownloadFailed;
    tryAttempts("Media Download Attempt - ", "Backup Stopped in tryDownload()", [&](int attempt) {
        result = download(url, devicePath, isMedia, attempt);
        return result == DownloadSucceeded;
    });
    return result;
}

int MediaDownloadActivity::download(std::string url, std::string devicePath, bool isMedia, int attempt) {
    // The file service lets the caller choose the number of an open file; each activity has one open at most.
    const long fileHandle = Poco::DateTime().microsecond();
    if (!openFile(devicePath, fileHandle)) return DownloadFailed;

    if (downloadMedia(url, fileHandle, isMedia, attempt) != DownloadSucceeded) {
        logFailure("Unable to download file for photo " + photo_.getPhotoTitle() + " from url - " + url);
        deleteFile(fileHandle);
        return DownloadFailed;
    }

    const std::string metadata = isMedia ? metadataText() : std::string();
    if (!closeFile(fileHandle, metadata, static_cast<int>(metadata.size()))) {
        deleteFile(fileHandle);
        return DownloadFailed;
    }
    return DownloadSucceeded;
}

int MediaDownloadActivity::downloadMedia(std::string url, long fileHandle, bool isMedia, int attempt) {
    try {
        for (;;) {
            if (stoppedAt(kStopLine)) return DownloadFailed;

            const Poco::URI address(url);
            if (!MediaSession::supports(address)) {
                logFailure(kAddressRefused.with("an address with scheme \"" + address.getScheme() + "\""));
                return DownloadFailed;
            }
            MediaSession session(address, url);
            const HTTPResponse& response = session.exchange();
            const HTTPResponse::HTTPStatus status = response.getStatus();
            if (isRedirect(status)) {
                const std::string location = response.get("location");
                logFailure(
                    kStatusRefused.with(std::to_string(status) + std::string(kRedirecting) + location));
                url = resolve(address, location);
                continue;
            }
            if (status != HTTPResponse::HTTP_OK) {
                logFailure(kStatusRefused.with(std::to_string(status)));
                return DownloadFailed;
            }
            const int result = writeFile(session.body(), fileHandle, isMedia, session.contentLength());
            if (result != DownloadSucceeded) session.rethrowNetworkFailure();
            return result;
        }
    } catch (StoppedException&) {
        logInfo(kStopLine);
        return 0;
    } catch (Poco::Exception& exception) {
        exceptionHandler_.handleException(
            exception, std::string(kTransferFails) + " - downloadMedia(): " + exception.displayText(),
            attempt);
        return 0;
    }
}

int MediaDownloadActivity::writeFile(std::istream& body, long fileHandle, bool isMedia,
                                     std::int64_t contentLength) {
    Poco::Buffer<char> block(kBlockSize);
    std::fill(block.begin(), block.end(), '\0');
    std::streamsize count = readBlock(body, block.begin());

    const std::string extension = Utils().getImageExtension(block);
    if (isMedia) {
        photo_.setImageExtension(extension);
    } else {
        thumbnailImageExtension_ = extension;
    }

    std::int64_t total = 0;
    for (; count > 0; count = readBlock(body, block.begin())) {
        const bool stopped = isStopped();
        if (stopped) {
            logInfo("Delete file due to stop backup called: " + std::to_string(stopped));
            deleteFile(fileHandle);
            return DownloadFailed;
        }
        const FileServiceAnswer written = askFileService([&](auto&... answer) {
            client_.writeFileV2(static_cast<int>(fileHandle), block.begin(), static_cast<int>(count),
                                answer...);
        });
        if (!written.isSuccess()) {
            logFailure("Command - " + written.command + "  Result -" + written.result);
            deleteFile(fileHandle);
            return DownloadFailed;
        }
        total += count;
    }

    // A stop request ends the connection, and with it a body of unknown length.
    const bool complete = !body.bad() && (contentLength == -1 ? !isStopped() : total == contentLength);
    if (!complete) {
        logFailure(kCutShort.with(""));
        deleteFile(fileHandle);
        return DownloadFailed;
    }
    return DownloadSucceeded;
}

std::string MediaDownloadActivity::metadataText() {
    HostServiceUsageParams* params = HostServiceUsageParams::getInstance();
    Norvale_Plugin_Core::MediaTemplate description;
    description.setID(photo_.getPhotoID());
    description.setPhysicalFileName(setFolder() + photo_.getPhotoTitle());
    description.setDataXMLPath(params->getValue("FlickrKey") + "/" + (isVideo() ? "Video" : "Image"));
    description.setFileName(photo_.getPhotoTitle());
    description.setMediaType(photo_.getMediaType());
    description.setThumbnailName(params->getValue("ThumbnailKey") + "/" +
                                 thumbnailName(photo_.getPhotoTitle(), thumbnailExtension()));
    description.setDescription(photo_.getDescription());
    description.setDateTaken(database_.createFormattedDate(photo_.getTakenDateTime()));
    description.setDateUpdated(database_.createLatestUpdatedItemDate(photo_.getUpdatedDateTime()));
    description.setTags(photo_.getTags());
    return Norvale_Plugin_Core::ItemDataManager().saveItemData(&description);
}

void MediaDownloadActivity::moveFiles(const ItemPaths& from, const ItemPaths& to) {
    renameFile(from.media, to.media);
    renameFile(from.thumbnail, to.thumbnail);
}

void MediaDownloadActivity::deleteFiles(const ItemPaths& files) {
    deleteFile(files.media);
    deleteFile(files.thumbnail);
}

MediaDownloadActivity::ItemPaths MediaDownloadActivity::ItemPaths::aside() const {
    return {asideName(media), asideName(thumbnail)};
}

MediaDownloadActivity::ItemPaths MediaDownloadActivity::filesOf(const std::string& fileName,
                                                                const std::string& thumbnailExtension) const {
    return {setFolder() + fileName,
            setFolder() + thumbnailFolder_ + "/" + thumbnailName(fileName, thumbnailExtension)};
}

std::string MediaDownloadActivity::setFolder() const {
    return photoSet_.getPhotoSetID() == kAnonymousSet ? "" : photoSet_.getTitle() + "/";
}

std::string MediaDownloadActivity::thumbnailName(const std::string& fileName,
                                                 const std::string& extension) const {
    return Utils().getFileNameWithoutExtension(fileName) + "_" + photo_.getPhotoID() + "." + extension;
}

std::string MediaDownloadActivity::thumbnailExtension() const {
    return isVideo() ? "jpg" : photo_.getImageExtension();
}

bool MediaDownloadActivity::openFile(std::string path, long fileHandle) {
    return fileServiceDoes([&](auto&... answer) { client_.openFile(path, fileHandle, answer...); },
                           "Unable to open file for photo " + path);
}

bool MediaDownloadActivity::closeFile(long fileHandle, std::string text, int length) {
    return fileServiceDoes(
        [&](auto&... answer) { client_.closeFile(fileHandle, text.data(), length, answer...); },
        "Unable to close file for file pointer - " + std::to_string(fileHandle));
}

bool MediaDownloadActivity::deleteFile(long fileHandle) {
    return fileServiceDoes([&](auto&... answer) { client_.deleteFile(fileHandle, answer...); },
                           "Unable to delete file for file pointer - " + std::to_string(fileHandle));
}

bool MediaDownloadActivity::deleteFile(std::string path) {
    return fileServiceDoes([&](auto&... answer) { client_.deleteFile(path, answer...); },
                           "Unable to open file for photo " + path);
}

bool MediaDownloadActivity::renameFile(std::string from, std::string to) {
    return fileServiceDoes([&](auto&... answer) { client_.renameFile(from, to, answer...); },
                           "Unable to rename file for photo " + from);
}

void MediaDownloadActivity::httpRedir(std::string url) {
    try {
        const Poco::URI address(url);
        Poco::Net::HTTPClientSession session(address.getHost(), address.getPort());
        session.setKeepAlive(true);
        const std::string path = address.getPathAndQuery();
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, path.empty() ? "/" : path,
                                       Poco::Net::HTTPRequest::HTTP_1_1);
        session.sendRequest(request);
        HTTPResponse response;
        session.receiveResponse(response);
        logInfo("HTTP RESPONSE " + std::to_string(response.getStatus()));
        const std::string location = response.get("Location", "");
        if (!location.empty()) logInfo("Location - " + location);
        logInfo("HTTP_OK");
    } catch (Poco::Exception& exception) {
        logFailure("http screwed - " + exception.displayText());
    }
}

}  // namespace Norvale_Plugin_Flickr
