#include "standin/app/Format.h"

#include <Poco/NumberFormatter.h>
#include <utf8proc.h>

#include <cmath>
#include <iterator>

namespace flickr_app {
namespace {

/// Of valid UTF-8, by its first byte.
std::size_t bytesOfCharacter(char start) {
    const unsigned char first = static_cast<unsigned char>(start);
    return first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
}

int columnsOfCharacter(const char* start) {
    utf8proc_int32_t character = 0;
    utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(start),
                     static_cast<utf8proc_ssize_t>(bytesOfCharacter(*start)), &character);
    return utf8proc_charwidth(character);
}

}  // namespace

std::string formatBytes(double bytes) {
    if (bytes < 1000) return Poco::NumberFormatter::format(bytes, 0) + " B";
    const char* const units[] = {" kB", " MB", " GB", " TB"};
    std::size_t unit = 0;
    bytes /= 1000;
    for (; bytes >= 999.95 && unit + 1 < std::size(units); ++unit) bytes /= 1000;
    return Poco::NumberFormatter::format(bytes, 1) + units[unit];
}

std::string formatDuration(double seconds) {
    if (seconds < 59.95) return Poco::NumberFormatter::format(seconds, 1) + " s";
    const long whole = std::lround(seconds);
    if (whole < 3600) {
        return std::to_string(whole / 60) + " min " + Poco::NumberFormatter::format0(whole % 60, 2) + " s";
    }
    return std::to_string(whole / 3600) + " h " + Poco::NumberFormatter::format0(whole / 60 % 60, 2) + " min";
}

std::string formatNumber(long number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, ",");
    return text;
}

std::string formatCount(long count, const std::string& noun) {
    return formatNumber(count) + " " + noun + (count == 1 ? "" : "s");
}

std::size_t columnsIn(const std::string& text) {
    std::size_t columns = 0;
    for (std::size_t at = 0; at < text.size(); at += bytesOfCharacter(text[at])) {
        columns += static_cast<std::size_t>(columnsOfCharacter(&text[at]));
    }
    return columns;
}

std::string cutColumns(const std::string& text, std::size_t columns) {
    if (columnsIn(text) <= columns) return text;
    const std::string end = std::string("...").substr(0, columns);
    std::size_t at = 0;
    for (std::size_t used = end.size(); at < text.size(); at += bytesOfCharacter(text[at])) {
        used += static_cast<std::size_t>(columnsOfCharacter(&text[at]));
        if (used > columns) break;
    }
    return text.substr(0, at) + end;
}

}  // namespace flickr_app
