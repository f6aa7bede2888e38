#include "standin/framework/device/Ledger.h"

#include <Poco/Exception.h>

#include <algorithm>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"

namespace flickr_standin {

namespace {

constexpr std::int64_t kRoot = 1;
constexpr std::size_t kMostPutOff = 64;

constexpr const char* kSchema = R"(
    CREATE TABLE IF NOT EXISTS folders (
        id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name TEXT NOT NULL, made INTEGER NOT NULL DEFAULT 0,
        was TEXT NOT NULL DEFAULT '', pending INTEGER NOT NULL DEFAULT 0, UNIQUE (parent, name));
    CREATE INDEX IF NOT EXISTS pendingfolders ON folders (id) WHERE pending <> 0;
    INSERT OR IGNORE INTO folders (id, parent, name) VALUES (1, 0, '');
    CREATE TABLE IF NOT EXISTS files (
        folder INTEGER NOT NULL, name TEXT NOT NULL, item TEXT NOT NULL, size INTEGER NOT NULL,
        checksum TEXT NOT NULL, was TEXT NOT NULL, pending INTEGER NOT NULL,
        PRIMARY KEY (folder, name)) WITHOUT ROWID;
    CREATE INDEX IF NOT EXISTS filesofitem ON files (item);
    CREATE INDEX IF NOT EXISTS pendingfiles ON files (folder, name) WHERE pending <> 0;
    CREATE TABLE IF NOT EXISTS state (inuse INTEGER PRIMARY KEY);
)";
// Ledgers of earlier versions have none.
constexpr const char* kLaterTables = R"(
    CREATE TABLE IF NOT EXISTS owners (
        owner TEXT NOT NULL PRIMARY KEY, folder INTEGER NOT NULL UNIQUE) WITHOUT ROWID;
    CREATE TABLE IF NOT EXISTS versions (
        folder INTEGER NOT NULL, name TEXT NOT NULL, item TEXT NOT NULL, size INTEGER NOT NULL,
        checksum TEXT NOT NULL, aside TEXT NOT NULL, PRIMARY KEY (folder, name)) WITHOUT ROWID;
    CREATE INDEX IF NOT EXISTS movingversions ON versions (folder, aside) WHERE aside <> '';
)";
constexpr const char* kFormerSchema = "CREATE TABLE parts (path TEXT PRIMARY KEY) WITHOUT ROWID;";

constexpr const char* kVersionColumns = "SELECT folder, name, item, size, checksum, aside FROM versions ";
constexpr const char* kFileColumns = "SELECT folder, name, item, size, checksum, was, pending FROM files ";

}  // namespace

struct Ledger::Statements {
    explicit Statements(sqlite3* db)
        : findFolder(db, "SELECT id FROM folders WHERE parent = ? AND name = ?"),
          addFolder(db, "INSERT INTO folders (parent, name) VALUES (?, ?)"),
          folderName(db, "SELECT parent, name FROM folders WHERE id = ?"),
          isFolderMade(db, "SELECT made FROM folders WHERE id = ?"),
          setFolderMade(db, "UPDATE folders SET made = 1, pending = 1 WHERE id = ?"),
          settleFolder(db, "UPDATE folders SET was = '', pending = 0 WHERE id = ?"),
          findFile(db, (std::string(kFileColumns) + "WHERE folder = ? AND name = ?").c_str()),
          putFile(db,
                  "INSERT OR REPLACE INTO files (folder, name, item, size, checksum, was, pending) "
                  "VALUES (?, ?, ?, ?, ?, ?, ?)"),
          eraseFile(db, "DELETE FROM files WHERE folder = ? AND name = ?"),
          settleItem(db, "UPDATE files SET pending = 0 WHERE item = ? AND was = '' AND pending IN (1, 2)") {}

    Statement findFolder, addFolder, folderName, isFolderMade, setFolderMade, settleFolder, findFile, putFile,
        eraseFile, settleItem;
};

namespace {

[[noreturn]] void failToUse(const std::string& path, const Poco::Exception& exception) {
    throw Poco::DataException("The list of backed up files " + path +
                                  " cannot be used: " + exception.message() +
                                  ". If it is damaged, delete it: the next run takes in the recorded files "
                                  "again, without their checksums.",
                              exception, exception.code());
}

[[noreturn]] void refuseRow(const std::string& path, const std::string& what) {
    throw Poco::DataFormatException("The database " + path + " holds " + what +
                                    ", which this program never writes");
}

/// What a row names becomes a path: each name is to lead to something in its own folder, and the folders to
/// the root.
void checkRows(SqliteFile& file, const std::string& path) {
    constexpr int kDeepest = 64;
    std::map<std::int64_t, std::int64_t> parents;
    const auto folders = file.prepare("SELECT id, parent, name, was FROM folders");
    while (folders->step()) {
        const std::int64_t id = folders->number(0);
        parents[id] = folders->number(1);
        const bool root = id == kRoot && folders->number(1) == 0 && folders->text(2).empty();
        if (!root && !isBackupName(folders->text(2))) refuseRow(path, "a folder that can have no such name");
        std::string was = folders->text(3);
        if (was[0] == '/') refuseRow(path, "a former path that leads elsewhere");
        while (!was.empty()) {
            if (!isBackupName(nameOf(was))) refuseRow(path, "a former path that leads elsewhere");
            was = folderOf(was);
        }
    }
    for (const auto& [id, parent] : parents) {
        std::int64_t at = id;
        for (int depth = 0; at != kRoot; ++depth) {
            const auto found = parents.find(at);
            if (found == parents.end() || depth == kDeepest) refuseRow(path, "folders that lead nowhere");
            at = found->second;
        }
    }
    const auto files = file.prepare("SELECT folder, name, was FROM files");
    while (files->step()) {
        const std::string name = files->text(1), was = files->text(2);
        if (parents.count(files->number(0)) == 0) refuseRow(path, "a file in no folder");
        const bool plain = isBackupName(name) || isOwnName(name, kKeptPrefix);
        if (!plain || (!was.empty() && !isBackupName(was))) {
            refuseRow(path, "a file that can have no such name");
        }
    }
    if (file.value("SELECT 1 FROM sqlite_master WHERE name = 'versions'").empty()) return;
    const auto versions = file.prepare("SELECT folder, name, aside FROM versions");
    while (versions->step()) {
        const std::string aside = versions->text(2);
        if (parents.count(versions->number(0)) == 0) refuseRow(path, "a version in no folder");
        const bool plain = aside.empty() || isBackupName(aside) || isOwnName(aside, kKeptPrefix);
        if (!plain || !replacedAt(versions->text(1))) refuseRow(path, "a version that can have no such name");
    }
}

/// The path, when what stands there may be used.
const std::string& inspected(const std::string& path) {
    try {
        const std::string allowed = std::string(kLaterTables) + kFormerSchema;
        inspectDatabase(path, {kSchema, 0, allowed.c_str()},
                        [&](SqliteFile& file) { checkRows(file, path); });
    } catch (Poco::Exception& exception) {
        failToUse(path, exception);
    }
    return path;
}

}  // namespace

std::string LedgerVersion::path() const {
    return joinPath(joinPath(folder, kVersionFolder), name);
}

Ledger::Ledger(const std::string& path)
    : path_(path), database_(inspected(path), SqliteFile::Open::OrCreate) {
    try {
        database_.execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;");
        Transaction transaction(database_);
        database_.execute(kSchema);
        database_.execute(kLaterTables);
        database_.execute("DROP TABLE IF EXISTS parts");
        transaction.commit();
        sql_ = std::make_unique<Statements>(database_.handle());
        mayLackRows_ = !database_.value("SELECT inuse FROM state").empty() ||
                       database_.value("SELECT 1 FROM files LIMIT 1").empty();
    } catch (Poco::Exception& exception) {
        failToUse(path, exception);
    }
}

Ledger::~Ledger() {
    try {
        writeLater();
        if (inUse_ && !leftInUse_) database_.execute("DELETE FROM state");
    } catch (Poco::Exception&) {
        // What was put off is found pending by the next run.
    }
}

void Ledger::markInUse() {
    const std::lock_guard<std::mutex> lock(mutex_);
    enterUse();
}

void Ledger::leaveInUse() {
    const std::lock_guard<std::mutex> lock(mutex_);
    leftInUse_ = true;
}

/// On the disk before anything else of this use is, so that a power cut leaves it too.
void Ledger::enterUse() {
    if (inUse_) return;
    database_.execute(
        "PRAGMA synchronous = FULL; INSERT OR IGNORE INTO state VALUES (1);"
        "PRAGMA synchronous = NORMAL");
    inUse_ = true;
}

template <typename Change>
void Ledger::write(Change change) {
    enterUse();
    Transaction transaction(database_);
    change();
    transaction.commit();
}

// What was settled before must not settle a change that comes after it.
template <typename Change>
void Ledger::writeFor(const std::string& item, Change change) {
    if (laterSettled_.count(item) != 0) {
        writeLater();
        speaksOfUnflushedRows_ = true;
    }
    write(change);
}

void Ledger::writeLater() {
    if (laterSettled_.empty()) return;
    write([&] {
        for (const std::string& item : laterSettled_) StatementUse(sql_->settleItem, item).run();
    });
    laterSettled_.clear();
}

void Ledger::writeSettled() {
    const std::lock_guard<std::mutex> lock(mutex_);
    writeLater();
    speaksOfUnflushedRows_ = false;
}

bool Ledger::speaksOfUnflushedRows() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return speaksOfUnflushedRows_;
}

void Ledger::flush() {
    flushWriteAheadLog(path_);
}

bool Ledger::mayLackRows() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return mayLackRows_;
}

std::int64_t Ledger::folderId(const std::string& path) {
    if (path.empty()) return kRoot;
    const auto known = folderIds_.find(path);
    if (known != folderIds_.end()) return known->second;
    const std::int64_t parent = folderId(folderOf(path));
    if (parent == 0) return 0;
    StatementUse find(sql_->findFolder, parent, nameOf(path));
    if (!find.step()) return 0;
    return folderIds_[path] = find->number(0);
}

std::int64_t Ledger::makeFolderId(const std::string& path) {
    const std::int64_t known = folderId(path);
    if (known != 0) return known;
    const std::int64_t parent = makeFolderId(folderOf(path));
    StatementUse(sql_->addFolder, parent, nameOf(path)).run();
    return sqlite3_last_insert_rowid(database_.handle());  // not remembered: it may be rolled back
}

std::string Ledger::folderPath(std::int64_t id) {
    std::string path;
    while (id != kRoot && id != 0) {
        StatementUse find(sql_->folderName, id);
        if (!find.step()) break;
        path = path.empty() ? find->text(1) : find->text(1) + "/" + path;
        id = find->number(0);
    }
    return path;
}

LedgerFile Ledger::fileOfRow(const Statement& row, std::string path) {
    LedgerFile file;
    file.path = std::move(path);
    file.item = row.text(2);
    file.size = static_cast<std::uint64_t>(row.number(3));
    file.checksum = row.text(4);
    file.was = row.text(5);
    file.state = static_cast<FileState>(row.number(6));
    return file;
}

std::vector<LedgerFile> Ledger::readFiles(StatementUse& use) {
    std::vector<LedgerFile> files;
    while (use.step()) {
        const Statement& row = *use.operator->();
        files.push_back(fileOfRow(row, joinPath(folderPath(row.number(0)), row.text(1))));
    }
    return files;
}

std::optional<LedgerFile> Ledger::file(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t folder = folderId(folderOf(path));
    if (folder == 0) return std::nullopt;
    StatementUse find(sql_->findFile, folder, nameOf(path));
    if (!find.step()) return std::nullopt;
    LedgerFile file = fileOfRow(*find.operator->(), path);
    const bool settled =
        file.was.empty() && file.state != FileState::Removed && laterSettled_.count(file.item) != 0;
    if (settled) file.state = FileState::Settled;
    return file;
}

/// Whose the file is; empty when no row speaks of it.
std::string Ledger::itemOf(std::int64_t folder, const std::string& name) {
    StatementUse find(sql_->findFile, folder, name);
    return find.step() ? find->text(2) : std::string();
}

std::vector<LedgerFile> Ledger::filesOfItem(const std::string& item) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto statement = database_.prepare((std::string(kFileColumns) + "WHERE item = ?").c_str());
    StatementUse use(*statement, item);
    return readFiles(use);
}

std::vector<LedgerFile> Ledger::pendingFiles() {
    const std::lock_guard<std::mutex> lock(mutex_);
    writeLater();
    const auto statement = database_.prepare((std::string(kFileColumns) + "WHERE pending <> 0").c_str());
    StatementUse use(*statement);
    return readFiles(use);
}

void Ledger::putFile(const LedgerFile& file) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto put = [&] {
        StatementUse(sql_->putFile, makeFolderId(folderOf(file.path)), nameOf(file.path), file.item,
                     static_cast<std::int64_t>(file.size), file.checksum, file.was,
                     static_cast<std::int64_t>(file.state))
            .run();
    };
    writeFor(file.item, put);
}

void Ledger::eraseFile(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t folder = folderId(folderOf(path));
    if (folder == 0) return;
    write([&] { StatementUse(sql_->eraseFile, folder, nameOf(path)).run(); });
}

void Ledger::moveFile(const std::string& from, const std::string& to, const std::string& was) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t known = folderId(folderOf(from));
    writeFor(known == 0 ? std::string() : itemOf(known, nameOf(from)), [&] {
        const std::int64_t toFolder = makeFolderId(folderOf(to));
        const std::int64_t fromFolder = makeFolderId(folderOf(from));
        StatementUse(sql_->eraseFile, toFolder, nameOf(to)).run();
        const auto move = database_.prepare(
            "UPDATE files SET folder = ?, name = ?, was = ?, pending = 1 WHERE folder = ? AND name = ?");
        StatementUse(*move, toFolder, nameOf(to), was, fromFolder, nameOf(from)).run();
    });
}

void Ledger::setState(const std::string& path, FileState state) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t folder = folderId(folderOf(path));
    if (folder == 0) return;
    writeFor(itemOf(folder, nameOf(path)), [&] {
        const auto set = database_.prepare("UPDATE files SET pending = ? WHERE folder = ? AND name = ?");
        StatementUse(*set, static_cast<std::int64_t>(state), folder, nameOf(path)).run();
    });
}

bool Ledger::settleItemLater(const std::string& item) {
    const std::lock_guard<std::mutex> lock(mutex_);
    laterSettled_.insert(item);
    const bool isFirst = !hasSettled_;
    hasSettled_ = true;
    return isFirst;
}

bool Ledger::isSettlingDue() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return laterSettled_.size() >= kMostPutOff;
}

std::vector<std::string> Ledger::settledItems() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> items;
    const auto statement = database_.prepare("SELECT DISTINCT item FROM files WHERE pending = 0");
    while (statement->step()) items.push_back(statement->text(0));
    return items;
}

std::vector<LedgerVersion> Ledger::readVersions(StatementUse& use) {
    std::vector<LedgerVersion> versions;
    while (use.step()) {
        versions.push_back({folderPath(use->number(0)), use->text(1), use->text(2),
                            static_cast<std::uint64_t>(use->number(3)), use->text(4), use->text(5)});
    }
    return versions;
}

std::vector<LedgerVersion> Ledger::versions() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto statement = database_.prepare(kVersionColumns);
    StatementUse use(*statement);
    return readVersions(use);
}

std::optional<LedgerVersion> Ledger::versionFrom(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t folder = folderId(folderOf(path));
    if (folder == 0) return std::nullopt;
    const auto statement = database_.prepare(
        (std::string(kVersionColumns) + "WHERE aside <> '' AND folder = ? AND aside = ?").c_str());
    StatementUse use(*statement, folder, nameOf(path));
    const std::vector<LedgerVersion> versions = readVersions(use);
    return versions.empty() ? std::nullopt : std::optional(versions.front());
}

bool Ledger::hasVersion(const std::string& folder, const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t id = folderId(folder);
    const auto find = database_.prepare("SELECT 1 FROM versions WHERE folder = ? AND name = ?");
    StatementUse use(*find, id, name);
    return use.step();
}

void Ledger::putVersion(const LedgerVersion& version) {
    const std::lock_guard<std::mutex> lock(mutex_);
    write([&] {
        const auto put = database_.prepare(
            "INSERT OR REPLACE INTO versions (folder, name, item, size, checksum, aside) "
            "VALUES (?, ?, ?, ?, ?, ?)");
        StatementUse(*put, makeFolderId(version.folder), version.name, version.item,
                     static_cast<std::int64_t>(version.size), version.checksum, version.aside)
            .run();
    });
}

void Ledger::eraseVersion(const LedgerVersion& version) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t folder = folderId(version.folder);
    if (folder == 0) return;
    write([&] {
        const auto erase = database_.prepare("DELETE FROM versions WHERE folder = ? AND name = ?");
        StatementUse(*erase, folder, version.name).run();
    });
}

bool Ledger::madeFolder(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t id = folderId(path);
    if (id == 0) return false;
    StatementUse use(sql_->isFolderMade, id);
    return use.step() && use->number(0) != 0;
}

void Ledger::addMadeFolder(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    write([&] { StatementUse(sql_->setFolderMade, makeFolderId(path)).run(); });
}

void Ledger::moveFolder(const std::string& from, const std::string& to) {
    renameFolderRow(from, to, from);
}

void Ledger::moveFolderBack(const std::string& from, const std::string& to) {
    renameFolderRow(from, to, "");
}

/// was: empty for a row that is settled then.
void Ledger::renameFolderRow(const std::string& from, const std::string& to, const std::string& was) {
    const std::lock_guard<std::mutex> lock(mutex_);
    write([&] {
        const std::int64_t stale = folderId(to);
        if (stale != 0) forgetFolderRows(stale);
        const std::int64_t id = makeFolderId(from);
        const std::int64_t parent = makeFolderId(folderOf(to));
        folderIds_.clear();
        const auto statement =
            database_.prepare("UPDATE folders SET parent = ?, name = ?, was = ?, pending = ? WHERE id = ?");
        StatementUse(*statement, parent, nameOf(to), was, static_cast<std::int64_t>(!was.empty()), id).run();
    });
    folderIds_.clear();
}

void Ledger::forgetFolder(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t id = folderId(path);
    if (id > kRoot) write([&] { forgetFolderRows(id); });
}

void Ledger::forgetFolderRows(std::int64_t id) {
    folderIds_.clear();
    std::vector<std::int64_t> children;
    const auto find = database_.prepare("SELECT id FROM folders WHERE parent = ?");
    find->bind(1, id);
    while (find->step()) children.push_back(find->number(0));
    for (const std::int64_t child : children) forgetFolderRows(child);
    const auto eraseFiles = database_.prepare("DELETE FROM files WHERE folder = ?");
    StatementUse(*eraseFiles, id).run();
    const auto eraseVersions = database_.prepare("DELETE FROM versions WHERE folder = ?");
    StatementUse(*eraseVersions, id).run();
    const auto eraseOwner = database_.prepare("DELETE FROM owners WHERE folder = ?");
    StatementUse(*eraseOwner, id).run();
    const auto eraseFolder = database_.prepare("DELETE FROM folders WHERE id = ?");
    StatementUse(*eraseFolder, id).run();
}

void Ledger::settleFolders(const std::vector<std::string>& paths) {
    if (paths.empty()) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    write([&] {
        for (const std::string& path : paths) {
            StatementUse(sql_->settleFolder, folderId(path)).run();
        }
    });
}

std::vector<LedgerFolder> Ledger::readFolders(const char* where) {
    std::vector<LedgerFolder> folders;
    const auto statement = database_.prepare(
        (std::string("SELECT id, was, owner FROM folders LEFT JOIN owners ON folder = id WHERE ") + where)
            .c_str());
    while (statement->step()) {
        folders.push_back({folderPath(statement->number(0)), statement->text(1), statement->text(2)});
    }
    return folders;
}

std::vector<LedgerFolder> Ledger::pendingFolders() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<LedgerFolder> folders = readFolders("pending <> 0");
    const auto depth = [](const LedgerFolder& folder) {
        return std::count(folder.path.begin(), folder.path.end(), '/');
    };
    std::stable_sort(folders.begin(), folders.end(),
                     [&](const LedgerFolder& a, const LedgerFolder& b) { return depth(a) > depth(b); });
    return folders;
}

std::vector<LedgerFolder> Ledger::folders() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return readFolders("parent <> 0");
}

std::vector<LedgerFolder> Ledger::setFolders() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return readFolders("parent = 1 AND (owner IS NOT NULL OR pending <> 0)");
}

std::string Ledger::folderOwner(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t id = folderId(path);
    if (id == 0) return {};
    const auto find = database_.prepare("SELECT owner FROM owners WHERE folder = ?");
    StatementUse use(*find, id);
    return use.step() ? use->text(0) : std::string();
}

void Ledger::setFolderOwner(const std::string& path, const std::string& owner) {
    const std::lock_guard<std::mutex> lock(mutex_);
    write([&] {
        // Whatever else was the set's or the folder's makes way.
        const auto set = database_.prepare("INSERT OR REPLACE INTO owners (owner, folder) VALUES (?, ?)");
        StatementUse(*set, owner, makeFolderId(path)).run();
    });
}

}  // namespace flickr_standin
