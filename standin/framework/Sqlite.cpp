#include "standin/framework/Sqlite.h"

#include <Poco/Data/DataException.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace Norvale_Plugin_Core {

namespace {

// A writer waits this long for another one, in milliseconds, before it gives up.
constexpr int kBusyTimeout = 10000;

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
    // SQLite's account of its memory takes a lock for every piece; nothing here asks for it.
    static const int configured = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    (void)configured;  // too late once another library has opened a database, and then it stays as it is

    int flags = cache == Cache::Shared ? SQLITE_OPEN_SHAREDCACHE : SQLITE_OPEN_PRIVATECACHE;
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
    }
    if (sqlite3_open_v2(path.c_str(), &database_, flags, nullptr) != SQLITE_OK) {
        const std::string reason = database_ ? sqlite3_errmsg(database_) : "out of memory";
        sqlite3_close(database_);
        throw Poco::Data::DataException("The database " + path + " cannot be opened (" + reason + ")",
                                        SQLITE_CANTOPEN);
    }
    sqlite3_busy_timeout(database_, kBusyTimeout);
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

void flushWriteAheadLog(const std::string& path) {
    const int file = ::open((path + "-wal").c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return;  // nothing was written since it was last emptied
    const bool flushed = ::fdatasync(file) == 0;
    ::close(file);
    if (!flushed)
        throw Poco::Data::DataException("The database " + path + " cannot be flushed", SQLITE_IOERR);
}

std::string SqliteFile::value(const char* sql) {
    Statement statement(database_, sql);
    return statement.step() ? statement.text(0) : std::string();
}

}  // namespace Norvale_Plugin_Core
