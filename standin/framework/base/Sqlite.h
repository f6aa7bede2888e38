// A thin layer over SQLite: connections and statements that release themselves and throw. POCO's sessions,
// which the plug-in uses, prepare every statement anew, and cannot open a file untouched.

#ifndef STANDIN_FRAMEWORK_BASE_SQLITE_H
#define STANDIN_FRAMEWORK_BASE_SQLITE_H

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace flickr_standin {

/// A prepared statement. One execution: bind, then step until it answers false, or run(). A statement that is
/// left in the middle holds a read lock until reset(); StatementUse sees to that.
class Statement {
public:
    Statement(sqlite3* database, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void bind(int index, std::string_view text);
    void bind(int index, std::int64_t number);
    /// True when there is a row. Throws a Poco::Exception for anything but a row or the end.
    bool step();
    void reset();

    /// Column of the current row, from 0. NULL reads as empty or 0.
    std::string text(int column) const;
    std::int64_t number(int column) const;

private:
    sqlite3* database_;
    sqlite3_stmt* statement_ = nullptr;
};

/// One execution of a statement: binds the arguments in order, and resets the statement at the end.
class StatementUse {
public:
    template <typename... Arguments>
    explicit StatementUse(Statement& statement, const Arguments&... arguments) : statement_(statement) {
        int index = 0;
        (statement_.bind(++index, arguments), ...);
    }
    ~StatementUse() { statement_.reset(); }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

    bool step() { return statement_.step(); }
    void run() {
        while (statement_.step()) {
        }
    }
    Statement* operator->() { return &statement_; }

private:
    Statement& statement_;
};

/// An open database file. Links are not followed: the path has to be a real one.
class SqliteFile {
public:
    /// Untouched: to be read only, and neither the file nor a log beside it changes.
    enum class Open { Existing, ExistingReadOnly, OrCreate, Untouched };
    /// Whether the connection has a page cache of its own, or one with every other of the process that
    /// shares.
    enum class Cache { Own, Shared };

    /// Throws a Poco::Exception that names the file.
    SqliteFile(const std::string& path, Open mode, Cache cache = Cache::Own);
    ~SqliteFile();
    SqliteFile(const SqliteFile&) = delete;
    SqliteFile& operator=(const SqliteFile&) = delete;

    /// Runs statements that give nothing back.
    void execute(const char* sql);
    /// First column of the first row; empty when there is none.
    std::string value(const char* sql);
    std::unique_ptr<Statement> prepare(const char* sql) {
        return std::make_unique<Statement>(database_, sql);
    }
    int changes() const { return sqlite3_changes(database_); }
    sqlite3* handle() const { return database_; }

private:
    friend class Transaction;
    void beginNewLog(const std::string& path);
    void runKept(std::unique_ptr<Statement>& kept, const char* sql);

    sqlite3* database_ = nullptr;
    // Prepared once: a run makes several transactions for each item.
    std::unique_ptr<Statement> begin_, commit_;
};

/// What makes up a database of one kind.
struct Schema {
    const char* statements;   ///< that make its tables, indexes and triggers
    int version = 0;          ///< the number that the file keeps: PRAGMA user_version
    const char* former = "";  ///< statements that make what earlier versions left; it may be there as well
};

/// Looks at what stands at path before it is opened, and changes nothing. False when nothing stands there, or
/// a database without tables; true for one of exactly that schema, after checkRows, which throws for rows
/// that are not to be used. Anything else is refused with a Poco::Exception that says what is wrong: another
/// schema, a link or a pipe in the place of the file or of one of its logs, a change that another program
/// left unfinished.
bool inspectDatabase(const std::string& path, const Schema& schema,
                     const std::function<void(SqliteFile&)>& checkRows);

/// Copies the database at path into another folder, with its log, so that it can be read where nothing may be
/// written beside it; gives the copy's path. Nobody may write to the database meanwhile. A link, a pipe or a
/// change that another program left unfinished is refused as inspectDatabase() does. meanwhile, where there
/// is one, is called for each MiB; what it throws ends the copying.
std::string copyDatabase(const std::string& path, const std::string& folder,
                         const std::function<void()>& meanwhile = {});

/// Puts what was committed to the database at path on the disk. Its connections, which flush only now and
/// then, need not know.
void flushWriteAheadLog(const std::string& path);

/// A transaction, rolled back unless commit() was reached.
class Transaction {
public:
    explicit Transaction(SqliteFile& file) : file_(file) { file_.runKept(file_.begin_, "BEGIN IMMEDIATE"); }
    ~Transaction() {
        if (!committed_) sqlite3_exec(file_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
    void commit() {
        file_.runKept(file_.commit_, "COMMIT");
        committed_ = true;
    }

private:
    SqliteFile& file_;
    bool committed_ = false;
};

}  // namespace flickr_standin

#endif
