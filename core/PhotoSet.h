// One photo set, as the service lists it.

#ifndef CORE_PHOTOSET_H
#define CORE_PHOTOSET_H

#include <string>
#include <utility>

namespace Norvale_Plugin_Flickr {

/// One photo set (album) of the service. A plain value; all texts are UTF-8.
class PhotoSet {
public:
    /// Empties every text and sets the number of photos to 0.
    void Initialize();

    /// Takes over every field of other, as assignment does.
    void Clone(PhotoSet other);

    /// Always true: whether a set is new is decided against the metadata store, not by this.
    bool isNew() const { return true; }

    std::string getPhotoSetID() const { return photoSetId_; }
    std::string getCoverImageID() const { return coverImageId_; }
    std::string getTitle() const { return title_; }
    std::string getResourceTitle() const { return resourceTitle_; }
    std::string getDescription() const { return description_; }
    int getNumberOfPhotos() const { return numberOfPhotos_; }
    std::string getCoverImageName() const { return coverImageName_; }
    std::string getCoverImageExtension() const { return coverImageExtension_; }

    void setPhotoSetID(std::string id) { photoSetId_ = std::move(id); }
    /// The service's id of the set's primary photo.
    void setCoverImageID(std::string id) { coverImageId_ = std::move(id); }
    /// The title of the set and later the name of its folder on the device; made safe as a name.
    void setTitle(std::string title);
    /// The title as the service reports it; made safe as a name.
    void setResourceTitle(std::string title);
    void setDescription(std::string description) { description_ = std::move(description); }
    /// Photos and videos together, as the service counts them.
    void setNumberOfPhotos(int count) { numberOfPhotos_ = count; }
    /// Name and extension under which the cover photo was written on the device.
    void setCoverImageName(std::string name) { coverImageName_ = std::move(name); }
    void setCoverImageExtension(std::string extension) { coverImageExtension_ = std::move(extension); }

private:
    std::string photoSetId_;
    std::string coverImageId_;
    std::string title_;
    std::string resourceTitle_;
    std::string description_;
    int numberOfPhotos_ = 0;
    std::string coverImageName_;
    std::string coverImageExtension_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
