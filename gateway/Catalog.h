// What the service lists, as the plug-in asks for it.
//
//   the plug-in asks                     the service is asked
//   list of sets                         page after page of 500, answered as one
//   page of a set, page of no set        the page of 500 with the addresses of all renditions, and the next
//                                        page at the same time, for the plug-in's next question
//   sizes of an item                     nothing: the list had them
//
// The number of pages follows from the count that the list of sets gave. Items can be added meanwhile, so the
// last page holds all that follow; and they can be removed, which moves others over the edge of a page that
// was read already, so when the service's total changes between pages the whole list is read once more and
// what was not met is added to the last page.

#ifndef GATEWAY_CATALOG_H
#define GATEWAY_CATALOG_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "gateway/Errands.h"
#include "gateway/KnownItem.h"
#include "gateway/RenditionStore.h"
#include "gateway/ServiceClient.h"

namespace flickr_gateway {

/// Can be used from several threads.
class Catalog {
public:
    /// Takes the items that the plug-in will fetch next, in its order; certain: every one of them.
    using Plan = std::function<void(std::vector<KnownItemPtr> items, bool certain)>;
    /// Called again and again while something is waited for; what it throws ends the wait.
    using Tick = std::function<void()>;

    /// userId: the account's; empty: the service is asked. mediaAddress: in front of an item's id in the
    /// addresses that the plug-in gets.
    Catalog(ServiceClient& service, RenditionStore& store, const HttpTrust& trust, RateLimit& rate,
            std::string userId, std::string mediaAddress, Expectation expectation, Plan plan);

    // Answers to the plug-in, in XML. They throw Failure, CancelledFailure and what tick throws.

    std::string setList(const Tick& tick);
    /// setId: empty for the items that are in no set. page: from 1.
    std::string page(const std::string& setId, unsigned page, const Tick& tick);
    std::string sizes(const std::string& itemId, const Tick& tick);

    /// An item of the set that was listed last; null for another.
    KnownItemPtr item(const std::string& itemId) const;

    /// Finds the renditions of an item that is not settled. Throws Failure and CancelledFailure.
    void settle(HttpClient& http, KnownItem& item, const Cancelled& cancelled);

    /// Ends what is under way.
    void stop() { errands_.stop(); }

private:
    using Clock = std::chrono::steady_clock;
    using Page = std::shared_future<ServiceAnswer>;
    using PageKey = std::pair<std::string, unsigned>;  // set, number

    ServiceAnswer askForSets(HttpClient& http, std::size_t page, const Cancelled& cancelled);
    std::vector<ListedSet> fetchSets(HttpClient& http, const Cancelled& cancelled);
    Page requestPage(const std::string& setId, unsigned page);
    Page takePage(const std::string& setId, unsigned page);
    void askAhead(const std::string& setId, unsigned page);
    ServiceAnswer fetchPage(HttpClient& http, const std::string& setId, unsigned page,
                            const Cancelled& cancelled);
    std::string accountId(HttpClient& http, const Cancelled& cancelled);
    void completeLastPage(const std::string& setId, unsigned page, ServiceAnswer& answer, const Tick& tick);
    std::vector<ListedItem> addItems(std::vector<ListedItem> items);
    void makePlan(const std::string& setId);
    unsigned pagesAnnounced(const std::string& setId, const ServiceAnswer& answer) const;
    std::string setAfter(const std::string& setId) const;

    ServiceClient& service_;
    RenditionStore& store_;
    const std::string mediaAddress_;
    const Expectation expectation_;
    const Plan plan_;

    mutable std::mutex mutex_;  // guards what follows
    std::string userId_;
    std::map<std::string, std::size_t> announced_;  // items of a set, as the list of sets had them
    struct Ahead {
        Page page;
        Clock::time_point asked;
    };
    std::map<PageKey, Ahead> ahead_;
    std::string listed_;                         // the set whose items these are
    std::map<std::string, KnownItemPtr> items_;  // by id
    std::size_t firstTotal_ = 0;
    bool totalChanged_ = false;

    Errands errands_;  // last: its threads use the others
};

/// Whether the id is one that the service gives.
bool isPlainId(const std::string& id);

}  // namespace flickr_gateway

#endif
