#include "standin/framework/device/DeviceFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"

namespace flickr_standin {

namespace {

std::atomic<bool> isShared{false};

/// By the file's number.
bool areOne(int folder, const std::string& name, int otherFolder, const std::string& other) {
    struct stat one = {}, two = {};
    return ::fstatat(folder, name.c_str(), &one, AT_SYMLINK_NOFOLLOW) == 0 &&
           ::fstatat(otherFolder, other.c_str(), &two, AT_SYMLINK_NOFOLLOW) == 0 &&
           one.st_ino == two.st_ino && one.st_dev == two.st_dev;
}

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

std::optional<long> entriesLike(int folder, const std::string& name) {
    Descriptor listed(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!listed.isOpen()) return std::nullopt;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(listed.get()), &::closedir);
    if (!entries) return std::nullopt;
    listed.release();
    const std::string key = nameKey(name);
    long count = 0;
    errno = 0;  // which tells the end from a failure
    while (const dirent* entry = ::readdir(entries.get())) {
        count += nameKey(entry->d_name) == key;
        errno = 0;
    }
    return errno == 0 ? std::optional(count) : std::nullopt;
}

std::optional<bool> isOneEntry(int folder, const std::string& name, const std::string& other) {
    if (areOne(folder, name, folder, other)) return true;
    struct stat status = {};
    const auto stands = [&](const std::string& each) {
        return ::fstatat(folder, each.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    };
    if (nameKey(name) != nameKey(other) || !stands(name) || !stands(other)) return false;
    const std::optional<long> count = entriesLike(folder, name);
    return count ? std::optional(*count == 1) : std::nullopt;
}

int renameWithoutReplacing(int fromFolder, const std::string& from, int toFolder, const std::string& to) {
    if (::renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EEXIST && errno != EINVAL && errno != ENOSYS) return errno;

    // Either something stands there, or the file system cannot be asked like this. On one that ignores case
    // what stands there may be the same file, or a spelling that the kernel remembers of one that has gone.
    struct stat target = {};
    const bool stands = ::fstatat(toFolder, to.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0;
    const bool isItself = stands && nameKey(from) == nameKey(to) && areOne(fromFolder, ".", toFolder, ".") &&
                          isOneEntry(fromFolder, from, to) == true;
    if (stands && !isItself && entriesLike(toFolder, to) != 0) return EEXIST;
    return ::renameat(fromFolder, from.c_str(), toFolder, to.c_str()) == 0 ? 0 : errno;
}

}  // namespace flickr_standin
