// Whether the service can be used with the user's settings.

#ifndef STANDIN_APP_SERVICECHECK_H
#define STANDIN_APP_SERVICECHECK_H

#include <string>

#include "standin/app/Configuration.h"
#include "standin/app/Credentials.h"

namespace flickr_app {

/// Asks the service for something that only this user gets, and returns a sentence about its answer. Throws
/// CannotBegin with a sentence when it does not give that.
std::string askService(const Configuration& configuration, const Credentials& credentials);

}  // namespace flickr_app

#endif
