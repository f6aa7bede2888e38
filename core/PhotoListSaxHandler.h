// Reader of the answers to flickr.photosets.getPhotos and flickr.photos.getNotInSet:
//
//   <rsp stat="ok"><photoset id="72157" …>
//     <photo id="4011" title="Sunset" dateupload="1400000000" lastupdate="1400000100"
//            datetaken="2014-05-13 18:53:20" media="photo" tags="sea sun" …>
//       <description>…</description>
//     </photo> …
//   </photoset></rsp>
//
// dateupload and lastupdate are seconds since 1970-01-01 00:00 UTC. Elements and attributes that are not
// named here are passed over.

#ifndef CORE_PHOTOLISTSAXHANDLER_H
#define CORE_PHOTOLISTSAXHANDLER_H

#include <cstddef>
#include <istream>
#include <map>
#include <string>
#include <vector>

#include "core/Photo.h"
#include "core/PhotoSet.h"
#include "core/SaxReader.h"
#include "core/SignedRequest.h"
#include "hostapi/Utils.h"

namespace Norvale_Plugin_Flickr {

/// How the log tells of a list, or of an item's renditions, that cannot be had or understood.
constexpr const char* kListUnread = "Unable to downlod / parse / sort photo list - ";

/// Collects the photos and videos of one page. For each of them it asks the service, while it reads, for the
/// item's renditions; an item without one to download is left out, and so is one whose id the service cannot
/// have given. After a stop request it passes over every element.
class PhotoListSaxHandler : public SaxReader {
public:
    /// photoMap holds the items that are known already, by their PhotoID; a known one stays as it is.
    void setData(std::string apiSecret, std::string apiKey, std::string authToken, PhotoSet set,
                 std::map<std::string, Photo> photoMap, std::string dataUrl);

    /// The known items and those that were read.
    std::map<std::string, Photo> getPhotoList() const& { return photoMap_; }
    std::map<std::string, Photo> getPhotoList() && { return std::move(photoMap_); }

    void startElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                      const Poco::XML::XMLString& qname, const Poco::XML::Attributes& attributes) override;
    void endElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                    const Poco::XML::XMLString& qname) override;
    void characters(const Poco::XML::XMLChar text[], int start, int length) override;

    /// The service's ids of all items that the page names, also of those left out.
    const std::vector<std::string>& namedIds() const { return namedIds_; }

    /// How many items were left out.
    std::size_t leftOut() const { return leftOut_; }

    /// Asks flickr.photos.getSizes for the item's renditions and completes it. A failure is reported,
    /// leaves the item as it was and answers false. A benchmark answers from memory instead.
    virtual bool getPhotoInformation(Photo& photo);

    /// Completes the item from the answer. Throws Poco::Exception for one that cannot be read.
    void parsePhotoInformationV2(std::istream& body, Photo& photo);

    /// The text without the line feeds, then the tabs, then the white space at its ends.
    std::string sanetizeString(std::string text);

private:
    void readAttributes(const Poco::XML::Attributes& attributes);
    void readTags(const std::string& value);
    void finishPhoto();
    void leaveOut(const std::string& line);

    std::string buffer_;
    bool inPhoto_ = false;
    bool inDescription_ = false;
    Photo photo_;
    ServiceAccess access_;
    PhotoSet set_;
    std::map<std::string, Photo> photoMap_;
    std::vector<std::string> namedIds_;
    std::size_t leftOut_ = 0;
    Norvale_Plugin_Core::Utils utils_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
