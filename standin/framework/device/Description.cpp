#include "standin/framework/device/Description.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "standin/framework/base/Text.h"

namespace flickr_standin {

namespace {

constexpr std::pair<char, const char*> kEscapes[] = {
    {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\r', "&#13;"}};

/// Text as XML 1.0 holds it; what it cannot hold becomes "_".
std::string escaped(const std::string& text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return c >= 0x20 && c < 0x7f && c != '&' && c != '<' && c != '>' && c != '"';
    });
    if (plain) return text;

    std::string result;
    for (const char c : validUtf8(text)) {
        const char* replacement = nullptr;
        for (const auto& [character, escape] : kEscapes) {
            if (c == character) replacement = escape;
        }
        if (replacement) {
            result += replacement;
        } else {
            const bool allowed = static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n';
            result += allowed ? c : '_';
        }
    }
    // U+FFFE and U+FFFF are characters to UTF-8 but not to XML.
    for (const char* forbidden : {"\xef\xbf\xbe", "\xef\xbf\xbf"}) {
        for (std::string::size_type at; (at = result.find(forbidden)) != std::string::npos;) {
            result.replace(at, 3, "_");
        }
    }
    return result;
}

std::string unescaped(std::string text) {
    for (std::string::size_type at = 0; (at = text.find('&', at)) != std::string::npos; ++at) {
        for (const auto& [character, escape] : kEscapes) {
            const std::string name = escape;
            if (text.compare(at, name.size(), name) == 0) {
                text.replace(at, name.size(), 1, character);
                break;
            }
        }
    }
    return text;
}

std::string element(const std::string& name, const std::string& value) {
    return "  <" + name + ">" + escaped(value) + "</" + name + ">\n";
}

/// Where the value of a field stands in a description, looked for from a position on: its first byte and its
/// length.
std::pair<std::string::size_type, std::string::size_type> find(const std::string& description,
                                                               const std::string& field,
                                                               std::string::size_type from = 0) {
    const std::string open = "<" + field + ">";
    const std::string::size_type at = description.find(open, from);
    if (at == std::string::npos) return {std::string::npos, 0};
    const std::string::size_type begin = at + open.size();
    const std::string::size_type end = description.find('<', begin);
    if (end == std::string::npos) return {std::string::npos, 0};
    return {begin, end - begin};
}

}  // namespace

DescriptionWriter::DescriptionWriter(const char* root)
    : root_(root), text_("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<" + root_ + ">\n") {}

void DescriptionWriter::field(const std::string& name, const std::string& value) {
    text_ += element(name, value);
}

void DescriptionWriter::list(const std::string& name, const std::string& entry,
                             const std::vector<std::string>& values) {
    text_ += "  <" + name + ">\n";
    for (const std::string& value : values) {
        text_ += "    <" + entry + ">" + escaped(value) + "</" + entry + ">\n";
    }
    text_ += "  </" + name + ">\n";
}

std::string DescriptionWriter::finished() && {
    return std::move(text_) + "</" + root_ + ">\n";
}

std::string descriptionField(const std::string& description, const std::string& field) {
    const auto [begin, length] = find(description, field);
    return begin == std::string::npos ? std::string() : unescaped(description.substr(begin, length));
}

std::vector<std::string> descriptionValues(const std::string& description, const std::string& field) {
    std::vector<std::string> values;
    for (auto [begin, length] = find(description, field); begin != std::string::npos;
         std::tie(begin, length) = find(description, field, begin + length)) {
        values.push_back(unescaped(description.substr(begin, length)));
    }
    return values;
}

std::string withDescriptionField(const std::string& description, const std::string& field,
                                 const std::string& value) {
    const auto [begin, length] = find(description, field);
    if (begin == std::string::npos) return description;
    return std::string(description).replace(begin, length, escaped(value));
}

std::string withNewField(const std::string& description, const std::string& field, const std::string& value) {
    const std::string::size_type end = description.rfind("</");
    if (end == std::string::npos) return description;
    return std::string(description).insert(end, element(field, value));
}

}  // namespace flickr_standin
