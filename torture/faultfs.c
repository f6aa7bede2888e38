// Preloaded into the program under test: numbers the calls that change a directory, and at one of them ends
// the process or lets the call fail. Settings come from the environment:
//
//   FAULT_UNDER=DIR[:DIR...]  the directories; calls elsewhere are left alone
//   FAULT_PATH=TEXT           only calls on paths that hold this text
//   FAULT_CALLS=NAME[,NAME]   only these calls, by the names below
//   FAULT_AT=N                the call that is hit, from 1; without it calls are only counted
//   FAULT_HOW=before          SIGKILL in place of the call
//             after           SIGKILL behind it
//             torn            SIGKILL behind the first half of a write; as "after" for other calls
//             stop            SIGSTOP before the call, for a driver that changes things under the program
//             28              the call fails with that errno
//   FAULT_FOR=N               so many calls from there fail; -1: all
//   FAULT_TRACE=FILE          one line for each call: its number, name, path, and a rename's or link's source
//   FAULT_FLUSH_MS=N          each flush takes so much longer, as on a slow disk
//   FAULT_WAITS=FILE          at the end: how many flushes there were, and how many waits for them: stretches
//   of time
//                             in which at least one was outstanding
//   FAULT_RECORD=FILE         each call that succeeded, in the order in which they took effect, with its
//   data:
//                             struct Call, then the call's name, path and source, each ended by NUL, and the
//                             bytes that were written. Calls on the directories are then made one at a time.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

// __extension__: ISO C knows no way from the address of an object, which dlsym gives, to a function.
#define REAL(name) (__extension__(__typeof__(&name)) dlsym(RTLD_NEXT, #name))

enum { GO_ON = 0, KILL_AFTER = -1, KILL_TORN = -2 };  // above 0: fail with that errno

static atomic_long calls;

static void die(void) {
    syscall(SYS_kill, getpid(), SIGKILL);
}

static int listed(const char* list, const char* word) {
    const size_t length = strlen(word);
    for (const char* at = list; (at = strstr(at, word)); at += length) {
        if ((at == list || at[-1] == ',') && (at[length] == ',' || !at[length])) return 1;
    }
    return 0;
}

static int under(const char* path) {
    const char* root = getenv("FAULT_UNDER");
    while (root && *root) {
        const size_t length = strcspn(root, ":");
        if (!strncmp(path, root, length) && (path[length] == '/' || !path[length])) return 1;
        root += length + (root[length] == ':');
    }
    return 0;
}

// The absolute path of a name in the directory of a descriptor, or of the descriptor itself for a null name.
static void locate(char* path, int directory, const char* name) {
    if (name && *name == '/') {
        snprintf(path, PATH_MAX, "%s", name);
        return;
    }
    char link[64];
    snprintf(link, sizeof link, directory == AT_FDCWD ? "/proc/self/cwd" : "/proc/self/fd/%d", directory);
    const ssize_t length = readlink(link, path, PATH_MAX - 1);
    path[length < 0 ? 0 : length] = 0;
    if (name) snprintf(path + strlen(path), PATH_MAX - strlen(path), "/%s", name);
}

// Begins each entry of a record. What a call does not have is 0.
struct Entry {
    uint64_t inode;  // of the file that was opened, written, cut or flushed
    int64_t offset;  // where the written bytes begin
    int64_t size;    // of the written bytes; the size that a file is cut to
    int64_t flags;   // of an open or a rename
    int64_t names;   // bytes of the three names
    int64_t data;    // bytes of the data that follow them
};

static pthread_mutex_t recording = PTHREAD_MUTEX_INITIALIZER;

// True when the call is to be recorded; no other one is made then before release().
static int hold(int directory, const char* name) {
    if (!getenv("FAULT_RECORD")) return 0;
    char path[PATH_MAX];
    locate(path, directory, name);
    return under(path) && !pthread_mutex_lock(&recording);
}

static void release(int held) {
    if (held) pthread_mutex_unlock(&recording);
}

// file is -1 for calls on names.
static void note(const char* call, int directory, const char* name, int source_directory, const char* source,
                 int file, struct Entry entry, const void* data) {
    const int error = errno;
    char names[3 * PATH_MAX] = "", path[PATH_MAX], from[PATH_MAX] = "";
    locate(path, directory, name);
    if (*source) locate(from, source_directory, source);
    struct stat status;
    if (file >= 0 && !fstat(file, &status)) entry.inode = status.st_ino;
    if (data) entry.data = entry.size;
    entry.names = snprintf(names, sizeof names, "%s%c%s%c%s%c", call, 0, path, 0, from, 0);
    const struct iovec parts[] = {
        {&entry, sizeof entry}, {names, (size_t)entry.names}, {(void*)data, (size_t)entry.data}};
    const int to =
        (int)syscall(SYS_openat, AT_FDCWD, getenv("FAULT_RECORD"), O_WRONLY | O_APPEND | O_CREAT, 0600);
    syscall(SYS_writev, to, parts, 3);
    syscall(SYS_close, to);
    errno = error;
}

static int judge(const char* call, int directory, const char* name, const char* source) {
    const int error = errno;
    char path[PATH_MAX];
    locate(path, directory, name);
    const char *part = getenv("FAULT_PATH"), *only = getenv("FAULT_CALLS");
    errno = error;
    if (!under(path) || (part && !strstr(path, part)) || (only && !listed(only, call))) return GO_ON;

    const long number = atomic_fetch_add(&calls, 1) + 1;
    const char *trace = getenv("FAULT_TRACE"), *at = getenv("FAULT_AT");
    if (trace) {
        char line[3 * PATH_MAX];
        const int length = snprintf(line, sizeof line, "%ld\t%s\t%s\t%s\n", number, call, path, source);
        const int file = (int)syscall(SYS_openat, AT_FDCWD, trace, O_WRONLY | O_APPEND | O_CREAT, 0600);
        syscall(SYS_write, file, line, length);
        syscall(SYS_close, file);
    }
    errno = error;
    if (!at) return GO_ON;
    const char *how = getenv("FAULT_HOW"), *count = getenv("FAULT_FOR");
    const long first = atol(at), last = !count ? first : atol(count) < 0 ? LONG_MAX : first + atol(count) - 1;
    if (number < first || number > last) return GO_ON;
    if (!strcmp(how, "after")) return KILL_AFTER;
    if (!strcmp(how, "torn")) return KILL_TORN;
    if (!strcmp(how, "before")) die();
    if (!strcmp(how, "stop")) raise(SIGSTOP);
    return atoi(how);
}

#define NOTHING ((struct Entry){0})
#define BODY(type, failed, name, arguments, directory, path, from, source, file, entry)  \
    {                                                                                    \
        const int held = hold(directory, path);                                          \
        const int verdict = judge(#name, directory, path, source);                       \
        if (verdict > 0) return release(held), errno = verdict, failed;                  \
        type const result = REAL(name) arguments;                                        \
        if (held && result != failed)                                                    \
            note(#name, directory, path, from, source, (int)(intptr_t)(file), entry, 0); \
        release(held);                                                                   \
        if (verdict < 0) die();                                                          \
        return result;                                                                   \
    }
#define AT_PATH(name, parameters, arguments, directory, path, from, source, flags)        \
    int name parameters BODY(int, -1, name, arguments, directory, path, from, source, -1, \
                             ((struct Entry){0, 0, 0, flags, 0, 0}))
#define ON_FILE(name, parameters, arguments, size)                           \
    int name parameters BODY(int, -1, name, arguments, file, 0, 0, "", file, \
                             ((struct Entry){0, 0, size, 0, 0, 0}))

AT_PATH(rename, (const char* from, const char* to), (from, to), AT_FDCWD, to, AT_FDCWD, from, 0)
AT_PATH(renameat, (int a, const char* from, int b, const char* to), (a, from, b, to), b, to, a, from, 0)
AT_PATH(renameat2, (int a, const char* from, int b, const char* to, unsigned flags), (a, from, b, to, flags),
        b, to, a, from, flags)
AT_PATH(link, (const char* from, const char* to), (from, to), AT_FDCWD, to, AT_FDCWD, from, 0)
AT_PATH(linkat, (int a, const char* from, int b, const char* to, int flags), (a, from, b, to, flags), b, to,
        a, from, flags)
AT_PATH(symlink, (const char* from, const char* to), (from, to), AT_FDCWD, to, AT_FDCWD, from, 0)
AT_PATH(unlink, (const char* path), (path), AT_FDCWD, path, 0, "", 0)
AT_PATH(unlinkat, (int at, const char* path, int flags), (at, path, flags), at, path, 0, "", flags)
AT_PATH(remove, (const char* path), (path), AT_FDCWD, path, 0, "", 0)
AT_PATH(rmdir, (const char* path), (path), AT_FDCWD, path, 0, "", 0)
AT_PATH(mkdir, (const char* path, mode_t mode), (path, mode), AT_FDCWD, path, 0, "", 0)
AT_PATH(mkdirat, (int at, const char* path, mode_t mode), (at, path, mode), at, path, 0, "", 0)
AT_PATH(truncate, (const char* path, off_t size), (path, size), AT_FDCWD, path, 0, "", 0)
ON_FILE(ftruncate, (int file, off_t size), (file, size), size)
ON_FILE(ftruncate64, (int file, off64_t size), (file, size), size)
ON_FILE(fallocate, (int file, int mode, off_t at, off_t size), (file, mode, at, size), at + size)
ON_FILE(fallocate64, (int file, int mode, off64_t at, off64_t size), (file, mode, at, size), at + size)

static pthread_mutex_t flushing = PTHREAD_MUTEX_INITIALIZER;
static long flushes, waits, outstanding;

// True when the flush is one of those that take long and are counted.
static int begin_flush(int file) {
    const char* slow = getenv("FAULT_FLUSH_MS");
    if (!slow && !getenv("FAULT_WAITS")) return 0;
    char path[PATH_MAX];
    locate(path, file, 0);
    if (!under(path)) return 0;
    pthread_mutex_lock(&flushing);
    ++flushes;
    waits += outstanding++ == 0;
    pthread_mutex_unlock(&flushing);
    if (slow) usleep((useconds_t)atol(slow) * 1000);
    return 1;
}

static void end_flush(int counted) {
    if (!counted) return;
    pthread_mutex_lock(&flushing);
    --outstanding;
    pthread_mutex_unlock(&flushing);
}

__attribute__((destructor)) static void tell_waits(void) {
    const char* path = getenv("FAULT_WAITS");
    if (!path || !flushes) return;
    char line[64];
    const int length = snprintf(line, sizeof line, "%ld %ld\n", flushes, waits);
    const int file = (int)syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT, 0600);
    syscall(SYS_write, file, line, length);
    syscall(SYS_close, file);
}

#define FLUSH(name)                                                                                      \
    static int one_##name(int file) BODY(int, -1, name, (file), file, 0, 0, "", file, NOTHING) int name( \
        int file) {                                                                                      \
        const int counted = begin_flush(file);                                                           \
        const int result = one_##name(file);                                                             \
        const int error = errno;                                                                         \
        end_flush(counted);                                                                              \
        errno = error;                                                                                   \
        return result;                                                                                   \
    }
FLUSH(fsync)
FLUSH(fdatasync)
FLUSH(syncfs)

// A write can also be torn: its first half is done.
#define WRITE(name, parameters, arguments, half, end, data)                                              \
    ssize_t name parameters {                                                                            \
        const int held = hold(file, 0);                                                                  \
        const int verdict = judge(#name, file, 0, "");                                                   \
        if (verdict > 0) return release(held), errno = verdict, -1;                                      \
        const ssize_t result = verdict == KILL_TORN ? REAL(name) half : REAL(name) arguments;            \
        if (held && result > 0)                                                                          \
            note(#name, file, 0, 0, "", file, ((struct Entry){0, (end)-result, result, 0, 0, 0}), data); \
        release(held);                                                                                   \
        if (verdict < 0) die();                                                                          \
        return result;                                                                                   \
    }
WRITE(write, (int file, const void* data, size_t size), (file, data, size), (file, data, size / 2),
      lseek(file, 0, SEEK_CUR), data)
WRITE(pwrite, (int file, const void* data, size_t size, off_t at), (file, data, size, at),
      (file, data, size / 2, at), at + result, data)
WRITE(pwrite64, (int file, const void* data, size_t size, off64_t at), (file, data, size, at),
      (file, data, size / 2, at), at + result, data)
// Its data are not recorded; none is made on a device.
WRITE(writev, (int file, const struct iovec* parts, int count), (file, parts, count),
      (file, parts, count / 2), lseek(file, 0, SEEK_CUR), NULL)

// Opening counts when it can make or empty a file.
#define OPEN(name, parameters, arguments, directory)                                            \
    int name parameters {                                                                       \
        va_list more;                                                                           \
        va_start(more, flags);                                                                  \
        const mode_t mode =                                                                     \
            flags & O_CREAT || (flags & __O_TMPFILE) == __O_TMPFILE ? va_arg(more, mode_t) : 0; \
        va_end(more);                                                                           \
        if (!(flags & (O_CREAT | O_TRUNC)) && (flags & __O_TMPFILE) != __O_TMPFILE)             \
            return REAL(name) arguments;                                                        \
        BODY(int, -1, name, arguments, directory, path, 0, "", result,                          \
             ((struct Entry){0, 0, 0, flags, 0, 0}))                                            \
    }
OPEN(open, (const char* path, int flags, ...), (path, flags, mode), AT_FDCWD)
OPEN(open64, (const char* path, int flags, ...), (path, flags, mode), AT_FDCWD)
OPEN(openat, (int at, const char* path, int flags, ...), (at, path, flags, mode), at)
OPEN(openat64, (int at, const char* path, int flags, ...), (at, path, flags, mode), at)

#define FOPEN(name)                                                               \
    FILE* name(const char* path, const char* mode) {                              \
        if (*mode == 'r') return REAL(name)(path, mode);                          \
        BODY(FILE*, NULL, name, (path, mode), AT_FDCWD, path, 0, "", -1, NOTHING) \
    }
FOPEN(fopen)
FOPEN(fopen64)
