#include "standin/app/Format.h"

#include <Poco/NumberFormatter.h>
#include <Poco/UTF8Encoding.h>

#include <cmath>
#include <iterator>

#include "standin/framework/base/Text.h"

namespace flickr_app {
namespace {

bool isControl(int character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0) ||       // C0, DEL, C1
           character == 0x61c || character == 0x200e || character == 0x200f ||  // direction marks
           (character >= 0x2028 && character <= 0x202e) ||                      // line ends, embeddings
           (character >= 0x2066 && character <= 0x2069);                        // isolates
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

std::string formatCount(long count, const std::string& noun) {
    std::string number = std::to_string(count);
    for (int at = static_cast<int>(number.size()) - 3; at > 0; at -= 3) number.insert(at, ",");
    return number + " " + noun + (count == 1 ? "" : "s");
}

std::string printable(const std::string& text) {
    const std::string valid = flickr_standin::validUtf8(text);
    const Poco::UTF8Encoding utf8;
    std::string line;
    std::size_t at = 0;
    while (at < valid.size()) {
        const unsigned char first = static_cast<unsigned char>(valid[at]);
        const std::size_t length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
        const int character = utf8.convert(reinterpret_cast<const unsigned char*>(valid.data()) + at);
        if (isControl(character)) {
            line += '?';
        } else {
            line.append(valid, at, length);
        }
        at += length;
    }
    return line;
}

}  // namespace flickr_app
