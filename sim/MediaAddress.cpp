#include "sim/MediaAddress.h"

#include <Poco/Exception.h>
#include <Poco/Hash.h>
#include <Poco/StringTokenizer.h>
#include <Poco/URI.h>

#include <cstdio>

namespace flickr_sim {

namespace {

struct Place {
    const char* label;
    const char* name;
};

constexpr Place kStills[] = {
    {"Square", "s"},      {"Large Square", "q"}, {"Thumbnail", "t"},   {"Small", "m"},
    {"Small 320", "n"},   {"Medium 640", "z"},   {"Medium 800", "c"},  {"Large", "b"},
    {"Original", "o"},    {"Small 400", "w"},    {"Large 1600", "h"},  {"Large 2048", "k"},
    {"X-Large 3K", "3k"}, {"X-Large 4K", "4k"},  {"X-Large 5K", "5k"}, {"X-Large 6K", "6k"},
};
constexpr Place kVideos[] = {{"Video Player", "player"},
                             {"Site MP4", "site"},
                             {"Mobile MP4", "mobile"},
                             {"Video Original", "orig"},
                             {"100", "100"},
                             {"288p", "288p"},
                             {"300", "300"},
                             {"360p", "360p"},
                             {"iphone_wifi", "iphone_wifi"},
                             {"appletv", "appletv"},
                             {"700", "700"},
                             {"720p", "720p"},
                             {"HD MP4", "hd"},
                             {"1080p", "1080p"},
                             {"orig", "source"}};

std::string encode(const std::string& text) {
    std::string encoded;
    Poco::URI::encode(text, "/?#&_=+%@:", encoded);
    return encoded;
}

std::string decode(const std::string& text) {
    std::string decoded;
    Poco::URI::decode(text, decoded);
    return decoded;
}

}  // namespace

std::string secretOf(const std::string& itemId) {
    char text[24];
    std::snprintf(text, sizeof text, "%010llx",
                  static_cast<unsigned long long>(Poco::hash("secret" + itemId)) & 0xFFFFFFFFFFull);
    return text;
}

std::string mediaPath(const Item& item, const std::string& label) {
    for (const Place& place : kVideos) {
        if (label == place.label) {
            return std::string("/photos/") + kOwner + '/' + encode(item.id) + "/play/" + place.name + '/' +
                   secretOf(item.id) + '/';
        }
    }
    std::string path = std::string("/") + kMediaServer + '/' + encode(item.id) + '_' + secretOf(item.id);
    if (label != "Medium") {
        std::string name = "x-" + encode(label);
        for (const Place& place : kStills) {
            if (label == place.label) name = place.name;
        }
        path += '_' + name;
    }
    return path + '.' + (label == "Original" ? item.extension : "jpg");
}

bool parseMediaPath(const std::string& path, std::string& itemId, std::string& label) {
    try {
        const Poco::StringTokenizer parts(path, "/");
        if (parts.count() >= 7 && parts[1] == "photos" && parts[4] == "play") {
            for (const Place& place : kVideos) {
                if (parts[5] == place.name) label = place.label;
            }
            itemId = decode(parts[3]);
            return !label.empty();
        }
        if (parts.count() != 3 || parts[1] != kMediaServer) return false;
        const Poco::StringTokenizer fields(parts[2].substr(0, parts[2].rfind('.')), "_");
        if (fields.count() < 2 || fields.count() > 3) return false;
        itemId = decode(fields[0]);
        label = fields.count() == 2 ? "Medium" : "";
        for (const Place& place : kStills) {
            if (fields.count() == 3 && fields[2] == place.name) label = place.label;
        }
        if (label.empty() && fields[2].compare(0, 2, "x-") == 0) label = decode(fields[2].substr(2));
        return !label.empty();
    } catch (Poco::SyntaxException&) {
        return false;
    }
}

}  // namespace flickr_sim
