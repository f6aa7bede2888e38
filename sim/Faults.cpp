#include "sim/Faults.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/StringTokenizer.h>

#include <algorithm>
#include <map>
#include <memory>

#include "sim/RestApi.h"

namespace flickr_sim {

bool Match::operator()(const Request& request) const {
    if (request.kind == Kind::Control) return false;
    return (!kind || request.kind == *kind) && (method.empty() || request.method == method) &&
           (itemId.empty() || request.itemId == itemId) &&
           (targetPart.empty() || request.target.find(targetPart) != std::string::npos) &&
           (!where || where(request));
}

Match rest(std::string method, std::string itemId) {
    return Match{Kind::Rest, std::move(method), std::move(itemId), "", nullptr};
}

Match media(std::string itemId) {
    return Match{Kind::Media, "", std::move(itemId), "", nullptr};
}

Match thumbnail(std::string itemId) {
    return Match{Kind::Thumbnail, "", std::move(itemId), "", nullptr};
}

Schedule always() {
    return Schedule();
}

Schedule nth(std::uint64_t n) {
    return Schedule{n, 1, 1, 1.0};
}

Schedule firstTimes(std::uint64_t count) {
    return Schedule{1, count, 1, 1.0};
}

Schedule from(std::uint64_t n) {
    return Schedule{n, UINT64_MAX, 1, 1.0};
}

namespace fault {

namespace {

void removeHeader(Reply& reply, const std::string& name) {
    reply.headers.erase(std::remove_if(reply.headers.begin(), reply.headers.end(),
                                       [&](const auto& header) { return header.first == name; }),
                        reply.headers.end());
}

void replaceHeader(Reply& reply, const std::string& name, std::string value) {
    removeHeader(reply, name);
    reply.headers.emplace_back(name, std::move(value));
}

void setBody(Reply& reply, int status, const char* type, std::string body) {
    reply.status = status;
    reply.body = Content::bytes(std::move(body));
    replaceHeader(reply, "Content-Type", type);
}

Action redirectTo(std::function<std::string(const Request&)> location, int status) {
    return [=](const Request& request, Reply& reply) {
        setBody(reply, status, "text/html", "<html><body>" + reasonOf(status) + "</body></html>\n");
        replaceHeader(reply, "Location", location(request));
    };
}

}  // namespace

Action status(int code) {
    return [=](const Request&, Reply& reply) {
        setBody(reply, code, "text/html",
                "<html><body><h1>" + std::to_string(code) + ' ' + reasonOf(code) + "</h1></body></html>\n");
    };
}

Action serviceError(int code, std::string message) {
    return body(failAnswer(code, message));
}

Action dropBeforeHeader(Close close) {
    return [=](const Request&, Reply& reply) {
        reply.status = 0;
        reply.reset = close == Close::Reset;
    };
}

Action dropInHeader(std::uint64_t bytes, Close close) {
    return [=](const Request&, Reply& reply) {
        reply.headerLimit = bytes;
        reply.reset = close == Close::Reset;
    };
}

Action dropInBody(std::uint64_t bytes, Close close) {
    return [=](const Request&, Reply& reply) {
        reply.bodyLimit = bytes;
        reply.reset = close == Close::Reset;
    };
}

Action shortBody(std::uint64_t missing) {
    return [=](const Request&, Reply& reply) {
        const std::uint64_t size = reply.body.size();
        reply.bodyLimit = size - std::min(missing, size);
    };
}

Action truncated(std::uint64_t bytes) {
    return edited([=](std::string body) { return body.substr(0, bytes); });
}

Action slow(std::size_t bytes, std::chrono::milliseconds wait) {
    return [=](const Request&, Reply& reply) {
        reply.blockSize = std::max<std::size_t>(bytes, 1);
        reply.blockDelay = wait;
    };
}

Action body(std::string bytes) {
    return [content = Content::bytes(std::move(bytes))](const Request&, Reply& reply) {
        reply.status = 200;
        reply.body = content;
    };
}

Action malformed() {
    return edited([](std::string body) { return body.substr(0, body.size() / 2); });
}

Action edited(std::function<std::string(std::string)> change) {
    return [=](const Request&, Reply& reply) { reply.body = Content::bytes(change(reply.body.text())); };
}

Action framing(Framing framing) {
    return [=](const Request&, Reply& reply) { reply.framing = framing; };
}

Action contentLength(std::vector<std::string> values) {
    return [=](const Request&, Reply& reply) { reply.announcedLengths = values; };
}

Action redirect(std::string location, int status) {
    return redirectTo([=](const Request&) { return location; }, status);
}

Action redirectToSelf(int status) {
    return redirectTo([](const Request& request) { return request.target; }, status);
}

Action redirectForever(int status) {
    const auto hop = std::make_shared<std::atomic<std::uint64_t>>(0);
    return redirectTo(
        [=](const Request& request) { return request.path + "?turn=" + std::to_string(++*hop); }, status);
}

Action retryAfter(std::uint64_t seconds) {
    return
        [=](const Request&, Reply& reply) { replaceHeader(reply, "Retry-After", std::to_string(seconds)); };
}

Action ignoreRange() {
    return [](const Request&, Reply& reply) {
        if (!reply.whole) return;
        reply.status = 200;
        reply.body = reply.whole;
        removeHeader(reply, "Content-Range");
    };
}

Action weakTag() {
    return [](const Request&, Reply& reply) {
        for (auto& [name, value] : reply.headers) {
            if (name == "ETag") value = "W/" + value;
        }
    };
}

Action hugeHeader(std::uint64_t bytes) {
    return raw([=](const Request&, Wire& wire) {
        const std::string line = "X-Filling: " + std::string(8000, 'x') + "\r\n";
        wire.write("HTTP/1.1 200 OK\r\n");
        for (std::uint64_t sent = 0; sent < bytes; sent += line.size()) {
            if (!wire.write(line)) return;
        }
        wire.write("Content-Length: 2\r\nConnection: close\r\n\r\nok");
    });
}

Action raw(std::string bytes) {
    return raw([=](const Request&, Wire& wire) { wire.write(bytes); });
}

Action raw(std::function<void(const Request&, Wire&)> writer) {
    return [=](const Request&, Reply& reply) { reply.raw = writer; };
}

}  // namespace fault

namespace {

/// The keys and values of a fault's text; what is taken is no longer there.
class Pairs {
public:
    explicit Pairs(const std::string& text) {
        const Poco::StringTokenizer parts(
            text, ",", Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY);
        for (const std::string& part : parts) {
            const std::size_t equals = part.find('=');
            if (equals == std::string::npos) {
                throw Poco::SyntaxException("A fault is a list of key=value; this part has no '=': " + part);
            }
            values_[part.substr(0, equals)] = part.substr(equals + 1);
        }
    }

    bool take(const std::string& key, std::string& value) {
        const auto found = values_.find(key);
        if (found == values_.end()) return false;
        value = found->second;
        values_.erase(found);
        return true;
    }

    bool take(const std::string& key, std::uint64_t& value) {
        std::string text;
        if (!take(key, text)) return false;
        Poco::UInt64 number = 0;
        if (!Poco::NumberParser::tryParseUnsigned64(text, number)) throwBad(key, text, "a number");
        value = number;
        return true;
    }

    void requireNone() const {
        if (!values_.empty()) {
            throw Poco::SyntaxException("A fault has no key of this name: " + values_.begin()->first);
        }
    }

    [[noreturn]] static void throwBad(const std::string& key, const std::string& value,
                                      const std::string& wanted) {
        throw Poco::SyntaxException("The fault's " + key + " has to be " + wanted + ", not " + value);
    }

private:
    std::map<std::string, std::string> values_;
};

Match takeMatch(Pairs& pairs) {
    Match match;
    std::string kind;
    if (pairs.take("kind", kind)) {
        const std::map<std::string, Kind> kinds = {{"rest", Kind::Rest},
                                                   {"media", Kind::Media},
                                                   {"thumbnail", Kind::Thumbnail},
                                                   {"oauth", Kind::OAuth}};
        if (!kinds.count(kind)) Pairs::throwBad("kind", kind, "rest, media, thumbnail or oauth");
        match.kind = kinds.at(kind);
    }
    pairs.take("method", match.method);
    pairs.take("item", match.itemId);
    pairs.take("path", match.targetPart);
    return match;
}

Schedule takeSchedule(Pairs& pairs) {
    Schedule schedule;
    std::string rate;
    if (pairs.take("nth", schedule.first)) schedule.count = 1;
    pairs.take("from", schedule.first);
    pairs.take("count", schedule.count);
    if (pairs.take("every", schedule.every) && schedule.every == 0)
        Pairs::throwBad("every", "0", "at least 1");
    std::uint64_t seconds = 0;
    if (pairs.take("for", seconds)) {
        schedule.end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    }
    if (pairs.take("rate", rate) &&
        (!Poco::NumberParser::tryParseFloat(rate, schedule.rate) || schedule.rate < 0 || schedule.rate > 1)) {
        Pairs::throwBad("rate", rate, "between 0 and 1");
    }
    return schedule;
}

Action takeAction(Pairs& pairs) {
    std::string text;
    std::uint64_t number = 0;
    std::vector<Action> actions;
    if (pairs.take("status", number)) actions.push_back(fault::status(static_cast<int>(number)));
    if (pairs.take("error", number)) {
        actions.push_back(fault::serviceError(static_cast<int>(number), "Service currently unavailable"));
    }
    if (pairs.take("redirect", text)) {
        actions.push_back(text == "self" ? fault::redirectToSelf() : fault::redirect(text));
    }
    if (pairs.take("malformed", text)) actions.push_back(fault::malformed());
    if (pairs.take("drop", text)) {
        if (text == "before") {
            actions.push_back(fault::dropBeforeHeader());
        } else if (text == "header") {
            actions.push_back(fault::dropInHeader());
        } else if (text == "body") {
            actions.push_back(fault::dropInBody(1));
        } else {
            Pairs::throwBad("drop", text, "before, header or body");
        }
    }
    if (pairs.take("cut", number)) actions.push_back(fault::dropInBody(number));
    if (pairs.take("short", number)) actions.push_back(fault::shortBody(number));
    if (pairs.take("slow", text)) {
        const std::size_t slash = text.find('/');
        unsigned bytes = 0;
        unsigned wait = 0;
        if (slash == std::string::npos ||
            !Poco::NumberParser::tryParseUnsigned(text.substr(0, slash), bytes) ||
            !Poco::NumberParser::tryParseUnsigned(text.substr(slash + 1), wait)) {
            Pairs::throwBad("slow", text, "BYTES/MILLISECONDS");
        }
        actions.push_back(fault::slow(bytes, std::chrono::milliseconds(wait)));
    }
    if (pairs.take("length", text)) actions.push_back(fault::contentLength({text}));
    if (pairs.take("framing", text)) {
        if (text != "chunked" && text != "close") Pairs::throwBad("framing", text, "chunked or close");
        actions.push_back(fault::framing(text == "close" ? Framing::Close : Framing::Chunked));
    }
    if (pairs.take("retry-after", number)) actions.push_back(fault::retryAfter(number));
    if (pairs.take("ignore-range", text)) actions.push_back(fault::ignoreRange());
    if (pairs.take("weak-tag", text)) actions.push_back(fault::weakTag());
    if (pairs.take("headers", number)) actions.push_back(fault::hugeHeader(number));
    pairs.requireNone();
    if (actions.empty())
        throw Poco::SyntaxException("The fault does not say what is to happen, as in status=503");
    return [=](const Request& request, Reply& reply) {
        for (const Action& action : actions) action(request, reply);
    };
}

}  // namespace

Fault parseFault(const std::string& text) {
    Pairs pairs(text);
    Fault fault;
    fault.match = takeMatch(pairs);
    fault.schedule = takeSchedule(pairs);
    fault.action = takeAction(pairs);
    return fault;
}

std::size_t Faults::add(Match match, Schedule schedule, Action action) {
    return add(Fault{std::move(match), schedule, std::move(action)});
}

std::size_t Faults::add(Fault fault) {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.push_back({std::move(fault)});
    any_ = true;
    return faults_.size() - 1;
}

std::uint64_t Faults::hits(std::size_t number) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return faults_.at(number).hits;
}

void Faults::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.clear();
    any_ = false;
}

void Faults::apply(const Request& request, Reply& reply) {
    if (!any_) return;
    std::vector<Action> actions;  // called without the lock: they may take long, and add faults
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (Active& active : faults_) {
            if (!active.fault.match(request)) continue;
            const Schedule& when = active.fault.schedule;
            ++active.seen;
            if (active.seen < when.first || active.hits >= when.count) continue;
            if (std::chrono::steady_clock::now() >= when.end) continue;
            if ((active.seen - when.first) % when.every != 0) continue;
            if (when.rate < 1 && std::uniform_real_distribution<>(0, 1)(random_) >= when.rate) continue;
            ++active.hits;
            actions.push_back(active.fault.action);
        }
    }
    for (const Action& action : actions) action(request, reply);
}

}  // namespace flickr_sim
