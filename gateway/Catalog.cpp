#include "gateway/Catalog.h"

#include <Poco/NumberParser.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <tuple>

#include "gateway/PluginXml.h"

namespace flickr_gateway {

namespace {

constexpr unsigned kItemsPerPage = 500;
constexpr unsigned kThreads = 2;
// So many pages without a set in a row end the list of sets, whatever it announces.
constexpr std::size_t kEmptyPages = 3;
// What was asked for longer ago may have changed.
constexpr std::chrono::seconds kFresh{60};
constexpr std::chrono::milliseconds kLook{100};

template <typename Result>
Result await(const std::shared_future<Result>& future, const Catalog::Tick& tick) {
    while (future.wait_for(kLook) != std::future_status::ready) tick();
    try {
        return future.get();
    } catch (std::future_error&) {
        throw CancelledFailure();
    }
}

std::int64_t secondsOf(const std::string& text) {
    Poco::Int64 seconds = 0;
    return Poco::NumberParser::tryParse64(text, seconds) ? seconds : 0;
}

std::size_t countOf(const std::string& text) {
    unsigned count = 0;
    return Poco::NumberParser::tryParseUnsigned(text, count) ? count : 0;
}

KnownItem knownItem(const ListedItem& listed) {
    KnownItem item;
    item.id = listed.id;
    item.title = listed.title;
    item.lastUpdate = listed.lastUpdate;
    item.isVideo = listed.media == "video";
    if (const Rendition* thumbnail = thumbnailOf(listed.renditions)) item.renditions.thumbnail = *thumbnail;
    // The addresses of a video's list entry are those of its still picture.
    const Rendition* const best = item.isVideo ? nullptr : bestPicture(listed.renditions);
    if (best != nullptr) item.renditions.best = *best;
    item.settled = best != nullptr && best->label == "Original";
    return item;
}

}  // namespace

bool isPlainId(const std::string& id) {
    return !id.empty() && id.find_first_not_of(
                              "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                              "0123456789@_-") == std::string::npos;
}

Catalog::Catalog(ServiceClient& service, RenditionStore& store, const HttpTrust& trust, RateLimit& rate,
                 std::string userId, std::string mediaAddress, Expectation expectation, Plan plan)
    : service_(service),
      store_(store),
      mediaAddress_(std::move(mediaAddress)),
      expectation_(std::move(expectation)),
      plan_(std::move(plan)),
      userId_(std::move(userId)),
      errands_(kThreads, trust, rate) {}

std::string Catalog::setList(const Tick& tick) {
    const std::vector<ListedSet> sets =
        await(errands_.run([this](HttpClient& http, const Cancelled& cancelled) {
            return fetchSets(http, cancelled);
        }),
              tick);
    const std::lock_guard<std::mutex> lock(mutex_);
    announced_.clear();
    ahead_.clear();
    for (const ListedSet& set : sets) announced_[set.id] = countOf(set.photos) + countOf(set.videos);
    return setListXml(sets);
}

ServiceAnswer Catalog::askForSets(HttpClient& http, std::size_t page, const Cancelled& cancelled) {
    try {
        return service_.call(http, "flickr.photosets.getList",
                             {{"page", std::to_string(page)}, {"per_page", std::to_string(kItemsPerPage)}},
                             cancelled);
    } catch (Failure& failure) {
        // The plug-in takes every failure of this list for a sign-in that is refused.
        if (failure.kind() != Failure::Kind::NotFound) throw;
        throw Failure(Failure::Kind::Unavailable, failure.what(), failure.code());
    }
}

std::vector<ListedSet> Catalog::fetchSets(HttpClient& http, const Cancelled& cancelled) {
    std::vector<ListedSet> sets;
    std::set<std::string> met;
    for (std::size_t page = 1, pages = 1, emptyPages = 0; page <= pages; ++page) {
        ServiceAnswer answer = askForSets(http, page, cancelled);
        // The announced count may hold sets that the caller may not see; a page without any is no end.
        emptyPages = answer.sets.empty() ? emptyPages + 1 : 0;
        if (emptyPages == kEmptyPages) break;
        pages = answer.pages;
        for (ListedSet& set : answer.sets) {
            if (met.insert(set.id).second) sets.push_back(std::move(set));
        }
    }
    return sets;
}

std::string Catalog::page(const std::string& setId, unsigned page, const Tick& tick) {
    ServiceAnswer answer = await(takePage(setId, page), tick);
    const bool inSet = !setId.empty();
    bool isLast = false;
    bool isNew = true;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (page == 1 || listed_ != setId) {
            listed_ = setId;
            items_.clear();
            firstTotal_ = answer.total;
            totalChanged_ = false;
        }
        totalChanged_ = totalChanged_ || answer.total != firstTotal_;
        isLast = page >= pagesAnnounced(setId, answer);
        answer.items = addItems(std::move(answer.items));
        isNew = !answer.items.empty();
    }
    if (inSet && isLast) completeLastPage(setId, page, answer, tick);
    if (!isLast || (!inSet && isNew)) askAhead(setId, page + 1);
    // The items in no set end with a page that brings none; by then they are planned.
    if (isLast && (inSet || isNew)) makePlan(setId);
    return pageXml(answer.items, inSet);
}

unsigned Catalog::pagesAnnounced(const std::string& setId, const ServiceAnswer& answer) const {
    const auto announced = announced_.find(setId);
    if (announced == announced_.end()) return static_cast<unsigned>(answer.pages);
    const auto count = static_cast<unsigned>(announced->second);
    return std::max(1u, count / kItemsPerPage + (count % kItemsPerPage ? 1 : 0));
}

/// Adds what follows the last page that the plug-in asks for.
void Catalog::completeLastPage(const std::string& setId, unsigned page, ServiceAnswer& answer,
                               const Tick& tick) {
    const auto append = [&](ServiceAnswer more) {
        std::vector<ListedItem> added;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            totalChanged_ = totalChanged_ || more.total != firstTotal_;
            added = addItems(std::move(more.items));
        }
        std::move(added.begin(), added.end(), std::back_inserter(answer.items));
        return more.pages;
    };
    for (std::size_t next = page + 1, pages = answer.pages; next <= pages; ++next) {
        pages = append(await(requestPage(setId, static_cast<unsigned>(next)), tick));
    }
    bool again = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        again = totalChanged_;
    }
    for (std::size_t next = 1, pages = 1; again && next <= pages; ++next) {
        pages = append(await(requestPage(setId, static_cast<unsigned>(next)), tick));
    }
}

/// Adds those that have not been met and returns them.
std::vector<ListedItem> Catalog::addItems(std::vector<ListedItem> items) {
    std::vector<ListedItem> added;
    for (ListedItem& item : items) {
        // The plug-in refuses an item with another id, and never asks for it.
        if (isPlainId(item.id)) {
            const auto [place, isNew] = items_.emplace(item.id, nullptr);
            if (!isNew) continue;
            place->second = std::make_shared<const KnownItem>(knownItem(item));
        }
        added.push_back(std::move(item));
    }
    return added;
}

Catalog::Page Catalog::requestPage(const std::string& setId, unsigned page) {
    return errands_.run([this, setId, page](HttpClient& http, const Cancelled& cancelled) {
        return fetchPage(http, setId, page, cancelled);
    });
}

Catalog::Page Catalog::takePage(const std::string& setId, unsigned page) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = ahead_.find({setId, page});
        if (found != ahead_.end()) {
            const Ahead ahead = found->second;
            ahead_.erase(found);
            if (Clock::now() - ahead.asked < kFresh) return ahead.page;
        }
    }
    return requestPage(setId, page);
}

void Catalog::askAhead(const std::string& setId, unsigned page) {
    Page answer = requestPage(setId, page);
    const std::lock_guard<std::mutex> lock(mutex_);
    ahead_[{setId, page}] = {std::move(answer), Clock::now()};
}

ServiceAnswer Catalog::fetchPage(HttpClient& http, const std::string& setId, unsigned page,
                                 const Cancelled& cancelled) {
    Parameters parameters = {{"extras", listExtras()},
                             {"per_page", std::to_string(kItemsPerPage)},
                             {"page", std::to_string(page)}};
    if (setId.empty()) return service_.call(http, "flickr.photos.getNotInSet", parameters, cancelled);
    parameters.emplace_back("photoset_id", setId);
    parameters.emplace_back("user_id", accountId(http, cancelled));
    return service_.call(http, "flickr.photosets.getPhotos", parameters, cancelled);
}

std::string Catalog::accountId(HttpClient& http, const Cancelled& cancelled) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!userId_.empty()) return userId_;
    }
    const ServiceAnswer answer = service_.call(http, "flickr.test.login", {}, cancelled);
    const std::lock_guard<std::mutex> lock(mutex_);
    return userId_ = answer.userId;
}

void Catalog::makePlan(const std::string& setId) {
    errands_.run([this, setId](HttpClient&, const Cancelled& cancelled) {
        std::vector<KnownItemPtr> items;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (listed_ != setId) return;
            for (const auto& each : items_) items.push_back(each.second);
        }
        const auto isLeft = [&](const KnownItemPtr& item) {
            if (cancelled()) return true;
            const std::int64_t updated = secondsOf(item->lastUpdate);
            return updated <= expectation_.fromDate ||
                   !(item->isVideo ? expectation_.videos : expectation_.photos) ||
                   (expectation_.recorded && expectation_.recorded(item->id, setId, updated));
        };
        items.erase(std::remove_if(items.begin(), items.end(), isLeft), items.end());
        const auto order = [&](const KnownItemPtr& item) {
            return std::make_tuple(!item->isVideo, secondsOf(item->lastUpdate), item->id + "_" + setId);
        };
        std::sort(items.begin(), items.end(),
                  [&](const KnownItemPtr& a, const KnownItemPtr& b) { return order(a) < order(b); });
        const bool certain = static_cast<bool>(expectation_.recorded);
        // With nothing to fetch the plug-in goes on to the next set as soon as it has read this one.
        if (certain && items.empty() && !setId.empty()) {
            const std::string next = setAfter(setId);
            askAhead(next, 1);
        }
        plan_(std::move(items), certain);
    });
}

/// The plug-in takes the sets by their ids as text, and the items in no set at the end.
std::string Catalog::setAfter(const std::string& setId) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto next = announced_.upper_bound(setId);
    return next == announced_.end() ? std::string() : next->first;
}

KnownItemPtr Catalog::item(const std::string& itemId) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = items_.find(itemId);
    return found == items_.end() ? nullptr : found->second;
}

std::string Catalog::sizes(const std::string& itemId, const Tick& tick) {
    KnownItemPtr known = item(itemId);
    if (known == nullptr) throw Failure(Failure::Kind::NotFound, "This item was not listed.", 1);
    const bool named = known->isVideo || !known->renditions.best.source.empty() ||
                       !known->renditions.thumbnail.source.empty();
    if (!named && !known->settled) {
        known = await(errands_.run([this, known](HttpClient& http, const Cancelled& cancelled) {
            KnownItem asked = *known;
            settle(http, asked, cancelled);
            return std::make_shared<const KnownItem>(std::move(asked));
        }),
                      tick);
        const std::lock_guard<std::mutex> lock(mutex_);
        items_[itemId] = known;
    }
    if (known->settled && known->renditions.best.source.empty()) return sizesXml({}, known->isVideo);
    ItemRenditions here = known->renditions;
    here.thumbnail.source = mediaAddress_ + itemId + "/thumbnail";
    here.best.source = mediaAddress_ + itemId + "/media";
    return sizesXml(here, known->isVideo);
}

void Catalog::settle(HttpClient& http, KnownItem& item, const Cancelled& cancelled) {
    if (!item.isVideo) {
        if (const auto kept = store_.find(item.id, item.lastUpdate)) {
            item.renditions = *kept;
            item.settled = true;
            return;
        }
    }
    const ServiceAnswer answer =
        service_.call(http, "flickr.photos.getSizes", {{"photo_id", item.id}}, cancelled);
    const Rendition* const best = item.isVideo ? bestVideo(answer.sizes) : bestPicture(answer.sizes);
    if (best != nullptr) item.renditions.best = *best;
    if (const Rendition* thumbnail = thumbnailOf(answer.sizes)) item.renditions.thumbnail = *thumbnail;
    item.settled = true;
    // The addresses of videos do not last.
    if (!item.isVideo && !item.renditions.best.source.empty()) {
        store_.put(item.id, item.lastUpdate, item.renditions);
    }
}

}  // namespace flickr_gateway
