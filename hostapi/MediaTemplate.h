// The description of a photo or video.

#ifndef HOSTAPI_MEDIATEMPLATE_H
#define HOSTAPI_MEDIATEMPLATE_H

#include <string>
#include <utility>
#include <vector>

#include "hostapi/Template.h"

namespace Norvale_Plugin_Core {

/// The description of one photo or video.
class MediaTemplate : public Template {
public:
    /// Display file name.
    void setFileName(std::string name) { fileName_ = std::move(name); }
    const std::string& getFileName() const { return fileName_; }

    /// "photo" or "video".
    void setMediaType(std::string type) { mediaType_ = std::move(type); }
    const std::string& getMediaType() const { return mediaType_; }

    /// The thumbnail's file.
    void setThumbnailName(std::string name) { thumbnailName_ = std::move(name); }
    const std::string& getThumbnailName() const { return thumbnailName_; }

    void setDescription(std::string description) { description_ = std::move(description); }
    const std::string& getDescription() const { return description_; }

    /// Dates as DbInterface formats them.
    void setDateTaken(std::string date) { dateTaken_ = std::move(date); }
    const std::string& getDateTaken() const { return dateTaken_; }
    void setDateUpdated(std::string date) { dateUpdated_ = std::move(date); }
    const std::string& getDateUpdated() const { return dateUpdated_; }

    void setTags(std::vector<std::string> tags) { tags_ = std::move(tags); }
    const std::vector<std::string>& getTags() const { return tags_; }

private:
    std::string fileName_;
    std::string mediaType_;
    std::string thumbnailName_;
    std::string description_;
    std::string dateTaken_;
    std::string dateUpdated_;
    std::vector<std::string> tags_;
};

}  // namespace Norvale_Plugin_Core

#endif
