#include "standin/app/PrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "gateway/UserFolder.h"
#include "standin/framework/base/Descriptor.h"

namespace flickr_app {

using flickr_standin::Descriptor;

std::string replacePrivateFile(const std::string& path, const std::string& content) {
    std::string temporary = path + ".XXXXXX";
    Descriptor file(::mkstemp(temporary.data()));  // for its owner only
    if (!file.isOpen()) return std::strerror(errno);
    int error = flickr_standin::writeAll(file, content.data(), content.size());
    if (error == 0 && ::fsync(file.get()) != 0) error = errno;
    if (::close(file.release()) != 0 && error == 0) error = errno;
    if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) {
        ::unlink(temporary.c_str());
        return std::strerror(error);
    }
    const Descriptor folder(::open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY));
    if (folder.isOpen()) ::fsync(folder.get());
    return std::string();
}

void makePrivateFolder(const std::string& path) {
    for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        ::mkdir(path.substr(0, end).c_str(), 0700);
    }
    ::mkdir(path.c_str(), 0700);
}

std::string userConfigurationFolder() {
    return flickr_gateway::userFolder("XDG_CONFIG_HOME", "/.config");
}

std::string userStateFolder() {
    return flickr_gateway::userFolder("XDG_STATE_HOME", "/.local/state");
}

}  // namespace flickr_app
