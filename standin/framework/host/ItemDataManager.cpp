#include "hostapi/ItemDataManager.h"

#include <utility>

#include "hostapi/MediaFolderTemplate.h"
#include "hostapi/MediaTemplate.h"
#include "standin/framework/device/Description.h"

namespace Norvale_Plugin_Core {

std::string ItemDataManager::saveItemData(Template* description) {
    if (!description) return {};
    const auto* media = dynamic_cast<const MediaTemplate*>(description);
    const auto* folder = dynamic_cast<const MediaFolderTemplate*>(description);
    flickr_standin::DescriptionWriter text(folder ? "folder" : "media");
    text.field("ID", description->getID());
    text.field("PhysicalFileName", description->getPhysicalFileName());
    text.field("DataXMLPath", description->getDataXMLPath());
    if (media) {
        text.field("FileName", media->getFileName());
        text.field("MediaType", media->getMediaType());
        text.field("ThumbnailName", media->getThumbnailName());
        text.field("Description", media->getDescription());
        text.field("DateTaken", media->getDateTaken());
        text.field("DateUpdated", media->getDateUpdated());
        text.list("Tags", "Tag", media->getTags());
    }
    if (folder) {
        text.field("Name", folder->getName());
        text.field("TotalItems", folder->getTotalItems());
        text.field("CoverImage", folder->getCoverImage());
        text.field("LatestUpdatedDate", folder->getLatestUpdatedDate());
        text.field("LatestUpdatedItem", folder->getLatestUpdatedItem());
    }
    return std::move(text).finished();
}

}  // namespace Norvale_Plugin_Core
