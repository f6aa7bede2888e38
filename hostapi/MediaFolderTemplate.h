// The description of a photo set's folder.

#ifndef HOSTAPI_MEDIAFOLDERTEMPLATE_H
#define HOSTAPI_MEDIAFOLDERTEMPLATE_H

#include <string>
#include <utility>

#include "hostapi/Template.h"

namespace Norvale_Plugin_Core {

/// The description of one folder.
class MediaFolderTemplate : public Template {
public:
    /// Display name.
    void setName(std::string name) { name_ = std::move(name); }
    const std::string& getName() const { return name_; }

    /// Number of items in the folder, decimal.
    void setTotalItems(std::string count) { totalItems_ = std::move(count); }
    const std::string& getTotalItems() const { return totalItems_; }

    /// The cover's thumbnail, relative to the service folder; empty when there is none.
    void setCoverImage(std::string path) { coverImage_ = std::move(path); }
    const std::string& getCoverImage() const { return coverImage_; }

    /// When the folder's latest item changed, as DbInterface::createLatestUpdatedItemDate() writes it.
    void setLatestUpdatedDate(std::string date) { latestUpdatedDate_ = std::move(date); }
    const std::string& getLatestUpdatedDate() const { return latestUpdatedDate_; }

    /// File name of that item.
    void setLatestUpdatedItem(std::string name) { latestUpdatedItem_ = std::move(name); }
    const std::string& getLatestUpdatedItem() const { return latestUpdatedItem_; }

private:
    std::string name_;
    std::string totalItems_;
    std::string coverImage_;
    std::string latestUpdatedDate_;
    std::string latestUpdatedItem_;
};

}  // namespace Norvale_Plugin_Core

#endif
