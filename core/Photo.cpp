#include "core/Photo.h"

#include "hostapi/Utils.h"

namespace Norvale_Plugin_Flickr {

void Photo::Initialize() {
    Photo fresh;
    fresh.edited_ = edited_;
    fresh.photoSet_ = std::move(photoSet_);
    *this = std::move(fresh);
}

void Photo::Clone(Photo other) {
    const std::string extension = other.getDescription();
    other.edited_ = edited_;
    other.photoSet_ = std::move(photoSet_);
    *this = std::move(other);
    setImageExtension(extension);
}

void Photo::setPhotoTitle(std::string title) {
    photoTitle_ = Norvale_Plugin_Core::Utils().NormalizeString(std::move(title));
}

}  // namespace Norvale_Plugin_Flickr
