#include "gateway/RenditionStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <initializer_list>

namespace flickr_gateway {

namespace {

constexpr int kBusyMilliseconds = 1000;
// By name: the process may have another default, with rules for the databases on devices.
constexpr const char* kFileSystem = "unix";

/// A prepared statement with its texts bound; null when the database refuses it.
class Query {
public:
    Query(sqlite3* database, const char* sql, std::initializer_list<std::string> texts) {
        if (::sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr) != SQLITE_OK) return;
        int index = 0;
        for (const std::string& text : texts) {
            ::sqlite3_bind_text(statement_, ++index, text.data(), static_cast<int>(text.size()),
                                SQLITE_TRANSIENT);
        }
    }
    ~Query() { ::sqlite3_finalize(statement_); }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    bool hasRow() { return statement_ != nullptr && ::sqlite3_step(statement_) == SQLITE_ROW; }
    bool run() { return statement_ != nullptr && ::sqlite3_step(statement_) == SQLITE_DONE; }
    std::string text(int column) const {
        const auto* text = reinterpret_cast<const char*>(::sqlite3_column_text(statement_, column));
        return text != nullptr ? text : "";
    }
    int number(int column) const { return ::sqlite3_column_int(statement_, column); }

private:
    sqlite3_stmt* statement_ = nullptr;
};

}  // namespace

RenditionStore::RenditionStore(const std::string& file) {
    if (file.empty()) return;
    open(file);
    if (database_ != nullptr) return;
    ::unlink(file.c_str());
    open(file);
}

RenditionStore::~RenditionStore() {
    ::sqlite3_close(database_);
}

void RenditionStore::open(const std::string& file) {
    // The file is made here, for its owner only.
    const int made = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (made < 0) return;
    ::close(made);
    const bool opened =
        ::sqlite3_open_v2(file.c_str(), &database_,
                          SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX | SQLITE_OPEN_NOFOLLOW,
                          kFileSystem) == SQLITE_OK &&
        ::sqlite3_busy_timeout(database_, kBusyMilliseconds) == SQLITE_OK &&
        // What a power cut takes is asked for again.
        ::sqlite3_exec(
            database_,
            "PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF;"
            "CREATE TABLE IF NOT EXISTS rendition(id TEXT PRIMARY KEY, updated TEXT, thumbnail TEXT,"
            " label TEXT, source TEXT, width INTEGER, height INTEGER) WITHOUT ROWID;"
            "SELECT updated, thumbnail, label, source, width, height FROM rendition LIMIT 1",
            nullptr, nullptr, nullptr) == SQLITE_OK;
    if (opened) return;
    ::sqlite3_close(database_);
    database_ = nullptr;
}

std::optional<ItemRenditions> RenditionStore::find(const std::string& id, const std::string& updated) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (database_ == nullptr) return std::nullopt;
    Query query(database_,
                "SELECT thumbnail, label, source, width, height FROM rendition WHERE id = ? AND updated = ?",
                {id, updated});
    if (!query.hasRow()) return std::nullopt;
    return ItemRenditions{{"Thumbnail", query.text(0), 0, 0},
                          {query.text(1), query.text(2), query.number(3), query.number(4)}};
}

void RenditionStore::put(const std::string& id, const std::string& updated,
                         const ItemRenditions& renditions) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (database_ == nullptr) return;
    const Rendition& best = renditions.best;
    Query(database_, "INSERT OR REPLACE INTO rendition VALUES (?, ?, ?, ?, ?, ?, ?)",
          {id, updated, renditions.thumbnail.source, best.label, best.source, std::to_string(best.width),
           std::to_string(best.height)})
        .run();
}

void RenditionStore::forget(const std::string& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (database_ != nullptr) Query(database_, "DELETE FROM rendition WHERE id = ?", {id}).run();
}

}  // namespace flickr_gateway
