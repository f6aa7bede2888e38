// One photo or video, as the service lists it.

#ifndef CORE_PHOTO_H
#define CORE_PHOTO_H

#include <Poco/DateTime.h>

#include <string>
#include <utility>
#include <vector>

#include "core/PhotoSet.h"

namespace Norvale_Plugin_Flickr {

/// One photo or video of the service, as listed in one set. A plain value; all texts are UTF-8, all times
/// UTC.
class Photo {
public:
    /// Empties it but for the nested set: texts and tags empty, sizes 0, times the current moment.
    void Initialize();

    /// Takes over every field of other but the nested set. The image extension becomes other's description,
    /// a placeholder until the download sets the real one.
    void Clone(Photo other);

    std::string getPhotoID() const { return photoId_; }
    std::string getRawPhotoID() const { return rawPhotoId_; }
    std::string getPhotoTitle() const { return photoTitle_; }
    std::string getThumbnailUrl() const { return thumbnailUrl_; }
    int getWidth() const { return width_; }
    int getHeight() const { return height_; }
    Poco::DateTime getUploadDateTime() const { return uploadDateTime_; }
    Poco::DateTime getUpdatedDateTime() const { return updatedDateTime_; }
    Poco::DateTime getTakenDateTime() const { return takenDateTime_; }
    std::string getImagePath() const { return imagePath_; }
    std::string getPhotoSetID() const { return photoSetId_; }
    PhotoSet getPhotoSet() const { return photoSet_; }
    std::string getMediaType() const { return mediaType_; }
    std::string getDescription() const { return description_; }
    std::vector<std::string> getTags() const { return tags_; }
    std::string getImageExtension() const { return imageExtension_; }

    /// The item's key: the service's id, "_" and the id of the set in which it is listed. The same photo in
    /// two sets is two items.
    void setPhotoID(std::string id) { photoId_ = std::move(id); }
    /// The service's own id of the item.
    void setRawPhotoID(std::string id) { rawPhotoId_ = std::move(id); }
    /// The item's file name on the device; made safe as a name.
    void setPhotoTitle(std::string title);
    void setThumbnailUrl(std::string url) { thumbnailUrl_ = std::move(url); }
    /// Size of the chosen rendition, in pixels.
    void setWidth(int width) { width_ = width; }
    void setHeight(int height) { height_ = height; }
    void setUploadDateTime(Poco::DateTime time) { uploadDateTime_ = time; }
    /// When the item last changed; the value by which edited items are found.
    void setUpdatedDateTime(Poco::DateTime time) { updatedDateTime_ = time; }
    void setTakenDateTime(Poco::DateTime time) { takenDateTime_ = time; }
    /// Address of the rendition to back up.
    void setImagePath(std::string url) { imagePath_ = std::move(url); }
    void setPhotoSetID(std::string id) { photoSetId_ = std::move(id); }
    void setPhotoSet(PhotoSet set) { photoSet_ = std::move(set); }
    /// "photo" or "video".
    void setMediaType(std::string type) { mediaType_ = std::move(type); }
    void setDescription(std::string description) { description_ = std::move(description); }
    /// Appends one tag.
    void setTags(std::string tag) { tags_.push_back(std::move(tag)); }
    /// Extension, without a dot, of the file written on the device.
    void setImageExtension(std::string extension) { imageExtension_ = std::move(extension); }

private:
    friend class PhotoSetProcessor;

    bool edited_ = false;  // of a video that a run met: it was edited on the service
    std::string photoId_;
    std::string rawPhotoId_;
    std::string photoTitle_;
    std::string thumbnailUrl_;
    int width_ = 0;
    int height_ = 0;
    Poco::DateTime uploadDateTime_;
    Poco::DateTime updatedDateTime_;
    Poco::DateTime takenDateTime_;
    std::string imagePath_;
    std::string photoSetId_;
    PhotoSet photoSet_;
    std::string mediaType_;
    std::string description_;
    std::vector<std::string> tags_;
    std::string imageExtension_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
