#include "standin/framework/base/Paths.h"

#include <algorithm>
#include <string_view>

namespace flickr_standin {

std::string folderOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string joinPath(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

std::vector<std::string> namesIn(const std::string& path) {
    std::vector<std::string> names;
    for (std::string::size_type at = 0; at <= path.size();) {
        const std::string::size_type end = std::min(path.find('/', at), path.size());
        names.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return names;
}

std::string withoutEndSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

bool isPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

}  // namespace flickr_standin
