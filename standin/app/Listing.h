// The items of a backup, one after the other, for the commands that tell of them.

#ifndef STANDIN_APP_LISTING_H
#define STANDIN_APP_LISTING_H

#include <functional>
#include <string>

#include "standin/framework/device/BackupReading.h"
#include "standin/framework/device/Catalogue.h"

namespace flickr_app {

/// Calls visit with each item, with everything that is known of it, and its set: sets by title, the items in
/// no set last. Throws Stopped when a signal ends it.
void forEachItem(flickr_standin::BackupReading& reading,
                 const std::function<void(const flickr_standin::Set&, const flickr_standin::Item&)>& visit);

/// Where the item's file lies in the service folder.
std::string pathOf(const flickr_standin::Set& set, const flickr_standin::Item& item);

/// The service's id of the photo or video, without that of the set.
std::string photoIdOf(const flickr_standin::Set& set, const flickr_standin::Item& item);

/// The set's title as people read it: empty for the items in no set.
std::string titleOf(const flickr_standin::Set& set);

}  // namespace flickr_app

#endif
