// What the service says of an item beside its description, and where it goes:
//
//   Title     into the description: the title as the service has it
//   Taken     into the description, ISO 8601 without a zone: what the camera's clock said
//   Uploaded  into the description, ISO 8601, UTC
//
// The media file's modification time is the date on which it was taken, by a clock in the user's time zone,
// so that any program sorts the files as the pictures came; the upload's when that is not known.

#ifndef STANDIN_FRAMEWORK_DEVICE_ITEMDETAILS_H
#define STANDIN_FRAMEWORK_DEVICE_ITEMDETAILS_H

#include <Poco/DateTime.h>

#include <ctime>
#include <optional>
#include <string>

namespace flickr_standin {

/// All of it is known when the item's row is about to be written. A date of the epoch stands for one that is
/// not known.
struct ItemDetails {
    std::string item;  ///< its id; empty when nothing is known
    std::string title;
    Poco::DateTime taken = Poco::Timestamp(0);     ///< as the camera says
    Poco::DateTime uploaded = Poco::Timestamp(0);  ///< UTC
};

/// The item's description, with the fields that are known.
std::string withDetails(std::string description, const ItemDetails& details);

/// When the item's media file was last changed, by these details; none when no date is known.
std::optional<std::time_t> modificationTime(const ItemDetails& details);

}  // namespace flickr_standin

#endif
