#include "standin/app/Credentials.h"

#include <Poco/AutoPtr.h>
#include <Poco/MemoryStream.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "standin/app/UsageError.h"
#include "standin/framework/Cipher.h"

namespace flickr_app {
namespace {

constexpr off_t kLargestFile = 64 * 1024;

struct Descriptor {
    int value;
    ~Descriptor() {
        if (value >= 0) ::close(value);
    }
};

void forbidCoreFiles() {
    const rlimit none = {0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::prctl(PR_SET_DUMPABLE, 0);  // for systems that hand cores to a program, whatever the limit
}

/// The file's text. Looks at owner and permissions of the file that is read, and not at what has the name by
/// then. A pipe is refused and not waited for.
std::string readPrivateFile(const std::string& path) {
    const Descriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    struct stat status {};
    if (file.value < 0 || ::fstat(file.value, &status) != 0) {
        throw UsageError("The credentials file " + path + " cannot be read: " + std::strerror(errno) + ".");
    }
    if (S_ISDIR(status.st_mode)) {
        throw UsageError("The credentials file " + path + " is a directory; give the file's name.");
    }
    if (!S_ISREG(status.st_mode)) {
        throw UsageError("The credentials file " + path +
                         " is no ordinary file; give the name of one that holds the three lines.");
    }
    if (status.st_uid != ::geteuid()) {
        throw UsageError("The credentials file " + path +
                         " belongs to another user, who could change it; make a copy of your own.");
    }
    if (status.st_mode & (S_IRWXG | S_IRWXO)) {
        throw UsageError("The credentials file " + path +
                         " is open to other users; close it with \"chmod 600 " + path + "\".");
    }
    if (status.st_size > kLargestFile) {
        throw UsageError("The credentials file " + path + " is too large to be one.");
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::read(file.value, &text[done], text.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            throw UsageError("The credentials file " + path + " cannot be read: " + std::strerror(errno) +
                             ".");
        }
        if (count == 0) break;
        done += static_cast<std::size_t>(count);
    }
    text.resize(done);
    return text;
}

/// Key and token travel in addresses as they are, so they cannot hold what has a meaning there.
bool fitsAddress(const std::string& value) {
    return value.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~") ==
           std::string::npos;
}

}  // namespace

Credentials::~Credentials() {
    for (std::string* value : {&apiKey, &apiSecret, &token}) Norvale_Plugin_Core::wipe(*value);
}

Credentials readCredentials(const std::string& path) {
    forbidCoreFiles();
    std::string text = readPrivateFile(path);
    const std::unique_ptr<std::string, void (*)(std::string*)> wiped(
        &text, [](std::string* read) { Norvale_Plugin_Core::wipe(*read); });
    Poco::MemoryInputStream stream(text.data(), static_cast<std::streamsize>(text.size()));
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> file;
    try {
        file = new Poco::Util::IniFileConfiguration(stream);
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
