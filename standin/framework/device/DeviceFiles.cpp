#include "standin/framework/device/DeviceFiles.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"

namespace flickr_standin {

namespace {

std::atomic<bool> isShared{false};

}  // namespace

void shareDevices(bool shared) {
    isShared = shared;
}

mode_t folderMode() {
    return isShared ? 0777 : 0700;
}

Descriptor openRegular(int folder, const std::string& name) {
    Descriptor file(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (file.isOpen() && (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file = Descriptor();
        errno = EINVAL;
    }
    return file;
}

Descriptor openBelow(int root, const std::string& path, int flags) {
    flags |= O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    static std::atomic<bool> kernelResolves{true};
    if (kernelResolves && !path.empty()) {
        struct open_how how = {};
        how.flags = static_cast<std::uint64_t>(flags);
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
        Descriptor folder(static_cast<int>(::syscall(SYS_openat2, root, path.c_str(), &how, sizeof how)));
        if (folder.isOpen()) return folder;
        // A sandbox may not know the call, and say so in either way.
        if (errno == ENOSYS || errno == EPERM) kernelResolves = false;
    }
    if (path.empty()) return Descriptor(::openat(root, ".", flags));
    Descriptor current;
    for (const std::string& name : namesIn(path)) {
        if (!isPlainName(name)) {
            errno = EXDEV;
            return Descriptor();
        }
        current = Descriptor(::openat(current.isOpen() ? current.get() : root, name.c_str(), flags));
        if (!current.isOpen()) break;
    }
    return current;
}

bool isLinkOrFile(int error) {
    return error == ELOOP || error == ENOTDIR || error == EXDEV;
}

Descriptor makeFile(int folder, const std::string& name) {
    return Descriptor(::openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               isShared ? 0666 : 0600));
}

int renameWithoutReplacing(int fromFolder, const std::string& from, int toFolder, const std::string& to) {
    if (::renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EEXIST && errno != EINVAL && errno != ENOSYS) return errno;

    // Either something stands there, or the file system cannot be asked like this. On one that ignores case
    // what stands there may be the same file.
    struct stat source = {}, target = {};
    if (::fstatat(toFolder, to.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0) {
        const bool same = ::fstatat(fromFolder, from.c_str(), &source, AT_SYMLINK_NOFOLLOW) == 0 &&
                          source.st_ino == target.st_ino && source.st_dev == target.st_dev;
        const bool sameName = nameKey(from) == nameKey(to);
        if (!same || !sameName) return EEXIST;
    }
    return ::renameat(fromFolder, from.c_str(), toFolder, to.c_str()) == 0 ? 0 : errno;
}

}  // namespace flickr_standin
