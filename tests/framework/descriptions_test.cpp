// The descriptions of folders.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>
#include <string>

#include "hostapi/ItemDataManager.h"
#include "hostapi/MediaFolderTemplate.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/Ledger.h"
#include "standin/framework/run/RunDevice.h"
#include "standin/framework/run/RunJournal.h"
#include "tests/framework/FrameworkFixture.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using DescriptionsTest = FrameworkTest;

TEST_F(DescriptionsTest, KeepsFolderDescriptionsThatSayMore) {
    HostServiceClientMac client;
    client.createDirectory("Trip & more", command_, result_, error_);
    MediaFolderTemplate description;
    description.setID("72");
    description.setPhysicalFileName("Trip & more");
    description.setLatestUpdatedDate("now");
    const auto place = [&](const std::string& latest) {
        description.setLatestUpdatedItem(latest);
        client.writeFolderDataXML(params_->getPluginRoot() + "/",
                                  ItemDataManager().saveItemData(&description), "");
        flickr_standin::closeRunDevice();
        return readFile(device("Trip & more/.records/.folder.xml"));
    };
    EXPECT_EQ(descriptionField(place(""), "LatestUpdatedDate"), "") << "no trace of the moment of the run";
    EXPECT_EQ(descriptionField(place("<a>\"\r.jpg"), "LatestUpdatedItem"), "<a>\"\r.jpg");
    EXPECT_EQ(descriptionField(place(""), "LatestUpdatedItem"), "<a>\"\r.jpg");
    // The cover's row may name the format that it had before; and a set without items is known by its title,
    // which another set's folder may have.
    client.createDirectory("Trip & more/Thumbnail", command_, result_, error_);
    ASSERT_EQ(store(client, "Trip & more/Thumbnail/a_1_72.png", "thumb"), "SUC");
    description.setCoverImage("Trip & more/Thumbnail/a_1_72.jpg");
    description.setTotalItems("7");
    const std::string written = place("");
    EXPECT_EQ(descriptionField(written, "CoverImage"), "Trip & more/Thumbnail/a_1_72.png");
    EXPECT_EQ(descriptionField(written, "TotalItems"), "7") << "only the latest item stays";
    EXPECT_EQ(descriptionField(written, "LatestUpdatedItem"), "<a>\"\r.jpg");
    description.setID("73");
    EXPECT_EQ(place("b.jpg"), written);
    description.setPhysicalFileName("Never made");
    place("x");
    EXPECT_FALSE(fs::exists(device("Never made")));
}

TEST_F(DescriptionsTest, WritesAFoldersDescriptionOnceForAllItsItems) {
    HostServiceClientMac client;
    const auto describe = [&](const std::string& folder, const std::string& latest) {
        MediaFolderTemplate description;
        description.setID("id of " + folder);
        description.setPhysicalFileName(folder);
        description.setLatestUpdatedItem(latest);
        client.writeFolderDataXML(params_->getPluginRoot() + "/",
                                  ItemDataManager().saveItemData(&description), "");
    };
    const auto latest = [&](const std::string& folder) {
        return descriptionField(readFile(device(folder + "/.records/.folder.xml")), "LatestUpdatedItem");
    };
    RunJournal::instance().begin();
    for (const char* folder : {"Trip", "Home"}) client.createDirectory(folder, command_, result_, error_);
    describe("Trip", "1.jpg");
    EXPECT_EQ(latest("Trip"), "1.jpg") << "a folder without one gets it at once";
    describe("Trip", "2.jpg");
    describe("Trip", "");
    EXPECT_EQ(latest("Trip"), "1.jpg");
    describe("Home", "1.jpg");
    EXPECT_EQ(latest("Trip"), "2.jpg") << "behind another folder's";
    describe("Home", "2.jpg");
    client.renameDirectory("Home", "House", command_, result_, error_);
    EXPECT_EQ(latest("House"), "2.jpg") << "before its folder has another name";
    describe("Trip", "3.jpg");
    flickr_standin::closeRunDevice();
    EXPECT_EQ(latest("Trip"), "3.jpg") << "at the end";
    EXPECT_THAT(RunJournal::instance().summary().failures, IsEmpty());

    describe("Trip", "4.jpg");
    fs::remove(device("Trip/.records/.folder.xml"));
    fs::create_directories(device("Trip/.records/.folder.xml"));
    flickr_standin::closeRunDevice();
    ASSERT_THAT(RunJournal::instance().summary().failures, SizeIs(1));
    EXPECT_THAT(RunJournal::instance().summary().failures[0].reason, HasSubstr("could not be written"));
}

// Hundreds of sets have new descriptions at the end of a run, and a process may have few files open.
TEST_F(DescriptionsTest, FlushesManyFoldersDescriptionsWithFewFilesOpen) {
    auto client = std::make_unique<HostServiceClientMac>();
    client->createDirectory("Thumbnail", command_, result_, error_);
    ASSERT_EQ(store(*client, "one.jpg", "content", "1"), "SUC");
    for (int number = 0; number < 60; ++number) {
        const std::string folder = "Set " + std::to_string(number);
        client->createDirectory(folder, command_, result_, error_);
        MediaFolderTemplate description;
        description.setID(std::to_string(number));
        description.setPhysicalFileName(folder);
        client->writeFolderDataXML(params_->getPluginRoot() + "/",
                                   ItemDataManager().saveItemData(&description), "");
    }
    client.reset();
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const auto open = std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    const rlimit few = {static_cast<rlim_t>(open) + 40, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    flickr_standin::closeRunDevice();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(Ledger(device(".records/.ledger.db").string()).mayLackRows()) << "all of it was flushed";
}

}  // namespace
