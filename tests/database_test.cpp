// The databases on a device: what may stand there, who reaches them, and what verify finds.

#include <Poco/Exception.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "core/FlickrDbInterface.h"
#include "hostapi/HostServiceClientMac.h"
#include "hostapi/HostServiceUsageParams.h"
#include "hostapi/ItemDataManager.h"
#include "hostapi/MediaTemplate.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/device/Ledger.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/TestFolder.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using Norvale_Plugin_Flickr::FlickrDbInterface;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/// A connection of somebody who means harm: nothing is forbidden to it.
void prepare(const fs::path& path, const std::string& statements,
             const std::function<void()>& whileOpen = {}) {
    sqlite3* database = nullptr;
    sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 0, nullptr);
    sqlite3_exec(database, "PRAGMA writable_schema = ON", nullptr, nullptr, nullptr);
    ASSERT_EQ(sqlite3_exec(database, statements.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database) << "\n"
        << statements;
    if (whileOpen) whileOpen();
    sqlite3_close(database);
}

class DatabaseTest : public testing::Test {
protected:
    DatabaseTest() {
        fs::create_directories(device("service"));
        params_->release();
        params_->setBackupState(false);
        params_->setParams(device("service"), "", true, 1, device(""));
        params_->setRetryAttempts("1");
    }
    ~DatabaseTest() override { params_->release(); }

    std::string device(const std::string& path) const { return (folder_ / "device" / path).string(); }
    std::string path() const { return device("backup.db"); }

    static void put(BackupDatabase& database, const std::string& id, const std::string& set,
                    const std::string& name, const std::string& folder, const std::string& type) {
        MetadataEntry entry;
        entry.itemId = entry.originalItemId = id;
        entry.itemName = entry.derivedItemName = name;
        entry.derivedContainerName = folder;
        entry.originalContainerId = set;
        entry.itemType = type;
        entry.imageExtension = "jpg";
        database.put(entry);
    }
    static void fill(BackupDatabase& database) {
        put(database, "72", "Flickr_ID", "Trip", "Flickr", kFolderType);
        put(database, "1_72", "72", "a.jpg", "Trip", "FlickrPhoto");
        put(database, "2_Anonymous", kNoSetId, "b.jpg", "", "FlickrPhoto");
    }

    /// Everything on the device, a file with its bytes.
    std::map<std::string, std::string> everything() const {
        std::map<std::string, std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(folder_)) {
            found[entry.path()] = entry.is_regular_file() ? readFile(entry.path()) : "";
        }
        return found;
    }
    /// The refusal's text; empty when there was none.
    static std::string refusal(const std::function<void()>& open) {
        try {
            open();
            return {};
        } catch (Poco::Exception& exception) {
            return exception.message() + " ";
        }
    }

    const TestFolder temporary_;
    const fs::path folder_ = temporary_.path();
    HostServiceUsageParams* params_ = HostServiceUsageParams::getInstance();
};

TEST_F(DatabaseTest, APreparedDatabaseIsRefusedAndNoByteOfItChanges) {
    const std::string endless =
        "BEGIN DELETE FROM x WHERE y IN (WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i FROM n) SELECT "
        "i "
        "FROM n); END";
    const auto row = [](const std::string& assignment) {
        return "UPDATE backupmetadata SET " + assignment + " WHERE ItemId = '1_72'";
    };
    const std::vector<std::string> ofBackup = {
        "CREATE TABLE mine (x)",
        "CREATE INDEX mine ON backupmetadata (ItemName)",
        "CREATE VIEW mine AS SELECT 1",
        "CREATE TABLE x (y); CREATE TRIGGER mine AFTER UPDATE ON backupmetadata " + endless,
        "DROP TRIGGER metadatastalename",
        "UPDATE sqlite_master SET sql = replace(sql, '+ 1', '+ 2') WHERE name = 'metadatacountinsert'",
        "PRAGMA user_version = 7",
        row("DerivedItemName = '../precious'"),
        row("DerivedItemName = 'a/b'"),
        row("DerivedItemName = '..'"),
        row("DerivedItemName = '.Records'"),
        row("DerivedItemName = '.part-1'"),
        row("DerivedItemName = NULL"),
        row("DerivedItemName = CAST(x'612e6a706700' AS TEXT)"),
        row("DerivedItemName = '..', ItemType = 'FlickrLatestBackUpDateTime'"),
        row("DerivedContainerName = '..'"),
        row("DerivedContainerName = ''"),
        row("ItemId = '1/72'"),
        row("ImageExtension = 'x/../../y'"),
        "UPDATE backupmetadata SET DerivedItemName = '.' WHERE ItemId = '72'"};
    const std::vector<std::string> ofLedger = {
        "CREATE TABLE mine (x)", "CREATE TABLE parts (mine)",
        "CREATE TABLE x (y); CREATE TRIGGER mine AFTER UPDATE ON files " + endless, "DROP INDEX filesofitem"};
    const std::string ledger = device("service/.ledger.db");
    {
        BackupDatabase made(path());
        fill(made);
        Ledger list(ledger);
    }
    const auto refusedAsItIs = [&](const std::string& what) {
        const auto before = everything();
        const auto same = [&] { return everything() == before; };
        if (fs::exists(path())) {
            EXPECT_NE(refusal([&] { BackupDatabase database(path()); }), "") << what;
            EXPECT_TRUE(same()) << what;
            EXPECT_NE(refusal([&] { BackupDatabase(path(), BackupDatabase::Missing::Refuse); }), "") << what;
        } else {
            EXPECT_THAT(refusal([&] { Ledger list(ledger); }), HasSubstr("cannot be used")) << what;
        }
        EXPECT_TRUE(same()) << what;
    };
    fs::create_directory(folder_ / "kept");
    for (const std::string& good : {path(), ledger}) {
        fs::copy(good, folder_ / "kept");
        fs::remove(good);
    }
    for (const std::string& target : {path(), ledger}) {
        const fs::path kept = folder_ / "kept" / fs::path(target).filename(), work = folder_ / "kept/work.db";
        const auto clear = [&] {
            for (const char* ending : {"", "-wal", "-shm", "-journal"}) fs::remove(target + ending);
        };
        for (const std::string& statements : target == path() ? ofBackup : ofLedger) {
            fs::copy(kept, work);
            prepare(work, statements, [&] {  // as a kill leaves it: the change is in the log only
                fs::copy(work, target);
                fs::copy(work.string() + "-wal", target + "-wal");
            });
            refusedAsItIs("in the log: " + statements);
            clear();
            fs::copy(work, target);
            refusedAsItIs(statements);
            prepare(target, "PRAGMA journal_mode = DELETE");
            refusedAsItIs("without a log: " + statements);
            clear();
            fs::remove(work);
        }
        // What the file service and SQLite would open by name, and empty or write into.
        writeFile(folder_ / "precious", "precious");
        for (const char* ending : {"", "-wal", "-shm", "-journal"}) {
            const std::string there = target + ending;
            const auto with = [&](const std::string& what, const std::function<void()>& make) {
                if (*ending) fs::copy(kept, target);
                make();
                refusedAsItIs(what + " at " + there);
                clear();
            };
            with("a link", [&] { fs::create_symlink(*ending ? folder_ / "precious" : kept, there); });
            with("a pipe", [&] { ::mkfifo(there.c_str(), 0600); });
            if (*ending) with("a hard link", [&] { fs::create_hard_link(folder_ / "precious", there); });
        }
        fs::copy(kept, target);
        // It would take the file back to one page, and remove a file that it names.
        writeFile(target + "-journal",
                  std::string("\xd9\xd5\x05\xf9\x20\xa1\x63\xd7\0\0\0\0\0\0\0\0\0\0\0\1", 20));
        refusedAsItIs("an unfinished change");
        clear();
    }
    fs::copy(folder_ / "kept/backup.db", path());
    fs::copy(folder_ / "kept/.ledger.db", ledger);
    prepare(ledger, "CREATE TABLE parts (path TEXT PRIMARY KEY) WITHOUT ROWID");
    EXPECT_EQ(refusal([&] { BackupDatabase database(path()); }), "") << "as it was made";
    EXPECT_EQ(refusal([&] { Ledger list(ledger); }), "") << "as an earlier version left it";
    EXPECT_EQ(readFile(folder_ / "precious"), "precious");
}

TEST_F(DatabaseTest, ADamagedDatabaseIsNoneToRunWith) {
    {
        BackupDatabase database(path());
        fill(database);
    }
    std::string bytes = readFile(path());
    bytes[2 * 4096] = '?';  // the first byte of the page with the index of ids
    writeFile(path(), bytes);
    EXPECT_THAT(refusal([&] { BackupDatabase database(path()); }), HasSubstr("is damaged"));
    EXPECT_NE(BackupDatabase(path(), BackupDatabase::Missing::Refuse).integrityProblem(), "");
}

TEST_F(DatabaseTest, SessionsByNameReachTheRunsDatabaseAndNoOther) {
    const std::string other = device("other.db");
    fs::create_symlink(folder_ / "device", folder_ / "mount");
    const std::string given = (folder_ / "mount/backup.db").string();
    const auto nameIn = [](const std::string& path) {
        FlickrDbInterface session;
        session.setConnectionString(path);
        return session.getPhotoNameById("1_72");
    };
    {
        BackupDatabase database(given);
        fill(database);
        EXPECT_EQ(nameIn(given), "a.jpg") << "the mount point may be a link";
        fs::copy(path(), other);
        fs::copy(path() + "-wal", other + "-wal");
        EXPECT_EQ(nameIn(other), "") << "not the run's";
        EXPECT_EQ(nameIn(device("missing.db")), "");
        EXPECT_FALSE(fs::exists(device("missing.db")));
        EXPECT_FALSE(params_->isBackupStopped());

        fs::rename(device(""), folder_ / "unplugged");
        EXPECT_EQ(nameIn(given), "");
        EXPECT_TRUE(params_->isBackupStopped()) << "what is written now would be lost";
        params_->setBackupState(false);
        FlickrDbInterface host;
        host.setConnectionString(given);
        EXPECT_EQ(host.getDerivedItemNamebyID("1_72"), "");
        EXPECT_TRUE(params_->isBackupStopped());
        fs::rename(folder_ / "unplugged", device(""));
    }
    EXPECT_EQ(nameIn(other), "a.jpg") << "without a run names lead where they lead";
    // A file that has no log beside it is inspected by an address, in which these signs mean something.
    const std::string odd = device("50% of #1?.db");
    fs::copy(path(), odd);
    EXPECT_EQ(BackupDatabase(odd, BackupDatabase::Missing::Refuse).derivedName("1_72"), "a.jpg");
}

TEST_F(DatabaseTest, TimesAreReadAndChangedInTheirOwnRows) {
    BackupDatabase database(path());
    fill(database);
    put(database, "latest", "", "latest", "", "FlickrLatestBackUpDateTime");
    FlickrDbInterface session;
    session.setConnectionString(path());
    const std::string other = session.getPhotoUpdatedById("2_Anonymous");
    session.updateLatestBackupTime(Poco::DateTime(2024, 2, 29, 23, 59, 58));
    session.updatePhotoUpdatedTime("2025-01-02 03:04:05", "1_72");
    EXPECT_EQ(session.convertToString(session.getLatestBackupTime()), "2024-02-29 23:59:58");
    EXPECT_EQ(session.getPhotoUpdatedById("1_72"), "2025-01-02 03:04:05");
    EXPECT_EQ(session.getPhotoUpdatedById("2_Anonymous"), other);
    EXPECT_EQ(session.getPhotoUpdatedById("latest"), "2024-02-29 23:59:58");
}

TEST_F(DatabaseTest, AStopEndsAStatementWithoutEnd) {
    BackupDatabase database(path());
    fill(database);
    prepare(
        path(),
        "CREATE TRIGGER endless AFTER UPDATE ON backupmetadata BEGIN DELETE FROM containercounts WHERE "
        "Items IN (WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT 1 FROM n) SELECT 7 FROM n WHERE i > 1); "
        "END");
    FlickrDbInterface session;
    session.setConnectionString(path());
    std::thread stop([&] {
        sqlite3* other = nullptr;
        sqlite3_open_v2(path().c_str(), &other, SQLITE_OPEN_READWRITE | SQLITE_OPEN_PRIVATECACHE, nullptr);
        // When the statement has begun it holds the lock.
        while (sqlite3_exec(other, "BEGIN IMMEDIATE; COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        sqlite3_close(other);
        params_->setBackupState(true);
    });
    EXPECT_FALSE(session.updateFileTitleV2("1_72", "b", "b.jpg", "2024-01-01 00:00:00"));
    stop.join();
    EXPECT_EQ(database.derivedName("1_72"), "a.jpg");
}

TEST_F(DatabaseTest, VerifyReadsTheDescriptions) {
    BackupDatabase database(path());
    fill(database);
    HostServiceClientMac client;
    std::string command, result, error;
    for (const char* folder : {"Trip", "Trip/Thumbnail", "Thumbnail"}) {
        client.createDirectory(folder, command, result, error);
    }
    const auto store = [&](const std::string& path, const std::string& id) {
        MediaTemplate item;
        item.setID(id);
        std::string content = "x", description = id.empty() ? "" : ItemDataManager().saveItemData(&item);
        client.openFile(path, 7, command, result, error);
        client.writeFileV2(7, content.data(), 1, command, result, error);
        client.closeFile(7, description.data(), static_cast<int>(description.size()), command, result, error);
        ASSERT_EQ(result, "SUC") << error;
    };
    store("Trip/a.jpg", "1_72");
    store("Trip/Thumbnail/a_1_72.jpg", "");
    store("b.jpg", "2_Anonymous");
    store("Thumbnail/b_2_Anonymous.jpg", "");
    const auto unusable = [&] { return verifyBackup(database, device("service"), "Thumbnail").descriptions; };
    EXPECT_THAT(unusable(), testing::IsEmpty());

    const fs::path item = device("service/Trip/.records/a.jpg.xml"),
                   folder = device("service/Trip/.records/.folder.xml");
    const std::string good = readFile(item);
    for (const std::string& bad :
         {std::string(), good.substr(0, good.size() - 5), std::string("<media><ID>2_72</ID></media>"),
          "<!DOCTYPE media>" + good.substr(good.find("<media"))}) {
        writeFile(item, bad);
        EXPECT_THAT(unusable(), ElementsAre("Trip/.records/a.jpg.xml")) << bad;
    }
    fs::remove(item);
    writeFile(folder, "<folder><ID>73</ID></folder>");
    EXPECT_THAT(unusable(), ElementsAre("Trip/.records/.folder.xml", "Trip/.records/a.jpg.xml"));
    EXPECT_FALSE(verifyBackup(database, device("service"), "Thumbnail").agrees());
    EXPECT_TRUE(compareBackup(database, device("service"), "Thumbnail").agrees()) << "without contents";
}

}  // namespace
