#include "standin/framework/device/DeviceLock.h"

#include <Poco/Exception.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace flickr_standin {

namespace {

constexpr const char* kLockName = ".backup.lock";

// Most readers need the device only while they copy its databases.
constexpr int kAttempts = 500;
constexpr useconds_t kPause = 20000;  // microseconds

}  // namespace

DeviceLock::DeviceLock(const std::string& directory) {
    const std::string path = directory + "/" + kLockName;
    file_ = Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!file_.isOpen()) {
        throw Poco::FileException("The backup device " + directory +
                                  " cannot be used: " + std::strerror(errno));
    }
    struct stat status = {};
    if (::fstat(file_.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw Poco::FileException(path + " is not a file: move it away");
    }
    // Who can open the file can keep every backup out.
    if ((status.st_mode & 077) != 0 && status.st_nlink == 1) ::fchmod(file_.get(), 0600);
    for (int attempt = 1; ::flock(file_.get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
        if (errno != EWOULDBLOCK) {
            throw Poco::FileException("The backup device " + directory +
                                      " cannot be locked: " + std::strerror(errno));
        }
        if (::flock(file_.get(), LOCK_SH | LOCK_NB) != 0) {
            throw Poco::FileException("Another backup to " + directory +
                                      " is going on: wait until it has finished, or stop it");
        }
        if (attempt == kAttempts) {
            throw Poco::FileException("The backup in " + directory +
                                      " is being read by another command: wait until it has finished");
        }
        ::flock(file_.get(), LOCK_UN);
        ::usleep(kPause);
    }
}

std::unique_ptr<DeviceLock> DeviceLock::forReading(const std::string& directory) {
    const std::string path = directory + "/" + kLockName;
    Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const bool isHeld = file.isOpen() && ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    return isHeld ? nullptr : std::unique_ptr<DeviceLock>(new DeviceLock(std::move(file)));
}

}  // namespace flickr_standin
