#include "core/PhotoSetProcessor.h"

#include <Poco/Exception.h>
#include <Poco/ThreadPool.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "core/DownloadPhotoListActivity.h"
#include "core/MediaDownloadActivity.h"
#include "core/RunSupport.h"
#include "hostapi/HostServiceUsageParams.h"
#include "hostapi/ItemDataManager.h"
#include "hostapi/MediaFolderTemplate.h"

namespace Norvale_Plugin_Flickr {

using Norvale_Plugin_Core::HostServiceUsageParams;
using Norvale_Plugin_Core::kAnonymousSet;

namespace {

constexpr const char* kStopLine = "Backup Stopped in Process PhotoSet";

std::string thumbnailFolder() {
    return HostServiceUsageParams::getInstance()->getValue("ThumbnailKey");
}

}  // namespace

PhotoSetProcessor::PhotoSetProcessor(std::string& name)
    : exceptionHandler_(name.empty() ? kServiceName : name) {}

void PhotoSetProcessor::initialize(std::string connectionString, std::string authToken, std::string apiKey,
                                   std::string apiSecret, std::string dataUrl, std::string mediaToBackup) {
    connectionString_ = std::move(connectionString);
    access_ = {std::move(dataUrl), std::move(authToken), std::move(apiKey), std::move(apiSecret)};
    mediaToBackup_ = std::move(mediaToBackup);
    database_.setConnectionString(connectionString_);
}

std::multimap<Poco::DateTime, Photo> PhotoSetProcessor::processPhotoSet(
    std::multimap<std::string, PhotoSet> sets, Poco::DateTime since) {
    std::multimap<Poco::DateTime, Photo> videosMet;
    bool factoryRegistered = false;
    for (auto& [id, set] : sets) {
        if (stoppedAt(kStopLine)) break;
        processOneSet(set, since, factoryRegistered, videosMet);
    }
    return videosMet;
}

void PhotoSetProcessor::processOneSet(PhotoSet& set, const Poco::DateTime& since, bool& factoryRegistered,
                                      std::multimap<Poco::DateTime, Photo>& videosMet) {
    logInfo(kSetBegins.with(set.getTitle()));
    logInfo(kSetAnnounced.with(std::to_string(set.getNumberOfPhotos())));

    DownloadPhotoListActivity list;
    try {
        list.setData(set.getPhotoSetID(), set, access_.authToken, access_.apiKey, access_.apiSecret,
                     access_.dataUrl, since, mediaToBackup_);
        list.start();
        Poco::ThreadPool::defaultPool().joinAll();
        list.stop();
    } catch (Poco::Exception& exception) {
        exceptionHandler_.handleException(
            exception, std::string(kListFails) + "() : " + exception.displayText(), retryAttempts());
    }
    const std::multimap<Poco::DateTime, Photo> videos = list.takeVideos();
    const std::multimap<Poco::DateTime, Photo> photos = list.takePhotos();

    if (!videos.empty() || !photos.empty()) {
        const std::string storedName = database_.getPhotoSetNameById(set.getPhotoSetID());
        if (storedName.empty()) {
            isNewPhotoSet(set, storedName);
        } else {
            isPhotoSetRenamed(set, storedName);
        }
    }

    for (const auto& [updated, listed] : videos) {
        if (stoppedAt(kStopLine)) break;
        Photo video = listed;
        const Change change = changeOf(video, kVideoUnchanged);
        if (change == Change::New) {
            logInfo("Video ID - " + video.getPhotoID() + "URL - " + video.getImagePath());
        }
        video.edited_ = change == Change::Edited;
        processItem(set, video, change, factoryRegistered);
        videosMet.emplace(updated, std::move(video));
    }

    for (const auto& [updated, listed] : photos) {
        if (stoppedAt(kStopLine)) break;
        if (isVideo(listed.getPhotoTitle())) continue;
        Photo photo = listed;
        processItem(set, photo, changeOf(photo, kPhotoUnchanged), factoryRegistered);
    }

    writeSetDescription(set, photos);
}

PhotoSetProcessor::Change PhotoSetProcessor::changeOf(const Photo& item, const TextLine& unchanged) {
    if (database_.getPhotoSetNameById(item.getPhotoID()).empty()) return Change::New;

    const std::string stored = database_.getPhotoUpdatedById(item.getPhotoID());
    const std::string updated = database_.convertToString(item.getUpdatedDateTime());
    if (stored == updated) {
        logInfo(unchanged.with(item.getPhotoTitle()));
        return Change::None;
    }
    logInfo("Org date -" + stored + " Changed date - " + updated);
    logInfo(std::string(unchanged.start) + item.getPhotoTitle() + " is edited, Downloading again.");
    return Change::Edited;
}

void PhotoSetProcessor::processItem(PhotoSet& set, Photo& item, Change change, bool& factoryRegistered) {
    if (change == Change::None) return;
    const bool updateExisting = change == Change::Edited;
    const bool titleChanged = updateExisting;
    const bool titleResolved = false;
    ProcessPhoto(set, item, updateExisting, titleChanged, titleResolved, factoryRegistered);
}

void PhotoSetProcessor::writeSetDescription(PhotoSet& set,
                                            const std::multimap<Poco::DateTime, Photo>& photos) {
    if (set.getPhotoSetID() == kAnonymousSet) return;

    const std::string coverId = set.getCoverImageID() + "_" + set.getPhotoSetID();
    Photo latest;
    latest.Initialize();
    if (!photos.empty()) latest = std::prev(photos.end())->second;
    writeDataXML(set, latest, database_.getDerivedItemNamebyID(coverId),
                 database_.getImageExtensionByID(coverId));
}

int PhotoSetProcessor::isNewPhotoSet(PhotoSet& set, std::string storedName) {
    if (!storedName.empty()) return 0;
    const std::string id = set.getPhotoSetID();
    const bool anonymous = id == kAnonymousSet;
    if (!anonymous) set.setTitle(database_.generateFolderName(set.getTitle(), id));
    const std::string folder = set.getTitle();

    client_.connect();
    fileServiceDoes([&](auto&... answer) { client_.createDirectory(folder, answer...); },
                    "Error occured while creating directory - " + folder);

    const std::string thumbnails = anonymous ? thumbnailFolder() : folder + "/" + thumbnailFolder();
    if (!fileServiceDoes([&](auto&... answer) { client_.createDirectory(thumbnails, answer...); },
                         "Unable to create thumbnail directory for - " + folder)) {
        askFileService([&](auto&... answer) { client_.deleteDirectory(folder, answer...); });
        return 0;
    }

    const Poco::DateTime now;
    database_.createEntry(id, set.getResourceTitle(), "Flickr", folder, "Flickr", id, "Flickr_ID", now, now,
                          "FlickrFolder", "", "", "", "");
    logInfo("PhotoSet and Thumbnail directory created for photoSet - " + folder);
    return Norvale_Plugin_Core::kSuccess;
}

int PhotoSetProcessor::isPhotoSetRenamed(PhotoSet& set, std::string storedName) {
    const std::string id = set.getPhotoSetID();
    if (set.getTitle() == storedName) {
        set.setTitle(database_.getDerivedItemNamebyID(id));
        return PhotoSetUnchanged;
    }

    set.setTitle(database_.generateFolderName(set.getTitle(), id));
    const std::string oldFolder = database_.getDerivedItemNamebyID(id);
    const std::string newFolder = set.getTitle();
    if (!fileServiceDoes([&](auto&... answer) { client_.renameDirectory(oldFolder, newFolder, answer...); },
                         "Unable to rename photoSet - " + oldFolder + " to " + newFolder)) {
        return PhotoSetRenameFailed;
    }
    database_.updateContainerTitleV2(id, set.getResourceTitle(), newFolder, storedName,
                                     database_.convertToString(Poco::DateTime()));
    return PhotoSetRenamed;
}

void PhotoSetProcessor::ProcessPhoto(PhotoSet& set, Photo& photo, bool updateExisting, bool titleChanged,
                                     bool titleResolved, bool& factoryRegistered) {
    logInfo(kItemBegins.with(photo.getPhotoID(), photo.getPhotoTitle()));
    try {
        MediaDownloadActivity activity;
        if (!factoryRegistered) {
            activity.registerFactory();
            factoryRegistered = true;
        }
        activity.initialize(connectionString_);
        activity.setData(set, photo, updateExisting, titleChanged, titleResolved);
        activity.runActivity();
        activity.tearDown();

        photo.setImageExtension(activity.getImageExtension());
        if (!activity.getCoverImageName().empty()) {
            set.setCoverImageName(activity.getCoverImageName());
            set.setCoverImageExtension(activity.getCoverImageExtension());
        }
        logInfo(kItemEnds.with(photo.getPhotoTitle()));
        activity.tearDown();
    } catch (Poco::Exception& exception) {
        exceptionHandler_.handleException(exception, std::string(kItemFails) + ":" + exception.displayText(),
                                          retryAttempts());
    }
}

bool PhotoSetProcessor::isVideo(std::string fileName) {
    static constexpr const char* kExtensions[] = {"3gp", "avi", "asf", "mov", "wmv",
                                                  "mpg", "mp4", "m2t", "mmv", "m2ts"};
    // From the first dot, on purpose: "a.b.mp4" does not count as a video here.
    const std::string::size_type dot = fileName.find('.');
    if (dot == std::string::npos) return false;
    const std::string extension = fileName.substr(dot + 1);
    return std::find(std::begin(kExtensions), std::end(kExtensions), extension) != std::end(kExtensions);
}

void PhotoSetProcessor::writeDataXML(PhotoSet set, Photo latest, std::string coverDeviceName,
                                     std::string coverExtension) {
    const std::string thumbFolder = thumbnailFolder();
    const int count = database_.getTotalCountInContainer(set.getTitle());

    auto description = std::make_unique<Norvale_Plugin_Core::MediaFolderTemplate>();
    description->setID(set.getPhotoSetID());
    description->setPhysicalFileName(set.getTitle());
    description->setName(set.getTitle());
    description->setTotalItems(std::to_string(count));
    if (!coverDeviceName.empty()) {
        const std::string base = coverDeviceName.substr(0, coverDeviceName.rfind('.'));
        description->setCoverImage(set.getTitle() + "/" + thumbFolder + "/" + base + "_" +
                                   set.getCoverImageID() + "_" + set.getPhotoSetID() + "." + coverExtension);
    }
    description->setLatestUpdatedDate(database_.createLatestUpdatedItemDate(latest.getUpdatedDateTime()));
    description->setLatestUpdatedItem(latest.getPhotoTitle());
    const std::string text = Norvale_Plugin_Core::ItemDataManager().saveItemData(description.get());
    description.reset();

    client_.writeFolderDataXML(HostServiceUsageParams::getInstance()->getPluginRoot() + "/", text, "");
}

}  // namespace Norvale_Plugin_Flickr
