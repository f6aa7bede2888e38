#include "standin/app/Credentials.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "standin/app/UsageError.h"

namespace flickr_app {
namespace {

constexpr std::size_t kLargestFile = 64 * 1024;

struct Descriptor {
    int value;
    ~Descriptor() {
        if (value >= 0) ::close(value);
    }
};

/// The file's text. Looks at the permissions of the file that is read, and not at what has the name by then.
std::string readPrivateFile(const std::string& path) {
    const Descriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    struct stat status {};
    if (file.value < 0 || ::fstat(file.value, &status) != 0) {
        throw UsageError("The credentials file " + path + " cannot be read: " + std::strerror(errno) + ".");
    }
    if (S_ISDIR(status.st_mode)) {
        throw UsageError("The credentials file " + path + " is a directory; give the file's name.");
    }
    if (status.st_mode & (S_IRWXG | S_IRWXO)) {
        throw UsageError("The credentials file " + path +
                         " is open to other users; close it with \"chmod 600 " + path + "\".");
    }
    std::string text;
    char block[4096];
    for (ssize_t count = 0; (count = ::read(file.value, block, sizeof block)) != 0;) {
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            throw UsageError("The credentials file " + path + " cannot be read: " + std::strerror(errno) +
                             ".");
        }
        text.append(block, static_cast<std::size_t>(count));
        if (text.size() > kLargestFile) {
            throw UsageError("The credentials file " + path + " is too large to be one.");
        }
    }
    return text;
}

/// Key and token travel in addresses as they are, so they cannot hold what has a meaning there.
bool fitsAddress(const std::string& value) {
    return value.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~") ==
           std::string::npos;
}

}  // namespace

Credentials readCredentials(const std::string& path) {
    std::istringstream text(readPrivateFile(path));
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> file;
    try {
        file = new Poco::Util::IniFileConfiguration(text);
    } catch (Poco::Exception&) {
        throw UsageError("The credentials file " + path +
                         " is not made of lines like \"api_key = VALUE\"; see flickr-backup configure "
                         "--help.");
    }
    auto value = [&](const char* key, bool inAddress) {
        const std::string found = file->has(key) ? file->getRawString(key) : std::string();
        if (found.empty()) {
            throw UsageError("The credentials file " + path + " has no value for \"" + key +
                             "\"; add a line \"" + key + " = VALUE\".");
        }
        if (inAddress && !fitsAddress(found)) {
            throw UsageError("The value of \"" + std::string(key) + "\" in the credentials file " + path +
                             " holds a character that cannot be part of it; check it.");
        }
        return found;
    };
    return {value("api_key", true), value("api_secret", false), value("token", true)};
}

}  // namespace flickr_app
