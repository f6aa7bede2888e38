// The service's answers, in its XML form:
//
//   <rsp stat="ok">
//     <photosets page="1" pages="1" perpage="500" total="2">
//         <photoset id="…" primary="…" photos="3" videos="0">
//             <title>Trip</title> <description>…</description> </photoset> … </photosets>
//   or
//     <photoset id="…" page="1" pages="3" total="1200"> or <photos page="1" pages="1" total="7">
//         <photo id="…" title="…" dateupload="…" lastupdate="…" datetaken="…" media="photo" tags="…"
//                url_t="https://…" width_t="100" height_t="75" url_o="…" …> <description>…</description>
//         </photo> …
//   or
//     <sizes> <size label="Thumbnail" width="100" height="75" source="https://…" media="photo" /> … </sizes>
//   or
//     <user id="12345678@N07"> <username>…</username> </user>
//   </rsp>
//
//   <rsp stat="fail"> <err code="98" msg="…" /> </rsp>

#ifndef GATEWAY_SERVICEANSWER_H
#define GATEWAY_SERVICEANSWER_H

#include <cstddef>
#include <string>
#include <vector>

#include "gateway/Rendition.h"

namespace flickr_gateway {

/// A set as the list of sets gives it. Numbers stay texts, for the plug-in to read.
struct ListedSet {
    std::string id;
    std::string primary;
    std::string photos;
    std::string videos;
    std::string title;
    std::string description;
};

/// An item as a list of items gives it.
struct ListedItem {
    std::string id;
    std::string title;
    std::string dateUpload;
    std::string lastUpdate;
    std::string dateTaken;
    std::string media;
    std::string tags;
    std::string description;
    std::vector<Rendition> renditions;  ///< those that the entry names, from small to large
};

/// Whatever an answer held.
struct ServiceAnswer {
    bool failed = false;
    int code = 0;  ///< of a failure, as message
    std::string message;
    std::size_t pages = 0;
    std::size_t total = 0;
    std::vector<ListedSet> sets;
    std::vector<ListedItem> items;
    std::vector<Rendition> sizes;
    std::string userId;
    std::string userName;
};

/// Reads an answer. Throws Failure (Unavailable) for a document that is not well-formed, is none of the
/// service's, or holds a text of more than 256 KiB.
ServiceAnswer readAnswer(const std::string& document);

/// The largest answer that is read, in bytes.
constexpr std::size_t kLargestAnswer = 64u << 20;

}  // namespace flickr_gateway

#endif
