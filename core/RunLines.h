// Lines of the log that tell what a run does and nothing else tells. Each text stands here once: the core
// writes with it, and a reader of the log finds it again with it. Titles come from outside: a line is known
// by its beginning and, where the title is in its middle, by its end as well, so that none can pass for
// another.

#ifndef CORE_RUNLINES_H
#define CORE_RUNLINES_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Norvale_Plugin_Flickr {

/// A line of a fixed beginning, an id and a text.
struct RunLine {
    std::string_view start;

    struct Parts {
        std::string id;
        std::string text;
    };

    /// The line. The id holds no blank.
    std::string with(const std::string& id, const std::string& text) const {
        return std::string(start) + id + ' ' + text;
    }

    /// What with() was given, or nothing for another line.
    std::optional<Parts> read(const std::string& line) const {
        if (line.compare(0, start.size(), start) != 0) return std::nullopt;
        const std::string rest = line.substr(start.size());
        const std::string::size_type blank = rest.find(' ');
        if (blank == std::string::npos) return Parts{rest, ""};
        return Parts{rest.substr(0, blank), rest.substr(blank + 1)};
    }
};

/// A line of a fixed beginning, a text or a number, and a fixed end.
struct TextLine {
    std::string_view start;
    std::string_view end = {};

    std::string with(const std::string& text) const { return std::string(start) + text + std::string(end); }

    /// What with() was given, or nothing for another line.
    std::optional<std::string> read(const std::string& line) const {
        const std::size_t fixed = start.size() + end.size();
        if (line.size() < fixed || line.compare(0, start.size(), start) != 0 ||
            line.compare(line.size() - end.size(), end.size(), end) != 0) {
            return std::nullopt;
        }
        return line.substr(start.size(), line.size() - fixed);
    }
};

/// The list of sets is read: how many there are.
constexpr TextLine kSetsListed{"Available new/updated photo sets to process: "};
/// A set's turn comes: its title.
constexpr TextLine kSetBegins{"Processing Photo Set: "};
/// An attempt to list a set: its number. It lists all items again.
constexpr TextLine kListAttempt{"Getting Photo List Attempt - "};
/// An item of the list, or one of its renditions, is read.
constexpr TextLine kItemListed{"*********************** Photo Started**************************"};
/// The list has fewer items than it announced: "N of M".
constexpr TextLine kFewerListed{"Fewer items listed than announced: "};
/// A set is listed: how many of its items are to be looked at.
constexpr TextLine kListEnds{"Available new/updated media to process: "};
/// An item is as it was recorded: its title.
constexpr TextLine kPhotoUnchanged{"Photo - ", " already backed up no change, continuing to next photo"};
constexpr TextLine kVideoUnchanged{"Video - ", kPhotoUnchanged.end};

/// An attempt of a transfer fails: the status of the answer, what is wrong with the address, or nothing.
constexpr TextLine kStatusRefused{"Response Status - "};
constexpr TextLine kAddressRefused{"Unable to download from "};
constexpr TextLine kCutShort{"Data written is not the same as content length "};
/// In the first of these, a redirect that is followed.
constexpr std::string_view kRedirecting = " Redirecting to - ";
/// The transfer of an item has ended, well or not: its title.
constexpr TextLine kItemEnds{"Closed socket connection for activity to download photo -"};

/// The transfer of an item begins: its PhotoID and title.
constexpr RunLine kItemBegins{"Item to transfer - "};

/// A listed item is left out, for want of an address: its PhotoID and title.
constexpr RunLine kItemLeftOut{"No rendition to download for item - "};

/// An item or a set is refused for an id that the service cannot have given, in front of its title.
constexpr TextLine kItemRefused{"Refused for its id is item - "};
constexpr TextLine kSetRefused{"Refused for its id is photo set - "};

/// All sets are listed: how many items the service announces for them, without those in no set.
constexpr TextLine kItemsAnnounced{"Items announced for all photo sets: "};
/// The same for one set, when its list begins; 0 for the items in no set.
constexpr TextLine kSetAnnounced{"Items announced for the photo set: "};

/// The list names an item: its id as the service has it, and its title.
constexpr RunLine kItemNamed{"Listed item - "};

/// A set is listed: how many of its items were not updated since the first day, or are of a kind that is not
/// to be backed up.
constexpr TextLine kLeftOutByDate{"Items left out for their date: "};
constexpr TextLine kLeftOutByKind{"Items left out for their kind: "};

/// The service refuses the list of sets: its error code with ":", and its words.
constexpr RunLine kServiceRefuses{"The service answers with error "};

/// What an exception says of a list that the service did not give.
constexpr const char* kNoList = "UNABLE TO DOWNLOAD PHOTOSET";

/// How the message of an exception begins that is handed to the host: what it ends.
constexpr std::string_view kListFails = "Exception occurred in DownloadPhotoListActivity";
constexpr std::string_view kRenditionsFail = "Exception occurred in getPhotoInformation()";
constexpr std::string_view kItemFails = "Exception occurred in ProcessPhoto()";
constexpr std::string_view kTransferFails = "Exception occurred in Media Download Activity";
/// The whole message when the service refuses the list of sets.
constexpr std::string_view kSignInRefused = "Invalid Auth Token";

}  // namespace Norvale_Plugin_Flickr

#endif
