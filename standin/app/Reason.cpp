#include "standin/app/Reason.h"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>

#include "standin/framework/base/Text.h"
#include "standin/framework/run/RunJournal.h"

namespace flickr_app {

using namespace flickr_standin;

namespace {

/// Takes the place in the code off the front: "Exception occurred in NAME(): ", and the kind of exception.
void removeOrigin(std::string& text) {
    constexpr std::string_view kOrigin = "Exception occurred in ";
    while (startsWith(text, kOrigin)) {
        // "Type::name(): ", "name() : " or "Some Activity : "
        std::size_t end = text.find(": ", kOrigin.size());
        const std::size_t call = text.find("():", kOrigin.size());
        if (call != std::string::npos && call < end) end = call + 2;
        if (end == std::string::npos) return;
        text.erase(0, text.find_first_not_of(" :", end));
    }
    for (const std::string_view kind : {"Exception: ", "Net Exception: ", "Message Exception: ",
                                        "HTTP Exception: ", "SSL Exception: ", "I/O error: "}) {
        if (startsWith(text, kind)) text.erase(0, kind.size());
    }
}

bool isXmlError(const std::string& text) {
    const std::size_t line = text.find(" in line ");
    return line != std::string::npos && text.find(" column ", line) != std::string::npos;
}

}  // namespace

std::string plainReason(const std::string& text) {
    std::string reason = text;
    // A reason inside another: what failed stands in front, why behind.
    if (startsWith(reason, kRenditionsReason)) {
        const std::string inner = plainReason(reason.substr(kRenditionsReason.size()));
        if (inner == kNoFileReason) return "The service offers no file of it";
        return "The service does not say where its files are (" + inner + ")";
    }
    removeOrigin(reason);
    const std::pair<std::string_view, std::string_view> ofPeer[] = {
        {"Connection refused: ", " refuses the connection"},
        {"Timeout: ", " does not answer"},
        {"Connection reset by peer: ", " has cut the connection"},
        {"Connection aborted by peer: ", " has cut the connection"},
        {"No message received: ", " has ended the connection without an answer"}};
    for (const auto& [start, end] : ofPeer) {
        if (startsWith(reason, start)) return reason.substr(start.size()) + std::string(end);
    }
    constexpr std::string_view kHost = "Host not found: ";
    if (startsWith(reason, kHost)) return "There is no host " + reason.substr(kHost.size());
    if (startsWith(reason, kStatusReason)) {
        return "The service answers with status " + reason.substr(kStatusReason.size());
    }
    if (startsWith(reason, kAddressReason)) {
        return "It cannot be fetched from " + reason.substr(kAddressReason.size());
    }
    if (reason == kNoListReason) return "The service gives no list";
    if (isXmlError(reason)) return "The service's answer is cut off or garbled";
    if (!reason.empty()) {
        reason.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(reason.front())));
    }
    return reason;
}

std::string whyNotBegun(const Poco::Exception& exception) {
    const std::string text = exception.message().empty() ? exception.displayText() : exception.message();
    const bool isDamaged = exception.code() == SQLITE_NOTADB || exception.code() == SQLITE_CORRUPT;
    // The other database of a device says itself what helps.
    if (!isDamaged || !startsWith(text, "The database ")) return text;
    return text + "; flickr-backup rebuild makes it anew";
}

}  // namespace flickr_app
