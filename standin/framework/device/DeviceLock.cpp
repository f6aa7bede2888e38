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

}  // namespace

DeviceLock::DeviceLock(const std::string& directory) {
    const std::string path = directory + "/" + kLockName;
    descriptor_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (descriptor_ < 0) {
        throw Poco::FileException("The backup device " + directory +
                                  " cannot be used: " + std::strerror(errno));
    }
    struct stat status = {};
    if (::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(descriptor_);
        throw Poco::FileException(path + " is not a file: move it away");
    }
    // Who can open the file can keep every backup out.
    if ((status.st_mode & 077) != 0 && status.st_nlink == 1) ::fchmod(descriptor_, 0600);
    if (::flock(descriptor_, LOCK_EX | LOCK_NB) == 0) return;
    const int error = errno;
    ::close(descriptor_);
    if (error == EWOULDBLOCK) {
        throw Poco::FileException("Another backup to " + directory +
                                  " is going on: wait until it has finished, or stop it");
    }
    throw Poco::FileException("The backup device " + directory +
                              " cannot be locked: " + std::strerror(error));
}

bool DeviceLock::isHeld(const std::string& directory) {
    const std::string path = directory + "/" + kLockName;
    const int file = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return false;
    const bool held = ::flock(file, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(file);
    return held;
}

DeviceLock::~DeviceLock() {
    ::close(descriptor_);
}

}  // namespace flickr_standin
