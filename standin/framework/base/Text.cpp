#include "standin/framework/base/Text.h"

#include <Poco/Ascii.h>
#include <Poco/NumberParser.h>
#include <utf8proc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace flickr_standin {

namespace {

constexpr std::size_t kLongestText = 16 * 1024;

bool disturbsLine(utf8proc_int32_t character) {
    const utf8proc_category_t category = utf8proc_category(character);
    return category == UTF8PROC_CATEGORY_CC || category == UTF8PROC_CATEGORY_ZL ||
           category == UTF8PROC_CATEGORY_ZP || character == 0x61c || character == 0x200e ||
           character == 0x200f ||                           // direction marks
           (character >= 0x202a && character <= 0x202e) ||  // embeddings
           (character >= 0x2066 && character <= 0x2069);    // isolates
}

/// The character that begins at a place, and how many bytes it has; 0 for a byte that begins none.
struct Character {
    utf8proc_int32_t code = -1;
    std::size_t length = 0;
};

Character characterAt(const std::string& text, std::size_t at) {
    Character character;
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    const utf8proc_ssize_t length =
        utf8proc_iterate(bytes + at, static_cast<utf8proc_ssize_t>(text.size() - at), &character.code);
    if (length > 0) character.length = static_cast<std::size_t>(length);
    return character;
}

std::string escaped(utf8proc_int32_t character) {
    switch (character) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            break;
    }
    char text[16];
    std::snprintf(text, sizeof text, character < 0x100 ? "\\x%02x" : "\\u{%x}",
                  static_cast<unsigned>(character));
    return text;
}

}  // namespace

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

bool isAscii(const std::string& text) {
    return std::none_of(text.begin(), text.end(), [](unsigned char c) { return c >= 0x80; });
}

std::string folded(const std::string& text, int options) {
    if (isAscii(text)) {
        std::string small = text;
        std::transform(small.begin(), small.end(), small.begin(),
                       [](char c) { return static_cast<char>(Poco::Ascii::toLower(c)); });
        return small;
    }
    utf8proc_uint8_t* mapped = nullptr;
    const utf8proc_ssize_t length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                                 static_cast<utf8proc_ssize_t>(text.size()), &mapped,
                                                 static_cast<utf8proc_option_t>(options));
    const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(mapped, &std::free);
    if (length < 0) return folded(validUtf8(text), options);
    return {reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(length)};
}

std::string searchKey(const std::string& text) {
    std::string key = folded(text, UTF8PROC_STABLE | UTF8PROC_COMPAT | UTF8PROC_DECOMPOSE |
                                       UTF8PROC_CASEFOLD | UTF8PROC_STRIPMARK);
    // Letters that no rule of Unicode takes apart, and that a keyboard may not have.
    for (const auto& [letter, plain] :
         {std::pair("ł", "l"), {"ø", "o"}, {"đ", "d"}, {"ı", "i"}, {"æ", "ae"}, {"œ", "oe"}}) {
        for (std::size_t at = 0; (at = key.find(letter, at)) != std::string::npos;) key.replace(at, 2, plain);
    }
    return key;
}

std::string withoutCharacters(const std::string& text, bool (*isUnwanted)(std::int32_t character),
                              char sign) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        if (character.length == 0) {
            result += '_';
        } else if (isUnwanted(character.code)) {
            result += sign;
        } else {
            result.append(text, at, character.length);
        }
        at += std::max<std::size_t>(character.length, 1);
    }
    return result;
}

std::string validUtf8(const std::string& text) {
    if (isAscii(text)) return text;
    return withoutCharacters(text, [](std::int32_t) { return false; });
}

std::string cutUtf8(const std::string& text, std::size_t limit) {
    if (text.size() <= limit) return text;
    while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xc0) == 0x80) --limit;
    return text.substr(0, limit);
}

long wholeNumber(const std::string& text) {
    Poco::Int64 number = 0;
    return Poco::NumberParser::tryParse64(text, number) ? static_cast<long>(number) : 0;
}

std::string trimmed(std::string text) {
    constexpr const char* kWhiteSpace = " \t\n\r\v\f";
    text.erase(text.find_last_not_of(kWhiteSpace) + 1);
    text.erase(0, text.find_first_not_of(kWhiteSpace));
    return text;
}

std::string oneLine(const std::string& text) {
    const bool plain = std::all_of(text.begin(), text.end(),
                                   [](unsigned char c) { return c >= 0x20 && c < 0x7f && c != '\\'; });
    if (plain && text.size() <= kLongestText) return text;

    const std::string shown = cutUtf8(text, kLongestText);
    std::string line;
    line.reserve(shown.size());
    for (std::size_t at = 0; at < shown.size();) {
        const Character character = characterAt(shown, at);
        if (character.length == 0) {
            line += escaped(static_cast<unsigned char>(shown[at]));
        } else if (character.code == '\\') {
            line += "\\\\";
        } else if (disturbsLine(character.code)) {
            line += escaped(character.code);
        } else {
            line.append(shown, at, character.length);
        }
        at += std::max<std::size_t>(character.length, 1);
    }
    if (shown.size() < text.size()) {
        line += "... (" + std::to_string(text.size() - shown.size()) + " bytes left out)";
    }
    return line;
}

std::string printable(const std::string& text) {
    return withoutCharacters(text, disturbsLine, '?');
}

}  // namespace flickr_standin
