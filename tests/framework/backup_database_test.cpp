// The backup's database: its rows, their dates, and files that are none.

#include <Poco/Data/DataException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "standin/framework/base/Sqlite.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/framework/FrameworkFixture.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using testing::HasSubstr;
using testing::Not;

namespace {

using BackupDatabaseTest = FrameworkTest;

TEST_F(BackupDatabaseTest, CountsAndNamesFollowTheStatementsOfThePlugin) {
    BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    database.folder("72", "Trip");
    for (const char* id : {"1_72", "2_72", "3_72"}) database.item(id, "72", std::string(id) + ".jpg", "Trip");
    database.item("1_72", "72", "renamed.jpg", "Trip");
    EXPECT_EQ(database.getTotalCountInContainer("Trip"), 3);

    SqliteFile plugin(open.path(), SqliteFile::Open::Existing);
    plugin.execute(
        "UPDATE backupmetadata SET ItemName = 'Voyage', DerivedItemName = 'Voyage', ItemUpdatedOn = '' "
        "WHERE OriginalItemId = '72';"
        "UPDATE backupmetadata SET ItemContainerName = 'Voyage', DerivedContainerName = 'Voyage' "
        "WHERE OriginalContainerId = '72';"
        "UPDATE backupmetadata SET DerivedItemName = 'Été.jpg' WHERE ItemId = '2_72';"
        "DELETE FROM backupmetadata WHERE ItemId = '3_72'");
    EXPECT_EQ(database.getTotalCountInContainer("Trip"), 0);
    EXPECT_EQ(database.getTotalCountInContainer("Voyage"), 2);
    EXPECT_EQ(database.generateFileName("été.jpg", "Voyage", "72", "9_72"), "été (2).jpg");
    EXPECT_EQ(database.generateFileName("2_72.jpg", "Voyage", "72", "9_72"), "2_72.jpg") << "free again";
    EXPECT_EQ(database.generateFolderName("voyage", "73"), "voyage (2)");
    EXPECT_EQ(open.integrityProblem(), "");

    const auto folders = open.folders();
    ASSERT_EQ(folders.size(), 1u);
    EXPECT_EQ(folders[0].deviceName, "Voyage");
    EXPECT_EQ(folders[0].items, 2);
    EXPECT_EQ(thumbnailPath(*open.item("1_72"), "Thumbnail"), "Voyage/Thumbnail/renamed_1_72.jpg");

    for (const char* statement :
         {"SELECT ItemUpdatedOn FROM backupmetadata WHERE ItemType = 'FlickrLatestBackUpDateTime'",
          "UPDATE BackupMetaData SET ItemUpdatedOn = 'x' WHERE ItemType = 'FlickrLatestBackUpDateTime'",
          "SELECT ItemName FROM backupmetadata WHERE ItemId = 'x'",
          "UPDATE backupmetadata SET ItemName = 'x' WHERE OriginalItemId = 'x'",
          "UPDATE backupmetadata SET DerivedContainerName = 'x' WHERE OriginalContainerId = 'x'"}) {
        const auto plan = plugin.prepare((std::string("EXPLAIN QUERY PLAN ") + statement).c_str());
        while (plan->step()) EXPECT_THAT(plan->text(3), Not(HasSubstr("SCAN"))) << statement;
    }
}

/// A power cut keeps the middle one of three changes from the disk. The next use makes it again, byte for
/// byte, and is killed: the third one, which lies behind it in the old log, is not to come back.
TEST_F(BackupDatabaseTest, BringsNoChangesBackThatAPowerCutHadTaken) {
    const auto path = [&](const char* name) { return (folder_ / name).string(); };
    const auto copy = [&](const char* from, const char* to) {
        for (const char* file : {"", "-wal"}) {
            const std::string source = path(from) + file;
            if (fs::exists(source)) fs::copy_file(source, path(to) + file);
        }
    };
    const auto row = [](int number) { return "INSERT INTO rows VALUES (" + std::to_string(number) + ")"; };
    std::vector<std::uintmax_t> ends;  // of the log, behind each change
    {
        SqliteFile first(path("first.db"), SqliteFile::Open::OrCreate);
        first.execute("PRAGMA journal_mode = WAL; CREATE TABLE rows (n)");
        for (int number = 1; number <= 3; ++number) {
            first.execute(row(number).c_str());
            ends.push_back(fs::file_size(path("first.db-wal")));
        }
        copy("first.db", "cut.db");
    }
    {
        std::fstream log(path("cut.db-wal"), std::ios::in | std::ios::out | std::ios::binary);
        log.seekp(static_cast<std::streamoff>(ends[0]));
        log << std::string(ends[1] - ends[0], '\0');
    }
    {
        SqliteFile next(path("cut.db"), SqliteFile::Open::OrCreate);
        EXPECT_EQ(next.value("SELECT MAX(n) FROM rows"), "1");
        next.execute(row(2).c_str());
        copy("cut.db", "killed.db");
    }
    EXPECT_EQ(SqliteFile(path("killed.db"), SqliteFile::Open::OrCreate).value("SELECT MAX(n) FROM rows"),
              "2");
}

TEST_F(BackupDatabaseTest, ReportsDatabasesThatCannotBeUsedAndMakesNone) {
    writeFile(folder_ / "text.db", std::string(5000, 'x'));
    SqliteFile((folder_ / "other.db").string(), SqliteFile::Open::OrCreate).execute("CREATE TABLE other (x)");
    EXPECT_THROW(BackupDatabase((folder_ / "text.db").string()), Poco::Data::DataException);
    EXPECT_THROW(BackupDatabase((folder_ / "other.db").string()), Poco::DataFormatException);
    EXPECT_THROW(BackupDatabase((folder_ / "none" / "x.db").string()), Poco::Data::DataException);

    Database database((folder_ / "missing.db").string());
    EXPECT_EQ(database.getDerivedItemNamebyID("1"), "");
    EXPECT_EQ(database.getTotalCountInContainer("Trip"), 0);
    EXPECT_EQ(database.item("1", "72", "a", "Trip"), 0);
    EXPECT_EQ(database.generateFileName("a.jpg", "Trip", "72", "1"), "a.jpg");
    EXPECT_FALSE(fs::exists(folder_ / "missing.db"));
    int code = 0;
    std::string text;
    params_->getErrorDetails(code, text);
    EXPECT_GE(code, 2);
    EXPECT_THAT(text, HasSubstr("getDerivedItemNamebyID"));
    EXPECT_FALSE(params_->isBackupStopped());
}

TEST_F(BackupDatabaseTest, ReadsBothFormsOfDatesAndNothingElse) {
    Database database("");
    const Poco::DateTime date(2024, 2, 29, 23, 59, 58);
    EXPECT_EQ(database.convertToString(date), "2024-02-29 23:59:58");
    EXPECT_EQ(database.convertToDateTime("2024-02-29 23:59:58"), date);
    EXPECT_EQ(database.convertToDateTime("2/9/2024"), Poco::DateTime(2024, 2, 9));
    for (const char* text : {"", "2023-02-29 00:00:00", "13/1/2024", "1/2", "2/9/2024 ", "x", "2/-9/2024",
                             "2024-02-29", "00000002/9/2024", "2024-02-29 23:59:58.5"}) {
        EXPECT_EQ(database.convertToDateTime(text), Poco::DateTime(1970, 1, 1)) << text;
    }
    EXPECT_EQ(database.createFormattedDate(date), "Thu, 29 Feb 2024 11:59:58 PM");
    params_->setCulture("ja_JP.UTF-8");
    EXPECT_EQ(database.createFormattedDate(date), "木, 29 2月 2024 11:59:58 午後");
}

}  // namespace
