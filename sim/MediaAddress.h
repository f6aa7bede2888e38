// Where the content server keeps the renditions of an item, in the service's own manner:
//
//   /65535/ID_SECRET_t.jpg               a still picture; the letter tells the rendition, none is "Medium"
//   /photos/OWNER/ID/play/site/SECRET/   a video's file
//
// Labels that the service does not know are written out: /65535/ID_SECRET_x-LABEL.jpg. Ids are encoded for
// URLs, so that ids with slashes work.

#ifndef SIM_MEDIAADDRESS_H
#define SIM_MEDIAADDRESS_H

#include <string>

#include "sim/Account.h"

namespace flickr_sim {

constexpr const char* kOwner = "12345678@N00";
constexpr const char* kMediaServer = "65535";

/// The item's "secret": ten hexadecimal digits that depend on its id.
std::string secretOf(const std::string& itemId);

/// The path of one rendition.
std::string mediaPath(const Item& item, const std::string& label);

/// Takes such a path apart; false for others. The secret and the extension are not checked.
bool parseMediaPath(const std::string& path, std::string& itemId, std::string& label);

}  // namespace flickr_sim

#endif
