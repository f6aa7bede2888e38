// Reader of the answer to flickr.photos.getSizes:
//
//   <rsp stat="ok"><sizes …>
//     <size label="Thumbnail" width="100" height="75" source="https://…" …/>
//     <size label="Original" width="2400" height="1800" source="https://…" …/> …
//   </sizes></rsp>
//
// The service lists an item's renditions from small to large.

#ifndef CORE_PHOTOINFORMATIONSAXHANDLER_H
#define CORE_PHOTOINFORMATIONSAXHANDLER_H

#include <string>
#include <utility>

#include "core/Photo.h"
#include "core/SaxReader.h"

namespace Norvale_Plugin_Flickr {

/// Completes an item with the addresses and the size of the rendition to back up: the last one in the answer
/// that is suitable for its media type.
class PhotoInformationSaxHandler : public SaxReader {
public:
    void setPhoto(Photo photo) { photo_ = std::move(photo); }
    Photo getPhoto() const& { return photo_; }
    Photo getPhoto() && { return std::move(photo_); }

    /// An item of which the service tells no renditions is left out, since it has no address.
    bool readsFailure() const override { return true; }
    void startElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                      const Poco::XML::XMLString& qname, const Poco::XML::Attributes& attributes) override;

private:
    void readPhotoSize(const std::string& label, const Poco::XML::Attributes& attributes);
    void readVideoSize(const std::string& label, const Poco::XML::Attributes& attributes);
    void takeRendition(const Poco::XML::Attributes& attributes);

    Photo photo_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
