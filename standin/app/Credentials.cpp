#include "standin/app/Credentials.h"

#include <Poco/AutoPtr.h>
#include <Poco/MemoryStream.h>
#include <Poco/String.h>
#include <Poco/URI.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>

#include "standin/app/PrivateFile.h"
#include "standin/app/Refusal.h"
#include "standin/framework/base/Cipher.h"
#include "standin/framework/base/Descriptor.h"

namespace flickr_app {
namespace {

constexpr off_t kLargestFile = 64 * 1024;

void forbidCoreFiles() {
    const rlimit none = {0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::prctl(PR_SET_DUMPABLE, 0);  // for systems that hand cores to a program, whatever the limit
}

/// The file's text. Looks at owner and permissions of the file that is read, and not at what has the name by
/// then. A pipe is refused and not waited for.
std::string readPrivateFile(const std::string& path) {
    const flickr_standin::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
        throw CannotBegin("The credentials file " + path + " cannot be read: " + std::strerror(errno) + ".");
    }
    if (S_ISDIR(status.st_mode)) {
        throw CannotBegin("The credentials file " + path + " is a directory; give the file's name.");
    }
    if (!S_ISREG(status.st_mode)) {
        throw CannotBegin("The credentials file " + path +
                          " is no ordinary file; give the name of one that holds the three lines.");
    }
    if (status.st_uid != ::geteuid()) {
        throw CannotBegin("The credentials file " + path +
                          " belongs to another user, who could change it; make a copy of your own.");
    }
    if (status.st_mode & (S_IRWXG | S_IRWXO)) {
        throw CannotBegin("The credentials file " + path +
                          " is open to other users; close it with \"chmod 600 " + path + "\".");
    }
    if (status.st_size > kLargestFile) {
        throw CannotBegin("The credentials file " + path + " is too large to be one.");
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::read(file.get(), &text[done], text.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            throw CannotBegin("The credentials file " + path + " cannot be read: " + std::strerror(errno) +
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

void checkService(const std::string& service, const std::string& path) {
    try {
        const Poco::URI uri(service);
        const bool isBare = uri.getPath().empty() || uri.getPath() == "/";
        if (uri.getScheme() == "https" && !uri.getHost().empty() && isBare && uri.getUserInfo().empty())
            return;
    } catch (Poco::Exception&) {
        // It is none, as below.
    }
    throw CannotBegin("The value of \"service\" in the credentials file " + path +
                      " is no address like \"https://HOST:PORT\"; correct it, or remove the line for the "
                      "service itself.");
}

}  // namespace

Credentials::~Credentials() {
    for (std::string* value : {&apiKey, &apiSecret, &token, &tokenSecret}) flickr_standin::wipe(*value);
}

Credentials readWhatThereIs(const std::string& path) {
    forbidCoreFiles();
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return Credentials();
    std::string text = readPrivateFile(path);
    const std::unique_ptr<std::string, void (*)(std::string*)> wiped(
        &text, [](std::string* read) { flickr_standin::wipe(*read); });
    Poco::MemoryInputStream stream(text.data(), static_cast<std::streamsize>(text.size()));
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> file;
    try {
        file = new Poco::Util::IniFileConfiguration(stream);
    } catch (Poco::Exception&) {
        throw CannotBegin("The credentials file " + path +
                          " is not made of lines like \"api_key = VALUE\"; see flickr-backup configure "
                          "--help.");
    }
    enum class Goes { Anywhere, IntoAnAddress };
    const auto value = [&](const char* key, Goes where = Goes::Anywhere) {
        std::string found = file->has(key) ? file->getRawString(key) : std::string();
        if (where == Goes::IntoAnAddress && !fitsAddress(found)) {
            throw CannotBegin("The value of \"" + std::string(key) + "\" in the credentials file " + path +
                              " holds a character that cannot be part of it; check it.");
        }
        return found;
    };
    Credentials credentials{value("api_key", Goes::IntoAnAddress),
                            value("api_secret"),
                            value("token", Goes::IntoAnAddress),
                            value("token_secret"),
                            value("user_id"),
                            value("user_name"),
                            value("service"),
                            value("ca")};
    if (!credentials.service.empty()) checkService(credentials.service, path);
    return credentials;
}

Credentials readCredentials(const std::string& path) {
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        throw CannotBegin("There is no credentials file " + path +
                          "; run \"flickr-backup login\", or name another with --credentials.");
    }
    Credentials credentials = readWhatThereIs(path);
    const std::pair<const char*, const std::string*> needed[] = {{"api_key", &credentials.apiKey},
                                                                 {"api_secret", &credentials.apiSecret},
                                                                 {"token", &credentials.token}};
    for (const auto& [key, value] : needed) {
        if (!value->empty()) continue;
        throw CannotBegin("The credentials file " + path + " has no value for \"" + key +
                          "\"; run \"flickr-backup login\", or add a line \"" + key + " = VALUE\".");
    }
    return credentials;
}

void changeCredentials(const std::string& path,
                       const std::vector<std::pair<std::string, std::string>>& values) {
    std::string text;
    if (::access(path.c_str(), F_OK) == 0) {
        std::istringstream lines(readPrivateFile(path));
        for (std::string line; std::getline(lines, line);) {
            const std::string key = Poco::toLower(Poco::trim(line.substr(0, line.find('='))));
            const bool changes = std::any_of(values.begin(), values.end(),
                                             [&](const auto& value) { return value.first == key; });
            if (!changes) text += line + "\n";
        }
    } else {
        makePrivateFolder(std::filesystem::absolute(path).parent_path().string());
    }
    for (auto [key, value] : values) {
        // A name of the service's must not bring lines of its own.
        std::replace_if(
            value.begin(), value.end(), [](char c) { return c == '\n' || c == '\r' || c == '\0'; }, ' ');
        if (!value.empty()) text.append(key).append(" = ").append(value).append("\n");
        flickr_standin::wipe(value);
    }
    const std::string reason = replacePrivateFile(path, text);
    flickr_standin::wipe(text);
    if (!reason.empty()) {
        throw CannotBegin("The credentials file " + path + " cannot be written: " + reason +
                          "; name another with --credentials.");
    }
}

}  // namespace flickr_app
