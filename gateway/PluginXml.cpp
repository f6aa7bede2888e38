#include "gateway/PluginXml.h"

#include <Poco/String.h>

#include <algorithm>

namespace flickr_gateway {

namespace {

constexpr const char* kStart = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<rsp stat=\"ok\">\n";
constexpr const char* kEnd = "\n</rsp>\n";

/// With references for what has a meaning in XML, or would be read as something else. Values are text that an
/// XML reader has given, so every character can stand in XML.
std::string escaped(const std::string& value) {
    std::string text;
    for (const char c : value) {
        switch (c) {
            case '&':
            case '<':
            case '>':
            case '"':
            case '\n':
            case '\r':
            case '\t':
                text += "&#" + std::to_string(static_cast<int>(c)) + ';';
                break;
            default:
                text += c;
        }
    }
    return text;
}

/// Nothing for an empty value: the plug-in reads no number in an attribute that is not there.
std::string attribute(const char* name, const std::string& value) {
    return value.empty() ? std::string() : std::string(" ") + name + "=\"" + escaped(value) + '"';
}

/// A text that the plug-in has to get in one piece: references and line breaks would split it.
std::string onePiece(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    if (text.find_first_of("&<>") == std::string::npos) return text;
    // The mark that ends a section is shared out between two.
    return "<![CDATA[" + Poco::replace(text, "]]>", "]]]]><![CDATA[>") + "]]>";
}

std::string sizeXml(const char* label, const Rendition& rendition, const char* media) {
    if (rendition.source.empty()) return std::string();
    return "<size" + attribute("label", label) + attribute("width", std::to_string(rendition.width)) +
           attribute("height", std::to_string(rendition.height)) + attribute("source", rendition.source) +
           attribute("media", media) + " />\n";
}

}  // namespace

std::string setListXml(const std::vector<ListedSet>& sets) {
    const std::string total = std::to_string(sets.size());
    std::string xml = std::string(kStart) + "<photosets page=\"1\" pages=\"1\"" +
                      attribute("perpage", total) + attribute("total", total) + ">\n";
    for (const ListedSet& set : sets) {
        // "photos" before "videos": the plug-in adds them up in this order.
        xml += "<photoset" + attribute("id", set.id) + attribute("primary", set.primary) +
               attribute("photos", set.photos) + attribute("videos", set.videos) + "><title>" +
               onePiece(set.title) + "</title><description>" + onePiece(set.description) +
               "</description></photoset>\n";
    }
    return xml + "</photosets>" + kEnd;
}

std::string pageXml(const std::vector<ListedItem>& items, bool inSet) {
    const std::string element = inSet ? "photoset" : "photos";
    std::string xml = kStart + ('<' + element) + ">\n";
    for (const ListedItem& item : items) {
        xml += "<photo" + attribute("id", item.id) + attribute("title", item.title) +
               attribute("dateupload", item.dateUpload) + attribute("lastupdate", item.lastUpdate) +
               attribute("datetaken", item.dateTaken) + attribute("media", item.media) +
               attribute("tags", item.tags) + "><description>" + escaped(item.description) +
               "</description></photo>\n";
    }
    return xml + "</" + element + ">" + kEnd;
}

std::string sizesXml(const ItemRenditions& renditions, bool isVideo) {
    const bool isOriginal = renditions.best.label == "Original";
    const char* const label = isVideo ? "Video Original" : isOriginal ? "Original" : "Large";
    return std::string(kStart) + "<sizes>\n" + sizeXml("Thumbnail", renditions.thumbnail, "photo") +
           sizeXml(label, renditions.best, isVideo ? "video" : "photo") + "</sizes>" + kEnd;
}

std::string failureXml(int code, const std::string& message) {
    return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<rsp stat=\"fail\">\n<err" +
           attribute("code", std::to_string(code)) + attribute("msg", message) + " />\n</rsp>\n";
}

}  // namespace flickr_gateway
