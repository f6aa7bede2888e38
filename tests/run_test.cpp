// Whole runs of the plug-in on the stand-in's framework against the simulated service: what goes over the
// wire, and what the device, the database and the log hold afterwards.

#include <Poco/Exception.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "core/FlickrPluginCore.h"
#include "core/MediaDownloadActivity.h"
#include "core/PhotoListSaxHandler.h"
#include "core/StopWatcher.h"
#include "hostapi/HostServiceUsageParams.h"
#include "standin/framework/base/Sqlite.h"
#include "standin/framework/run/RunJournal.h"
#include "tests/BackupFixture.h"

using namespace flickr_sim;
using namespace testing;
using namespace std::chrono_literals;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

constexpr std::time_t kOld = 1700000000;
constexpr std::time_t kNew = 1700009999;

std::atomic<int> lockWaits{0};  // for another connection's lock on a database

}  // namespace

extern "C" int sqlite3_sleep(int milliseconds) {
    ++lockWaits;
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    return milliseconds;
}

namespace {

class Run : public BackupFixture {
protected:
    /// Three sets, one of them empty, two videos and two items in no set.
    void fill() {
        trip_ = account_.addSet("Trip");
        sunset_ = account_.addItem(trip_, photo("sunset", kOld + 5));
        beach_ = account_.addItem(trip_, photo("beach", kOld));
        clip_ = account_.addItem(trip_, video("clip", kOld + 1));
        city_ = account_.addSet("Città: día?");
        account_.addItem(city_, photo("a/b", kOld + 2));
        account_.addToSet(city_, sunset_);
        account_.addSet("Empty");
        loose_ = account_.addItem("", photo("loose", kOld + 3));
        account_.addItem("", video("film", kOld + 4));
    }

    std::vector<std::string> targets(Kind kind) const {
        std::vector<std::string> list;
        for (const Request& request : sim_->log()) {
            if (request.kind == kind) list.push_back(request.line);
        }
        return list;
    }

    std::string trip_, city_, sunset_, beach_, clip_, loose_;
};

/// Moves the process into a network of its own, where an ordinary user may listen on every port too. It stays
/// where it is if the system does not allow that, or if it has several threads already.
void enterOwnNetwork() {
    const std::string user = std::to_string(::getuid()), group = std::to_string(::getgid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << user + " " + user + " 1";
    std::ofstream("/proc/self/gid_map") << group + " " + group + " 1";
    const int any = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq loopback = {};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP;
    EXPECT_EQ(::ioctl(any, SIOCSIFFLAGS, &loopback), 0);
    ::close(any);
}

/// The log's lines that hold the text, counted.
int count(const std::string& log, const std::string& text) {
    int found = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++found;
    return found;
}

}  // namespace

TEST_F(Run, LeavesFilesRowsAndRecordsAndThenDownloadsNothing) {
    fill();
    serve();
    const RunResult first = run();
    EXPECT_EQ(first.status, 1) << first.error;
    expectComplete();
    const std::string sunset = sunset_ + "_" + trip_, clip = clip_ + "_" + trip_,
                      loose = loose_ + "_Anonymous";
    const auto files = device();
    EXPECT_THAT(files, AllOf(Contains(Key("Trip/sunset.jpg")), Contains(Key("Trip/clip.mp4")),
                             Contains(Key("Trip/Thumbnail/sunset_" + sunset + ".jpg")),
                             Contains(Key("Trip/Thumbnail/clip_" + clip + ".jpg")),
                             Contains(Key("loose.jpg")), Contains(Key("Thumbnail/loose_" + loose + ".jpg")),
                             Contains(Key("Anonymous/")), Not(Contains(Key("Empty/")))));
    EXPECT_EQ(files.at("Trip/Thumbnail/sunset_" + sunset + ".jpg"),
              contentOf(*account_.item(sunset_), "Thumbnail").text());
    EXPECT_THAT(
        rows("SELECT ItemId, ItemName, ItemContainerName, DerivedItemName, DerivedContainerName, "
             "OriginalItemId,"
             " OriginalContainerId, ItemUpdatedOn, ItemType FROM backupmetadata WHERE ItemId IN ('" +
             sunset + "','" + clip + "','" + loose + "') ORDER BY ItemName"),
        ElementsAre(
            StartsWith(clip + "|clip.mp4|Trip|clip.mp4|Trip|" + clip_ + "|" + trip_ + "|"),
            StartsWith(loose + "|loose.jpg|Anonymous|loose.jpg|Anonymous|" + loose_ + "|Anonymous|"),
            AllOf(StartsWith(sunset + "|sunset.jpg|Trip|sunset.jpg|Trip|" + sunset_ + "|" + trip_ + "|"),
                  EndsWith("|FlickrPhoto"))));
    EXPECT_THAT(rows("SELECT ItemId, ItemName, ItemContainerName, DerivedItemName, DerivedContainerName, "
                     "OriginalItemId, OriginalContainerId, ItemType FROM backupmetadata WHERE ItemId = '" +
                     trip_ + "'"),
                ElementsAre(trip_ + "|Trip|Flickr|Trip|Flickr|" + trip_ + "|Flickr_ID|FlickrFolder"));
    EXPECT_THAT(log(),
                AllOf(HasSubstr("Flickr Backup Started."), HasSubstr("Processing Photo Set: Trip"),
                      HasSubstr("sunset.jpg successfully downloaded."),
                      HasSubstr("PhotoSet and Thumbnail directory created for photoSet - Trip"),
                      HasSubstr("User Selected Data Types - Images;Videos;"), Not(HasSubstr("RunSupport.h")),
                      HasSubstr("Backup stopped due to catastrophic exception. Error Info - Error code - 1"),
                      Not(HasSubstr("demo-token-1"))));

    sim_->clearLog();
    EXPECT_EQ(run().status, 1);
    EXPECT_EQ(sim_->counts().media + sim_->counts().thumbnails, 0u);
    EXPECT_EQ(device(), files);
    EXPECT_EQ(count(log(), "already backed up no change, continuing to next photo"), 7);
}

TEST_F(Run, SpeaksTheExactWire) {
    const std::string set = account_.addSet("Trip");
    const std::string item = account_.addItem(set, photo("sunset"));
    serve();
    run();
    const std::string extras =
        "&extras=date_upload%2C+last_update%2C+date_taken%2C+media%2C+url_m%2C+url_o%2C+url_t%2C+tags%2C+"
        "description";
    const std::string key = "&api_key=demo0key0for0the0simulated0flickr", token = "&auth_token=demo-token-1";
    const std::string start = "GET /services/rest/?method=flickr.", end = "&api_sig=[0-9a-f]{32} HTTP/1.1";
    std::vector<std::string> expected = {
        start + "photosets.getList" + key + token + end,
        start + "photosets.getPhotos" + key + "&photoset_id=" + set + extras + token + "&page=1" + end,
        start + "photos.getSizes" + key + "&photo_id=" + item + token + end,
        start + "photos.getNotInSet" + key + extras + token + "&page=1" + end};
    const std::vector<std::string> rest = targets(Kind::Rest);
    ASSERT_EQ(rest.size(), expected.size());
    for (std::size_t i = 0; i < rest.size(); ++i) {
        std::string pattern = expected[i];
        for (const char* special : {"?", "+"}) {
            for (auto at = pattern.find(special); at != std::string::npos;
                 at = pattern.find(special, at + 2)) {
                pattern.insert(at, "\\");
            }
        }
        EXPECT_THAT(rest[i], MatchesRegex(pattern));
    }
    for (const Request& request : sim_->log()) {
        EXPECT_EQ(request.status, 200) << request.line;
        EXPECT_EQ(request.headers.size(), 2u) << request.line;
        EXPECT_EQ(request.header("Connection"), "Close");
        EXPECT_THAT(request.header("Host"), StartsWith("127.0.0.1"));
        // A plain transfer names the whole address.
        EXPECT_THAT(request.target,
                    StartsWith(request.kind == Kind::Rest ? "/services/rest/?" : sim_->baseUrl()));
    }
    EXPECT_EQ(sim_->counts().connections, 6u) << "a connection for each request";
}

TEST_F(Run, FollowsEditsRenamesAndNewItems) {
    fill();
    serve();
    run();
    account_.edit(beach_, Content::bytes("edited beach"), kNew);
    account_.retitle(sunset_, "dawn", kNew);
    account_.edit(clip_, Content::video(5000, 9), kNew);
    account_.renameSet(trip_, "Journey");
    account_.renameSet(city_, "Journey");
    account_.addItem(trip_, photo("new", kNew));
    sim_->clearLog();

    EXPECT_EQ(run().status, 1);
    expectComplete();
    EXPECT_EQ(sim_->counts().media, 5u) << "beach, dawn in two sets, clip and new";
    EXPECT_EQ(read("Journey/beach.jpg"), "edited beach");
    EXPECT_THAT(names(), AllOf(HasSubstr("Journey/dawn.jpg"), Not(HasSubstr("sunset")),
                               Not(HasSubstr("Trip")), Not(HasSubstr("_Old"))));
    EXPECT_THAT(rows("SELECT DISTINCT ItemContainerName, DerivedContainerName FROM backupmetadata WHERE "
                     "OriginalContainerId = '" +
                     trip_ + "'"),
                ElementsAre("Journey|Journey"));
    EXPECT_THAT(rows("SELECT ItemName, DerivedItemName FROM backupmetadata WHERE ItemId = '" + city_ + "'"),
                ElementsAre("Journey|Journey (2)"));
    const auto after = device();
    run();
    EXPECT_EQ(device(), after);
}

TEST_F(Run, NamesAThumbnailByWhatThePictureIs) {
    const std::string id =
        account_.addItem("", photo("drawing", Content::bytes("\x89PNG\r\n\x1a\n picture")));
    serve();
    EXPECT_EQ(run().status, 1);
    expectComplete();
    EXPECT_THAT(rows("SELECT ImageExtension FROM backupmetadata WHERE ItemType = 'FlickrPhoto'"),
                ElementsAre("png"));
    EXPECT_THAT(names(), HasSubstr("Thumbnail/drawing_" + id + "_Anonymous.png\n"));
}

TEST_F(Run, GivesFilesAndDescriptionsTheDatesOfTheService) {
    struct {
        const char *title, *taken;
        std::time_t uploaded, written;
        const char *shown, *fields;
        bool isVideo = false;
    } const cases[] = {
        {"dawn & dusk", "2017-01-13 02:40:00", kOld, 1484264400, "Fri, 13 Jan 2017 2:40:00 AM",
         "  <Title>dawn &amp; dusk</Title>\n  <Taken>2017-01-13T02:40:00</Taken>\n"
         "  <Uploaded>2023-11-14T22:13:20Z</Uploaded>\n</media>\n"},
        {"Dawn & dusk", "1958-07-01 00:00:00", kOld, -363063600, "Tue, 1 Jul 1958 12:00:00 AM",
         "  <Title>Dawn &amp; dusk</Title>\n  <Taken>1958-07-01T00:00:00</Taken>\n"
         "  <Uploaded>2023-11-14T22:13:20Z</Uploaded>\n</media>\n"},
        {"never.jpg", "no date", kOld + 1, kOld + 1, "Thu, 1 Jan 1970 12:00:00 AM",
         "  <Title>never.jpg</Title>\n  <Uploaded>2023-11-14T22:13:21Z</Uploaded>\n</media>\n"},
        {"clip", "2017-01-13 14:40:00", kOld, 1484307600, "Fri, 13 Jan 2017 2:40:00 PM",
         "  <Title>clip</Title>\n  <Taken>2017-01-13T14:40:00</Taken>\n"
         "  <Uploaded>2023-11-14T22:13:20Z</Uploaded>\n</media>\n",
         true},
    };
    setenv("TZ", "EAST-3", 1);
    trip_ = account_.addSet("Trip");
    std::vector<std::string> ids;
    for (const auto& item : cases) {
        ids.push_back(account_.addItem(trip_, item.isVideo ? video(item.title) : photo(item.title)));
        account_.change(ids.back(), [&](Item& changed) {
            changed.taken = item.taken;
            changed.uploaded = item.uploaded;
            changed.description = "By the sea";
            changed.tags = {"sand", "sun"};
        });
    }
    serve();
    const auto check = [&](const std::string& ending, const std::string& updated) {
        for (std::size_t i = 0; i < ids.size(); ++i) {
            const std::string id = ids[i] + "_" + trip_;
            const auto name = rows("SELECT DerivedItemName FROM backupmetadata WHERE ItemId = '" + id + "'");
            ASSERT_EQ(name.size(), 1u);
            struct stat status = {};
            ASSERT_EQ(stat((service_ + "/Trip/" + name[0]).c_str(), &status), 0) << name[0];
            EXPECT_EQ(status.st_mtime, cases[i].written) << name[0];
            std::string fields = cases[i].fields, file = name[0];
            fields.insert(fields.find("</Title>"), ending);
            if (const auto at = file.find('&'); at != file.npos) file.insert(at + 1, "amp;");
            EXPECT_EQ(read("Trip/.records/" + name[0] + ".xml"),
                      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<media>\n  <ID>" + id +
                          "</ID>\n  <PhysicalFileName>" + file +
                          "</PhysicalFileName>\n  <DataXMLPath>My Flickr Items/" +
                          (cases[i].isVideo ? "Video" : "Image") + "</DataXMLPath>\n  <FileName>" + file +
                          "</FileName>\n  <MediaType>" + (cases[i].isVideo ? "video" : "photo") +
                          "</MediaType>\n  <ThumbnailName>Thumbnail/" + file.substr(0, file.size() - 4) +
                          "_" + id + ".jpg</ThumbnailName>\n  <Description>By the sea</Description>\n" +
                          "  <DateTaken>" + cases[i].shown + "</DateTaken>\n  <DateUpdated>" + updated +
                          "</DateUpdated>\n  <Tags>\n    <Tag>sand</Tag>\n    <Tag>sun</Tag>\n  </Tags>\n" +
                          fields);
        }
    };
    EXPECT_EQ(run().status, 1);
    check("", "2023-11-14T22:13:20Z");
    // Rows and times of an older build: an edit brings them.
    for (const std::string& id : ids) account_.retitle(id, account_.item(id)->title + " again", kNew);
    EXPECT_EQ(run().status, 1);
    check(" again", "2023-11-15T00:59:59Z");
}

TEST_F(Run, KeepsTheOldVersionWhenATransferFails) {
    struct {
        const char* name;
        flickr_sim::Action action;
        bool thumbnail;
    } const faults[] = {
        {"status 503", fault::status(503), false},
        {"status 404 for the thumbnail", fault::status(404), true},
        {"dropped before the header", fault::dropBeforeHeader(), false},
        {"dropped in the header", fault::dropInHeader(), false},
        {"reset in the body", fault::dropInBody(100, fault::Close::Reset), false},
        {"body too short", fault::shortBody(1), false},
        {"chunked body that breaks off",
         [](const Request& r, Reply& reply) {
             fault::framing(Framing::Chunked)(r, reply);
             fault::dropInBody(100)(r, reply);
         },
         false},
        {"two content lengths", fault::contentLength({"5", "6"}), false},
        {"negative content length", fault::contentLength({"-1"}), false},
        {"content length that is no number", fault::contentLength({"many"}), false},
        {"redirect to another scheme", fault::redirect("ftp://127.0.0.1/x"), false},
        {"redirect to nowhere", fault::redirect(""), false},
        {"redirect to a file", fault::redirect("file:///etc/passwd"), false},
        {"header without end", fault::hugeHeader(1 << 20), false},
        {"an unknown transfer coding",
         fault::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n1\r\nx\r\n0\r\n\r\n"), false},
        {"two lengths in a list", fault::contentLength({"1000, 1001"}), false},
        {"interim answers without end",
         [](const Request& r, Reply& reply) {
             std::string interim;
             for (int i = 0; i < 200; ++i) interim += "HTTP/1.1 103 Early Hints\r\n\r\n";
             fault::raw(interim + "HTTP/1.1 200 OK\r\n\r\nx")(r, reply);
         },
         false},
        {"bytes that are no answer", fault::raw("\0\xff garbage\r\n\r\n"), false},
    };
    fill();
    serve();
    run();
    const std::string before = read("Trip/beach.jpg");
    const std::string row =
        "SELECT ItemUpdatedOn FROM backupmetadata WHERE ItemId = '" + beach_ + "_" + trip_ + "'";
    std::time_t updated = kNew;
    for (const auto& test : faults) {
        SCOPED_TRACE(test.name);
        const auto recorded = rows(row);
        const std::string fresh = account_.addItem(trip_, photo("fresh", ++updated));
        account_.edit(beach_, Content::bytes(std::string(1000, 'e') + test.name), updated);
        for (const std::string& id : {fresh, beach_}) {
            sim_->faults().add(test.thumbnail ? thumbnail(id) : media(id), always(), test.action);
        }
        run();
        const auto files = device();
        EXPECT_EQ(files.count("Trip/fresh.jpg"), 0u);
        EXPECT_EQ(rows("SELECT * FROM backupmetadata WHERE ItemId = '" + fresh + "_" + trip_ + "'").size(),
                  0u);
        EXPECT_EQ(rows(row), recorded);
        // After a failed thumbnail the old version stays aside until the next run.
        EXPECT_EQ(read(test.thumbnail ? "Trip/beach_Old.jpg" : "Trip/beach.jpg"), before);
        const auto summary = flickr_standin::RunJournal::instance().summary();
        EXPECT_EQ(summary.failures.size(), 2u) << "both are named";

        sim_->faults().clear();
        account_.deleteItem(fresh);
        account_.edit(beach_, Content::bytes(before), updated);
        EXPECT_EQ(run().status, 1);
        EXPECT_EQ(read("Trip/beach.jpg"), before);
        EXPECT_THAT(names(), Not(HasSubstr("_Old")));
    }
}

TEST_F(Run, SucceedsThroughEveryHonestDelivery) {
    SimOptions options;
    options.address = FlickrSim::ownLoopbackAddress();
    options.httpsPort = 443;
    if (::geteuid() != 0) enterOwnNetwork();
    fill();
    try {
        serve(options);
    } catch (Poco::Exception& exception) {
        GTEST_SKIP() << "port 443 cannot be had: " << exception.displayText();
    }
    std::vector<MediaDelivery> deliveries(8);
    deliveries[1].framing = Framing::Chunked;
    deliveries[2].framing = Framing::Close;
    deliveries[3].redirects = 25;
    deliveries[4].redirects = 2;
    deliveries[4].relativeLocations = true;
    deliveries[4].redirectStatus = 307;
    deliveries[5].https = true;
    deliveries[6].redirects = 1;
    deliveries[6].redirectToHttps = true;
    deliveries[6].redirectStatus = 303;
    deliveries[7].https = true;
    deliveries[7].framing = Framing::Chunked;
    std::time_t updated = kNew;
    run();
    for (const MediaDelivery& delivery : deliveries) {
        SCOPED_TRACE(&delivery - deliveries.data());
        sim_->setDelivery(delivery);
        ++updated;
        account_.edit(beach_, Content::pattern(100000, 1), updated);
        account_.edit(clip_, Content::bytes(""), updated);
        EXPECT_EQ(run().status, 1);
        expectComplete();
    }
}

TEST_F(Run, TakesOddFramingForWhatItMeans) {
    fill();
    serve();
    run();
    const std::string interim = "HTTP/1.1 102 Processing\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n";
    const std::string list = "<rsp stat='ok'><photos/></rsp>";
    std::time_t updated = kNew;
    const std::string ok = "HTTP/1.1 200 OK\r\n", end = "30\r\n\r\n" + list;
    for (const std::string& answer :
         {interim + ok + "Content-Length: " + end, ok + "Content-Length: 30, " + end,
          ok + "Content-Length: 30\r\nContent-Length: " + end,
          ok + "Transfer-Encoding: chunked\r\n\r\n1e;a=\xe9\xff\r\n" + list + "\r\n0\r\n\r\n"}) {
        SCOPED_TRACE(answer);
        account_.edit(beach_, Content::bytes(list), ++updated);
        sim_->faults().clear();
        for (const Match& match : {media(beach_), rest("flickr.photos.getNotInSet")}) {
            sim_->faults().add(match, always(), fault::raw(answer));
        }
        EXPECT_EQ(run().status, 1);
        EXPECT_EQ(read("Trip/beach.jpg"), list);
    }
}

TEST_F(Run, ListsAllItemsInNoSetWhateverHappens) {
    serve();
    Item offered = photo("p");
    offered.renditions = {{"Square", 75, 75, true, {}}};
    for (int i = 0; i < 100; ++i) account_.addItem("", offered);
    for (int i = 0; i < 201; ++i) account_.addItem("", photo("p", kOld + i));
    RunOptions later;
    later.from = "1/1/2030";
    sim_->faults().add(rest("flickr.photos.getNotInSet"), nth(4), fault::status(500));
    EXPECT_EQ(run(later).status, 1);
    EXPECT_EQ(sim_->counts().methods["flickr.photos.getNotInSet"], 4u + 5u)
        << "the second attempt goes to the end";
}

TEST_F(Run, TellsWhatItRefusesAndTakesNoTellingForAFailure) {
    fill();
    Item forged = photo("forged");
    forged.id = "methodflickr.photos.deletephoto_id123";
    account_.addItem(trip_, forged);
    account_.addSet("Forged", "", "methodflickr.photosets.deletephotoset_id1");
    serve();
    // An item of which the service tells no renditions is left out, and no failure of the run.
    sim_->faults().add(rest("flickr.photos.getSizes", sunset_), always(),
                       fault::serviceError(1, "not found"));
    EXPECT_EQ(run().status, 1);
    std::vector<std::string> told;
    for (const auto& failure : flickr_standin::RunJournal::instance().summary().failures) {
        told.push_back(failure.set + "/" + failure.name);
    }
    EXPECT_THAT(told, UnorderedElementsAre("Trip/forged.jpg", "Forged/", "Trip/sunset.jpg",
                                           HasSubstr("/sunset.jpg")));
    EXPECT_THAT(targets(Kind::Rest), Not(Contains(HasSubstr("delete"))));
    EXPECT_THAT(names(), AllOf(HasSubstr("Trip/beach.jpg"), Not(HasSubstr("forged"))));
    EXPECT_THAT(log(), AllOf(Not(HasSubstr("Exception occurred")), Not(HasSubstr("Fewer items listed"))));
}

TEST_F(Run, KeepsAThousandTagsOfAnItem) {
    serve();
    const std::string id = account_.addItem("", photo("p"));
    std::string tags, longTag;
    for (int i = 0; i < 1005; ++i) tags += "t" + std::to_string(i) + " ";
    for (int i = 0; i < 300; ++i) longTag += "\u00e9";
    Norvale_Plugin_Flickr::PhotoListSaxHandler handler;
    const Credentials access;
    handler.setData(access.apiSecret, access.apiKey, access.token, {}, {}, sim_->dataUrl());
    Norvale_Plugin_Core::HostServiceUsageParams::getInstance()->setBackupState(false);
    handler.read("<rsp stat='ok'><photos><photo id='" + id + "' media='photo' tags='" + longTag + " " + tags +
                 "'/></photos></rsp>");
    ASSERT_EQ(handler.getPhotoList().size(), 1u);
    const auto kept = handler.getPhotoList().begin()->second.getTags();
    ASSERT_EQ(kept.size(), 1000u);
    EXPECT_EQ(kept[0], longTag.substr(0, 2 * 255));
    EXPECT_EQ(kept[999], "t998");
}

TEST_F(Run, TellsOfASetThatListsFewerItemsThanItAnnounces) {
    const std::string set = account_.addSet("Trip");
    for (const char* title : {"one", "two"}) account_.addItem(set, photo(title));
    account_.addSet("Empty");
    serve({}, "1");
    const std::string one = "<photo id='1' media='photo' lastupdate='1700000000'/>";
    const std::pair<std::string, const char*> answers[] = {
        {"<rsp stat='ok'/>", "0 of 2"},
        {"<rsp stat='ok'><photoset></photoset></rsp>", "0 of 2"},
        {"<rsp stat='ok'><photoset>" + one + "</photoset></rsp>", "1 of 2"}};
    for (const auto& [answer, counts] : answers) {
        sim_->faults().clear();
        sim_->faults().add({{}, "flickr.photosets.getPhotos", {}, set, {}}, always(), fault::body(answer));
        run();
        EXPECT_THAT(flickr_standin::RunJournal::instance().summary().warnings,
                    testing::ElementsAre(testing::AllOf(HasSubstr(counts), HasSubstr("\"Trip\""))))
            << answer;
    }
    sim_->faults().clear();
    EXPECT_EQ(run().status, 1);
    EXPECT_THAT(flickr_standin::RunJournal::instance().summary().warnings, testing::IsEmpty());
}

TEST_F(Run, AStopHidesNoFailureAndMakesNone) {
    fill();
    serve({}, "1");
    for (const char* method :
         {"flickr.photosets.getList", "flickr.photosets.getPhotos", "flickr.photos.getSizes"}) {
        SCOPED_TRACE(method);
        sim_->faults().clear();
        sim_->faults().add(rest(method), always(), fault::status(500));
        sim_->onRequest([&](const Request& request) {
            if (request.method == method) Norvale_Plugin_Flickr::stopBackup(nullptr, nullptr);
        });
        EXPECT_EQ(run().status, 511) << "the failure came from the service";
        const bool told = !flickr_standin::RunJournal::instance().summary().complete();
        EXPECT_TRUE(told || method == "flickr.photos.getSizes"s) << "an item's is in the run's error";
    }
    sim_->faults().clear();
    sim_->onRequest([&](const Request& request) {
        if (request.itemId == clip_) Norvale_Plugin_Flickr::stopBackup(nullptr, nullptr);
    });
    EXPECT_EQ(run().status, 1);
    EXPECT_THAT(log(), Not(HasSubstr("Fewer items listed than announced")));

    // A connection that the stop shuts down is the stop's, and its exception ends the transfer.
    sim_->faults().add(media(), always(), fault::raw([](const Request&, Wire& wire) {
                           Norvale_Plugin_Flickr::stopBackup(nullptr, nullptr);
                           wire.wait(std::chrono::minutes(1));
                       }));
    auto* params = Norvale_Plugin_Core::HostServiceUsageParams::getInstance();
    params->setBackupState(false);
    params->setRetryAttempts("1");
    const Norvale_Plugin_Flickr::StopWatcher watcher;
    Norvale_Plugin_Flickr::MediaDownloadActivity activity;
    EXPECT_EQ(activity.downloadMedia(sim_->mediaUrl(beach_), 1, true, 1), 0);
    int code = 1;
    std::string text;
    params->getErrorDetails(code, text);
    EXPECT_EQ(code, 0) << text;

    sim_->clearLog();
    activity.httpRedir(sim_->baseUrl());
    ASSERT_EQ(sim_->log().size(), 1u);
    EXPECT_EQ(sim_->log()[0].line, "GET / HTTP/1.1");
}

TEST_F(Run, WaitsForALockedDatabaseAndAStopEndsTheWait) {
    fill();
    serve({}, "1");
    flickr_standin::SqliteFile other(folder_ + "/device/backup.db",
                                     flickr_standin::SqliteFile::Open::Existing);
    std::atomic<bool> isLocked{false}, isOver{false};
    std::thread holder;
    // A run that goes on waiting behind its stop gets the lock before it gives up by itself.
    const auto lockUntilItIsWaitedFor = [&](bool stops) {
        isLocked = isOver = false;
        sim_->onRequest([&, stops](const Request& request) {
            if (request.kind != Kind::Media || isLocked.exchange(true)) return;
            other.execute("BEGIN IMMEDIATE");
            lockWaits = 0;
            holder = std::thread([&, stops] {
                while (!isOver && lockWaits < 20) std::this_thread::sleep_for(1ms);
                if (stops) Norvale_Plugin_Flickr::stopBackup(nullptr, nullptr);
                while (stops && !isOver && lockWaits < 200) std::this_thread::sleep_for(1ms);
                other.execute("COMMIT");
            });
        });
    };
    lockUntilItIsWaitedFor(true);
    run();
    isOver = true;
    holder.join();
    EXPECT_THAT(rows("SELECT ItemId FROM backupmetadata WHERE ItemType != 'FlickrFolder'"), IsEmpty())
        << "what waited for the lock gave up";
    EXPECT_THAT(names(), Not(HasSubstr("clip"))) << "what no row names goes again";

    lockUntilItIsWaitedFor(false);
    EXPECT_EQ(run().status, 1);
    isOver = true;
    holder.join();
    expectComplete();

    const std::string before = read("Trip/beach.jpg");
    account_.edit(beach_, flickr_sim::Content::bytes("edited"), kNew);
    lockUntilItIsWaitedFor(true);
    run();
    isOver = true;
    holder.join();
    EXPECT_EQ(read("Trip/beach.jpg"), before) << "the file that the row knows is back";
    EXPECT_THAT(names(), Not(HasSubstr("_Old")));
    sim_->onRequest(nullptr);
    EXPECT_EQ(run().status, 1);
    expectComplete();
}

TEST_F(Run, StopsAtEveryRequestAndCompletesInTheNextRun) {
    fill();
    serve();
    std::uint64_t total = 0;
    for (std::uint64_t stopAt = 1; total == 0 || stopAt <= total; ++stopAt) {
        SCOPED_TRACE(stopAt);
        std::atomic<std::uint64_t> seen{0};
        sim_->onRequest([&](const Request&) {
            if (++seen == stopAt) Norvale_Plugin_Flickr::stopBackup(nullptr, nullptr);
        });
        const RunResult stopped = run();
        if (seen < stopAt) {
            total = seen;
            break;
        }
        EXPECT_EQ(stopped.status, 1) << "a stop is no error";
        EXPECT_EQ(seen, stopAt) << "nothing is asked after a stop";
        sim_->onRequest(nullptr);
        EXPECT_EQ(run().status, 1);
        expectComplete();
        // Begin again with an empty device.
        database_.reset();
        fs::remove_all(folder_ + "/device");
        fs::create_directories(service_);
        database_ = std::make_unique<flickr_standin::BackupDatabase>(folder_ + "/device/backup.db");
    }
    EXPECT_GT(total, 20u);
    EXPECT_THAT(log(),
                AllOf(HasSubstr("Stop backup called Plugin core: "), HasSubstr("Flickr Backup Finished."),
                      HasSubstr("Backup Stopped in Process PhotoSet"),
                      HasSubstr("Delete file due to stop backup called: 1")));
}

TEST_F(Run, StopEndsEndlessRedirectsAndSlowBodies) {
    const std::string set = account_.addSet("Trip");
    account_.addItem(set, photo("sunset"));
    serve();
    struct {
        const char* name;
        Match match;
        flickr_sim::Action action;
        int stopAfter;  // requests that match
    } const traps[] = {
        {"redirect to itself", media(), fault::redirectToSelf(), 30},
        {"redirects without end", media(), fault::redirectForever(), 30},
        {"slow media", media(), fault::slow(10, std::chrono::milliseconds(20)), 1},
        {"slow list", rest("flickr.photosets.getPhotos"), fault::slow(10, std::chrono::milliseconds(20)), 1},
    };
    for (const auto& trap : traps) {
        SCOPED_TRACE(trap.name);
        sim_->faults().clear();
        sim_->faults().add(trap.match, always(), trap.action);
        std::atomic<int> hits{0};
        sim_->onRequest([&](const Request& request) {
            if (trap.match(request) && ++hits == trap.stopAfter) {
                std::thread([] {
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                    Norvale_Plugin_Flickr::stopBackup(nullptr, nullptr);
                }).detach();
            }
        });
        EXPECT_EQ(run().status, 1);  // the runner's time limit catches a run that does not end
        EXPECT_THAT(names(), Not(HasSubstr("sunset")));
    }
}

TEST_F(Run, ListsAsManyPagesAsThereAre) {
    serve();
    RunOptions later;
    later.from = "1/1/2030";
    for (const auto& [items, pages] :
         std::vector<std::pair<int, unsigned>>{{0, 1}, {1, 1}, {500, 1}, {501, 2}, {1000, 2}, {1001, 3}}) {
        SCOPED_TRACE(items);
        const std::string set = account_.addSet("Set");
        for (int i = 0; i < items; ++i) account_.addItem(set, photo("p"));
        sim_->clearLog();
        EXPECT_EQ(run(later).status, 1);
        auto counts = sim_->counts();
        EXPECT_EQ(counts.methods["flickr.photosets.getPhotos"], pages);
        EXPECT_EQ(counts.methods["flickr.photos.getSizes"], static_cast<unsigned>(items));
        for (const auto& item : account_.items(set)) account_.deleteItem(item->id);
        account_.deleteSet(set);
    }
    // Items in no set: pages of 100, up to the first that brings nothing new.
    unsigned loose = 0;
    for (const auto& [items, pages] :
         std::vector<std::pair<unsigned, unsigned>>{{0, 1}, {1, 2}, {100, 2}, {101, 3}}) {
        for (; loose < items; ++loose) account_.addItem("", photo("p"));
        for (const bool repeats : {false, true}) {
            SCOPED_TRACE(items + repeats * 0.5);
            sim_->setRepeatLastPage(repeats);
            sim_->clearLog();
            EXPECT_EQ(run(later).status, 1);
            EXPECT_EQ(sim_->counts().methods["flickr.photos.getNotInSet"], pages);
        }
    }
}

TEST_F(Run, TakesOnlyWhatWasSelected) {
    fill();
    serve();
    account_.setCover(trip_, beach_);
    struct {
        const char* dataTypes;
        const char* from;
        unsigned media;
    } const cases[] = {
        {"", "1/1/2001", 0},
        {"Images;Videos", "1/1/2030", 0},
        {"images;", "1/1/2001", 0},
        {"Videos", "1/1/2001", 0},
        {"Videos;", "1/1/2001", 2},
        {"Images;Videos", "1/1/2001", 5},
        {"Videos;Images;", "1/1/2001", 7},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.dataTypes);
        database_.reset();
        fs::remove_all(folder_ + "/device");
        fs::create_directories(service_);
        database_ = std::make_unique<flickr_standin::BackupDatabase>(folder_ + "/device/backup.db");
        sim_->clearLog();
        RunOptions options;
        options.dataTypes = test.dataTypes;
        options.from = test.from;
        EXPECT_EQ(run(options).status, 1);
        EXPECT_EQ(sim_->counts().media, test.media);
    }
    // An unchanged cover comes with a newer item, whatever the user selected, and never alone.
    account_.retitle(clip_, "clip", 1900000000);
    account_.retitle(sunset_, "sunset", 1900000000);
    RunOptions options;
    options.from = "1/1/2030";
    sim_->clearLog();
    EXPECT_EQ(run(options).status, 1);
    EXPECT_THAT(targets(Kind::Media), Contains(HasSubstr(beach_)).Times(0)) << "it is on the device already";
    EXPECT_THAT(log(), HasSubstr("Photo - beach.jpg already backed up no change, continuing to next photo"));

    // At the from-date itself an item is not new; a cover is taken there, even alone, and not before.
    constexpr std::time_t kFrom = 1700006400;  // 2023-11-15 00:00 UTC
    options.from = "11/15/2023";
    const std::string edge = account_.addSet("Edge"), alone = account_.addSet("Alone"),
                      before = account_.addSet("Before");
    const std::string cover = account_.addItem(edge, photo("cover", kFrom)),
                      after = account_.addItem(edge, photo("after", kFrom + 1)),
                      aloneCover = account_.addItem(alone, photo("alone", kFrom));
    account_.addItem(edge, photo("at", kFrom));
    account_.addItem(before, photo("before", kFrom - 1));
    sim_->clearLog();
    EXPECT_EQ(run(options).status, 1);
    EXPECT_THAT(targets(Kind::Media),
                UnorderedElementsAre(HasSubstr(cover), HasSubstr(after), HasSubstr(aloneCover)));
}

TEST_F(Run, AnswersWithTheRightStatus) {
    fill();
    serve();
    struct {
        const char* name;
        Match match;
        Schedule schedule;
        flickr_sim::Action action;
        bool succeeds;
        const char* logged;
        unsigned lists = 1;  // requests for the list of sets
    } const cases[] = {
        {"one failed list", rest("flickr.photosets.getList"), nth(1), fault::status(500), true,
         "Exception occurred in getPhotoSetList() : ", 2},
        {"no list", rest("flickr.photosets.getList"), always(), fault::status(500), false,
         "UNABLE TO DOWNLOAD PHOTOSET. Response Status - 500", 2},
        {"refused", rest("flickr.photosets.getList"), always(), fault::status(401), false,
         "UNABLE TO DOWNLOAD PHOTOSET. Response Status - 401"},
        {"refused by the service", rest("flickr.photosets.getList"), always(), fault::serviceError(98, "no"),
         false, "Invalid Auth Token"},
        {"a page that fails once", rest("flickr.photosets.getPhotos"), nth(1), fault::malformed(), true,
         "Unable to parse photo list "},
        {"a set that cannot be listed", rest("flickr.photosets.getPhotos"), firstTimes(2), fault::status(502),
         false, "Exception occurred in DownloadPhotoListActivity::getPhotoList(): "},
        {"sizes that cannot be had", rest("flickr.photos.getSizes", sunset_), nth(1), fault::malformed(),
         false, "Exception occurred in getPhotoInformation() : "},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        sim_->faults().clear();
        sim_->faults().add(test.match, test.schedule, test.action);
        sim_->clearLog();
        const RunResult result = run();
        EXPECT_EQ(result.status == 1, test.succeeds) << result.status << ": " << result.error;
        EXPECT_EQ(sim_->counts().methods["flickr.photosets.getList"], test.lists);
        EXPECT_THAT(log(), HasSubstr(test.logged));
    }
    sim_->faults().clear();
    RunOptions wrong;
    wrong.token = "somebody-else";
    EXPECT_NE(run(wrong).status, 1);
    EXPECT_EQ(run().status, 1);
    expectComplete();

    const std::string url = sim_->dataUrl();
    const std::uint64_t before = sim_->counts().rest;
    configure(url, "0");
    EXPECT_EQ(run().status, 1);
    EXPECT_EQ(sim_->counts().rest, before) << "no attempts, no requests";
    configure(url, "");
    const RunResult noAttempts = run();
    EXPECT_NE(noAttempts.status, 1);
    EXPECT_THAT(noAttempts.error, HasSubstr("plugin.retryAttempts"));
    configure("", "1");
    EXPECT_THAT(run().error, HasSubstr("plugin.dataUrl"));
    configure("http://127.0.0.1:1/services/rest/", "3");
    EXPECT_EQ(run().status, 511);
    EXPECT_GE(count(log(), "Getting PhotoSet List Attempt - 3"), 1);
}

TEST_F(Run, ReportsVideosInWholeEntries) {
    const std::string set = account_.addSet("Trip");
    serve();
    account_.addItem(set, photo("sunset"));
    EXPECT_EQ(run().videos, "");
    const std::string first = account_.addItem(set, video("clip", kOld));
    // The entry's set title is that of a record whose nested set is not filled.
    EXPECT_EQ(run().videos,
              sim_->mediaUrl(first, "Video Original") + "||clip.mp4.mp4|" + first + "_" + set + ";");
    for (int i = 0; i < 30; ++i) account_.addItem(set, video("clip " + std::to_string(i), kOld + 1 + i));
    const std::string list = run().videos;
    EXPECT_THAT(list, EndsWith(";"));
    EXPECT_LT(list.size(), Norvale_Plugin_Flickr::kVideoListCapacity);
    EXPECT_GT(list.size(), Norvale_Plugin_Flickr::kVideoListCapacity - 200);
    const auto entries = std::count(list.begin(), list.end(), ';');
    EXPECT_THAT(log(), HasSubstr("entries left out: " + std::to_string(31 - entries)));
}
