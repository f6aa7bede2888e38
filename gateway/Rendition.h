// The sizes in which the service has a photo or video.

#ifndef GATEWAY_RENDITION_H
#define GATEWAY_RENDITION_H

#include <string>
#include <vector>

namespace flickr_gateway {

/// One of them.
struct Rendition {
    std::string label;   ///< "Thumbnail", "Large 2048", "Original", "1080p"
    std::string source;  ///< its address; empty when the service gives none
    int width = 0;       ///< in pixels; 0: unknown
    int height = 0;
};

/// An attribute of list entries that holds an address, and the label of what is there. Widths and heights are
/// in attributes with the same ending.
struct AddressExtra {
    const char* ending;  ///< "o", of url_o
    const char* label;
};

/// All that the lists are asked for, from small to large.
const std::vector<AddressExtra>& addressExtras();

/// The value of "extras" in requests for lists.
std::string listExtras();

/// Which one of a photo is worth keeping: the original, or else the largest. Null when there is none with an
/// address.
const Rendition* bestPicture(const std::vector<Rendition>& renditions);

/// The same of a video: its best file.
const Rendition* bestVideo(const std::vector<Rendition>& renditions);

/// The one to show in lists: "Thumbnail", or else the smallest picture. Null when there is none.
const Rendition* thumbnailOf(const std::vector<Rendition>& renditions);

}  // namespace flickr_gateway

#endif
