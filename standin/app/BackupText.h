// How disagreements between the database and the device are told.

#ifndef STANDIN_APP_BACKUPTEXT_H
#define STANDIN_APP_BACKUPTEXT_H

#include <Poco/JSON/Object.h>

#include <ostream>

#include "standin/framework/device/BackupCheck.h"

namespace flickr_app {

/// Lists missing, altered, unrecorded and marked files and unusable descriptions, or says that there are
/// none.
void printDisagreements(std::ostream& out, const flickr_standin::BackupReport& report);

/// The same as members of a JSON object: "missing", "altered", "unrecorded", "descriptions" and
/// "toFetchAgain".
void addDisagreements(Poco::JSON::Object& object, const flickr_standin::BackupReport& report);

}  // namespace flickr_app

#endif
