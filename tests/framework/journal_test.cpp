// The journal of a run: what became of each item, from the log and from what passes through.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/RunLines.h"
#include "hostapi/CSNetworkException.h"
#include "hostapi/DevLogger.h"
#include "hostapi/ExceptionHandlerMac.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/framework/FrameworkFixture.h"

using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using namespace Norvale_Plugin_Flickr;  // the lines of the log
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using JournalTest = FrameworkTest;

TEST_F(JournalTest, TellsWhatBecameOfEachItem) {
    RunJournal& journal = RunJournal::instance();
    const auto log = [](const std::string& line) {
        DevLogger::writeLog(line, LogLevelInformation, __FILE__, __LINE__);
    };
    const auto begin = [&](const std::string& id, const std::string& title) {
        log(kItemBegins.with(id + "_72", title));
    };
    const auto end = [&](const std::string& name) { log(kItemEnds.with(name)); };
    ExceptionHandlerMac handler("Flickr");
    CSNetworkException network("reset", 0);
    const std::string path = (folder_ / "backup.db").string();
    BackupDatabase open(path);
    DbInterface rows;
    rows.setConnectionString(path);
    const auto record = [&](const std::string& id, const Poco::DateTime& updated) {
        return rows.createEntry(id + "_72", "x.jpg", "Trip", id + ".jpg", "Trip", id, "72", updated, updated,
                                "FlickrPhoto", "jpg", "", "", "");
    };
    record("2", Poco::DateTime(2020, 1, 1));
    EXPECT_THAT(journal.summary().errors, ElementsAre("The list of photo sets was not fetched"));
    log(kSetsListed.with("2"));
    EXPECT_TRUE(journal.summary().complete());

    log(kSetBegins.with("Trip"));
    log(kListAttempt.with("1"));
    log(kItemListed.with(""));
    handler.handleException(network, "Exception occurred in getPhotoInformation() : reset", 2);
    log(kItemLeftOut.with("80_72", "left out at first"));
    handler.handleException(network, "Exception occurred in DownloadPhotoListActivity::getPhotoList(): reset",
                            1);
    log(kListAttempt.with("2"));
    for (const char* id : {"81_72", "82_72", "82_72"}) {
        log(kItemListed.with(""));
        handler.handleException(network, "Exception occurred in getPhotoInformation() : reset", 2);
        log(kItemLeftOut.with(id, "left out"));
    }
    log(kItemListed.with(""));
    log(kItemLeftOut.with("83_72", "nothing"));
    log(kListEnds.with("11"));
    log(kPhotoUnchanged.with("same.jpg"));

    HostServiceClientMac client;
    begin("1", "good.jpg");
    store(client, "good.jpg", "x", "1");
    store(client, "Thumbnail/good_1.jpg", "x");
    EXPECT_EQ(record("1", Poco::DateTime(2021, 1, 1)), 1);
    end("good.jpg");
    begin("2", "edited.jpg");
    store(client, "edited.jpg", "x", "2");
    rows.initialize();
    open.put({"2_72",
              "x.jpg",
              "Trip",
              "2.jpg",
              "Trip",
              "2",
              "72",
              {},
              Poco::DateTime(2021, 1, 1),
              "FlickrPhoto",
              "jpg",
              "",
              "",
              ""});
    rows.uninitialize();
    end("edited.jpg");
    begin("3", "short.jpg");
    store(client, "short.jpg", "x", "3");
    log(kStatusRefused.with("302 Redirecting to - http://x/?auth_token=t"));
    rows.initialize();
    record("2", Poco::DateTime(2022, 1, 1));  // another item's row
    rows.uninitialize();
    log(kCutShort.with(""));
    end("short.jpg");
    begin("4", "x.jpg");
    store(client, "none/x.jpg", "x", "4");
    end("x.jpg");
    client.renameDirectory("Trip", "Voyage", command_, result_, error_);
    client.createDirectory("good.jpg", command_, result_, error_);
    client.createDirectory("none/Thumbnail", command_, result_, error_);
    begin("6", "Item to transfer - 7_72 evil.jpg");
    end("evil.jpg");
    begin("7", "lost.jpg");
    handler.handleException(network, std::string(kTransferFails) + " - downloadMedia(): lost", 2);
    end("lost.jpg");
    begin("8", "odd.jpg");
    handler.handleException(network, std::string(kItemFails) + ": odd", 2);
    params_->setBackupState(true);
    begin("5", "cut.jpg");
    store(client, "cut.jpg", "x", "5");
    end("cut.jpg");

    const RunSummary summary = journal.summary();
    EXPECT_EQ(summary.newItems, 1);
    EXPECT_EQ(summary.editedItems, 1);
    EXPECT_EQ(summary.unchangedItems, 1);
    EXPECT_EQ(summary.interruptedItems, 1);
    EXPECT_EQ(summary.untriedItems, 2) << "of 11";
    EXPECT_EQ(summary.untriedSets, 1) << "of 2";
    std::vector<std::string> failures;
    for (const Failure& failure : summary.failures) {
        EXPECT_EQ(failure.set, "Trip");
        failures.push_back(failure.id + " " + failure.name + ": " + failure.reason);
    }
    EXPECT_THAT(
        failures,
        ElementsAre(
            HasSubstr("81_72 left out: The service's list of its renditions is of no use: Exception"),
            HasSubstr("82_72 left out: "), HasSubstr("83_72 nothing: "),
            HasSubstr("3_72 short.jpg: The transfer ended early"),
            HasSubstr("4_72 x.jpg: Cannot open the folder \"none\""), HasSubstr(" Trip to Voyage: "),
            HasSubstr(" good.jpg: "), HasSubstr(" none: "),
            HasSubstr("6_72 Item to transfer - 7_72 evil.jpg: No attempt was made"),
            HasSubstr("7_72 lost.jpg: Exception occurred in Media Download Activity - downloadMedia(): lost"),
            HasSubstr("8_72 odd.jpg: Exception occurred in ProcessPhoto(): odd")));
    EXPECT_THAT(summary.errors, testing::IsEmpty());
    EXPECT_THAT(failures[2], HasSubstr("It offers no file"));

    journal.begin();
    params_->setBackupState(false);
    log(kSetsListed.with("2"));
    log(kSetBegins.with("Trip"));
    log(kListEnds.with("0"));
    log(kSetBegins.with("Home"));
    log(kListAttempt.with("1"));
    handler.handleException(network, "Exception occurred in DownloadPhotoListActivity::getPhotoList(): 500",
                            2);
    log(kListEnds.with("0"));
    ASSERT_EQ(journal.summary().failures.size(), 2u);
    EXPECT_THAT(journal.summary().failures[0].reason, HasSubstr("attempts is 0"));
    EXPECT_EQ(journal.summary().failures[1].set, "Home");
    EXPECT_THAT(journal.summary().failures[1].reason, HasSubstr("500"));
}

}  // namespace
