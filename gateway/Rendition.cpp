#include "gateway/Rendition.h"

#include <algorithm>
#include <iterator>

namespace flickr_gateway {

namespace {

// From good to poor. "Video Player" is a page and no file.
constexpr const char* kVideoLabels[] = {"Video Original", "orig",        "1080p", "720p",       "HD MP4",
                                        "Site MP4",       "700",         "360p",  "Mobile MP4", "288p",
                                        "appletv",        "iphone_wifi", "300",   "100"};

bool isVideoLabel(const std::string& label) {
    return std::find(std::begin(kVideoLabels), std::end(kVideoLabels), label) != std::end(kVideoLabels);
}

long long areaOf(const Rendition& rendition) {
    return static_cast<long long>(rendition.width) * rendition.height;
}

bool isPicture(const Rendition& rendition) {
    return !rendition.source.empty() && !isVideoLabel(rendition.label) && rendition.label != "Video Player";
}

/// A square is cut out of the picture.
bool isWhole(const Rendition& rendition) {
    return rendition.label != "Square" && rendition.label != "Large Square";
}

}  // namespace

const std::vector<AddressExtra>& addressExtras() {
    static const std::vector<AddressExtra> extras = {
        {"t", "Thumbnail"},   {"m", "Medium"},      {"z", "Medium 640"},  {"c", "Medium 800"},
        {"l", "Large"},       {"h", "Large 1600"},  {"k", "Large 2048"},  {"3k", "X-Large 3K"},
        {"4k", "X-Large 4K"}, {"5k", "X-Large 5K"}, {"6k", "X-Large 6K"}, {"o", "Original"}};
    return extras;
}

std::string listExtras() {
    std::string extras = "date_upload,last_update,date_taken,media,tags,description";
    for (const AddressExtra& extra : addressExtras()) extras += std::string(",url_") + extra.ending;
    return extras;
}

const Rendition* bestVideo(const std::vector<Rendition>& renditions) {
    for (const char* label : kVideoLabels) {
        for (const Rendition& each : renditions) {
            if (each.label == label && !each.source.empty()) return &each;
        }
    }
    return nullptr;
}

const Rendition* bestPicture(const std::vector<Rendition>& renditions) {
    const Rendition* best = nullptr;
    for (const Rendition& each : renditions) {
        if (!isPicture(each) || !isWhole(each)) continue;
        if (each.label == "Original") return &each;
        if (best == nullptr || areaOf(each) >= areaOf(*best)) best = &each;
    }
    return best;
}

const Rendition* thumbnailOf(const std::vector<Rendition>& renditions) {
    const Rendition* smallest = nullptr;
    for (const Rendition& each : renditions) {
        if (!isPicture(each)) continue;
        if (each.label == "Thumbnail") return &each;
        if (smallest == nullptr || areaOf(each) < areaOf(*smallest)) smallest = &each;
    }
    return smallest;
}

}  // namespace flickr_gateway
