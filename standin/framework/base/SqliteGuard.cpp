#include "standin/framework/base/SqliteGuard.h"

#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <map>
#include <mutex>

namespace flickr_standin {

namespace {

using Clock = std::chrono::steady_clock;

// Longest text or blob in a row, in bytes.
constexpr int kLongestValue = 4 << 20;
// Steps of SQLite's machine between two looks at the stop flag: some tenths of a millisecond.
constexpr int kSteps = 10000;
// A statement that is under way when the stop comes is most often about to end.
constexpr std::chrono::milliseconds kGrace(300);

struct Admitted {
    std::mutex mutex;
    std::map<std::string, const AdmittedDatabase*> names;  // the youngest of each name
};

Admitted& admitted() {
    static Admitted& instance = *new Admitted;
    return instance;
}

SqliteObserver observer = {};

bool anyAdmitted() {
    const std::lock_guard<std::mutex> lock(admitted().mutex);
    return !admitted().names.empty();
}

sqlite3_vfs* systemVfs = nullptr;
thread_local bool letThrough = false;

int openFile(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    file->pMethods = nullptr;
    if ((flags & SQLITE_OPEN_SUPER_JOURNAL) != 0) return SQLITE_CANTOPEN;
    if ((flags & SQLITE_OPEN_MAIN_DB) != 0 && !letThrough && anyAdmitted()) flags &= ~SQLITE_OPEN_CREATE;
    return systemVfs->xOpen(systemVfs, name, file, flags, outFlags);
}

int fullPathname(sqlite3_vfs*, const char* name, int size, char* path) {
    if (letThrough) return systemVfs->xFullPathname(systemVfs, name, size, path);
    const std::lock_guard<std::mutex> lock(admitted().mutex);
    if (admitted().names.empty()) return systemVfs->xFullPathname(systemVfs, name, size, path);
    const auto found = admitted().names.find(name);
    if (found == admitted().names.end() || !found->second->isThere()) return SQLITE_CANTOPEN;
    const std::string& real = found->second->path();
    if (real.size() >= static_cast<std::size_t>(size)) return SQLITE_CANTOPEN;
    std::memcpy(path, real.c_str(), real.size() + 1);
    return SQLITE_OK;
}

int endsAfterStop(void*) {
    thread_local Clock::time_point stopSeen;
    if (!isSqliteStopped()) {
        stopSeen = {};
        return 0;
    }
    if (stopSeen == Clock::time_point()) stopSeen = Clock::now();
    return Clock::now() - stopSeen > kGrace;
}

int harden(sqlite3* database, char**, const void*) {
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_limit(database, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kLongestValue);
    sqlite3_progress_handler(database, kSteps, endsAfterStop, nullptr);
    return SQLITE_OK;
}

void guardSqlite() {
    static const bool done = [] {
        // SQLite's account of its memory takes a lock for every piece; nothing here asks for it. Too late
        // once another library has opened a database, and then it stays as it is.
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        systemVfs = sqlite3_vfs_find(nullptr);
        static sqlite3_vfs vfs = *systemVfs;
        vfs.pNext = nullptr;
        vfs.zName = "guarded";
        vfs.xOpen = openFile;
        vfs.xFullPathname = fullPathname;
        sqlite3_vfs_register(&vfs, 1);
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(harden));
        return true;
    }();
    (void)done;
}

}  // namespace

void observeSqlite(const SqliteObserver& wanted) {
    observer = wanted;
}

bool isSqliteStopped() {
    return observer.isStopped && observer.isStopped();
}

int openGuarded(const std::string& path, sqlite3** database, int flags) {
    guardSqlite();
    letThrough = true;
    const int result = sqlite3_open_v2(path.c_str(), database, flags | SQLITE_OPEN_NOFOLLOW, nullptr);
    letThrough = false;
    return result;
}

AdmittedDatabase::AdmittedDatabase(std::string name, std::string realPath)
    : name_(std::move(name)), path_(std::move(realPath)) {
    struct stat status = {};
    if (::lstat(path_.c_str(), &status) == 0) {
        device_ = status.st_dev;
        file_ = status.st_ino;
    }
    const std::lock_guard<std::mutex> lock(admitted().mutex);
    admitted().names[name_] = this;
}

AdmittedDatabase::~AdmittedDatabase() {
    const std::lock_guard<std::mutex> lock(admitted().mutex);
    const auto found = admitted().names.find(name_);
    if (found != admitted().names.end() && found->second == this) admitted().names.erase(found);
}

bool AdmittedDatabase::isThere() const {
    struct stat now = {};
    if (::lstat(path_.c_str(), &now) == 0 && now.st_dev == device_ && now.st_ino == file_) return true;
    if (observer.databaseGone) observer.databaseGone(path_);
    return false;
}

}  // namespace flickr_standin
