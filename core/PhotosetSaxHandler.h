// Reader of the answer to flickr.photosets.getList:
//
//   <rsp stat="ok"><photosets …>
//     <photoset id="72157" primary="4011" photos="3" videos="2" …>
//       <title>Trip</title><description>…</description>
//     </photoset> …
//   </photosets></rsp>
//
// A failure is <rsp stat="fail"><err code="98" msg="…"/></rsp>. Elements and attributes that are not named
// here are passed over.

#ifndef CORE_PHOTOSETSAXHANDLER_H
#define CORE_PHOTOSETSAXHANDLER_H

#include <map>
#include <string>

#include "core/PhotoSet.h"
#include "core/SaxReader.h"

namespace Norvale_Plugin_Flickr {

/// Collects the photo sets of one answer. A set whose id the service cannot have given is refused; such an id
/// of a cover counts as none. After a stop request it passes over every element.
class PhotosetSaxHandler : public SaxReader {
public:
    /// The sets by their id; of a repeated id the first.
    std::map<std::string, PhotoSet> getPhotosetList() const& { return sets_; }
    std::map<std::string, PhotoSet> getPhotosetList() && { return std::move(sets_); }

    bool readsFailure() const override { return true; }
    void startElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                      const Poco::XML::XMLString& qname, const Poco::XML::Attributes& attributes) override;
    void endElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                    const Poco::XML::XMLString& qname) override;
    void characters(const Poco::XML::XMLChar text[], int start, int length) override;

private:
    void readAttributes(const Poco::XML::Attributes& attributes);

    bool inPhotoSet_ = false;
    bool inTitle_ = false;
    bool inDescription_ = false;
    PhotoSet set_;
    std::map<std::string, PhotoSet> sets_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
