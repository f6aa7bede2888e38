#include "standin/framework/base/Sqlite.h"

#include <Poco/Data/DataException.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "standin/framework/base/Descriptor.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/SqliteGuard.h"

namespace flickr_standin {

namespace {

// A connection waits this long for another one, in milliseconds, before it gives up; after a stop there is
// little left to write.
constexpr int kBusyTimeout = 10000;
constexpr int kBusyTimeoutAfterStop = 300;

// Steps of SQLite's machine in which a schema of ours is read many times over.
constexpr int kMostSchemaSteps = 1000000;

int waitForLock(void*, int count) {
    constexpr int kFirst = 1, kFirstCount = 10, kLater = 10;  // milliseconds, times, milliseconds
    const bool stopped = isSqliteStopped();
    const int waited = std::min(count, kFirstCount) * kFirst + std::max(count - kFirstCount, 0) * kLater;
    if (waited >= (stopped ? kBusyTimeoutAfterStop : kBusyTimeout)) return 0;
    sqlite3_sleep(count < kFirstCount ? kFirst : kLater);
    return 1;
}

/// The path as a URI that says that nothing changes the file: SQLite then makes nothing beside it.
std::string immutable(const std::string& path) {
    std::string uri = "file:";
    for (const char c : path) {
        if (c == '%' || c == '?' || c == '#') {
            constexpr const char* kDigits = "0123456789ABCDEF";
            uri += {'%', kDigits[c >> 4], kDigits[c & 15]};
        } else {
            uri += c;
        }
    }
    return uri + "?immutable=1";
}

/// What stands at path, links not followed; none for nothing.
std::optional<struct stat> statusOf(const std::string& path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

bool hasLog(const std::string& path) {
    const auto log = statusOf(path + "-wal");
    return log && log->st_size > 0;
}

/// True when the next opening would take the file back to what it was before a change that was cut off. That
/// of a database in the making, which leaves it empty, does not count.
bool hasUnfinishedChange(const std::string& path) {
    // The journal's header: 8 bytes of magic, two numbers of 4 bytes, the pages that the file had.
    constexpr std::size_t kPagesAt = 16;
    char header[kPagesAt + 4] = {};
    const int file = ::open((path + "-journal").c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return false;
    const ssize_t size = ::read(file, header, sizeof header);
    ::close(file);
    return size > 0 && header[0] != 0 &&
           std::any_of(header + kPagesAt, header + sizeof header, [](char c) { return c != 0; });
}

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw Poco::DataFormatException("The database " + path + " " + why);
}

/// SQLite opens by name what lies beside the file, and empties or overwrites it.
void requirePlainFiles(const std::string& path) {
    const auto file = statusOf(path);
    if (file && !S_ISREG(file->st_mode)) refuse(path, "is a link or no file: move it away");
    for (const char* ending : {"-wal", "-shm", "-journal"}) {
        const auto beside = statusOf(path + ending);
        if (beside && (!S_ISREG(beside->st_mode) || beside->st_nlink > 1)) {
            refuse(path, "cannot be used: " + path + ending + " is a link or no file, move it away");
        }
    }
}

void refuseUnfinishedChange(const std::string& path) {
    if (!hasUnfinishedChange(path)) return;
    refuse(path, "was left in the middle of a change by another program (" + path +
                     "-journal): open it with that program, or move both away");
}

/// Where the file's next bytes from a place on begin, behind a hole, which may be larger than any disk; -1
/// when there are none.
off_t dataFrom(const Descriptor& file, off_t at) {
    const off_t begin = ::lseek(file.get(), at, SEEK_DATA);
    if (begin >= 0 || errno == ENXIO) return begin;
    return at;  // a file system that knows no holes
}

/// False when there is no such file. Holes stay holes.
bool copyFile(const std::string& from, const std::string& to, const std::function<void()>& meanwhile) {
    const auto fail = [&](const char* what, int error) {
        throw Poco::FileException("The database file " + from + " cannot be " + what + ": " +
                                  std::strerror(error));
    };
    constexpr std::size_t kBlockSize = 1 << 20;
    const Descriptor source(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!source.isOpen() && errno == ENOENT) return false;
    if (!source.isOpen()) fail("read", errno);
    const Descriptor target(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!target.isOpen()) fail(("copied to " + to).c_str(), errno);
    std::vector<char> block(kBlockSize);
    off_t at = dataFrom(source, 0);
    while (at >= 0) {
        if (meanwhile) meanwhile();
        const ssize_t count = ::pread(source.get(), block.data(), block.size(), at);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail("read", errno);
        if (count == 0) break;
        int error = ::lseek(target.get(), at, SEEK_SET) < 0 ? errno : 0;
        if (error == 0) error = writeAll(target, block.data(), static_cast<std::size_t>(count));
        if (error != 0) fail(("copied to " + to).c_str(), error);
        at = dataFrom(source, at + count);
    }
    struct stat status = {};
    if (::fstat(source.get(), &status) != 0) fail("read", errno);
    if (::ftruncate(target.get(), status.st_size) != 0) fail(("copied to " + to).c_str(), errno);
    return true;
}

/// Every table, index, trigger and view, sorted; whitespace does not count. No more than most + 1.
std::vector<std::string> partsOf(SqliteFile& file, std::size_t most) {
    std::vector<std::string> parts;
    const auto rows = file.prepare("SELECT type, name, tbl_name, sql FROM sqlite_master");
    while (parts.size() <= most && rows->step()) {
        std::string part;
        for (int column = 0; column < 4; ++column) {
            for (const char c : rows->text(column) + ' ') {
                const bool blank = std::isspace(static_cast<unsigned char>(c)) != 0;
                if (!blank || (!part.empty() && part.back() != ' ')) part += blank ? ' ' : c;
            }
        }
        parts.push_back(std::move(part));
    }
    std::sort(parts.begin(), parts.end());
    return parts;
}

std::vector<std::string> partsOf(const std::string& statements) {
    SqliteFile memory(":memory:", SqliteFile::Open::OrCreate);
    memory.execute(statements.c_str());
    return partsOf(memory, SIZE_MAX - 1);
}

enum class Kind { WithoutTables, OfSchema, Other };

Kind kindOf(SqliteFile& file, const Schema& schema) {
    const std::vector<std::string> needed = partsOf(schema.statements);
    const std::vector<std::string> allowed = partsOf(std::string(schema.statements) + schema.former);
    sqlite3_progress_handler(
        file.handle(), kMostSchemaSteps, [](void*) { return 1; }, nullptr);
    const std::vector<std::string> parts = partsOf(file, allowed.size());
    sqlite3_progress_handler(file.handle(), 0, nullptr, nullptr);
    if (parts.empty()) return Kind::WithoutTables;
    const bool same = std::includes(parts.begin(), parts.end(), needed.begin(), needed.end()) &&
                      std::includes(allowed.begin(), allowed.end(), parts.begin(), parts.end()) &&
                      file.value("PRAGMA user_version") == std::to_string(schema.version);
    return same ? Kind::OfSchema : Kind::Other;
}

/// Not every file of a database that cannot grow is reported as full by SQLite.
bool isOnFullDevice(const char* file) {
    struct statvfs device = {};
    return file && *file && ::statvfs(file, &device) == 0 && device.f_bavail == 0;
}

[[noreturn]] void fail(sqlite3* database) {
    const int code = database ? sqlite3_errcode(database) : SQLITE_NOMEM;
    const char* file = database ? sqlite3_db_filename(database, "main") : nullptr;
    std::string text = "The database ";
    if (file && *file) text += std::string(file) + " ";
    switch (code) {
        case SQLITE_NOTADB:
            text += "is not a SQLite database";
            break;
        case SQLITE_CORRUPT:
            text += "is damaged";
            break;
        case SQLITE_READONLY:
        case SQLITE_PERM:
            text += "cannot be written: check its permissions";
            break;
        case SQLITE_CANTOPEN:
            text += "cannot be opened";
            break;
        case SQLITE_FULL:
            text += "cannot grow: the device is full";
            break;
        case SQLITE_BUSY:
            text += "is in use by another program";
            break;
        case SQLITE_INTERRUPT:
            text += "takes too long to read: it is damaged or was not made by this program";
            break;
        default:
            text += isOnFullDevice(file) ? "cannot grow: the device is full" : "failed";
            break;
    }
    text += std::string(" (") + (database ? sqlite3_errmsg(database) : "out of memory") + ")";
    throw Poco::Data::DataException(text, code);
}

}  // namespace

Statement::Statement(sqlite3* database, const char* sql) : database_(database) {
    if (sqlite3_prepare_v3(database, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr) != SQLITE_OK) {
        fail(database);
    }
}

Statement::~Statement() {
    sqlite3_finalize(statement_);
}

void Statement::bind(int index, std::string_view text) {
    if (sqlite3_bind_text64(statement_, index, text.data() ? text.data() : "", text.size(), SQLITE_TRANSIENT,
                            SQLITE_UTF8) != SQLITE_OK) {
        fail(database_);
    }
}

void Statement::bind(int index, std::int64_t number) {
    if (sqlite3_bind_int64(statement_, index, number) != SQLITE_OK) fail(database_);
}

bool Statement::step() {
    switch (sqlite3_step(statement_)) {
        case SQLITE_ROW:
            return true;
        case SQLITE_DONE:
            return false;
        default:
            fail(database_);
    }
}

void Statement::reset() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

std::string Statement::text(int column) const {
    const void* text = sqlite3_column_text(statement_, column);
    if (!text) return {};
    return {static_cast<const char*>(text),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

std::int64_t Statement::number(int column) const {
    return sqlite3_column_int64(statement_, column);
}

SqliteFile::SqliteFile(const std::string& path, Open mode, Cache cache) {
    int flags = cache == Cache::Shared ? SQLITE_OPEN_SHAREDCACHE : SQLITE_OPEN_PRIVATECACHE;
    std::string name = path;
    const bool beginsNewLog = (mode == Open::Existing || mode == Open::OrCreate) && hasLog(path);
    switch (mode) {
        case Open::Existing:
            flags |= SQLITE_OPEN_READWRITE;
            break;
        case Open::ExistingReadOnly:
            flags |= SQLITE_OPEN_READONLY;
            break;
        case Open::OrCreate:
            flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
            break;
        case Open::Untouched:
            // What is only in the log yet can be read by a connection that may write, and leaves it.
            flags |= hasLog(path) ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
            if (!hasLog(path)) name = immutable(path);
            break;
    }
    if (openGuarded(name, &database_, flags) != SQLITE_OK) {
        const std::string reason = database_ ? sqlite3_errmsg(database_) : "out of memory";
        sqlite3_close(database_);
        throw Poco::Data::DataException("The database " + path + " cannot be opened (" + reason + ")",
                                        SQLITE_CANTOPEN);
    }
    if (mode == Open::Untouched) sqlite3_db_config(database_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    // What runs here has to come to its end after a stop as well: it puts things in order.
    sqlite3_progress_handler(database_, 0, nullptr, nullptr);
    sqlite3_busy_handler(database_, waitForLock, nullptr);
    if (beginsNewLog) beginNewLog(path);
}

/// Takes what a use that was cut off left in the log into the file. A power cut may have kept from the disk a
/// change in the middle of the log, which ends it there; the later ones lie behind. A change that is made
/// again, byte for byte, in the place of the missing one would bring them back: rows of files that are not
/// there any more. A log that begins anew has other salts.
void SqliteFile::beginNewLog(const std::string& path) {
    // A connection that has read nothing has not opened the log. What cannot be read is told by whoever
    // reads.
    sqlite3_exec(database_, "SELECT 1 FROM sqlite_master LIMIT 1", nullptr, nullptr, nullptr);
    const int code =
        sqlite3_wal_checkpoint_v2(database_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    // While somebody else reads, and once this process has it open already, the log goes on as it is.
    if (code == SQLITE_OK || code == SQLITE_BUSY || code == SQLITE_LOCKED) return;
    const std::string reason = sqlite3_errmsg(database_);
    sqlite3_close(database_);
    throw Poco::Data::DataException("The database " + path + " cannot be put in order (" + reason + ")",
                                    code);
}

SqliteFile::~SqliteFile() {
    begin_.reset();
    commit_.reset();
    sqlite3_close_v2(database_);
}

void SqliteFile::execute(const char* sql) {
    if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(database_);
}

void SqliteFile::runKept(std::unique_ptr<Statement>& kept, const char* sql) {
    if (!kept) kept = prepare(sql);
    StatementUse(*kept).run();
}

bool inspectDatabase(const std::string& path, const Schema& schema,
                     const std::function<void(SqliteFile&)>& checkRows) {
    requirePlainFiles(path);
    const auto standing = statusOf(path);
    if (!standing || standing->st_size == 0) return false;
    refuseUnfinishedChange(path);
    const bool hadIndex = statusOf(path + "-shm").has_value();
    try {
        SqliteFile file(path, SqliteFile::Open::Untouched);
        switch (kindOf(file, schema)) {
            case Kind::WithoutTables:
                return false;
            case Kind::OfSchema:
                checkRows(file);
                return true;
            case Kind::Other:
                refuse(path,
                       "was not made by this program, or by another version of it: choose another file");
        }
    } catch (Poco::Exception&) {
        // Reading a log makes an index of it.
        if (!hadIndex) ::unlink((path + "-shm").c_str());
        throw;
    }
    return false;
}

std::string copyDatabase(const std::string& path, const std::string& folder,
                         const std::function<void()>& meanwhile) {
    requirePlainFiles(path);
    refuseUnfinishedChange(path);
    const std::string copy = joinPath(folder, nameOf(path));
    if (!copyFile(path, copy, meanwhile))
        throw Poco::NotFoundException("The database " + path + " does not exist");
    copyFile(path + "-wal", copy + "-wal", meanwhile);
    return copy;
}

void flushWriteAheadLog(const std::string& path) {
    const int file = ::open((path + "-wal").c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file < 0 && errno == ENOENT) return;  // nothing was written since it was last emptied
    struct stat status = {};
    const bool isEmpty = ::fstat(file, &status) == 0 && status.st_size == 0;
    const bool flushed = isEmpty || ::fdatasync(file) == 0;
    ::close(file);
    if (!flushed)
        throw Poco::Data::DataException("The database " + path + " cannot be flushed", SQLITE_IOERR);
}

std::string SqliteFile::value(const char* sql) {
    Statement statement(database_, sql);
    return statement.step() ? statement.text(0) : std::string();
}

}  // namespace flickr_standin
