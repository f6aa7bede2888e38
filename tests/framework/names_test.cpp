// The names that titles become on the device.

#include <Poco/Buffer.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>
#include <optional>
#include <set>
#include <string>

#include "hostapi/Utils.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/framework/FrameworkFixture.h"

using namespace Norvale_Plugin_Core;
using namespace flickr_standin;

namespace {

using NamesTest = FrameworkTest;

/// Counts the statements and rows of every database that is opened while it lives.
class QuestionCount {
public:
    QuestionCount() {
        number = 0;
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(watch));
    }
    ~QuestionCount() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(watch)); }

    static inline long number = 0;

private:
    static int watch(sqlite3* database, char**, const void*) {
        const auto count = [](unsigned, void*, void*, void*) {
            ++number;
            return 0;
        };
        return sqlite3_trace_v2(database, SQLITE_TRACE_STMT | SQLITE_TRACE_ROW, count, nullptr);
    }
};

TEST_F(NamesTest, MakesEveryTitleASafeNameAndKeepsSafeOnes) {
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

TEST_F(NamesTest, ReadsTheMomentOfAVersionFromItsOwnNamesOnly) {
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

TEST_F(NamesTest, GivesNamesThatFitAndNeverClash) {
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

TEST_F(NamesTest, AsksLittleForTheThousandthItemOfOneTitle) {
    const QuestionCount questions;
    BackupDatabase open((folder_ / "backup.db").string());
    Database database(open.path());
    std::set<std::string> keys;
    long mostAsked = 0;
    for (int i = 0; i < 1000; ++i) {
        const std::string id = std::to_string(i) + "_72";
        const long before = questions.number;
        const std::string name = database.generateFileName("Untitled.jpg", "Trip", "72", id);
        mostAsked = std::max(mostAsked, questions.number - before);
        EXPECT_TRUE(keys.insert(nameKey(name)).second) << name;
        database.item(id, "72", name, "Trip");
    }
    EXPECT_EQ(keys.count("untitled (1000).jpg"), 1);
    EXPECT_GT(mostAsked, 10) << "the questions are counted";
    EXPECT_LT(mostAsked, 100) << "names that are taken are not tried one by one";
    EXPECT_EQ(database.getTotalCountInContainer("Trip"), 1000);
}

TEST_F(NamesTest, KnowsPicturesByTheirFirstBytes) {
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

}  // namespace
