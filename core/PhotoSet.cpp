#include "core/PhotoSet.h"

#include "hostapi/Utils.h"

namespace Norvale_Plugin_Flickr {

void PhotoSet::Initialize() {
    *this = PhotoSet();
}

void PhotoSet::Clone(PhotoSet other) {
    *this = std::move(other);
}

void PhotoSet::setTitle(std::string title) {
    title_ = Norvale_Plugin_Core::Utils().NormalizeString(std::move(title));
}

void PhotoSet::setResourceTitle(std::string title) {
    resourceTitle_ = Norvale_Plugin_Core::Utils().NormalizeString(std::move(title));
}

}  // namespace Norvale_Plugin_Flickr
