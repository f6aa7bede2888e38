// The gallery's files, from backups that real runs made. tests/gallery_browser.py looks at the page itself.

#include "standin/gallery/Gallery.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "sim/Picture.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/gallery/ImageShape.h"
#include "tests/BackupFixture.h"

namespace fs = std::filesystem;
using namespace flickr_gallery;
using namespace flickr_sim;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

/// How many renames and removals the generator may still do before it is killed; below 0 without an end.
int stepsLeft = -1;

void countStep() {
    if (stepsLeft >= 0 && stepsLeft-- == 0) ::_exit(9);
}

}  // namespace

// The linker leads the generator's calls here.
extern "C" {
int __real_renameat(int, const char*, int, const char*);
int __wrap_renameat(int fromFolder, const char* from, int toFolder, const char* to) {
    countStep();
    return __real_renameat(fromFolder, from, toFolder, to);
}
int __real_unlinkat(int, const char*, int);
int __wrap_unlinkat(int folder, const char* name, int flags) {
    countStep();
    return __real_unlinkat(folder, name, flags);
}
}

namespace {

using Rows = std::vector<Poco::JSON::Array::Ptr>;

class GalleryTest : public BackupFixture {
protected:
    /// A run and its gallery.
    GalleryReport update() {
        EXPECT_EQ(run().status, 1);
        return writeGallery(service_, "Thumbnail", database_.get());
    }

    /// The list that a script hands to the page; the script is checked to be one call with a JSON array.
    Rows list(const std::string& name) const {
        const std::string text = read("index-data/" + name);
        EXPECT_THAT(text, Not(testing::AnyOf(HasSubstr("<"), HasSubstr("\u2028")))) << name;
        const auto begin = text.find("[\n"), end = text.rfind(']');
        Rows rows;
        const auto array =
            Poco::JSON::Parser().parse(text.substr(begin, end - begin + 1)).extract<Poco::JSON::Array::Ptr>();
        for (unsigned i = 0; i < array->size(); ++i) rows.push_back(array->getArray(i));
        return rows;
    }

    /// The sets, by way of the page.
    Rows sets() const {
        const std::string page = read("index.html");
        const auto at = page.find("index-data/sets-") + std::strlen("index-data/");
        return list(page.substr(at, page.find('"', at) - at));
    }

    /// A set's items.
    Rows items(const Poco::JSON::Array::Ptr& set) const {
        Rows rows;
        const auto chunks = set->getArray(7);
        for (unsigned i = 0; i < chunks->size(); ++i) {
            const std::string name = chunks->getArray(i)->getElement<std::string>(0) + ".js";
            for (const auto& row : list(name)) rows.push_back(row);
        }
        return rows;
    }

    /// What the gallery shows as far as the records tell it: not when an item was uploaded.
    std::string contents() const {
        std::string text;
        for (const auto& set : sets()) {
            for (const unsigned field : {0u, 2u, 3u, 4u, 5u})
                text += set->getElement<std::string>(field) + "|";
            for (auto item : items(set)) {
                for (const unsigned field : {1u, 8u}) item->set(field, "");
                std::ostringstream line;
                item->stringify(line);
                text += "\n  " + line.str();
            }
            text += "\n";
        }
        return text;
    }

    /// The gallery's files with what tells whether they were written again.
    std::map<std::string, ino_t> files() const {
        std::map<std::string, ino_t> all;
        const auto add = [&](const fs::path& path) {
            struct stat status = {};
            ::stat(path.c_str(), &status);
            all[path.filename()] = status.st_ino;
        };
        add(service_ + "/index.html");
        for (const auto& entry : fs::directory_iterator(service_ + "/index-data")) add(entry.path());
        return all;
    }
};

std::string title(const Poco::JSON::Array::Ptr& item) {
    return item->getElement<std::string>(5);
}

}  // namespace

TEST(ImageShapeTest, ReadsTheHeadersOfFourFormats) {
    const auto shape = [](const std::string& bytes) {
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
        std::fwrite(bytes.data(), 1, bytes.size(), file.get());
        std::rewind(file.get());
        const ImageShape found = imageShape(file.get());
        return std::to_string(found.width) + "x" + std::to_string(found.height);
    };
    using namespace std::string_literals;
    const std::string jpeg = *drawPicture(1, 100, 67), rest(20, '\0');
    EXPECT_EQ(shape(jpeg), "100x67");
    EXPECT_EQ(shape(jpeg.substr(0, 40)), "0x0");
    EXPECT_EQ(shape("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\x01\x2c\0\0\0\xc8"s + rest), "300x200");
    EXPECT_EQ(shape("GIF89a\x2c\x01\xc8\0"s + rest), "300x200");
    EXPECT_EQ(shape("RIFF....WEBPVP8 ....\0\0\0\x9d\x01\x2a\x2c\x01\xc8\0"s + rest), "300x200");
    EXPECT_EQ(shape("RIFF....WEBPVP8L....\x2f\x2b\xc1\x31\0"s + rest), "300x200");
    EXPECT_EQ(shape("RIFF....WEBPVP8X....\0\0\0\0\x2b\x01\0\xc7\0\0"s + rest), "300x200");
    EXPECT_EQ(shape("no picture"), "0x0");
}

TEST_F(GalleryTest, ShowsWhatTheBackupHoldsAndTextsAsText) {
    const std::string hostile = "</script><img src=x onerror=alert(1)>\"'\\\n\u2028\u202e&amp;]]>";
    const std::string trip = account_.addSet("Trip");
    Item sea = photo("Sea");
    sea.taken = "2017-07-13 14:40:00";
    sea.description = hostile;
    sea.tags = {"javascript:alert(1)", "</script><b>", "海"};
    const std::string id = account_.addItem(trip, sea);
    const std::string film = account_.addItem(trip, video("Film"));
    account_.addItem("", photo("Loose"));
    serve();
    update();
    // What the plug-in makes of such titles is its business; the gallery takes any.
    std::string quoted = hostile;
    quoted.insert(quoted.find('\''), 1, '\'');
    rows("UPDATE backupmetadata SET ItemName = '" + quoted + "' WHERE OriginalItemId IN ('" + id + "', '" +
         trip + "')");
    const GalleryReport report = writeGallery(service_, "Thumbnail", database_.get());
    EXPECT_EQ(report.items, 3);
    EXPECT_EQ(report.sets, 1);
    EXPECT_EQ(report.page, service_ + "/index.html");

    const Rows shown = sets();
    ASSERT_THAT(shown, SizeIs(2));
    EXPECT_EQ(shown[0]->getElement<std::string>(2), hostile);
    EXPECT_TRUE(fs::exists(service_ + "/" + shown[0]->getElement<std::string>(4))) << "the cover";
    EXPECT_TRUE(fs::exists(service_ + "/" + shown[0]->getElement<std::string>(5))) << "its picture";
    const Rows listed = items(shown[0]);
    ASSERT_THAT(listed, SizeIs(2));
    const auto item = listed[0];
    EXPECT_EQ(item->getElement<std::string>(0), id + "_" + trip);
    EXPECT_EQ(item->getElement<std::string>(2), "2017-07-13 14:40:00");
    EXPECT_GT(item->getElement<int>(3), 0);
    EXPECT_EQ(title(item), hostile);
    EXPECT_THAT(read(shown[0]->getElement<std::string>(3) + "/" + item->getElement<std::string>(6)),
                Not(IsEmpty()));
    EXPECT_EQ(item->getElement<std::string>(8), "2023-11-14 22:13:20");
    EXPECT_EQ(item->getElement<std::string>(11), sea.description);
    ASSERT_EQ(item->getArray(12)->size(), 3u);
    EXPECT_EQ(item->getArray(12)->getElement<std::string>(1), sea.tags[1]);
    EXPECT_EQ(listed[1]->getElement<int>(10), 1);
    std::map<std::string, std::pair<std::string, std::string>> searched;
    for (const auto& [name, inode] : files()) {
        if (name.rfind("search-", 0) != 0) continue;
        for (const auto& row : list(name)) {
            searched[row->getElement<std::string>(0)] = {row->getElement<std::string>(1),
                                                         row->getElement<std::string>(2)};
        }
    }
    EXPECT_THAT(searched, SizeIs(2)) << "the chunks of both sets";
    const auto& [photos, texts] = searched[shown[0]->getArray(7)->getArray(0)->getElement<std::string>(0)];
    EXPECT_EQ(photos, id + " " + film);
    EXPECT_EQ(
        texts,
        "</script><img src=x onerror=alert(1)>\"'\\ \u202e&amp;]]> sea.jpg 2017-07-13 javascript:alert(1) "
        "</script><b> 海\nfilm.mp4 2023-11-14")
        << "each word once";

    EXPECT_TRUE(flickr_standin::compareBackup(*database_, service_, "Thumbnail").agrees());
    EXPECT_THAT(read("index.html"), Not(HasSubstr("{")));

    // The records tell all of it but the titles that are no names.
    rows("UPDATE backupmetadata SET ItemName = 'Sea.jpg' WHERE OriginalItemId = '" + id + "'");
    rows("UPDATE backupmetadata SET ItemName = 'Trip' WHERE OriginalItemId = '" + trip + "'");
    writeGallery(service_, "Thumbnail", database_.get());
    const std::string whole = contents();
    fs::remove_all(service_ + "/index-data");
    writeGallery(service_, "Thumbnail", nullptr);
    EXPECT_EQ(contents(), whole);
}

TEST_F(GalleryTest, WritesWhatChangedAndNothingElse) {
    const std::string trip = account_.addSet("Trip"), other = account_.addSet("Other");
    for (int i = 0; i < 5; ++i) account_.addItem(trip, photo("Item " + std::to_string(i)));
    account_.addItem(other, photo("Quiet"));
    serve();
    EXPECT_EQ(update().written, 8);
    const auto before = files();
    EXPECT_EQ(update().written, 0);
    EXPECT_EQ(writeGallery(service_, "Thumbnail", database_.get(), Reading::Everything).written, 0);
    EXPECT_EQ(files(), before);

    // An unchanged item's thumbnail is not read again: it could not be.
    const std::string kept = items(sets()[1])[4]->getElement<std::string>(7);
    fs::remove(service_ + "/Trip/" + kept);
    account_.retitle(account_.items(trip)[0]->id, "New title", 1800000000);
    EXPECT_EQ(update().written, 4) << "one chunk, what is searched, the sets, the page";
    EXPECT_EQ(title(items(sets()[1])[0]), "New title");
    EXPECT_EQ(items(sets()[1])[4]->getElement<std::string>(7), kept);
    auto after = files();
    EXPECT_EQ(after.size(), before.size()) << "what is not shown any more is gone";
    for (const auto& [name, inode] : after) {
        const auto was = before.find(name);
        if (was == before.end() || name == "index.html") continue;
        EXPECT_EQ(inode, was->second) << name;
    }

    // A photo that another set begins to hold is counted once for both.
    const auto month = [this](unsigned set) {
        return sets()[set]->getArray(7)->getArray(0)->getArray(1)->getArray(0);
    };
    EXPECT_EQ(month(1)->size(), 2u);
    account_.addToSet(other, account_.items(trip)[2]->id);
    EXPECT_EQ(update().written, 4) << "the chunk of the one, and the line of either";
    EXPECT_EQ(month(0)->size(), 2u);
    ASSERT_EQ(month(1)->size(), 3u);
    EXPECT_EQ(month(1)->getElement<int>(1), 5);
    EXPECT_EQ(month(1)->getElement<int>(2), 1);

    account_.renameSet(trip, "Voyage");
    update();
    EXPECT_EQ(sets()[1]->getElement<std::string>(3), "Voyage");

    const std::string old = read("Voyage/Item 1.jpg");
    account_.edit(account_.items(trip)[1]->id, Content::bytes("edited"), 1800000000);
    update();
    const auto shown = items(sets()[1]);
    ASSERT_EQ(shown[1]->size(), 14u);
    EXPECT_EQ(read("Voyage/" + shown[1]->getArray(13)->getElement<std::string>(0)), old);
    EXPECT_EQ(shown[2]->size(), 13u) << "no older versions";
    for (const auto& version : fs::directory_iterator(service_ + "/Voyage/.versions")) {
        if (version.is_regular_file()) fs::remove(version);
    }
    writeGallery(service_, "Thumbnail", database_.get());
    EXPECT_EQ(items(sets()[1])[1]->size(), 13u);
}

TEST_F(GalleryTest, HasEachChunkInOneOfSeveralSearchFilesAndWritesOnlyThatAnew) {
    for (int i = 0; i < 8; ++i) account_.addItem(account_.addSet("Set " + std::to_string(i)), photo("a"));
    serve();
    update();
    rows(
        "WITH RECURSIVE n(i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM n WHERE i < 1599) "
        "INSERT INTO backupmetadata SELECT '7' || i || '_' || ItemId, i || '.jpg', ItemName, i || '.jpg', "
        "DerivedItemName, '7' || i, ItemId, CreatedOn, ItemUpdatedOn, 'FlickrPhoto', 'jpg', '', '', '', "
        "ItemId, i FROM backupmetadata, n WHERE ItemType = 'FlickrFolder' AND ItemId <> 'Anonymous'");
    EXPECT_EQ(writeGallery(service_, "Thumbnail", database_.get()).items, 4808);
    const auto searched = [this] {
        std::map<std::string, std::multiset<std::string>> chunks;  // by file
        for (const auto& [name, inode] : files()) {
            if (name.rfind("search-", 0) != 0) continue;
            for (const auto& row : list(name)) chunks[name].insert(row->getElement<std::string>(0));
        }
        return chunks;
    };
    std::multiset<std::string> all, expected;
    const auto before = searched();
    EXPECT_THAT(before, SizeIs(2));
    for (const auto& [file, chunks] : before) all.insert(chunks.begin(), chunks.end());
    for (const auto& set : sets()) {
        const auto chunks = set->getArray(7);
        for (unsigned i = 0; i < chunks->size(); ++i) {
            expected.insert(chunks->getArray(i)->getElement<std::string>(0));
        }
    }
    EXPECT_EQ(all, expected);
    rows(
        "UPDATE backupmetadata SET ItemName = 'new.jpg' WHERE ItemId LIKE '71000_%' AND ItemContainerName = "
        "'Set 3'");
    EXPECT_EQ(writeGallery(service_, "Thumbnail", database_.get()).written, 4);
    std::map<std::string, std::multiset<std::string>> both;
    for (const auto& [file, chunks] : searched()) {
        if (before.count(file)) both[file] = chunks;
    }
    EXPECT_THAT(both, SizeIs(1)) << "the other file stays";
}

TEST_F(GalleryTest, IsTheOldOneOrTheNewOneAfterAKillAtAnyMoment) {
    const std::string trip = account_.addSet("Trip");
    const std::string id = account_.addItem(trip, photo("Before"));
    serve();
    update();
    account_.retitle(id, "After", 1800000000);
    EXPECT_EQ(run().status, 1);
    int old = 0, fresh = 0, status = 9;
    for (int steps = 0; status == 9; ++steps) {
        const pid_t child = ::fork();
        if (child == 0) {
            stepsLeft = steps;
            writeGallery(service_, "Thumbnail", database_.get());
            ::_exit(0);
        }
        int ended = 0;
        ::waitpid(child, &ended, 0);
        ASSERT_TRUE(WIFEXITED(ended));
        status = WEXITSTATUS(ended);
        const std::string shown = title(items(sets()[0])[0]);
        EXPECT_TRUE(shown == "Before" || shown == "After") << shown;
        (shown == "Before" ? old : fresh) += 1;
        EXPECT_TRUE(flickr_standin::compareBackup(*database_, service_, "Thumbnail").agrees()) << steps;
    }
    EXPECT_EQ(status, 0);
    EXPECT_GE(old, 3);
    EXPECT_GE(fresh, 1);
    for (const auto& [name, inode] : files()) EXPECT_THAT(name, Not(testing::StartsWith(".part")));
}

TEST_F(GalleryTest, LeavesAPageOfSomebodyElseAndItsNamesToNobody) {
    account_.addItem(account_.addSet("index.html"), photo("a"));
    account_.addItem(account_.addSet("Index-Data"), photo("b"));
    serve();
    update();
    EXPECT_TRUE(fs::is_directory(service_ + "/index_.html"));
    EXPECT_TRUE(fs::is_directory(service_ + "/Index-Data_"));
    std::ofstream(service_ + "/index.html") << "mine";
    EXPECT_THROW(writeGallery(service_, "Thumbnail", database_.get()), Poco::FileExistsException);
    EXPECT_EQ(read("index.html"), "mine");
}
