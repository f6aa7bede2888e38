// An account made of a folder of real files.

#ifndef SIM_FOLDERACCOUNT_H
#define SIM_FOLDERACCOUNT_H

#include <string>

#include "sim/Account.h"

namespace flickr_sim {

/// Adds the photos and videos of a folder: each sub-directory a set of that name, with the files below it,
/// and loose files as items in no set. Kinds go by extension; other files and hidden ones are left out. A
/// title is the file name without extension, the time of the last update is the file's. Ids depend on the
/// path within the folder only, so they stay the same from start to start. Throws Poco::Exception when the
/// folder cannot be read.
void addFolder(Account& account, const std::string& folder);

}  // namespace flickr_sim

#endif
