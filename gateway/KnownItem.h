// An item as far as the gateway knows it.

#ifndef GATEWAY_KNOWNITEM_H
#define GATEWAY_KNOWNITEM_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "gateway/RenditionStore.h"

namespace flickr_gateway {

struct KnownItem {
    std::string id;
    std::string title;
    std::string lastUpdate;  ///< seconds since 1970, as the service writes them
    bool isVideo = false;
    ItemRenditions renditions;
    /// The best rendition is the best that there is; otherwise the service has to be asked.
    bool settled = false;
};

/// Lists and plans share what they know.
using KnownItemPtr = std::shared_ptr<const KnownItem>;

/// Which of the items that are listed the plug-in will fetch. The function is called on other threads.
struct Expectation {
    /// Whether an item of a set (empty: of none) is recorded on the device with that time of change.
    /// Without a function nothing is known, and what is fetched ahead follows what has been asked for.
    std::function<bool(const std::string& itemId, const std::string& setId, std::int64_t lastUpdate)>
        recorded;
    std::int64_t fromDate = 0;  ///< items changed at that time (seconds since 1970) or earlier are left
    bool photos = true;
    bool videos = true;
};

}  // namespace flickr_gateway

#endif
