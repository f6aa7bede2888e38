// The check of a backup against its database, and the repair of a lost ledger.

#include <Poco/Exception.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/framework/FrameworkFixture.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using testing::ElementsAre;

namespace {

using BackupCheckTest = FrameworkTest;

TEST_F(BackupCheckTest, FindsWhatIsMissingAlteredOrUnrecorded) {
    BackupDatabase open((folder_ / "service/backup.db").string());
    Database database(open.path());
    HostServiceClientMac client;
    database.folder("72", "Trip");
    client.createDirectory("Trip", command_, result_, error_);
    client.createDirectory("Trip/Thumbnail", command_, result_, error_);
    for (const std::string id : {"1", "2", "3"}) {
        ASSERT_EQ(store(client, "Trip/" + id + ".jpg", "content", id), "SUC");
        ASSERT_EQ(store(client, "Trip/Thumbnail/" + id + "_" + id + ".png", "thumb"), "SUC");
        database.item(id, "72", id + ".jpg", "Trip");  // the rows say "jpg"
    }
    BackupReport report = verifyBackup(open, device("").string(), "Thumbnail");
    EXPECT_TRUE(report.agrees());
    EXPECT_EQ(report.files, 6);
    EXPECT_EQ(report.withoutChecksum, 0);
    EXPECT_EQ(report.folderBytes["Trip"], 36u);

    writeFile(device("Trip/1.jpg"), "c0ntent");
    writeFile(device("Trip/2.jpg"), "short");
    writeFile(device("Trip/new"), "");
    fs::remove(device("Trip/Thumbnail/3_3.png"));
    report = verifyBackup(open, device("").string(), "Thumbnail");
    EXPECT_THAT(report.altered, ElementsAre("Trip/1.jpg", "Trip/2.jpg"));
    EXPECT_THAT(report.missing, ElementsAre("Trip/Thumbnail/3_3.jpg"));
    EXPECT_THAT(report.unrecorded, ElementsAre("Trip/new"));
    EXPECT_THAT(compareBackup(open, device("").string(), "Thumbnail").altered, ElementsAre("Trip/2.jpg"));
    EXPECT_THROW(compareBackup(open, (folder_ / "none").string(), "Thumbnail"), Poco::Exception);
}

TEST_F(BackupCheckTest, TakesInTheFilesOfALostLedger) {
    BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    database.folder("72", "Trip");
    database.item("1", "72", "a.jpg", "Trip");
    fs::create_directories(device("Trip/Miniaturbild"));
    writeFile(device("Trip/a.jpg"), "old");
    writeFile(device("Trip/Miniaturbild/a_1.jpg"), "old");
    writeFile(device("Trip/foreign.jpg"), "mine");
    EXPECT_EQ(recoverBackup(open, device("").string(), "Thumbnail").adopted, 2);
    EXPECT_EQ(verifyBackup(open, device("").string(), "Thumbnail").withoutChecksum, 2);
    HostServiceClientMac client;
    client.renameFile("Trip/a.jpg", "Trip/a_Old.jpg", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << error_;
    client.deleteFile("Trip/foreign.jpg", command_, result_, error_);
    EXPECT_NE(result_, "SUC");
}

}  // namespace
