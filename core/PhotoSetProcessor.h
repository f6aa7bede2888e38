// Backs up the photo sets of a run.

#ifndef CORE_PHOTOSETPROCESSOR_H
#define CORE_PHOTOSETPROCESSOR_H

#include <Poco/DateTime.h>

#include <map>
#include <string>

#include "core/FlickrDbInterface.h"
#include "core/Photo.h"
#include "core/PhotoSet.h"
#include "core/RunLines.h"
#include "core/SignedRequest.h"
#include "hostapi/ExceptionHandlerMac.h"
#include "hostapi/HostServiceClientMac.h"

namespace Norvale_Plugin_Flickr {

/// Outcome of looking at a set that was backed up before.
enum PhotoSetStatus { PhotoSetRenameFailed = 3, PhotoSetRenamed = 4, PhotoSetUnchanged = 5 };

/// Takes one set after another: lists it, settles its folder on the device, has each new and each edited item
/// downloaded, and writes the folder's description. Make one for a run, initialize() it and call
/// processPhotoSet() once.
class PhotoSetProcessor {
public:
    /// name: the service's name, for reports.
    explicit PhotoSetProcessor(std::string& name);

    /// connectionString: path of the metadata database. The others as the backup run got them.
    void initialize(std::string connectionString, std::string authToken, std::string apiKey,
                    std::string apiSecret, std::string dataUrl, std::string mediaToBackup);

    /// Backs up the sets, in the order of their ids; items updated after since are candidates. Returns every
    /// video that was met, by the time of its last update.
    std::multimap<Poco::DateTime, Photo> processPhotoSet(std::multimap<std::string, PhotoSet> sets,
                                                         Poco::DateTime since);

    /// Makes the folder and the thumbnail folder of a set without a storedName, records it, and leaves the
    /// folder's name in its title. Returns 1 when both folders are there, else 0.
    int isNewPhotoSet(PhotoSet& set, std::string storedName);

    /// Settles the folder of a set that is recorded as storedName, renaming it when the title changed, and
    /// leaves the folder's name in the set's title. Returns a PhotoSetStatus.
    int isPhotoSetRenamed(PhotoSet& set, std::string storedName);

    /// Downloads one item; see MediaDownloadActivity::setData() for the three flags. factoryRegistered tells
    /// whether this run has registered the network library's stream factory.
    void ProcessPhoto(PhotoSet& set, Photo& photo, bool updateExisting, bool titleChanged, bool titleResolved,
                      bool& factoryRegistered);

    /// Whether what follows the name's first "." is the extension of a video.
    bool isVideo(std::string fileName);

    /// Writes the set's description. latest: the item that changed last. coverDeviceName: the cover's
    /// file name on the device, or empty. coverExtension: the extension of its thumbnail.
    void writeDataXML(PhotoSet set, Photo latest, std::string coverDeviceName, std::string coverExtension);

private:
    enum class Change { New, Edited, None };

    void processOneSet(PhotoSet& set, const Poco::DateTime& since, bool& factoryRegistered,
                       std::multimap<Poco::DateTime, Photo>& videosMet);
    /// unchanged is the line for an item that is as it was recorded; it begins with the item's kind.
    Change changeOf(const Photo& item, const TextLine& unchanged);
    void processItem(PhotoSet& set, Photo& item, Change change, bool& factoryRegistered);
    void writeSetDescription(PhotoSet& set, const std::multimap<Poco::DateTime, Photo>& photos);

    Norvale_Plugin_Core::HostServiceClientMac client_;
    FlickrDbInterface database_;
    std::string connectionString_;
    ServiceAccess access_;
    std::string mediaToBackup_;
    Norvale_Plugin_Core::ExceptionHandlerMac exceptionHandler_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
