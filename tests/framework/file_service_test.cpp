// The file service: files and folders on the device, whole ones only, and none that are not its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>

#include "standin/framework/base/Names.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/run/RunDevice.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/framework/FrameworkFixture.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using FileServiceTest = FrameworkTest;

TEST_F(FileServiceTest, KeepsEverythingInsideTheServiceFolder) {
    fs::create_directory(folder_ / "outside");
    writeFile(folder_ / "outside/file", "precious");
    fs::create_directory_symlink(folder_ / "outside", device("link"));
    fs::create_symlink(folder_ / "outside/file", device("filelink"));
    HostServiceClientMac client;
    client.createDirectory("Trip", command_, result_, error_);
    ASSERT_EQ(result_, "SUC") << error_;
    for (const std::string path :
         {"/etc/passwd", "../outside/new", "Trip/../../outside/new", "Trip/./x", "Trip//x", "", "Trip/",
          "link/new", "filelink", ".records/x", ".RECORDS/x", ".versions/x", "Trip/.Versions", "Trip/.part-9",
          "Trip/.records/.folder.xml", ".."}) {
        EXPECT_NE(store(client, path, "evil", "1"), "SUC") << path;
        EXPECT_NE(error_, "");
        client.createDirectory(path, command_, result_, error_);
        EXPECT_NE(result_, "SUC") << path;
        client.deleteFile(path, command_, result_, error_);
        EXPECT_NE(result_, "SUC") << path;
        client.renameDirectory("Trip", path, command_, result_, error_);
        EXPECT_NE(result_, "SUC") << path;
    }
    EXPECT_NE(store(client, std::string("Trip/a\0/b", 9), "evil", "1"), "SUC");
    EXPECT_NE(store(client, "Trip/" + std::string(256, 'x'), "evil", "1"), "SUC");
    EXPECT_EQ(readFile(folder_ / "outside/file"), "precious");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_ / "outside"), fs::directory_iterator()), 1);
    EXPECT_THAT(files(), ElementsAre("filelink"));
}

TEST_F(FileServiceTest, WritesLargeFilesWholeOrSaysThatItCannot) {
    constexpr int kBlock = 10007;
    constexpr std::size_t kLimit = 6 << 20;
    std::string data(20 << 20, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 2654435761u >> 13);
    const auto storeLarge = [&](HostServiceClientMac& client, const std::string& path) {
        client.openFile(path, 7, command_, result_, error_);
        for (std::size_t at = 0; at < data.size() && result_ == "SUC"; at += kBlock) {
            const std::size_t count = std::min<std::size_t>(kBlock, data.size() - at);
            client.writeFileV2(7, &data[at], static_cast<int>(count), command_, result_, error_);
        }
        if (result_ == "SUC") client.closeFile(7, nullptr, 0, command_, result_, error_);
        runDeviceIfThere()->staged().place();
        return result_ == "SUC";
    };
    HostServiceClientMac client;
    ASSERT_TRUE(storeLarge(client, "large.mp4")) << error_;
    EXPECT_TRUE(readFile(device("large.mp4")) == data);
    ASSERT_EQ(store(client, "at once.mp4", data), "SUC");
    Ledger& ledger = runDeviceIfThere()->ledger();
    EXPECT_EQ(ledger.file("large.mp4")->size, data.size());
    EXPECT_EQ(ledger.file("at once.mp4")->checksum, ledger.file("large.mp4")->checksum);

    writeFile(device("taken.mp4"), "mine");
    EXPECT_FALSE(storeLarge(client, "taken.mp4"));
    for (int i = 0; i < 20; ++i) client.writeFileV2(7, data.data(), 1 << 20, command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << "a file that could not be closed is still open";
    client.deleteFile(7, command_, result_, error_);
    EXPECT_EQ(readFile(device("taken.mp4")), "mine");
    fs::remove(device("taken.mp4"));

    // Both before and behind the size from which on a thread writes, and in the last piece.
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    const auto formerly = std::signal(SIGXFSZ, SIG_IGN);
    for (const std::size_t limit : {kBlock * std::size_t{40}, kLimit, data.size() - 1}) {
        const rlimit smaller = {limit, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &smaller);
        const bool written = storeLarge(client, "cut.mp4");
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_FALSE(written) << limit;
        EXPECT_THAT(error_, testing::HasSubstr("Cannot write \"cut.mp4\"")) << limit;
        client.deleteFile(7, command_, result_, error_);
        EXPECT_THAT(files(), ElementsAre("at once.mp4", "large.mp4")) << limit;
    }
    std::signal(SIGXFSZ, formerly);
}

TEST_F(FileServiceTest, ShowsAFileUnderItsNameOnlyWhenItIsComplete) {
    std::string data = "half";
    {
        HostServiceClientMac client;
        client.openFile("a.jpg", 999, command_, result_, error_);
        client.writeFileV2(999, data.data(), 4, command_, result_, error_);
        EXPECT_EQ(result_, "SUC") << error_;
        EXPECT_FALSE(fs::exists(device("a.jpg")));
        HostServiceClientMac other;
        other.writeFileV2(999, data.data(), 4, command_, result_, error_);
        EXPECT_NE(result_, "SUC") << "handles belong to their client";
        client.openFile("b.jpg", 999, command_, result_, error_);
        EXPECT_EQ(result_, "SUC") << "the one before is discarded";
    }
    EXPECT_THAT(files(), IsEmpty()) << "discarded with the client";
    EXPECT_EQ(params_->getTotalSize() * 2, 8);
    EXPECT_EQ(params_->getTotalCount(), 0);

    HostServiceClientMac client;
    EXPECT_EQ(store(client, "a.jpg", "whole", "1"), "SUC");
    EXPECT_EQ(params_->getTotalCount(), 1);
    client.deleteFile(7, command_, result_, error_);
    EXPECT_NE(result_, "SUC") << "closed already";
    EXPECT_EQ(store(client, "a.jpg", "newer", "1"), "SUC") << "the same item's";
    EXPECT_NE(store(client, "a.jpg", "other", "2"), "SUC");
    EXPECT_EQ(readFile(device("a.jpg")), "newer");
    EXPECT_EQ(descriptionField(readFile(device(".records/a.jpg.xml")), "ID"), "1")
        << "the refused one left no record";
    EXPECT_THAT(files(), ElementsAre(".records/a.jpg.xml", "a.jpg"));

    // A whole file takes its name with its item's row, or when it is renamed; until then it can be given up.
    const BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    for (const std::string name : {"given up", "recorded", "renamed"}) {
        client.openFile(name, 7, command_, result_, error_);
        client.writeFileV2(7, data.data(), 4, command_, result_, error_);
        client.closeFile(7, nullptr, 0, command_, result_, error_);
        EXPECT_EQ(result_, "SUC") << error_;
        EXPECT_FALSE(fs::exists(device(name)));
        EXPECT_EQ(database.generateFileName(name, "", kNoSetId, "3"), name + " (2)") << "the name is taken";
        if (name == "given up") client.deleteFile(name, command_, result_, error_);
        if (name == "recorded") database.item("1", kNoSetId, name, "");
        if (name == "renamed") client.renameFile(name, "other name", command_, result_, error_);
        EXPECT_EQ(result_, "SUC") << error_;
    }
    EXPECT_THAT(files(), ElementsAre(".records/a.jpg.xml", "a.jpg", "other name", "recorded"));
}

TEST_F(FileServiceTest, LeavesForeignFilesAlone) {
    const BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    HostServiceClientMac client;
    client.createDirectory("Trip", command_, result_, error_);
    client.createDirectory("Trip", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << "once more is no failure";
    fs::create_directory(device("Mine"));
    for (const char* path : {"Trip/mine.jpg", "Trip/a_Old.jpg", "Mine/x"}) writeFile(device(path), "mine");

    EXPECT_EQ(database.generateFileName("mine.jpg", "Trip", "72", "1"), "mine (2).jpg");
    EXPECT_EQ(database.generateFolderName("Mine", "72"), "Mine (2)");
    EXPECT_EQ(database.generateFolderName("Trip", "72"), "Trip") << "made by a run that was cut off";
    EXPECT_NE(store(client, "Trip/mine.jpg", "evil", "1"), "SUC");
    ASSERT_EQ(store(client, "Trip/a.jpg", "ours", "1"), "SUC");
    const auto refused = [&](auto operation) {
        operation();
        EXPECT_NE(result_, "SUC");
        EXPECT_NE(error_, "");
    };
    refused([&] { client.renameFile("Trip/a.jpg", "Trip/a_Old.jpg", command_, result_, error_); });
    refused([&] { client.renameFile("Trip/mine.jpg", "Trip/b.jpg", command_, result_, error_); });
    refused([&] { client.deleteFile("Trip/a_Old.jpg", command_, result_, error_); });
    refused([&] { client.deleteFile("Trip/none", command_, result_, error_); });
    refused([&] { client.renameDirectory("Trip", "Mine", command_, result_, error_); });
    refused([&] { client.renameDirectory("None", "New", command_, result_, error_); });
    refused([&] { client.deleteDirectory("Trip", command_, result_, error_); });
    refused([&] { client.createDirectory("Trip/mine.jpg", command_, result_, error_); });
    EXPECT_EQ(database.generateFileName("a.jpg", "Trip", "72", "1"), "a.jpg") << "its own leftover";
    EXPECT_EQ(database.generateFileName("a.jpg", "Trip", "72", "2"), "a (2).jpg");
    EXPECT_EQ(readFile(device("Trip/a.jpg")), "ours");
    EXPECT_EQ(readFile(device("Trip/a_Old.jpg")), "mine");

    client.renameDirectory("Trip", "Voyage", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << error_;
    EXPECT_EQ(descriptionField(readFile(device("Voyage/.records/a.jpg.xml")), "PhysicalFileName"), "a.jpg");
    client.deleteFile("Voyage/a.jpg", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << error_;
    EXPECT_FALSE(fs::exists(device("Voyage/.records/a.jpg.xml")));
    client.createDirectory("Empty", command_, result_, error_);
    client.deleteDirectory("Empty", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << error_;
}

}  // namespace
