// Lines of the log that tell what becomes of an item. Each begins in a way that stands here once: the core
// writes with it, and a reader of the log finds it again with it. Titles come from outside and stand last, so
// that none can pass for another line.

#ifndef CORE_RUNLINES_H
#define CORE_RUNLINES_H

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

/// The transfer of an item begins: its PhotoID and title.
constexpr RunLine kItemBegins{"Item to transfer - "};

/// A listed item is left out, for want of an address: its PhotoID and title.
constexpr RunLine kItemLeftOut{"No rendition to download for item - "};

/// An item or a set is refused for an id that the service cannot have given, in front of its title.
constexpr std::string_view kItemRefused = "Refused for its id is item - ";
constexpr std::string_view kSetRefused = "Refused for its id is photo set - ";

/// The service refuses the list of sets: its error code with ":", and its words.
constexpr RunLine kServiceRefuses{"The service answers with error "};

}  // namespace Norvale_Plugin_Flickr

#endif
