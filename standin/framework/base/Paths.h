// Paths below a folder: names with "/" between them, without one at their begin or end; the folder itself is
// "".

#ifndef STANDIN_FRAMEWORK_BASE_PATHS_H
#define STANDIN_FRAMEWORK_BASE_PATHS_H

#include <string>
#include <vector>

namespace flickr_standin {

/// The folder and the name of a path.
std::string folderOf(const std::string& path);
std::string nameOf(const std::string& path);
std::string joinPath(const std::string& folder, const std::string& name);

/// The names of a path, in their order; one empty name for an empty path.
std::vector<std::string> namesIn(const std::string& path);

/// A path from the root without "/" at its end; "/" stays.
std::string withoutEndSlash(std::string path);

/// True for what can only name something in the folder that it is looked up in: neither empty nor "." nor
/// "..", without "/" and NUL.
bool isPlainName(const std::string& name);

}  // namespace flickr_standin

#endif
