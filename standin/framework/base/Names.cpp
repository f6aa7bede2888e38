#include "standin/framework/base/Names.h"

#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Text.h"

namespace flickr_standin {

namespace {

constexpr const char* kAsideSuffix = "_Old";
constexpr const char* kMomentForm = "%Y%m%dT%H%M%SZ-";

// An extension longer than this, in bytes with its dot, is taken for a part of the title.
constexpr std::size_t kLongestExtension = 16;

// Room for what follows the base name of a thumbnail besides "_" and the item's id: "_Old" and ".webp"; the
// extension of a description, ".xml", is no longer than that.
constexpr std::size_t kThumbnailRoom = 10;

bool isForbidden(std::int32_t character) {
    if (character < 0x20 || character == 0x7f) return true;
    if (character >= 0xfdd0 && character <= 0xfdef) return true;
    if ((character & 0xfffe) == 0xfffe) return true;
    return character < 0x80 &&
           std::string_view("<>:\"/\\|?*").find(static_cast<char>(character)) != std::string_view::npos;
}

std::string withoutEndBlanks(std::string name) {
    name.erase(name.find_last_not_of(" .") + 1);
    return name;
}

/// Position before which the name is one of Windows' devices, or npos.
std::string::size_type deviceNameEnd(const std::string& name) {
    const std::string::size_type dot = std::min(name.find('.'), name.size());
    std::string stem = name.substr(0, dot);
    stem.erase(stem.find_last_not_of(' ') + 1);
    std::transform(stem.begin(), stem.end(), stem.begin(),
                   [](unsigned char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    static constexpr std::string_view kDevices[] = {"CON",    "PRN",     "AUX",   "NUL",
                                                    "CONIN$", "CONOUT$", "CLOCK$"};
    if (std::find(std::begin(kDevices), std::end(kDevices), stem) != std::end(kDevices)) return stem.size();
    if (startsWith(stem, "COM") || startsWith(stem, "LPT")) {
        static constexpr std::string_view kDigits[] = {"0", "1", "2", "3",      "4",      "5",     "6",
                                                       "7", "8", "9", "\u00b9", "\u00b2", "\u00b3"};
        const std::string_view rest = std::string_view(stem).substr(3);
        if (std::find(std::begin(kDigits), std::end(kDigits), rest) != std::end(kDigits)) return stem.size();
    }
    return std::string::npos;
}

/// The end of the name that counts as its file extension, with the dot; empty when it has none.
std::string fileExtension(const std::string& name) {
    const std::string::size_type dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return {};
    std::string extension = name.substr(dot);
    const bool plausible = extension.size() > 1 && extension.size() <= kLongestExtension &&
                           extension.find(' ') == std::string::npos;
    return plausible ? extension : std::string();
}

/// A safe name of at most limit bytes in all, from title, with suffix before the extension.
std::string fittedName(const std::string& title, const std::string& suffix, std::size_t limit,
                       const NameKeys& reserved) {
    std::string name = safeName(title);
    if (name[0] == '.') name.insert(0, 1, '_');

    const std::string extension = fileExtension(name);
    std::string base = name.substr(0, name.size() - extension.size());
    base = cutUtf8(base, limit - std::min(limit, suffix.size() + extension.size()));
    if (extension.empty()) base = withoutEndBlanks(base);
    name = base + suffix + extension;

    // The plug-in puts "_Old" before the last dot, wherever that is.
    NameParts parts = splitName(name);
    const std::string ending = nameKey(kAsideSuffix);
    const std::string key = nameKey(parts.base);
    const bool aside =
        key.size() >= ending.size() && key.compare(key.size() - ending.size(), ending.size(), ending) == 0;
    if (aside || reserved.count(nameKey(name)) != 0) parts.base += "_";
    return safeName(parts.base + parts.extension);
}

std::string numberSuffix(long number) {
    return number < 2 ? std::string() : " (" + std::to_string(number) + ")";
}

}  // namespace

std::string newOwnName(const char* prefix) {
    static std::atomic<unsigned long> counter{0};
    return prefix + std::to_string(::getpid()) + "-" + std::to_string(++counter);
}

bool isOwnName(const std::string& name, const char* prefix) {
    const std::string::size_type start = std::strlen(prefix), dash = name.find('-', start);
    if (name.compare(0, start, prefix) != 0 || dash == std::string::npos) return false;
    const auto isNumber = [](const std::string& text) {
        return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    };
    return isNumber(name.substr(start, dash - start)) && isNumber(name.substr(dash + 1));
}

std::string safeName(const std::string& text) {
    std::string name = withoutEndBlanks(withoutCharacters(text, isForbidden));
    const std::string::size_type device = deviceNameEnd(name);
    if (device != std::string::npos) name.insert(device, 1, '_');
    if (name.size() > kLongestName) {
        const std::string extension = fileExtension(name);
        name = cutUtf8(name.substr(0, name.size() - extension.size()), kLongestName - extension.size());
        name = extension.empty() ? withoutEndBlanks(name) : name + extension;
    }
    return name.empty() ? "_" : name;
}

std::string nameKey(const std::string& name) {
    return folded(name, UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE);
}

bool isBackupName(const std::string& name) {
    if (!isPlainName(name) || name.size() > kLongestName) return false;
    const auto first = static_cast<unsigned char>(name[0]);
    if (first != '.' && first < 0x80) return true;  // most are so, and their keys need no look
    const std::string key = nameKey(name);
    return key != kDescriptionFolder && key != kVersionFolder && !startsWith(key, kPartPrefix) &&
           !startsWith(key, kKeptPrefix);
}

NameParts splitName(const std::string& name) {
    const std::string::size_type dot = std::min(name.rfind('.'), name.size());
    return {name.substr(0, dot), name.substr(dot)};
}

std::string withoutMediaExtension(const std::string& title) {
    const NameParts parts = splitName(title);
    return parts.extension == ".jpg" || parts.extension == ".mp4" ? parts.base : title;
}

std::string asideName(const std::string& name) {
    const NameParts parts = splitName(name);
    return parts.base + kAsideSuffix + parts.extension;
}

std::string versionName(const std::string& name, std::time_t replaced) {
    std::tm utc = {};
    ::gmtime_r(&replaced, &utc);
    char moment[32];
    std::strftime(moment, sizeof moment, kMomentForm, &utc);
    return safeName(moment + name);
}

std::optional<std::time_t> replacedAt(const std::string& versionName) {
    std::tm utc = {};
    const char* const end = ::strptime(versionName.c_str(), kMomentForm, &utc);
    if (!end || *end == '\0' || !isPlainName(versionName) || versionName.size() > kLongestName) return {};
    const std::time_t moment = ::timegm(&utc);
    // There are more ways to write a moment than one.
    if (flickr_standin::versionName(end, moment) != versionName) return {};
    return moment;
}

std::string nameBeforeAside(const std::string& name) {
    const NameParts parts = splitName(name);
    const std::size_t suffix = std::strlen(kAsideSuffix);
    if (parts.base.size() <= suffix) return {};
    const std::size_t end = parts.base.size() - suffix;
    return parts.base.compare(end, suffix, kAsideSuffix) == 0 ? parts.base.substr(0, end) + parts.extension
                                                              : std::string();
}

std::string itemName(const std::string& title, const std::string& itemId, long number,
                     const NameKeys& reserved) {
    const std::size_t room = std::min(itemId.size() + kThumbnailRoom, kLongestName / 2);
    return fittedName(title, numberSuffix(number), kLongestName - room, reserved);
}

std::string folderName(const std::string& title, long number, const NameKeys& reserved) {
    return fittedName(title, numberSuffix(number), kLongestName - kThumbnailRoom, reserved);
}

}  // namespace flickr_standin
