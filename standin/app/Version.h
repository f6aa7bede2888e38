// Which program this is.

#ifndef STANDIN_APP_VERSION_H
#define STANDIN_APP_VERSION_H

#include <string>

namespace flickr_app {

/// The version on the first line; on the second the libraries with which the program runs, and theirs.
std::string versionText();

}  // namespace flickr_app

#endif
