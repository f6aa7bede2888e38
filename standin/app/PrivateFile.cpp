#include "standin/app/PrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace flickr_app {
namespace {

bool writeAll(int file, const std::string& content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t count = ::write(file, content.data() + done, content.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return ::fsync(file) == 0;
}

std::string folderBelow(const char* variable, const char* inHome) {
    // Only an absolute one counts, as the desktop's rules for these folders say.
    if (const char* folder = std::getenv(variable); folder != nullptr && folder[0] == '/') {
        return std::string(folder) + "/flickr-backup";
    }
    const char* const home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/') return std::string();
    return std::string(home) + inHome + "/flickr-backup";
}

}  // namespace

std::string replacePrivateFile(const std::string& path, const std::string& content) {
    std::string temporary = path + ".XXXXXX";
    const int file = ::mkstemp(temporary.data());  // for its owner only
    if (file < 0) return std::strerror(errno);
    bool done = writeAll(file, content);
    std::string reason = done ? "" : std::strerror(errno);
    if (::close(file) != 0 || (done && std::rename(temporary.c_str(), path.c_str()) != 0)) {
        if (done) reason = std::strerror(errno);
        done = false;
    }
    if (!done) {
        ::unlink(temporary.c_str());
        return reason;
    }
    const int folder = ::open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
    return std::string();
}

void makePrivateFolder(const std::string& path) {
    for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        ::mkdir(path.substr(0, end).c_str(), 0700);
    }
    ::mkdir(path.c_str(), 0700);
}

std::string userConfigurationFolder() {
    return folderBelow("XDG_CONFIG_HOME", "/.config");
}

std::string userStateFolder() {
    return folderBelow("XDG_STATE_HOME", "/.local/state");
}

}  // namespace flickr_app
