#include "core/PhotoInformationSaxHandler.h"

#include <Poco/SAX/Attributes.h>

#include "core/RunLines.h"
#include "core/RunSupport.h"

namespace Norvale_Plugin_Flickr {

namespace {

/// The value of an attribute in no namespace; empty when there is none.
const std::string& valueOf(const Poco::XML::Attributes& attributes, const char* name) {
    return attributes.getValue(Poco::XML::XMLString(), name);
}

}  // namespace

void PhotoInformationSaxHandler::startElement(const Poco::XML::XMLString&,
                                              const Poco::XML::XMLString& localName,
                                              const Poco::XML::XMLString&,
                                              const Poco::XML::Attributes& attributes) {
    if (localName != "size") return;
    logInfo(kItemListed.with(""));
    const std::string& label = valueOf(attributes, "label");
    if (photo_.getMediaType() == "photo") readPhotoSize(label, attributes);
    if (photo_.getMediaType() == "video") readVideoSize(label, attributes);
}

void PhotoInformationSaxHandler::readPhotoSize(const std::string& label,
                                               const Poco::XML::Attributes& attributes) {
    if (label == "Thumbnail") {
        // The thumbnail is also the first choice of the picture: an item without more is still backed up.
        const std::string& source = valueOf(attributes, "source");
        if (source.empty()) return;
        photo_.setThumbnailUrl(source);
        photo_.setImagePath(source);
    } else if (label == "Medium" || label == "Medium 640" || label == "Large" || label == "Original") {
        if (label == "Original" && valueOf(attributes, "source").empty()) {
            logInfo("Original Image Source Not Available.");
        }
        takeRendition(attributes);
    }
}

void PhotoInformationSaxHandler::readVideoSize(const std::string& label,
                                               const Poco::XML::Attributes& attributes) {
    if (label == "Thumbnail") {
        photo_.setThumbnailUrl(valueOf(attributes, "source"));
    } else if (label == "Video Player" || label == "Site MP4" || label == "Mobile MP4" ||
               label == "Video Original") {
        takeRendition(attributes);
    }
}

void PhotoInformationSaxHandler::takeRendition(const Poco::XML::Attributes& attributes) {
    const std::string& source = valueOf(attributes, "source");
    if (!source.empty()) photo_.setImagePath(source);
    photo_.setHeight(toInt(valueOf(attributes, "height")));
    photo_.setWidth(toInt(valueOf(attributes, "width")));
}

}  // namespace Norvale_Plugin_Flickr
