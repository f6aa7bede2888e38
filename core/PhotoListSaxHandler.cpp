#include "core/PhotoListSaxHandler.h"

#include <Poco/DateTimeParser.h>
#include <Poco/DynamicAny.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/SAX/Attributes.h>
#include <Poco/Timestamp.h>

#include "core/PhotoInformationSaxHandler.h"
#include "core/RunLines.h"
#include "core/RunSupport.h"
#include "core/StopWatcher.h"
#include "hostapi/ExceptionHandlerMac.h"

namespace Norvale_Plugin_Flickr {

namespace {

// The last second of the year 9999, past which Poco::DateTime has no values.
constexpr Poco::Int64 kLastSecond = 253402300799;

// Of one item. The service gives an item 75 tags at most.
constexpr std::size_t kMostTags = 1000;
constexpr std::size_t kLongestTag = 255;  // characters
// On one page. The service puts 500 items on a page at most.
constexpr std::size_t kMostItems = 5000;

/// Seconds since 1970-01-01 00:00 UTC as a date. Throws Poco::Exception for text that is no such number.
Poco::DateTime fromEpochText(const std::string& text) {
    const auto seconds = Poco::DynamicAny(text).convert<Poco::Int64>();
    if (seconds < 0 || seconds > kLastSecond) throw Poco::RangeException("date out of range", text);
    return Poco::DateTime(Poco::Timestamp::fromEpochTime(seconds));
}

/// The date that the camera wrote, which can be anything: one that is no date becomes the epoch, since the
/// picture matters more than when it was taken.
Poco::DateTime parseTakenDate(const std::string& text) {
    try {
        int timeZoneDifferential = 0;
        return Poco::DateTimeParser::parse(text, timeZoneDifferential);
    } catch (Poco::Exception& exception) {
        logFailure("Unable to read the date taken \"" + text + "\" - " + exception.displayText());
        return Poco::DateTime(Poco::Timestamp::fromEpochTime(0));
    }
}

/// The text's first characters of UTF-8, so many at most.
std::string firstCharacters(const std::string& text, std::size_t count) {
    std::size_t at = 0;
    for (; at < text.size(); ++at) {
        const bool begins = (static_cast<unsigned char>(text[at]) & 0xc0) != 0x80;
        if (begins && count-- == 0) break;
    }
    return text.substr(0, at);
}

/// Removes the character at the text's end, then at its start; a text of nothing else stays as it is.
void stripEnds(std::string& text, char character) {
    const std::string::size_type last = text.find_last_not_of(character);
    if (last == std::string::npos) return;
    text.erase(last + 1);
    text.erase(0, text.find_first_not_of(character));
}

std::string suffixOf(const std::string& mediaType) {
    if (mediaType == "photo") return ".jpg";
    if (mediaType == "video") return ".mp4";
    return "";
}

}  // namespace

void PhotoListSaxHandler::setData(std::string apiSecret, std::string apiKey, std::string authToken,
                                  PhotoSet set, std::map<std::string, Photo> photoMap, std::string dataUrl) {
    access_ = {std::move(dataUrl), std::move(authToken), std::move(apiKey), std::move(apiSecret)};
    set_ = std::move(set);
    photoMap_ = std::move(photoMap);
}

void PhotoListSaxHandler::startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString& localName,
                                       const Poco::XML::XMLString&, const Poco::XML::Attributes& attributes) {
    if (stoppedAt("Backup Stopped in PhotoListSaxHandler::startElement()")) return;

    if (localName == "photo") {
        logInfo(kItemListed.with(""));
        photo_.Initialize();
        inPhoto_ = true;
        buffer_.clear();
        readAttributes(attributes);
    } else if (inPhoto_ && localName == "description") {
        inDescription_ = true;
    }
}

void PhotoListSaxHandler::readAttributes(const Poco::XML::Attributes& attributes) {
    for (int i = 0; i < attributes.getLength(); ++i) {
        const Poco::XML::XMLString& name = attributes.getLocalName(i);
        const Poco::XML::XMLString& value = attributes.getValue(i);
        if (name == "id") {
            photo_.setPhotoID(value);
            photo_.setRawPhotoID(value);
        } else if (name == "title") {
            photo_.setPhotoTitle(value);
        } else if (name == "dateupload") {
            photo_.setUploadDateTime(fromEpochText(value));
        } else if (name == "lastupdate") {
            photo_.setUpdatedDateTime(fromEpochText(value));
        } else if (name == "datetaken") {
            photo_.setTakenDateTime(parseTakenDate(value));
        } else if (name == "media") {
            photo_.setMediaType(value);
        } else if (name == "tags" && !value.empty()) {
            readTags(value);
        }
    }
}

void PhotoListSaxHandler::readTags(const std::string& value) {
    std::size_t count = 0;
    std::size_t shortened = 0;
    for (std::string::size_type start = 0; start != std::string::npos; ++count) {
        const std::string::size_type blank = value.find(' ', start);
        if (count < kMostTags) {
            const std::string tag = value.substr(start, blank - start);
            std::string kept = firstCharacters(tag, kLongestTag);
            shortened += kept.size() < tag.size();
            photo_.setTags(std::move(kept));
        }
        start = blank == std::string::npos ? blank : blank + 1;
    }
    const std::string item = " of item - " + photo_.getPhotoTitle();
    if (count > kMostTags) logFailure("Tags left out: " + std::to_string(count - kMostTags) + item);
    if (shortened > 0) logFailure("Tags shortened: " + std::to_string(shortened) + item);
}

void PhotoListSaxHandler::characters(const Poco::XML::XMLChar text[], int start, int length) {
    if (inDescription_ && length > 0) buffer_.append(text + start, static_cast<std::size_t>(length));
}

void PhotoListSaxHandler::endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString& localName,
                                     const Poco::XML::XMLString&) {
    if (inDescription_ && localName == "description") {
        std::string description = sanetizeString(buffer_);
        if (!description.empty() && description != "\n") photo_.setDescription(std::move(description));
        inDescription_ = false;
    } else if (inPhoto_ && localName == "photo") {
        logInfo("*********************** Photo Ended**************************");
        finishPhoto();
        inPhoto_ = false;
    }
}

void PhotoListSaxHandler::leaveOut(const std::string& line) {
    ++leftOut_;
    // What a stop cut off is not the service's fault.
    if (isStopped()) return;
    logFailure(line);
}

void PhotoListSaxHandler::finishPhoto() {
    if (namedIds_.size() == kMostItems) throw Poco::DataFormatException("the page of items has no end");
    namedIds_.push_back(photo_.getRawPhotoID());
    logInfo(kItemNamed.with(photo_.getRawPhotoID(), photo_.getPhotoTitle()));
    const bool refused = !isId(photo_.getRawPhotoID());
    if (!refused) getPhotoInformation(photo_);
    photo_.setPhotoSetID(set_.getPhotoSetID());
    photo_.setPhotoSet(set_);
    photo_.setPhotoID(photo_.getRawPhotoID() + "_" + set_.getPhotoSetID());
    photo_.setPhotoTitle(photo_.getPhotoTitle() + suffixOf(photo_.getMediaType()));
    if (refused) return leaveOut(kItemRefused.with(photo_.getPhotoTitle()));
    if (photo_.getImagePath().empty()) {
        return leaveOut(kItemLeftOut.with(photo_.getPhotoID(), photo_.getPhotoTitle()));
    }

    Photo listed;
    listed.Clone(photo_);
    std::string id = listed.getPhotoID();
    photoMap_.emplace(std::move(id), std::move(listed));
}

bool PhotoListSaxHandler::getPhotoInformation(Photo& photo) {
    try {
        SignedRequest request(access_, "flickr.photos.getSizes");
        HttpExchange call = request.add("photo_id", photo.getPhotoID()).addToken().prepared();
        if (call.exchange().getStatus() != Poco::Net::HTTPResponse::HTTP_OK) {
            throw Poco::Exception(kNoList, 0);
        }
        parsePhotoInformationV2(call.body(), photo);
        return true;
    } catch (StoppedException&) {
        logInfo("Backup Stopped in getPhotoInformation()");
        return false;
    } catch (Poco::Exception& exception) {
        logFailure(kListUnread + exception.displayText());
        Norvale_Plugin_Core::ExceptionHandlerMac(kServiceName)
            .handleException(exception, std::string(kRenditionsFail) + " : " + exception.displayText(),
                             retryAttempts());
        return false;
    }
}

void PhotoListSaxHandler::parsePhotoInformationV2(std::istream& body, Photo& photo) {
    const std::string document = readWhole(body);
    // A stop cuts the body off: what is there of it is no answer.
    if (stoppedAt("Backup Stopped in PhotoListSaxHandler::parsePhotoInformationV2()")) return;

    PhotoInformationSaxHandler handler;
    handler.setPhoto(photo);
    try {
        handler.read(document);
    } catch (Poco::Exception& exception) {
        logFailure("Unable to parse photo information " + exception.displayText());
        throw;
    }
    photo = std::move(handler).getPhoto();
}

std::string PhotoListSaxHandler::sanetizeString(std::string text) {
    stripEnds(text, '\n');
    stripEnds(text, '\t');
    return utils_.trimString(std::move(text));
}

}  // namespace Norvale_Plugin_Flickr
