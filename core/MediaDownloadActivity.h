// Downloads one photo or video and its thumbnail to the device.
//
// On the device, relative to the service's folder, an item of the set "Trip" stands as
//
//   Trip/sunset.jpg                              the media file
//   Trip/Thumbnail/sunset_4011_72157.jpg         its thumbnail: base name, "_", PhotoID, ".", extension
//
// and an item in no set without the "Trip/". While an edited item is downloaded again, its old files stand
// aside as sunset_Old.jpg and sunset_4011_72157_Old.jpg.

#ifndef CORE_MEDIADOWNLOADACTIVITY_H
#define CORE_MEDIADOWNLOADACTIVITY_H

#include <cstdint>
#include <istream>
#include <string>

#include "core/FlickrDbInterface.h"
#include "core/Photo.h"
#include "core/PhotoSet.h"
#include "hostapi/ExceptionHandlerMac.h"
#include "hostapi/HostServiceClientMac.h"

namespace Norvale_Plugin_Flickr {

/// Results of the transfer routines.
enum DownloadResult { DownloadSucceeded = 6, DownloadFailed = 7 };

/// Transfers one item, records it in the metadata database and has its set's description written. No
/// Poco::Exception leaves it. Call registerFactory() once in a run, then initialize(), setData(),
/// runActivity() and tearDown() for each item.
class MediaDownloadActivity {
public:
    MediaDownloadActivity();

    /// Registers the network library's stream factory for HTTP, unless an earlier run in this process did.
    void registerFactory();

    /// Connects to the host's file service. dbConnectionString: path of the metadata database.
    void initialize(std::string dbConnectionString);
    void tearDown();

    /// updateExisting: the item is on the device already and changed. titleChanged: its file name is to be
    /// generated again. titleResolved: its title is the file name to use.
    void setData(PhotoSet photoSet, Photo photo, bool updateExisting, bool titleChanged, bool titleResolved);

    /// The whole transfer.
    void runActivity();

    /// Tries to bring url to devicePath, as often as the host allows. isMedia: the item itself, not its
    /// thumbnail.
    int tryDownload(std::string url, std::string devicePath, bool isMedia);
    /// One attempt, the attempt-th from 1.
    int download(std::string url, std::string devicePath, bool isMedia, int attempt);
    /// The exchange with the service, through all redirects, into the open file; 0 when an exception ended
    /// it.
    int downloadMedia(std::string url, long fileHandle, bool isMedia, int attempt);
    /// Streams a body into the open file. contentLength: the announced number of bytes, -1 for none. A file
    /// that is not complete is discarded.
    int writeFile(std::istream& body, long fileHandle, bool isMedia, std::int64_t contentLength);

    // The host's file service; each answers whether the operation succeeded, and logs when not.
    bool openFile(std::string path, long fileHandle);
    bool closeFile(long fileHandle, std::string text, int length);
    bool deleteFile(long fileHandle);
    bool deleteFile(std::string path);
    bool renameFile(std::string from, std::string to);

    /// Sends one plain request and logs the answer's status. No transfer uses it.
    void httpRedir(std::string url);

    std::string getImageExtension() const { return photo_.getImageExtension(); }
    /// Name and extension of the set's cover, when this item was it; empty otherwise.
    std::string getCoverImageName() const { return coverImageName_; }
    std::string getCoverImageExtension() const { return coverImageExtension_; }

private:
    /// Where an item's two files stand, and where they stand aside.
    struct ItemPaths {
        std::string media;
        std::string thumbnail;

        ItemPaths aside() const;
    };

    void transferItem();
    void transferThumbnail(const std::string& listedTitle, const ItemPaths& oldFiles);
    bool recordItem(const std::string& listedTitle, const std::string& itemType);
    void writeFolderDescription();
    std::string metadataText();

    void moveFiles(const ItemPaths& from, const ItemPaths& to);
    void deleteFiles(const ItemPaths& files);
    ItemPaths filesOf(const std::string& fileName, const std::string& thumbnailExtension) const;
    std::string setFolder() const;
    std::string thumbnailName(const std::string& fileName, const std::string& extension) const;
    std::string thumbnailExtension() const;
    bool isVideo() const { return photo_.getMediaType() == "video"; }

    std::string dbConnectionString_;
    PhotoSet photoSet_;
    Photo photo_;
    bool updateExisting_ = false;
    bool titleChanged_ = false;
    bool titleResolved_ = false;
    Norvale_Plugin_Core::HostServiceClientMac client_;
    FlickrDbInterface database_;
    Norvale_Plugin_Core::ExceptionHandlerMac exceptionHandler_;
    std::string thumbnailFolder_;
    std::string thumbnailImageExtension_;  // detected in the thumbnail's first bytes
    std::string coverImageName_;
    std::string coverImageExtension_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
