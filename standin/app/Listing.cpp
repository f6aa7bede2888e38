#include "standin/app/Listing.h"

#include <algorithm>
#include <cstddef>

#include "standin/app/Signals.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"

namespace flickr_app {

using flickr_standin::Item;
using flickr_standin::Set;

void forEachItem(flickr_standin::BackupReading& reading,
                 const std::function<void(const Set&, const Item&)>& visit) {
    flickr_standin::Catalogue catalogue(reading.device(),
                                        reading.hasDatabase() ? &reading.database() : nullptr);
    for (Set& set : catalogue.sets()) {
        for (Item& item : set.items) {
            throwIfStopped();
            catalogue.complete(set, item);
            visit(set, item);
        }
    }
}

std::string pathOf(const Set& set, const Item& item) {
    return flickr_standin::joinPath(set.folder, item.file);
}

std::string photoIdOf(const Set& set, const Item& item) {
    const std::string ending = "_" + set.id;
    const std::size_t end = item.id.size() - std::min(item.id.size(), ending.size());
    return item.id.compare(end, std::string::npos, ending) == 0 ? item.id.substr(0, end) : item.id;
}

std::string titleOf(const Set& set) {
    return set.id == flickr_standin::kNoSetId ? std::string() : set.title;
}

}  // namespace flickr_app
