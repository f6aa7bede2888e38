// The folders that systems give to a user's programs.

#ifndef GATEWAY_USERFOLDER_H
#define GATEWAY_USERFOLDER_H

#include <string>

namespace flickr_gateway {

/// "flickr-backup" in the folder that the variable of the environment names (XDG_STATE_HOME), or else below
/// the home, where it is usual ("/.local/state"). Empty when there is no home.
std::string userFolder(const char* variable, const char* inHome);

}  // namespace flickr_gateway

#endif
