#include "hostapi/Utils.h"

#include <string_view>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Text.h"

namespace Norvale_Plugin_Core {

std::string Utils::NormalizeString(std::string text) {
    return flickr_standin::safeName(text);
}

std::string Utils::trimString(std::string text) {
    return flickr_standin::trimmed(std::move(text));
}

std::string Utils::getFileNameWithoutExtension(std::string name) {
    return flickr_standin::splitName(name).base;
}

std::string Utils::getImageExtension(Poco::Buffer<char>& firstBytes) {
    using namespace std::string_view_literals;
    const std::string_view bytes(firstBytes.begin(), firstBytes.size());
    const auto startsWith = [&](std::string_view mark) { return bytes.substr(0, mark.size()) == mark; };
    if (startsWith("\x89PNG\r\n\x1a\n"sv)) return "png";
    if (startsWith("GIF87a"sv) || startsWith("GIF89a"sv)) return "gif";
    if (startsWith("RIFF"sv) && bytes.size() >= 12 && bytes.substr(8, 4) == "WEBP"sv) return "webp";
    if (startsWith("II\x2a\0"sv) || startsWith("MM\0\x2a"sv)) return "tif";
    if (bytes.size() >= 12 && bytes.substr(4, 4) == "ftyp"sv) {
        // The brands of still pictures; films have others.
        for (const std::string_view brand :
             {"heic"sv, "heix"sv, "heim"sv, "heis"sv, "hevc"sv, "hevx"sv, "mif1"sv, "msf1"sv}) {
            if (bytes.substr(8, 4) == brand) return "heic";
        }
    }
    return "jpg";
}

}  // namespace Norvale_Plugin_Core
