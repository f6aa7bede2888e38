#include "standin/framework/device/ItemDetails.h"

#include <Poco/DateTimeFormatter.h>

#include "standin/framework/device/Description.h"

namespace flickr_standin {

namespace {

bool isKnown(const Poco::DateTime& date) {
    return date.timestamp().epochMicroseconds() != 0;
}

/// The moment at which a clock in the user's time zone shows the date.
std::time_t localMoment(const Poco::DateTime& date) {
    std::tm clock = {};
    clock.tm_year = date.year() - 1900;
    clock.tm_mon = date.month() - 1;
    clock.tm_mday = date.day();
    clock.tm_hour = date.hour();
    clock.tm_min = date.minute();
    clock.tm_sec = date.second();
    clock.tm_isdst = -1;
    return std::mktime(&clock);
}

}  // namespace

std::string withDetails(std::string description, const ItemDetails& details) {
    constexpr const char* kClock = "%Y-%m-%dT%H:%M:%S";
    using Poco::DateTimeFormatter;
    if (!details.title.empty()) description = withNewField(description, "Title", details.title);
    if (isKnown(details.taken)) {
        description = withNewField(description, "Taken", DateTimeFormatter::format(details.taken, kClock));
    }
    if (isKnown(details.uploaded)) {
        const std::string uploaded = DateTimeFormatter::format(details.uploaded, kClock) + "Z";
        description = withNewField(description, "Uploaded", uploaded);
    }
    return description;
}

std::optional<std::time_t> modificationTime(const ItemDetails& details) {
    if (isKnown(details.taken)) return localMoment(details.taken);
    if (isKnown(details.uploaded)) return details.uploaded.timestamp().epochTime();
    return std::nullopt;
}

}  // namespace flickr_standin
