#include "standin/framework/base/Localisation.h"

#include <algorithm>
#include <array>

#include "standin/framework/base/Text.h"

namespace flickr_standin {

namespace {

constexpr std::size_t kKeywordCount = 24;
using Words = std::array<const char*, kKeywordCount>;

constexpr Words kKeys = {"HarbourlineKey",
                         "FlickrKey",
                         kThumbnailKey,
                         "Sun",
                         "Mon",
                         "Tue",
                         "Wed",
                         "Thu",
                         "Fri",
                         "Sat",
                         "Jan",
                         "Feb",
                         "Mar",
                         "Apr",
                         "May",
                         "Jun",
                         "Jul",
                         "Aug",
                         "Sep",
                         "Oct",
                         "Nov",
                         "Dec",
                         "AM",
                         "PM"};

struct Language {
    const char* name;
    Words words;
};

// English first: it is what an unknown culture gets.
constexpr Language kLanguages[] = {
    {"en", {"Harbourline", "My Flickr Items",
            "Thumbnail",   "Sun",
            "Mon",         "Tue",
            "Wed",         "Thu",
            "Fri",         "Sat",
            "Jan",         "Feb",
            "Mar",         "Apr",
            "May",         "Jun",
            "Jul",         "Aug",
            "Sep",         "Oct",
            "Nov",         "Dec",
            "AM",          "PM"}},
    {"de", {"Harbourline",  "Meine Flickr-Objekte",
            "Miniaturbild", "So",
            "Mo",           "Di",
            "Mi",           "Do",
            "Fr",           "Sa",
            "Jan",          "Feb",
            "Mär",          "Apr",
            "Mai",          "Jun",
            "Jul",          "Aug",
            "Sep",          "Okt",
            "Nov",          "Dez",
            "vorm",         "nachm"}},
    {"fr", {"Harbourline", "Mes éléments Flickr",
            "Miniature",   "dim",
            "lun",         "mar",
            "mer",         "jeu",
            "ven",         "sam",
            "janv",        "févr",
            "mars",        "avr",
            "mai",         "juin",
            "juil",        "août",
            "sept",        "oct",
            "nov",         "déc",
            "AM",          "PM"}},
    {"ja", {"Harbourline", "マイ Flickr アイテム",
            "サムネイル",  "日",
            "月",          "火",
            "水",          "木",
            "金",          "土",
            "1月",         "2月",
            "3月",         "4月",
            "5月",         "6月",
            "7月",         "8月",
            "9月",         "10月",
            "11月",        "12月",
            "午前",        "午後"}},
};

const Language& languageOf(const std::string& culture) {
    const std::string name = culture.substr(0, culture.find_first_of("-_."));
    const auto found =
        std::find_if(std::begin(kLanguages), std::end(kLanguages), [&](const Language& language) {
            return name.size() == 2 && (name[0] | 0x20) == language.name[0] &&
                   (name[1] | 0x20) == language.name[1];
        });
    return found == std::end(kLanguages) ? kLanguages[0] : *found;
}

constexpr const char* kPairEnd = "||";

NameKeys ownWords() {
    return {nameKey(kNoSetId), kGalleryPage, kGalleryFolder};
}

}  // namespace

std::vector<std::string> knownCultures() {
    std::vector<std::string> names;
    for (const Language& language : kLanguages) names.emplace_back(language.name);
    return names;
}

std::string localisedKeyword(const std::string& culture, const std::string& key) {
    const auto found = std::find(kKeys.begin(), kKeys.end(), key);
    if (found == kKeys.end()) return {};
    return languageOf(culture).words[static_cast<std::size_t>(found - kKeys.begin())];
}

std::string localisedServiceFolderName(const std::string& culture) {
    return localisedKeyword(culture, "FlickrKey");
}

NameKeys systemWords(const std::string& thumbnailWord) {
    static const NameKeys kWords = [] {
        NameKeys words = ownWords();
        for (const std::string& culture : knownCultures()) {
            words.insert(nameKey(localisedKeyword(culture, kThumbnailKey)));
        }
        return words;
    }();
    NameKeys words = kWords;
    words.insert(nameKey(thumbnailWord));
    return words;
}

std::map<std::string, std::string> readKeywords(const std::string& text) {
    std::map<std::string, std::string> words;
    for (const char* key : kKeys) words[key] = localisedKeyword("en", key);
    if (text.find('=') == std::string::npos) {
        for (const char* key : kKeys) words[key] = localisedKeyword(text, key);
        return words;
    }
    // The words of folders become names, which the system's own files must not meet.
    const NameKeys own = ownWords();
    for (std::string::size_type at = 0; at < text.size();) {
        const std::string::size_type end = std::min(text.find(kPairEnd, at), text.size());
        const std::string pair = text.substr(at, end - at);
        const std::string::size_type equals = pair.find('=');
        if (equals != std::string::npos) {
            const std::string key = trimmed(pair.substr(0, equals));
            std::string value = trimmed(validUtf8(pair.substr(equals + 1)));
            const bool folder = key == "HarbourlineKey" || key == "FlickrKey" || key == kThumbnailKey;
            if (folder && !value.empty()) value = folderName(value, 1, own);
            if (!key.empty() && !value.empty()) words[key] = value;
        }
        at = end + 2;
    }
    return words;
}

}  // namespace flickr_standin
