#include "sim/TodayOrders.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>

#include <set>

namespace flickr_sim {

namespace {

/// The number of a parameter; unchanged when there is none.
void take(const Request& order, const char* name, std::int64_t least, std::int64_t& number) {
    const std::string text = order.parameter(name);
    if (text.empty()) return;
    Poco::Int64 read = 0;
    if (!Poco::NumberParser::tryParse64(text, read) || read < least) {
        throw Poco::SyntaxException(std::string(name) + " has to be a number of at least " +
                                    std::to_string(least));
    }
    number = read;
}

std::string setLimits(const Request& order, TodayApi& today) {
    const auto set = [&](RateLimit& limit, const char* name) {
        const Limit former = limit.get();
        std::int64_t requests = static_cast<std::int64_t>(former.requests);
        std::int64_t window = former.window.count();
        take(order, name, 0, requests);
        take(order, "window", 1, window);
        limit.set({static_cast<std::uint64_t>(requests), std::chrono::seconds(window)});
    };
    set(today.listLimit(), "list");
    set(today.mediaLimit(), "media");
    const std::string announce = order.parameter("retry-after");
    if (!announce.empty()) today.announceWait(announce != "0");
    return "set";
}

}  // namespace

std::optional<std::string> carryOutToday(const std::string& name, const Request& order, TodayApi* today) {
    static const std::set<std::string> kNames = {"sign-in", "expire-tokens", "clock", "limits"};
    if (kNames.count(name) == 0) return std::nullopt;
    if (today == nullptr) {
        throw Poco::SyntaxException("only today's service (--today) takes this order", name);
    }
    if (name == "limits") return setLimits(order, *today);
    if (name == "sign-in") {
        const bool allows = order.parameter("answer") != "deny";
        return today->oauth().decide(order.parameter("oauth_token"),
                                     allows ? OAuthProvider::Answer::Allow : OAuthProvider::Answer::Deny);
    }
    if (name == "clock") {
        std::int64_t offset = 0;
        take(order, "offset", INT32_MIN, offset);
        today->oauth().setClockOffset(offset);
        return "set";
    }
    today->oauth().expireTokens();
    return "expired";
}

}  // namespace flickr_sim
