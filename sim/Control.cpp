#include "sim/Control.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <memory>

#include "sim/TodayOrders.h"

namespace flickr_sim {

namespace {

constexpr std::uint64_t kUsualBytes = 20000;

std::string firstSet(const Account& account) {
    const std::vector<Account::Set> sets = account.sets();
    if (sets.empty()) throw Poco::NotFoundException("the account has no set");
    return sets.front().id;
}

std::string setOf(const Request& order, const char* name, const Account& account) {
    const std::string id = order.parameter(name);
    if (id == "none") return std::string();
    return id.empty() ? firstSet(account) : id;
}

std::string itemOf(const Request& order, const Account& account) {
    const std::string id = order.parameter("id");
    if (!id.empty()) return id;
    const Account::Page page = account.page(firstSet(account), 0, 1);
    if (page.items.empty()) throw Poco::NotFoundException("the first set has no item");
    return page.items.front()->id;
}

std::string titleOf(const Request& order) {
    if (!order.parameters.count("title")) throw Poco::SyntaxException("the order needs title=TEXT");
    return order.parameter("title");
}

std::uint64_t bytesOf(const Request& order) {
    const std::string text = order.parameter("bytes");
    Poco::UInt64 bytes = kUsualBytes;
    if (!text.empty() && !Poco::NumberParser::tryParseUnsigned64(text, bytes)) {
        throw Poco::SyntaxException("bytes has to be a number", text);
    }
    return bytes;
}

Content newContent(bool isVideo, int width, int height, std::uint64_t bytes, std::time_t now,
                   const std::string& mark) {
    if (isVideo) return Content::video(bytes, static_cast<std::uint64_t>(now));
    return Content::picture(static_cast<unsigned>(now), width, height, mark + ' ' + std::to_string(now),
                            bytes);
}

std::string add(const Request& order, Account& account, std::time_t now) {
    const bool isVideo = order.parameter("media") == "video";
    Item item = isVideo ? video(titleOf(order), now) : photo(titleOf(order), now);
    item.uploaded = now;
    item.width = 320;
    item.height = 240;
    item.content = newContent(isVideo, item.width, item.height, bytesOf(order), now, item.title);
    return account.addItem(setOf(order, "set", account), std::move(item));
}

std::string edit(const Request& order, Account& account, std::time_t now) {
    const std::string id = itemOf(order, account);
    const std::uint64_t bytes = bytesOf(order);
    account.change(id, [&](Item& item) {
        item.updated = std::max(now, item.updated + 1);
        item.width = 320;
        item.height = 240;
        item.content = newContent(item.isVideo, item.width, item.height, bytes, item.updated, item.title);
        if (!item.isVideo) item.extension = "jpg";
    });
    return id;
}

std::string list(const Account& account) {
    std::string text;
    const auto addItems = [&](const std::string& setId) {
        for (const Account::ItemPtr& item : account.items(setId)) {
            text += (item->isVideo ? "  video " : "  photo ") + item->id + ' ' + item->title + '\n';
        }
    };
    for (const Account::Set& set : account.sets()) {
        text += "set " + set.id + ' ' + set.title + '\n';
        addItems(set.id);
    }
    text += "no set\n";
    addItems("");
    return text;
}

/// Keeps an order until a page of a list of items is asked for.
std::string keepForPage(const Request& order, const Controls& controls) {
    Request kept;
    if (!parseRequest("GET /sim/" + order.parameter("order") + " HTTP/1.1", kept)) {
        throw Poco::SyntaxException("order has to be an order, encoded");
    }
    kept.parameters["word"] = order.parameter("word");
    const auto isDone = std::make_shared<std::atomic<bool>>(false);
    controls.log.onRequest([controls, kept, isDone, page = order.parameter("page")](const Request& request) {
        if (request.kind != Kind::Rest || request.parameter("page") != page || isDone->exchange(true)) return;
        obey(kept, controls);
    });
    return "kept";
}

std::string carryOut(const std::string& name, const Request& order, const Controls& controls) {
    Account& account = controls.account;
    const std::time_t now = std::time(nullptr);
    std::string id;
    if (name == "counts") return toJson(controls.log.counts());
    if (name == "list") return list(account);
    if (name == "add") return add(order, account, now);
    if (name == "edit") return edit(order, account, now);
    if (name == "add-set") return account.addSet(titleOf(order));
    if (name == "retitle") {
        account.change(id = itemOf(order, account), [&](Item& item) {
            item.title = titleOf(order);
            item.updated = std::max(now, item.updated + 1);
        });
    } else if (name == "rename-set") {
        account.renameSet(id = setOf(order, "id", account), titleOf(order));
    } else if (name == "add-to-set") {
        account.addToSet(setOf(order, "set", account), id = itemOf(order, account));
    } else if (name == "delete") {
        account.deleteItem(id = itemOf(order, account));
    } else if (name == "delete-set") {
        account.deleteSet(id = setOf(order, "id", account));
    } else if (name == "fault") {
        controls.faults.add(parseFault(order.parameter("spec")));
        id = "added";
    } else if (name == "clear-faults") {
        controls.faults.clear();
        id = "cleared";
    } else if (name == "reset-counts") {
        controls.log.clear();
        id = "reset";
    } else if (name == "before-page") {
        id = keepForPage(order, controls);
    } else if (const auto answer = carryOutToday(name, order, controls.today)) {
        id = *answer;
    } else {
        throw Poco::SyntaxException("there is no order of this name", name);
    }
    return id;
}

}  // namespace

Reply obey(const Request& order, const Controls& controls) {
    if (order.parameter("word") != controls.word) {
        return plainReply(403, "An order needs word=WORD, the second line of the ready file.\n");
    }
    try {
        std::string text = carryOut(order.path.substr(5), order, controls);
        if (text.empty() || text.back() != '\n') text += '\n';
        return plainReply(200, std::move(text));
    } catch (Poco::Exception& exception) {
        return plainReply(400, exception.message() + ".\n");
    }
}

}  // namespace flickr_sim
