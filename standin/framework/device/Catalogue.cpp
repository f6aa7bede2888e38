#include "standin/framework/device/Catalogue.h"

#include <Poco/Exception.h>
#include <xxhash.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string_view>
#include <unordered_set>

#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/device/Versions.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

namespace {

// What a date that could not be read was recorded as.
constexpr const char* kEpoch = "1970-01-01 00:00:00";

/// Texts joined so that no two lists of texts give the same.
std::string joined(std::initializer_list<std::string_view> texts) {
    std::string all;
    all.reserve(256);  // most are shorter
    for (const std::string_view text : texts) {
        all += std::to_string(text.size());
        all += ':';
        all += text;
    }
    return all;
}

/// "2017-07-14T08:41:00Z" and the like as "2017-07-14 08:41:00"; empty for anything else.
std::string plainDate(const std::string& iso) {
    constexpr std::size_t kLength = 19;
    if (iso.size() < kLength || iso[4] != '-' || iso[7] != '-' || iso[13] != ':') return {};
    std::string date = iso.substr(0, kLength);
    date[10] = ' ';
    if (date.find_first_not_of("0123456789-: ") != std::string::npos) return {};
    return date == kEpoch || date == kToFetchAgain ? std::string() : date;
}

/// The month that the word stands for in any of the framework's languages, from 1; 0 for another word.
int monthOf(const std::string& word) {
    static const std::map<std::string, int> kWords = [] {
        std::map<std::string, int> words;
        for (const std::string& culture : knownCultures()) {
            for (int i = 0; i < 12; ++i) words[localisedKeyword(culture, kMonthKeys[i])] = i + 1;
        }
        return words;
    }();
    const auto found = kWords.find(word);
    return found == kWords.end() ? 0 : found->second;
}

bool isAfternoon(const std::string& word) {
    const std::vector<std::string> cultures = knownCultures();
    return std::any_of(cultures.begin(), cultures.end(),
                       [&](const std::string& culture) { return word == localisedKeyword(culture, "PM"); });
}

/// "Thu, 13 Jul 2017 2:40:00 AM" in the words of any language as "2017-07-13 02:40:00"; empty for anything
/// else.
std::string takenDate(const std::string& text) {
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    char month[16] = {}, half[16] = {};
    const std::string::size_type comma = text.find(", ");
    if (comma == std::string::npos) return {};
    const int read = std::sscanf(text.c_str() + comma + 2, "%2d %15s %4d %2d:%2d:%2d %15s", &day, month,
                                 &year, &hour, &minute, &second, half);
    const int number = monthOf(month);
    if (read != 7 || number == 0 || day < 1 || day > 31 || year < 1 || hour < 1 || hour > 12 || minute < 0 ||
        minute > 59 || second < 0 || second > 59) {
        return {};
    }
    char date[64];
    std::snprintf(date, sizeof date, "%04d-%02d-%02d %02d:%02d:%02d", year, number, day,
                  hour % 12 + (isAfternoon(half) ? 12 : 0), minute, second);
    return date == std::string(kEpoch) ? std::string() : date;
}

/// The set's id in those of its items; empty when they do not agree. A photo's own id holds no "_".
std::string setIdOf(const std::vector<Item>& items) {
    std::string id;
    for (const Item& item : items) {
        const std::string::size_type end = item.id.find('_');
        const std::string own = end == std::string::npos ? std::string() : item.id.substr(end + 1);
        if (own.empty() || (!id.empty() && own != id)) return {};
        id = own;
    }
    return id == kNoSetId ? std::string() : id;
}

/// Marks the items whose photo a set before theirs holds, too; which these are is part of a set's digest.
void markPhotosAgain(std::vector<Set>& sets) {
    std::unordered_set<std::string> photos;
    for (Set& set : sets) {
        std::string again;
        for (Item& item : set.items) {
            if (!item.isPlaced) continue;
            std::string photo = item.id.substr(0, item.id.find('_'));
            item.isAgain = !photos.insert(photo).second;
            if (item.isAgain) again += joined({photo});
        }
        if (!again.empty()) set.digest = hashOf(set.digest + again);
    }
}

/// A field of a description when the description has it, otherwise what is known without it.
std::string preferred(const std::string& fromRecord, const std::string& known) {
    return fromRecord.empty() ? known : fromRecord;
}

}  // namespace

std::string hashOf(const std::string& text) {
    char digits[17];
    std::snprintf(digits, sizeof digits, "%016llx",
                  static_cast<unsigned long long>(XXH3_64bits(text.data(), text.size())));
    return digits;
}

std::vector<Set> Catalogue::sets() {
    std::vector<Set> sets = database_ ? setsOfDatabase() : setsOfDescriptions();
    std::sort(sets.begin(), sets.end(), [](const Set& a, const Set& b) {
        const bool aLoose = a.id == kNoSetId, bLoose = b.id == kNoSetId;
        if (aLoose != bLoose) return bLoose;
        return std::make_pair(nameKey(a.title), a.id) < std::make_pair(nameKey(b.title), b.id);
    });
    markPhotosAgain(sets);
    return sets;
}

std::vector<Set> Catalogue::setsOfDatabase() {
    std::vector<Set> sets;
    std::map<std::string, std::size_t> places;
    for (const FolderRow& row : database_->folders()) {
        places[row.id] = sets.size();
        Set set;
        set.id = row.id;
        set.title = row.serviceName;
        set.folder = row.deviceName;
        sets.push_back(std::move(set));
    }
    database_->forEachItem([&](const ItemRow& row) {
        const auto place = places.find(row.setId);
        if (place == places.end()) return;
        Set& set = sets[place->second];
        Item item;
        item.isPlaced = row.folder == set.folder;
        item.id = row.id;
        item.title = withoutMediaExtension(row.name);
        item.file = nameOf(row.mediaPath);
        const std::string thumbnail = thumbnailPath(row, device_.thumbnailWord());
        item.thumbnail = thumbnail.substr(row.folder.empty() ? 0 : row.folder.size() + 1);
        item.uploaded = plainDate(row.created);
        item.updated = plainDate(row.updated);
        item.isVideo = row.type == "FlickrVideo";
        item.stamp =
            hashOf(joined({row.id, row.name, row.mediaPath, thumbnail, row.created, row.updated, row.type}));
        set.items.push_back(std::move(item));
    });
    for (Set& set : sets) {
        const bool there = set.folder.empty() || device_.isFolder(set.folder);
        finish(set, there ? device_.readDescription(set.folder, kFolderDescription) : std::string());
    }
    return sets;
}

std::vector<Set> Catalogue::setsOfDescriptions() {
    std::vector<Set> sets;
    Set loose;
    loose.id = loose.title = kNoSetId;
    listDescriptions(loose);
    finish(loose, "");
    if (!loose.items.empty()) sets.push_back(std::move(loose));
    device_.listFolder("", [&](const std::string& name) {
        if (name.front() == '.' || device_.isSystemWord(name) || !device_.isFolder(name)) return;
        const std::string description = device_.readDescription(name, kFolderDescription);
        Set set;
        set.folder = name;
        listDescriptions(set);
        set.id = preferred(descriptionField(description, "ID"), setIdOf(set.items));
        if (set.id.empty()) return;
        set.title = preferred(descriptionField(description, "Title"),
                              preferred(descriptionField(description, "Name"), name));
        finish(set, description);
        sets.push_back(std::move(set));
    });
    return sets;
}

/// Lists the items whose descriptions stand in the set's folder and whose files do, too.
void Catalogue::listDescriptions(Set& set) {
    const std::string descriptions = joinPath(set.folder, kDescriptionFolder);
    if (!device_.isFolder(descriptions)) return;
    device_.listFolder(descriptions, [&](const std::string& name) {
        const NameParts parts = splitName(name);
        if (name.front() == '.' || parts.extension != kDescriptionExtension) return;
        if (!device_.isFile(joinPath(set.folder, parts.base))) return;
        const std::string description = device_.readDescription(set.folder, name);
        Item item;
        item.id = descriptionField(description, "ID");
        if (item.id.empty()) return;
        item.title = preferred(descriptionField(description, "Title"),
                               withoutMediaExtension(descriptionField(description, "FileName")));
        item.file = parts.base;
        item.thumbnail = descriptionField(description, "ThumbnailName");
        item.isVideo = descriptionField(description, "MediaType") == "video";
        item.stamp = hashOf(joined({name, description}));
        set.items.push_back(std::move(item));
    });
}

/// Sorts the items and takes the digest; the cover is the recorded one, or the first item's thumbnail.
void Catalogue::finish(Set& set, const std::string& folderDescription) {
    std::sort(set.items.begin(), set.items.end(), [](const Item& a, const Item& b) { return a.id < b.id; });
    addVersions(set);
    std::string text = joined({set.id, set.title, set.folder, folderDescription});
    for (const Item& item : set.items) text += joined({item.id, item.stamp});
    set.digest = hashOf(text);

    const auto thumbnail = [&](const Item& item) { return joinPath(set.folder, item.thumbnail); };
    set.cover = descriptionField(folderDescription, "CoverImage");
    if (!holds(set.cover)) set.cover = set.items.empty() ? std::string() : thumbnail(set.items.front());
    for (const Item& item : set.items) {
        if (thumbnail(item) == set.cover && !item.isVideo) set.coverFile = joinPath(set.folder, item.file);
    }
}

/// Older versions are what the ledger says, with a database or without.
void Catalogue::addVersions(Set& set) {
    if (!versions_) {
        versions_.emplace();
        for (const Version& version : versionsOn(device_)) (*versions_)[version.item].push_back(version.path);
    }
    for (Item& item : set.items) {
        const auto found = versions_->find(item.id);
        if (found == versions_->end()) continue;
        std::string text = joined({item.stamp});
        for (auto path = found->second.rbegin(); path != found->second.rend(); ++path) {
            if (folderOf(folderOf(*path)) != set.folder) continue;
            item.versions.push_back(joinPath(kVersionFolder, nameOf(*path)));
            text += joined({nameOf(*path)});
        }
        item.stamp = hashOf(text);
    }
}

/// True when the path, wherever it comes from, names a file in the service folder.
bool Catalogue::holds(const std::string& path) {
    try {
        Device::checkPath(path);
        return device_.isFile(path);
    } catch (DeviceException&) {
        return false;
    }
}

void Catalogue::complete(const Set& set, Item& item) {
    const std::string description = device_.readDescription(set.folder, item.file + kDescriptionExtension);
    item.taken = preferred(plainDate(descriptionField(description, "Taken")),
                           takenDate(descriptionField(description, "DateTaken")));
    item.uploaded = preferred(plainDate(descriptionField(description, "Uploaded")), item.uploaded);
    item.updated = preferred(plainDate(descriptionField(description, "DateUpdated")), item.updated);
    item.description = descriptionField(description, "Description");
    item.tags = descriptionValues(description, "Tag");
    item.thumbnail = preferred(descriptionField(description, "ThumbnailName"), item.thumbnail);
}

}  // namespace flickr_standin
