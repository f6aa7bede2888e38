#include "core/PhotosetSaxHandler.h"

#include <Poco/Exception.h>
#include <Poco/SAX/Attributes.h>

#include "core/RunLines.h"
#include "core/RunSupport.h"
#include "hostapi/CSConfigException.h"
#include "hostapi/ExceptionHandlerMac.h"
#include "hostapi/Utils.h"

namespace Norvale_Plugin_Flickr {

namespace {

// Far more than an account holds: so many take some 60 MB.
constexpr std::size_t kMostSets = 100000;

}  // namespace

void PhotosetSaxHandler::startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString& localName,
                                      const Poco::XML::XMLString&, const Poco::XML::Attributes& attributes) {
    // The refusal itself has stopped the run by then.
    if (localName == "err" && !inPhotoSet_) {
        logFailure(
            kServiceRefuses.with(attributes.getValue("", "code") + ":", attributes.getValue("", "msg")));
    }
    if (stoppedAt("Backup Stopped in PhotosetSaxHandler::startElement()")) return;

    if (localName == "rsp" && !inPhotoSet_) {
        if (attributes.getLength() > 0 && attributes.getValue(0) == "fail") {
            Norvale_Plugin_Core::CSConfigException refused(0);
            Norvale_Plugin_Core::ExceptionHandlerMac(kServiceName)
                .handleException(refused, std::string(kSignInRefused), retryAttempts());
        }
    } else if (localName == "photoset") {
        logInfo("*********************** Photoset Started**************************");
        set_.Initialize();
        inPhotoSet_ = true;
        readAttributes(attributes);
    } else if (inPhotoSet_ && localName == "title") {
        inTitle_ = true;
    } else if (inPhotoSet_ && localName == "description") {
        inDescription_ = true;
    }
}

void PhotosetSaxHandler::readAttributes(const Poco::XML::Attributes& attributes) {
    for (int i = 0; i < attributes.getLength(); ++i) {
        const Poco::XML::XMLString& name = attributes.getLocalName(i);
        const Poco::XML::XMLString& value = attributes.getValue(i);
        if (name == "id") {
            set_.setPhotoSetID(value);
        } else if (name == "primary") {
            // The cover's id becomes a part of a file's name and of a row's key.
            set_.setCoverImageID(isId(value) ? value : "");
        } else if (name == "photos") {
            set_.setNumberOfPhotos(toInt(value));
        } else if (name == "videos") {
            // "photos" stands before "videos" in every answer of the service.
            set_.setNumberOfPhotos(static_cast<int>(static_cast<unsigned>(toInt(value)) +
                                                    static_cast<unsigned>(set_.getNumberOfPhotos())));
        }
    }
}

void PhotosetSaxHandler::characters(const Poco::XML::XMLChar text[], int start, int length) {
    if (length <= 0) return;
    const std::string chunk(text + start, static_cast<std::size_t>(length));
    // Each chunk replaces the one before it, on purpose: the photo list's reader is the one that appends.
    if (inTitle_) set_.setTitle(chunk);
    if (inDescription_) set_.setDescription(chunk);
}

void PhotosetSaxHandler::endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString& localName,
                                    const Poco::XML::XMLString&) {
    if (!inPhotoSet_) return;

    if (localName == "title") {
        inTitle_ = false;
    } else if (localName == "description") {
        inDescription_ = false;
    } else if (localName == "photoset") {
        logInfo("*********************** Photoset Ended**************************");
        PhotoSet set;
        set.Clone(set_);
        set.setTitle(Norvale_Plugin_Core::Utils().NormalizeString(set.getTitle()));
        set.setResourceTitle(Norvale_Plugin_Core::Utils().NormalizeString(set.getTitle()));
        inPhotoSet_ = false;
        if (!isId(set.getPhotoSetID())) {
            logFailure(kSetRefused.with(set.getTitle()));
            return;
        }
        sets_.emplace(set.getPhotoSetID(), set);
        if (sets_.size() > kMostSets) throw Poco::DataFormatException("the list of photo sets has no end");
    }
}

}  // namespace Norvale_Plugin_Flickr
