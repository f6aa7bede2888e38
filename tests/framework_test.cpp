// The stand-in framework by itself: settings, log, names, database, file service and journal.

#include <Poco/Buffer.h>
#include <Poco/Data/DataException.h>
#include <Poco/InflatingStream.h>
#include <Poco/Thread.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "core/RunLines.h"
#include "hostapi/CSConfigException.h"
#include "hostapi/CSNetworkException.h"
#include "hostapi/DbInterface.h"
#include "hostapi/DevLogger.h"
#include "hostapi/HostServiceClientMac.h"
#include "hostapi/HostServiceUsageParams.h"
#include "hostapi/ItemDataManager.h"
#include "hostapi/MediaFolderTemplate.h"
#include "hostapi/MediaTemplate.h"
#include "hostapi/PluginCore.h"
#include "hostapi/Utils.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Sqlite.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/run/Log.h"
#include "standin/framework/run/RunDevice.h"
#include "standin/framework/run/RunError.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/Secrets.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using namespace Norvale_Plugin_Flickr;  // the lines of the log
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

std::string read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

class FrameworkTest : public testing::Test {
protected:
    FrameworkTest() {
        std::string pattern = (fs::temp_directory_path() / "framework-XXXXXX").string();
        folder_ = ::mkdtemp(pattern.data());
        fs::create_directory(folder_ / "service");
        params_->release();
        params_->setBackupState(false);
        params_->setParams((folder_ / "service").string(), "", true, 1, folder_.string());
        params_->setRetryAttempts("2");
    }
    ~FrameworkTest() override {
        params_->release();
        fs::remove_all(folder_);
    }

    fs::path device(const std::string& path) const { return folder_ / "service" / path; }

    /// One file through the service; the answer of the last operation.
    std::string store(HostServiceClientMac& client, const std::string& path, std::string content,
                      const std::string& item = "") {
        std::string metadata;
        if (!item.empty()) {
            MediaTemplate record;
            record.setID(item);
            record.setPhysicalFileName(path);
            metadata = ItemDataManager().saveItemData(&record);
        }
        client.openFile(path, 7, command_, result_, error_);
        if (result_ != "SUC") return result_;
        client.writeFileV2(7, content.data(), static_cast<int>(content.size()), command_, result_, error_);
        client.closeFile(7, metadata.data(), static_cast<int>(metadata.size()), command_, result_, error_);
        const std::string closed = result_, reason = error_;
        if (closed != "SUC") client.deleteFile(7, command_, result_, error_);
        error_ = reason;
        if (closed == "SUC") placeNewFiles();
        return closed;
    }

    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(folder_ / "service")) {
            const std::string name = entry.path().lexically_relative(folder_ / "service").string();
            if (name.find(".ledger.db") == std::string::npos && !entry.is_directory()) names.insert(name);
        }
        return names;
    }

    fs::path folder_;
    HostServiceUsageParams* params_ = HostServiceUsageParams::getInstance();
    std::string command_, result_, error_;
};

struct Database : DbInterface {
    explicit Database(const std::string& path) { setConnectionString(path); }
    int item(const std::string& id, const std::string& set, const std::string& name,
             const std::string& folder) {
        return createEntry(id, name, "Set", name, folder, id, set, Poco::DateTime(), Poco::DateTime(),
                           "FlickrPhoto", "jpg", "", "", "");
    }
    int folder(const std::string& id, const std::string& name) {
        return createEntry(id, name, "Flickr", name, "Flickr", id, "Flickr_ID", Poco::DateTime(),
                           Poco::DateTime(), "FlickrFolder", "", "", "", "");
    }
};

TEST_F(FrameworkTest, MakesEveryTitleASafeNameAndKeepsSafeOnes) {
    const std::map<std::string, std::string> expected = {
        {"", "_"},
        {"...", "_"},
        {" . ", "_"},
        {"sunset.jpg", "sunset.jpg"},
        {"日本 – été 😀.jpg", "日本 – été 😀.jpg"},
        {".hidden", ".hidden"},
        {"a/b\\c:d*e?f\"g<h>i|j", "a_b_c_d_e_f_g_h_i_j"},
        {"../../etc/passwd", ".._.._etc_passwd"},
        {"tab\tline\nnul" + std::string(1, '\0') + "del\x7f", "tab_line_nul_del_"},
        {"trailing. . ", "trailing"},
        {"con", "con_"},
        {"NUL.tar.gz", "NUL_.tar.gz"},
        {"Com1 .jpg", "Com1_ .jpg"},
        {"LPT\u00b2", "LPT\u00b2_"},
        {"CONSOLE", "CONSOLE"},
        {"bad\xff\xc3.jpg", "bad__.jpg"},
        {"\xed\xa0\x80", "___"},
        {"\xef\xbf\xbf", "_"},
    };
    for (const auto& [title, name] : expected) EXPECT_EQ(Utils().NormalizeString(title), name) << title;

    std::string allBytes;
    for (int i = 0; i < 256; ++i) allBytes += static_cast<char>(i);
    for (std::string title :
         {allBytes, std::string(300, 'x') + ".jpg", std::string(85, 'a') + "\u20ac", std::string(4000, '.'),
          "é" + std::string(252, 'x') + "éé.jpeg", std::string(250, 'x') + "      .  "}) {
        for (int cut = 0; cut < 8; ++cut, title.erase(0, 1)) {
            const std::string name = Utils().NormalizeString(title);
            EXPECT_EQ(Utils().NormalizeString(name), name);
            EXPECT_LE(name.size(), kLongestName);
            EXPECT_EQ(validUtf8(name), name);
            EXPECT_EQ(name.find_first_of("/\\:*?\"<>|"), std::string::npos);
        }
    }
    EXPECT_EQ(Utils().NormalizeString(std::string(300, 'x') + ".jpg").substr(251), ".jpg");
}

TEST_F(FrameworkTest, ReadsTheMomentOfAVersionFromItsOwnNamesOnly) {
    using namespace std::string_literals;
    EXPECT_EQ(versionName("a.jpg", 1501578900), "20170801T091500Z-a.jpg");
    const std::string longest = versionName(std::string(251, 'x') + ".jpg", 1501578900);
    EXPECT_EQ(longest.size(), kLongestName);
    EXPECT_EQ(longest.substr(251), ".jpg");
    for (const std::string& name :
         {"20170801T091500Z-a.jpg"s, "20170801T091500Z-20160801T091500Z-a"s, longest}) {
        EXPECT_EQ(replacedAt(name), 1501578900) << name;
    }
    for (const char* name : {"", "a.jpg", "20170801T091500Z-", "20170801T091500Z", "2017801T091500Z-a.jpg",
                             "20170832T091500Z-a.jpg", "20170801T091500Z-a/b", "20170801T091500Z-a ",
                             " 20170801T091500Z-a.jpg", "20170801T096500Z-a.jpg"}) {
        EXPECT_EQ(replacedAt(name), std::nullopt) << name;
    }
}

TEST_F(FrameworkTest, GivesNamesThatFitAndNeverClash) {
    const BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    database.folder("72", "Trip");
    const auto name = [&](const std::string& title, const std::string& id, const std::string& set = "72") {
        const std::string given = database.generateFileName(title, "Trip", set, id);
        EXPECT_EQ(database.item(id, set, given, "Trip"), 1);
        return given;
    };
    EXPECT_EQ(name("a.jpg", "1_72"), "a.jpg");
    EXPECT_EQ(name("A.JPG", "2_72"), "A (2).JPG");
    EXPECT_EQ(name("a.jpg", "3_72"), "a (3).jpg");
    EXPECT_EQ(name("a.jpg", "3_72"), "a (3).jpg") << "a name that fits is kept";
    EXPECT_EQ(name("b.jpg", "3_72"), "b.jpg") << "and given up when the title changes";
    EXPECT_EQ(name("a.jpg", "1_73", "73"), "a.jpg") << "another set";
    EXPECT_EQ(name("\u00e9.jpg", "4_72"), "\u00e9.jpg");
    EXPECT_EQ(name("E\u0301.jpg", "5_72"), "E\u0301 (2).jpg") << "the same name, decomposed and in capitals";
    EXPECT_EQ(name("stra\u00dfe.jpg", "6_72"), "stra\u00dfe.jpg");
    EXPECT_EQ(name("STRASSE.jpg", "7_72"), "STRASSE (2).jpg");
    EXPECT_EQ(name("a_Old.jpg", "8_72"), "a_Old_.jpg");
    EXPECT_EQ(name("a_oLD.b c", "9_72"), "a_oLD_.b c");
    EXPECT_EQ(name(".jpg", "10_72"), "_.jpg");
    EXPECT_EQ(name(".records", "11_72"), "_.records");
    EXPECT_EQ(name(".part-1", "12_72"), "_.part-1");
    EXPECT_EQ(name("thumbnail", "13_72"), "thumbnail_");
    EXPECT_EQ(name("サムネイル", "14_72"), "サムネイル_") << "whatever the language is";

    // Items in no set stand beside the sets' folders.
    EXPECT_EQ(name("TRIP", "1_Anonymous", "Anonymous"), "TRIP (2)");
    EXPECT_EQ(database.generateFolderName("trip", "74"), "trip (3)");
    EXPECT_EQ(database.generateFolderName("Anonymous", "75"), "Anonymous_");
    EXPECT_EQ(database.generateFolderName("Trip", "72"), "Trip");
    EXPECT_EQ(database.generateFolderName("COM1", "76"), "COM1_");

    const std::string id = "53012345678_72157701234567890";
    for (const std::string& title :
         {std::string(400, 'x') + ".jpg", std::string(200, 'x') + "_Old.jpg",
          "\u20ac" + std::string(120, '.') + std::string(300, 'y'),
          std::string(60, 'z') + std::string(90, '\xff') + std::string(90, '_') + ".heic"}) {
        const std::string given = name(title, id);
        EXPECT_LE((splitName(given).base + "_" + id + "_Old.webp").size(), kLongestName);
        EXPECT_LE((given + "_Old.xml").size(), kLongestName);
        EXPECT_EQ(database.generateFileName(title, "Trip", "72", id), given) << "kept";
    }
}

TEST_F(FrameworkTest, AsksLittleForTheThousandthItemOfOneTitle) {
    BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    std::set<std::string> keys;
    for (int i = 0; i < 1000; ++i) {
        const std::string id = std::to_string(i) + "_72";
        const std::string name = database.generateFileName("Untitled.jpg", "Trip", "72", id);
        EXPECT_TRUE(keys.insert(nameKey(name)).second) << name;
        database.item(id, "72", name, "Trip");
    }
    EXPECT_EQ(keys.count("untitled (1000).jpg"), 1);
    EXPECT_EQ(database.getTotalCountInContainer("Trip"), 1000);
}

TEST_F(FrameworkTest, CountsAndNamesFollowTheStatementsOfThePlugin) {
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
TEST_F(FrameworkTest, BringsNoChangesBackThatAPowerCutHadTaken) {
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

TEST_F(FrameworkTest, ReportsDatabasesThatCannotBeUsedAndMakesNone) {
    write(folder_ / "text.db", std::string(5000, 'x'));
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

TEST_F(FrameworkTest, ReadsBothFormsOfDatesAndNothingElse) {
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

TEST_F(FrameworkTest, RecordsTheFirstErrorAndTellsStopsApart) {
    int code = 99;
    std::string text = "x";
    const auto details = [&] {
        params_->getErrorDetails(code, text);
        return code;
    };
    EXPECT_EQ(details(), 1);
    EXPECT_EQ(text, "");
    params_->setBackupState(true);
    EXPECT_EQ(details(), 0);
    EXPECT_TRUE(params_->isManuallyStopped());

    params_->setBackupState(false);
    ExceptionHandlerMac handler("Flickr");
    CSNetworkException network("status 500", 0);
    handler.handleException(network, "first attempt", 1);
    EXPECT_EQ(details(), 1) << "there is another attempt";
    handler.handleException(network, "last attempt", 2);
    EXPECT_EQ(details(), RunErrorNetwork);
    EXPECT_FALSE(params_->isBackupStopped());
    CSConfigException refused(0);
    handler.handleException(refused, "Invalid Auth Token", 0);
    EXPECT_EQ(details(), RunErrorNetwork) << "the first one stays";
    EXPECT_TRUE(params_->isBackupStopped());
    EXPECT_FALSE(params_->isManuallyStopped());
    params_->setBackupState(true);
    EXPECT_EQ(details(), RunErrorNetwork) << "also after a stop";

    params_->setBackupState(false);
    EXPECT_FALSE(params_->isBackupStopped());
    EXPECT_EQ(details(), 1);
    handler.handleException(refused, "auth_token=abc refused", 0);
    EXPECT_EQ(details(), RunErrorAuthorisation);
    EXPECT_EQ(text, "auth_token=*** refused");
    for (const char* attempts : {"-3", "", "many", "9999999999999"}) {
        params_->setRetryAttempts(attempts);
        EXPECT_EQ(params_->getRetryAttempts(), 0) << attempts;
    }
    params_->release();
    EXPECT_EQ(details(), 1);
    EXPECT_EQ(params_->getPluginRoot(), "");
}

TEST_F(FrameworkTest, ReadsKeywordsFromPairsAndFromCultures) {
    params_->setKeywords("ThumbnailKey=Klein/Bild||FlickrKey=||Nonsense||Sun=So||=x||Mon=a=b");
    EXPECT_EQ(params_->getValue("ThumbnailKey"), "Klein_Bild");
    EXPECT_EQ(params_->getValue("FlickrKey"), "My Flickr Items") << "the default for a missing word";
    EXPECT_EQ(params_->getValue("Sun"), "So");
    EXPECT_EQ(params_->getValue("Mon"), "a=b");
    EXPECT_EQ(params_->getValue("Unknown"), "");
    for (const std::string& culture : knownCultures()) {
        params_->setCulture(culture);
        const std::string folder = params_->getValue("FlickrKey");
        EXPECT_EQ(localisedServiceFolderName(culture), folder);
        EXPECT_EQ(Utils().NormalizeString(folder), folder);
        const std::string word = localisedKeyword(culture, kThumbnailKey);
        params_->setKeywords("FlickrKey=" + folder + "||ThumbnailKey=" + word + "||");
        EXPECT_EQ(params_->getValue("FlickrKey"), folder);
        EXPECT_EQ(params_->getValue("ThumbnailKey"), word);
    }
    EXPECT_EQ(localisedKeyword("de-AT", "ThumbnailKey"), localisedKeyword("de", "ThumbnailKey"));
    EXPECT_EQ(localisedKeyword("xx", "ThumbnailKey"), "Thumbnail");
}

TEST_F(FrameworkTest, WritesOneLineForEachCallAndNoSecrets) {
    const std::string log = (folder_ / "dev.log").string();
    nameLogFile(log);
    setLogSecrets({"s3cr/t", "s3cr/t-and-more", ""});
    constexpr int kThreads = 4, kLines = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < kLines; ++line) {
                DevLogger::writeLog(
                    "evil\nline\r\x1b[31m \xff\u202e\u2028\\ s3cr/t s3cr/t-and-more s3cr%2Ft "
                    "GET /?api_key=KEY&auth_token=TOK&api_sig=SIG& end",
                    LogLevelFailure, "core/x.cpp", 12);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::istringstream lines(read(log));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_THAT(line,
                    testing::EndsWith(
                        " FAIL core/x.cpp:12 evil\\nline\\r\\x1b[31m \\xff\\u{202e}\\u{2028}\\\\ *** *** *** "
                        "GET /?api_key=***&auth_token=***&api_sig=***& end"));
    }
    EXPECT_EQ(count, kThreads * kLines);

    const auto before = fs::file_size(log);
    DevLogger::writeLog("gathered", LogLevelInformation, "x", 1);
    EXPECT_EQ(fs::file_size(log), before);
    for (int i = 0; i < 500 && fs::file_size(log) == before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_THAT(read(log), testing::EndsWith(" INFO x:1 gathered\n")) << "comes by itself";
    DevLogger::writeLog("before", LogLevelInformation, "x", 1);
    DevLogger::writeLog("failed", LogLevelFailure, "x", 1);
    EXPECT_THAT(read(log), testing::ContainsRegex(" INFO x:1 before\n.* FAIL x:1 failed\n$"));

    // A file that takes half a line, and nothing more for a while.
    rlimit limits = {};
    getrlimit(RLIMIT_FSIZE, &limits);
    const auto formerly = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit smaller = {static_cast<rlim_t>(fs::file_size(log)) + 60, limits.rlim_max};
    setrlimit(RLIMIT_FSIZE, &smaller);
    DevLogger::writeLog(std::string(100, 'a'), LogLevelFailure, "x", 1);
    DevLogger::writeLog("meanwhile", LogLevelFailure, "x", 1);
    setrlimit(RLIMIT_FSIZE, &limits);
    std::signal(SIGXFSZ, formerly);
    DevLogger::writeLog("afterwards", LogLevelFailure, "x", 1);
    EXPECT_THAT(read(log), testing::ContainsRegex("failed\n[^\n]* x:1 a{100}\n[^\n]* x:1 meanwhile\n"
                                                  "[^\n]* x:1 afterwards\n$"));

    setLogSecrets({"S", "run", "Photo"});
    DevLogger::writeLog("Started, S; run=run&x='S' runs Photo-S Photos", LogLevelFailure, "x", 1);
    EXPECT_THAT(read(log), testing::EndsWith(" Started, ***; ***=***&x='***' runs ***-*** Photos\n"))
        << "a short secret is masked as a value, not within a word";

    setLogDetail(LogDetail::Normal);
    for (const char* detail :
         {"*********************** Photo Started**************************", "Listed item - 1 a",
          "Photo - a already backed up no change, continuing to next photo"}) {
        DevLogger::writeLog(detail, LogLevelInformation, "x", 1);
    }
    DevLogger::writeLog("******", LogLevelInformation, "/home/me/build/../core/y.cpp", 3);
    DevLogger::writeLog("told", LogLevelFailure, "x", 1);
    EXPECT_THAT(read(log),
                testing::ContainsRegex(" Photos\n[^\n]* INFO core/y.cpp:3 [*]{6}\n[^\n]* x:1 told\n$"));
    setLogDetail(LogDetail::Failures);
    DevLogger::writeLog("not a failure", LogLevelInformation, "x", 1);
    setLogDetail(LogDetail::Everything);

    for (int i = 0; i < 4000; ++i) {
        DevLogger::writeLog(std::string(20000, 'x'), LogLevelInformation, nullptr, 0);
    }
    EXPECT_LE(fs::file_size(log), 10u << 20);
    EXPECT_TRUE(fs::exists(log + ".4.gz"));
    for (const char* other : {".5.gz", ".1", ".0.gz", ".0.gz.part"})
        EXPECT_FALSE(fs::exists(log + other)) << other;
    std::ifstream compressed(log + ".1.gz", std::ios::binary);
    Poco::InflatingInputStream older(compressed, Poco::InflatingStreamBuf::STREAM_GZIP);
    const std::string text(std::istreambuf_iterator<char>(older), {});
    EXPECT_GT(text.size(), 9u << 20);
    EXPECT_LE(text.size(), 10u << 20);
    EXPECT_EQ(text.back(), '\n');

    // A log that cannot be compressed grows on, and the older ones stay; one that another process has turned
    // over is begun anew.
    const std::string foreign = log + ".0.gz.part";
    fs::create_directory(foreign);
    const auto olderSize = fs::file_size(log + ".4.gz");
    const auto fill = [] {
        for (int i = 0; i < 600; ++i)
            DevLogger::writeLog(std::string(20000, 'x'), LogLevelInformation, "x", 0);
    };
    fill();
    EXPECT_GT(fs::file_size(log), 10u << 20);
    EXPECT_EQ(fs::file_size(log + ".4.gz"), olderSize);
    fs::remove(foreign);
    fs::rename(log, log + ".elsewhere");
    fill();
    EXPECT_LE(fs::file_size(log), 10u << 20);

    nameLogFile((folder_ / "none" / "x.log").string());
    DevLogger::writeLog("dropped", LogLevelInformation, "x", 1);
    setLogSecrets({});
}

TEST_F(FrameworkTest, AnswersFromTheConfigurationWithinTheBuffers) {
    const std::string path = (folder_ / "config.xml").string();
    write(path, "<config><plugin><name> Flickr ${x} </name><CEK/><long>" + std::string(2046, 'x') +
                    "\u20ac</long></plugin></config>");
    PluginCore core(path, (folder_ / "log").string());
    std::string buffer(2049, '#');
    char error[2048] = "";
    EXPECT_EQ(core.getName(buffer.data(), error), 1);
    EXPECT_STREQ(buffer.c_str(), "Flickr ${x}");
    EXPECT_EQ(core.getValueString("plugin.CEK", buffer.data(), nullptr), 1);
    EXPECT_STREQ(buffer.c_str(), "");
    EXPECT_EQ(core.getValueString("plugin.long", buffer.data(), error), 1);
    EXPECT_EQ(buffer.c_str(), std::string(2046, 'x')) << "cut between two characters";
    EXPECT_EQ(buffer[2048], '#');
    EXPECT_NE(core.getVersion(buffer.data(), nullptr), 1);
    EXPECT_NE(core.getVersion(buffer.data(), error), 1);
    EXPECT_THAT(error, HasSubstr("plugin.version"));
    EXPECT_EQ(core.getExceptionCode(), 1);
    CSConfigException refused(0);
    core.handleException("Flickr", refused, "went wrong");
    EXPECT_EQ(core.getExceptionCode(), RunErrorAuthorisation);
    EXPECT_EQ(core.getExceptionDetails(), "went wrong");

    write(path, "<config><plugin>");
    PluginCore broken(path, "/nowhere/log");
    EXPECT_NE(broken.getName(buffer.data(), error), 1);
    EXPECT_THAT(error, HasSubstr(path));
}

TEST_F(FrameworkTest, KnowsPicturesByTheirFirstBytes) {
    const std::pair<std::string, const char*> cases[] = {
        {"\xff\xd8\xff\xe0", "jpg"},
        {"\x89PNG\r\n\x1a\n...", "png"},
        {"GIF89a", "gif"},
        {"RIFF....WEBPVP8 ", "webp"},
        {"RIFF....WAVE", "jpg"},
        {std::string("II*\0", 4), "tif"},
        {"....ftypheic", "heic"},
        {"....ftypisom", "jpg"},
        {"", "jpg"},
        {"RIFF", "jpg"},
    };
    for (const auto& [bytes, extension] : cases) {
        Poco::Buffer<char> buffer(bytes.data(), bytes.size());
        EXPECT_EQ(Utils().getImageExtension(buffer), extension) << bytes;
    }
}

TEST_F(FrameworkTest, KeepsEverythingInsideTheServiceFolder) {
    fs::create_directory(folder_ / "outside");
    write(folder_ / "outside/file", "precious");
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
    EXPECT_EQ(read(folder_ / "outside/file"), "precious");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_ / "outside"), fs::directory_iterator()), 1);
    EXPECT_THAT(files(), ElementsAre("filelink"));
}

TEST_F(FrameworkTest, KeepsFilesPendingUntilTheirOwnRowIsThere) {
    const std::string path = (folder_ / "ledger.db").string();
    const auto pending = [](Ledger& ledger) {
        std::set<std::string> paths;
        for (const LedgerFile& file : ledger.pendingFiles()) paths.insert(file.path);
        return paths;
    };
    {
        Ledger ledger(path);
        for (int i = 0; i < 200; ++i) {
            const std::string item = std::to_string(i);
            ledger.putFile({item + ".jpg", item, 1, "", "", FileState::Pending});
            ledger.settleItemLater(item);
        }
        ledger.putFile({"new 199.jpg", "199", 1, "", "", FileState::Pending});
        ledger.putFile({"200.jpg", "200", 1, "", "", FileState::Pending});
        EXPECT_THAT(pending(ledger), ElementsAre("200.jpg", "new 199.jpg"));
        ledger.settleItemLater("200");
    }
    Ledger ledger(path);
    EXPECT_THAT(pending(ledger), ElementsAre("new 199.jpg"));
}

TEST_F(FrameworkTest, WritesLargeFilesWholeOrSaysThatItCannot) {
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
        placeNewFiles();
        return result_ == "SUC";
    };
    HostServiceClientMac client;
    ASSERT_TRUE(storeLarge(client, "large.mp4")) << error_;
    EXPECT_TRUE(read(device("large.mp4")) == data);
    ASSERT_EQ(store(client, "at once.mp4", data), "SUC");
    Ledger& ledger = runDeviceIfThere()->ledger();
    EXPECT_EQ(ledger.file("large.mp4")->size, data.size());
    EXPECT_EQ(ledger.file("at once.mp4")->checksum, ledger.file("large.mp4")->checksum);

    write(device("taken.mp4"), "mine");
    EXPECT_FALSE(storeLarge(client, "taken.mp4"));
    for (int i = 0; i < 20; ++i) client.writeFileV2(7, data.data(), 1 << 20, command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << "a file that could not be closed is still open";
    client.deleteFile(7, command_, result_, error_);
    EXPECT_EQ(read(device("taken.mp4")), "mine");
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

TEST_F(FrameworkTest, ShowsAFileUnderItsNameOnlyWhenItIsComplete) {
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
    EXPECT_EQ(read(device("a.jpg")), "newer");
    EXPECT_EQ(descriptionField(read(device(".records/a.jpg.xml")), "ID"), "1")
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

TEST_F(FrameworkTest, LeavesForeignFilesAlone) {
    const BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    HostServiceClientMac client;
    client.createDirectory("Trip", command_, result_, error_);
    client.createDirectory("Trip", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << "once more is no failure";
    fs::create_directory(device("Mine"));
    for (const char* path : {"Trip/mine.jpg", "Trip/a_Old.jpg", "Mine/x"}) write(device(path), "mine");

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
    EXPECT_EQ(read(device("Trip/a.jpg")), "ours");
    EXPECT_EQ(read(device("Trip/a_Old.jpg")), "mine");

    client.renameDirectory("Trip", "Voyage", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << error_;
    EXPECT_EQ(descriptionField(read(device("Voyage/.records/a.jpg.xml")), "PhysicalFileName"), "a.jpg");
    client.deleteFile("Voyage/a.jpg", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << error_;
    EXPECT_FALSE(fs::exists(device("Voyage/.records/a.jpg.xml")));
    client.createDirectory("Empty", command_, result_, error_);
    client.deleteDirectory("Empty", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << error_;
}

TEST_F(FrameworkTest, KeepsFolderRecordsThatSayMore) {
    HostServiceClientMac client;
    client.createDirectory("Trip & more", command_, result_, error_);
    MediaFolderTemplate record;
    record.setID("72");
    record.setPhysicalFileName("Trip & more");
    record.setLatestUpdatedDate("now");
    const auto place = [&](const std::string& latest) {
        record.setLatestUpdatedItem(latest);
        client.writeFolderDataXML(params_->getPluginRoot() + "/", ItemDataManager().saveItemData(&record),
                                  "");
        flickr_standin::closeRunDevice();
        return read(device("Trip & more/.records/.folder.xml"));
    };
    EXPECT_EQ(descriptionField(place(""), "LatestUpdatedDate"), "") << "no trace of the moment of the run";
    EXPECT_EQ(descriptionField(place("<a>\"\r.jpg"), "LatestUpdatedItem"), "<a>\"\r.jpg");
    EXPECT_EQ(descriptionField(place(""), "LatestUpdatedItem"), "<a>\"\r.jpg");
    // The cover's row may name the format that it had before; and a set without items is known by its title,
    // which another set's folder may have.
    client.createDirectory("Trip & more/Thumbnail", command_, result_, error_);
    ASSERT_EQ(store(client, "Trip & more/Thumbnail/a_1_72.png", "thumb"), "SUC");
    record.setCoverImage("Trip & more/Thumbnail/a_1_72.jpg");
    record.setTotalItems("7");
    const std::string written = place("");
    EXPECT_EQ(descriptionField(written, "CoverImage"), "Trip & more/Thumbnail/a_1_72.png");
    EXPECT_EQ(descriptionField(written, "TotalItems"), "7") << "only the latest item stays";
    EXPECT_EQ(descriptionField(written, "LatestUpdatedItem"), "<a>\"\r.jpg");
    record.setID("73");
    EXPECT_EQ(place("b.jpg"), written);
    record.setPhysicalFileName("Never made");
    place("x");
    EXPECT_FALSE(fs::exists(device("Never made")));
}

TEST_F(FrameworkTest, WritesAFoldersRecordOnceForAllItsItems) {
    HostServiceClientMac client;
    const auto describe = [&](const std::string& folder, const std::string& latest) {
        MediaFolderTemplate record;
        record.setID("id of " + folder);
        record.setPhysicalFileName(folder);
        record.setLatestUpdatedItem(latest);
        client.writeFolderDataXML(params_->getPluginRoot() + "/", ItemDataManager().saveItemData(&record),
                                  "");
    };
    const auto latest = [&](const std::string& folder) {
        return descriptionField(read(device(folder + "/.records/.folder.xml")), "LatestUpdatedItem");
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

// Hundreds of sets have new records at the end of a run, and a process may have few files open.
TEST_F(FrameworkTest, FlushesManyFoldersRecordsWithFewFilesOpen) {
    auto client = std::make_unique<HostServiceClientMac>();
    client->createDirectory("Thumbnail", command_, result_, error_);
    ASSERT_EQ(store(*client, "one.jpg", "content", "1"), "SUC");
    for (int number = 0; number < 60; ++number) {
        const std::string folder = "Set " + std::to_string(number);
        client->createDirectory(folder, command_, result_, error_);
        MediaFolderTemplate record;
        record.setID(std::to_string(number));
        record.setPhysicalFileName(folder);
        client->writeFolderDataXML(params_->getPluginRoot() + "/", ItemDataManager().saveItemData(&record),
                                   "");
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

TEST_F(FrameworkTest, ChecksTheLibrary) {
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

    write(device("Trip/1.jpg"), "c0ntent");
    write(device("Trip/2.jpg"), "short");
    write(device("Trip/new"), "");
    fs::remove(device("Trip/Thumbnail/3_3.png"));
    report = verifyBackup(open, device("").string(), "Thumbnail");
    EXPECT_THAT(report.altered, ElementsAre("Trip/1.jpg", "Trip/2.jpg"));
    EXPECT_THAT(report.missing, ElementsAre("Trip/Thumbnail/3_3.jpg"));
    EXPECT_THAT(report.unrecorded, ElementsAre("Trip/new"));
    EXPECT_THAT(compareBackup(open, device("").string(), "Thumbnail").altered, ElementsAre("Trip/2.jpg"));
    EXPECT_THROW(compareBackup(open, (folder_ / "none").string(), "Thumbnail"), Poco::Exception);
}

TEST_F(FrameworkTest, TakesInTheFilesOfALostLedger) {
    BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    database.folder("72", "Trip");
    database.item("1", "72", "a.jpg", "Trip");
    fs::create_directories(device("Trip/Miniaturbild"));
    write(device("Trip/a.jpg"), "old");
    write(device("Trip/Miniaturbild/a_1.jpg"), "old");
    write(device("Trip/foreign.jpg"), "mine");
    EXPECT_EQ(recoverBackup(open, device("").string(), "Thumbnail").adopted, 2);
    EXPECT_EQ(verifyBackup(open, device("").string(), "Thumbnail").withoutChecksum, 2);
    HostServiceClientMac client;
    client.renameFile("Trip/a.jpg", "Trip/a_Old.jpg", command_, result_, error_);
    EXPECT_EQ(result_, "SUC") << error_;
    client.deleteFile("Trip/foreign.jpg", command_, result_, error_);
    EXPECT_NE(result_, "SUC");
}

TEST_F(FrameworkTest, LetsOneRunAtATimeUseADevice) {
    auto first = std::make_unique<DeviceLock>(folder_.string());
    const auto refusal = [&]() -> std::string {
        try {
            DeviceLock second(folder_.string());
            return "";
        } catch (Poco::Exception& exception) {
            return exception.message();
        }
    };
    EXPECT_THAT(refusal(), HasSubstr("Another backup"));
    first.reset();
    EXPECT_EQ(refusal(), "");
    if (::fork() == 0) {
        new DeviceLock(folder_.string());
        ::kill(::getpid(), SIGKILL);
    }
    ::wait(nullptr);
    EXPECT_EQ(refusal(), "") << "the holder was killed";
    EXPECT_THROW(DeviceLock((folder_ / "none").string()), Poco::Exception);

    // Readers keep a run waiting, and a run keeps readers off.
    auto reader = DeviceLock::forReading(folder_.string());
    EXPECT_TRUE(DeviceLock::forReading(folder_.string()) && reader);
    std::atomic<bool> isHeld{false};
    std::thread run([&] {
        const DeviceLock lock(folder_.string());
        isHeld = true;
        EXPECT_FALSE(DeviceLock::forReading(folder_.string()));
    });
    EXPECT_FALSE(isHeld);
    reader.reset();
    run.join();
    EXPECT_TRUE(DeviceLock::forReading((folder_ / "none").string())) << "nothing to lock";
}

TEST_F(FrameworkTest, TellsWhatBecameOfEachItem) {
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
    log(kListEnds.with("9"));
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
    params_->setBackupState(true);
    begin("5", "cut.jpg");
    store(client, "cut.jpg", "x", "5");
    end("cut.jpg");

    const RunSummary summary = journal.summary();
    EXPECT_EQ(summary.newItems, 1);
    EXPECT_EQ(summary.editedItems, 1);
    EXPECT_EQ(summary.unchangedItems, 1);
    EXPECT_EQ(summary.interruptedItems, 1);
    EXPECT_EQ(summary.untriedItems, 2) << "of 9";
    EXPECT_EQ(summary.untriedSets, 1) << "of 2";
    std::vector<std::string> failures;
    for (const Failure& failure : summary.failures) {
        EXPECT_EQ(failure.set, "Trip");
        failures.push_back(failure.id + " " + failure.name + ": " + failure.reason);
    }
    EXPECT_THAT(
        failures,
        ElementsAre(HasSubstr("81_72 left out: The service's list of its renditions is of no use: Exception"),
                    HasSubstr("82_72 left out: "), HasSubstr("83_72 nothing: "),
                    HasSubstr("3_72 short.jpg: The transfer ended early"),
                    HasSubstr("4_72 x.jpg: Cannot open the folder \"none\""), HasSubstr(" Trip to Voyage: "),
                    HasSubstr(" good.jpg: "), HasSubstr(" none: "),
                    HasSubstr("6_72 Item to transfer - 7_72 evil.jpg: No attempt was made")));
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
