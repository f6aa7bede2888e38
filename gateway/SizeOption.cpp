#include "gateway/SizeOption.h"

#include <cctype>
#include <regex>

namespace flickr_gateway {

namespace {

// Each is 1024 times the one before.
constexpr const char* kUnits = "kmgt";
constexpr unsigned kBitsOfUnit = 10;

/// Puts the number of bytes in the text's place; gives what is wrong with it, or nothing.
std::string toBytes(std::string& text, std::uint64_t least) {
    static const std::regex size("([0-9]{1,12})(?:([kmgt])i?)?b?", std::regex::icase);
    std::smatch parts;
    if (!std::regex_match(text, parts, size)) {
        return "\"" + text + "\" is no size; give bytes as in 500k or 2MiB";
    }
    std::uint64_t bytes = std::stoull(parts[1]);
    if (parts[2].matched) {
        const char unit = static_cast<char>(std::tolower(static_cast<unsigned char>(parts[2].str()[0])));
        const auto place = std::string(kUnits).find(unit) + 1;
        const unsigned bits = kBitsOfUnit * static_cast<unsigned>(place);
        if (bytes > UINT64_MAX >> bits) return "\"" + text + "\" is more than any disk holds";
        bytes <<= bits;
    }
    if (bytes != 0 && bytes < least) return "give at least " + std::to_string(least) + " bytes";
    text = std::to_string(bytes);
    return {};
}

}  // namespace

void takeSize(CLI::Option& option, std::uint64_t least) {
    option.transform(CLI::Validator([least](std::string& text) { return toBytes(text, least); }, ""));
}

}  // namespace flickr_gateway
