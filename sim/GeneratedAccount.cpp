#include "sim/GeneratedAccount.h"

#include <algorithm>
#include <ctime>
#include <iterator>

namespace flickr_sim {

namespace {

constexpr std::time_t kFirstUpload = 1500000000;

const char* const kSetTitles[] = {
    "Trip", "Été à la plage", "家族旅行 2019/夏",        "Свадьба: день 1",
    "trip", "رحلة إلى البحر", "Garden & \"friends\" <3", "🎉 Party 🎂",
};

const std::string kLong(300, 'w');
const std::string kItemTitles[] = {
    "sunset",
    "Sunset",
    "Über den Dächern",
    "夕焼けの海",
    "Закат над рекой",
    "غروب الشمس",
    "שקיעה בים",
    "🌅 dawn 🐦",
    "said \"hello\" & <left>",
    "half/half\\back",
    "Day 1: the start",
    "ends with a dot.",
    " blanks around ",
    "what? * | <>",
    "cafe\xCC\x81",            // é of two characters
    "caf\xC3\xA9",             // é of one
    "abc\xE2\x80\xAEgpj.exe",  // right-to-left override
    "..",
    "CON",
    "tab\there",
    "sunset_Old",
    "it's 100% #1",
    "long " + kLong,
    "",
};

struct Pixels {
    int width;
    int height;
};

/// The largest picture that is likely to take fewer bytes.
Pixels pixelsFor(std::uint64_t bytes) {
    if (bytes < 8000) return {64, 48};
    if (bytes < 30000) return {320, 240};
    if (bytes < 150000) return {800, 600};
    return {1600, 1200};
}

std::string numbered(const char* prefix, unsigned number) {
    std::string digits = std::to_string(number);
    return prefix + std::string(digits.size() < 4 ? 4 - digits.size() : 0, '0') + digits;
}

std::string dateText(std::time_t time) {
    char text[32];
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

}  // namespace

void generate(Account& account, const Generation& generation) {
    unsigned made = 0;
    const Pixels pixels = pixelsFor(generation.itemBytes);
    const auto addItem = [&](const std::string& setId, unsigned indexInSet, bool isVideo) {
        const unsigned number = made++;
        Item item;
        item.isVideo = isVideo;
        const bool awkward = generation.awkwardTitles && indexInSet < std::size(kItemTitles);
        item.title = awkward ? kItemTitles[indexInSet] : numbered(isVideo ? "MOV_" : "IMG_", number + 1);
        if (number % 3 == 0)
            item.description = "Picture " + std::to_string(number + 1) + ".\nTaken & kept <here>.";
        if (number % 2 == 0) item.tags = {"generated", numbered("n", number)};
        item.uploaded = kFirstUpload + static_cast<std::time_t>(number) * 600;
        item.updated = item.uploaded + number % 5 * 60;
        item.taken = dateText(item.uploaded - 86400);
        const std::string mark = std::to_string(generation.seed) + ' ' + std::to_string(number);
        if (isVideo) {
            item.extension = "mp4";
            item.width = 1280;
            item.height = 720;
            item.content = Content::video(generation.videoBytes, generation.seed * 1000003 + number);
        } else {
            item.width = pixels.width;
            item.height = pixels.height;
            item.content = Content::picture(static_cast<unsigned>(generation.seed) + number, pixels.width,
                                            pixels.height, mark, generation.itemBytes);
        }
        account.addItem(setId, std::move(item));
    };

    for (unsigned s = 0; s < generation.sets; ++s) {
        const bool awkward = generation.awkwardTitles && s < std::size(kSetTitles);
        const std::string id = account.addSet(awkward ? kSetTitles[s] : numbered("Set ", s + 1),
                                              s % 2 == 0 ? "Set number " + std::to_string(s + 1) : "");
        const unsigned videos =
            std::min(generation.itemsPerSet,
                     generation.videos / generation.sets + (s < generation.videos % generation.sets));
        for (unsigned i = 0; i < generation.itemsPerSet; ++i) {
            addItem(id, i, i >= generation.itemsPerSet - videos);
        }
    }
    const bool isVideo = false;
    for (unsigned i = 0; i < generation.loose; ++i) addItem("", i, isVideo);
}

}  // namespace flickr_sim
