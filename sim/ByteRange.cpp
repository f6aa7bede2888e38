#include "sim/ByteRange.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/NumberParser.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <optional>

namespace flickr_sim {

namespace {

struct Range {
    std::uint64_t first;
    std::uint64_t last;  // of the bytes, included; before first: the file ends before the range
};

/// "bytes=FIRST-LAST", "bytes=FIRST-" or "bytes=-COUNT".
std::optional<Range> parseRange(const std::string& text, std::uint64_t size) {
    const std::size_t hyphen = text.find('-');
    if (text.compare(0, 6, "bytes=") != 0 || hyphen == std::string::npos) return std::nullopt;
    const std::string from = text.substr(6, hyphen - 6);
    const std::string to = text.substr(hyphen + 1);
    Poco::UInt64 first = 0;
    Poco::UInt64 last = size;
    if (from.empty()) {
        if (!Poco::NumberParser::tryParseUnsigned64(to, last)) return std::nullopt;
        first = size - std::min<std::uint64_t>(last, size);
        return Range{last == 0 ? size : first, size - 1};
    }
    if (!Poco::NumberParser::tryParseUnsigned64(from, first) ||
        (!to.empty() && (!Poco::NumberParser::tryParseUnsigned64(to, last) || last < first))) {
        return std::nullopt;
    }
    return Range{first, std::min<std::uint64_t>(last, size - 1)};
}

}  // namespace

void offerRanges(const Request& request, Reply& reply, const std::string& tag, std::time_t changed) {
    const std::string quoted = '"' + tag + '"';
    const std::string date = Poco::DateTimeFormatter::format(Poco::Timestamp::fromEpochTime(changed),
                                                             Poco::DateTimeFormat::HTTP_FORMAT);
    reply.headers.emplace_back("ETag", quoted);
    reply.headers.emplace_back("Last-Modified", date);
    reply.headers.emplace_back("Accept-Ranges", "bytes");

    const std::string condition = request.header("If-Range");
    if (!condition.empty() && condition != quoted && condition != date) return;
    const std::uint64_t size = reply.body.size();
    const auto range = parseRange(request.header("Range"), size);
    if (!range) return;
    reply.whole = reply.body;
    const std::string total = '/' + std::to_string(size);
    if (size == 0 || range->first > range->last) {
        reply.status = 416;
        reply.body = Content::bytes("");
        reply.headers.emplace_back("Content-Range", "bytes *" + total);
        return;
    }
    reply.status = 206;
    reply.body = reply.whole.part(range->first, range->last - range->first + 1);
    reply.headers.emplace_back(
        "Content-Range", "bytes " + std::to_string(range->first) + '-' + std::to_string(range->last) + total);
}

}  // namespace flickr_sim
