// The values that the core passes on, the readers of the service's answers and the small rules, without a
// network.

#include <Poco/Data/SessionFactory.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <sstream>

#include "core/ChunkedBody.h"
#include "core/FlickrDbInterface.h"
#include "core/FlickrPluginCore.h"
#include "core/MediaSession.h"
#include "core/PhotoInformationSaxHandler.h"
#include "core/PhotoListSaxHandler.h"
#include "core/PhotoSetProcessor.h"
#include "core/PhotosetSaxHandler.h"
#include "core/PlainBody.h"
#include "core/RunSupport.h"
#include "core/SignedRequest.h"
#include "core/StopWatcher.h"
#include "tests/TestFolder.h"

using namespace Norvale_Plugin_Flickr;
using Norvale_Plugin_Core::HostServiceUsageParams;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

bool threadsCanBeHad = true;

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) {
    static const auto create =
        reinterpret_cast<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>(
            dlsym(RTLD_NEXT, "pthread_create"));
    return threadsCanBeHad ? create(thread, attributes, start, argument) : EAGAIN;
}

TEST(StopWatcher, LetsARunGoOnWithoutAThread) {
    threadsCanBeHad = false;
    EXPECT_NO_THROW(StopWatcher());
    threadsCanBeHad = true;
}

TEST(Values, CloneAndInitializeKeepTheirOddities) {
    PhotoSet trip, other;
    trip.setTitle("Trip");
    other.setTitle("Other");

    Photo source;
    source.setPhotoID("1_2");
    source.setDescription("d");
    source.setImageExtension("jpg");
    source.setPhotoSet(trip);
    source.setTags("a");
    source.setTags("b");

    Photo clone;
    clone.setPhotoSet(other);
    clone.setTags("gone");
    clone.Clone(source);
    EXPECT_EQ(clone.getPhotoID(), "1_2");
    EXPECT_EQ(clone.getImageExtension(), "d") << "the description stands in until the download";
    EXPECT_EQ(clone.getPhotoSet().getTitle(), "Other") << "the nested set stays the clone's own";
    EXPECT_THAT(clone.getTags(), ElementsAre("a", "b"));

    source.Initialize();
    EXPECT_EQ(source.getPhotoSet().getTitle(), "Trip");
    EXPECT_TRUE(source.getTags().empty());
    EXPECT_EQ(source.getImageExtension() + source.getPhotoID() + source.getDescription(), "");
    EXPECT_TRUE(trip.isNew());
}

TEST(SignedRequest, TargetAndSignatureOfEveryMethod) {
    const ServiceAccess access{"http://localhost:8080/services/rest/", "T", "K", "S"};
    SignedRequest page(access, "flickr.photosets.getPhotos");
    page.add("photoset_id", "72157").addExtras().addToken().add("page", "2");
    // md5 of Sapi_keyKauth_tokenTextrasdate_upload, last_update, date_taken, media, url_m, url_o, url_t,
    // tags, descriptionmethodflickr.photosets.getPhotospage2photoset_id72157
    const std::string signature = page.signature();
    EXPECT_EQ(signature, "7b38dd0f7ef48e1ac4b9c7601a33fc20");
    EXPECT_EQ(page.target(),
              "/services/rest/?method=flickr.photosets.getPhotos&api_key=K&photoset_id=72157"
              "&extras=date_upload%2C+last_update%2C+date_taken%2C+media%2C+url_m%2C+url_o%2C+url_t%2C+tags"
              "%2C+description&auth_token=T&page=2&api_sig=" +
                  signature);
    // md5 of Sapi_keyKauth_tokenTmethodflickr.photosets.getList
    EXPECT_EQ(
        SignedRequest(access, "flickr.photosets.getList").addToken().target(),
        "/services/rest/"
        "?method=flickr.photosets.getList&api_key=K&auth_token=T&api_sig=4327c7f4fdcaa6d0bf22092d3ed612a5");
}

TEST(FlickrPluginCore, TellsWhatItsConfigurationHoldsAndItsWords) {
    const TestFolder folder;
    std::string path = folder.path().string() + "/", out(kTextCapacity, '\0'), error = out;
    writeFile(path + "Flickr_plugin_config.xml",
              "<config><plugin><targetHostVersion>the host</targetHostVersion><legend>Pictures</legend>"
              "</plugin></config>");
    void* core = createObject(path.data(), path.data(), error.data());
    EXPECT_EQ(getTargetHostVersion(core, out.data(), error.data()), 1);
    EXPECT_STREQ(out.c_str(), "the host");
    EXPECT_EQ(getLegend(core, out.data(), error.data()), 1);
    EXPECT_STREQ(out.c_str(), "Pictures");
    getKeywords(out.data());
    EXPECT_STREQ(out.c_str(),
                 "HarbourlineKey||FlickrKey||ThumbnailKey||Sun||Mon||Tue||Wed||Thu||Fri||Sat||Jan||Feb||Mar||"
                 "Apr||May||Jun||Jul||Aug||Sep||Oct||Nov||Dec||AM||PM||");
    deleteObject(core, error.data());
}

TEST(Requests, CarryNothingThatBreaksTheirLinesUp) {
    struct {
        const char *address, *token, *key, *id, *told;
    } const calls[] = {
        {"http://127.0.0.1:1/", "a b", "K", "1", "the token holds white space"},
        {"http://127.0.0.1:1/", "T", "K\n", "1", "the API key holds white space"},
        {"http://127.0.0.1:1/", "T", "K", "1\r\n", "the value of photoset_id holds white space"},
        {"http://127.0.0.1:1/a%20b", "T", "K", "1", "the service's address holds white space"},
        {"http://127.0.0.1%20/", "T", "K", "1", "the address holds what no request can carry"},
    };
    for (const auto& call : calls) {
        const ServiceAccess access{call.address, call.token, call.key, "S"};
        try {
            SignedRequest(access, "m").add("photoset_id", call.id).addToken().prepared().exchange();
            ADD_FAILURE() << call.told;
        } catch (Poco::Exception& exception) {
            EXPECT_THAT(exception.displayText(), HasSubstr(call.told));
        }
    }
    for (const char* url :
         {"http://127.0.0.1/?x\r\nSET pwned 1", "https://127.0.0.1/?x\r\nSET pwned 1", "http://h/?a b",
          "http://u\r\nX: y@127.0.0.1/ ", "http://a%0d%0ab/", "https://a%20b/", "https://a/?\x7f"}) {
        EXPECT_THROW(MediaSession(Poco::URI(url), url).request(), Poco::InvalidArgumentException) << url;
    }
    for (const char* url :
         {"http://127.0.0.1:80/a b?x=y", "https://[::1]/?x=%0d%0a", "https://a_b-c.example/"}) {
        EXPECT_NO_THROW(MediaSession(Poco::URI(url), url).request()) << url;
    }
}

TEST(ErrorTexts, AreCutBetweenCharacters) {
    const std::pair<std::size_t, const char*> cases[] = {
        {9, "a\u00e9\u65e5"}, {6, "a\u00e9\u65e5"}, {5, "a\u00e9"}, {3, "a\u00e9"}, {2, "a"}, {0, ""}};
    for (const auto& [room, expected] : cases) EXPECT_EQ(wholeCharacters("a\u00e9\u65e5", room), expected);
    EXPECT_EQ(wholeCharacters(std::string(9, '\x80'), 8).size(), 4u) << "bytes that are no text";
}

TEST(FlickrDbInterface, ReleasesTheConnectorAfterAFailedUpdate) {
    const TestFolder folder;
    const std::string empty = folder.path() / "empty.db";
    writeFile(empty, "");
    FlickrDbInterface database;
    database.setConnectionString(empty);
    EXPECT_FALSE(database.updateFileTitleV2("1", "a", "b", "c"));
    EXPECT_FALSE(database.updateContainerTitleV2("1", "a", "b", "", "c"));
    EXPECT_ANY_THROW(Poco::Data::SessionFactory::instance().create("SQLite", empty));
}

TEST(SaxReader, RefusesWhatIsNoAnswerOrCostsTooMuch) {
    HostServiceUsageParams::getInstance()->setBackupState(false);
    const std::string allowed(256 * 1024 - 100, 'x'), large(256 * 1024 + 1, 'x');
    std::string sections;
    for (int i = 0; i < 3; ++i) sections += "<![CDATA[" + std::string(100000, 'x') + "]]>";
    std::string nested, sets;
    for (int i = 0; i < 100; ++i) nested += "<a>";
    for (int i = 0; i < 100; ++i) nested += "</a>";
    for (int i = 0; i < 100001; ++i) sets += "<photoset id='" + std::to_string(i) + "'/>";
    const std::pair<std::string, bool> cases[] = {
        {"<photosets/>", true},
        {"<photos/>", true},
        {"<sizes/>", true},
        {"<a><rsp/></a>", false},
        {"<html><body><photo/></body></html>", false},
        {"<!DOCTYPE rsp><rsp/>", false},
        {"<rsp x='" + allowed + "'>" + allowed + "<!--" + allowed + "--></rsp>", true},
        {"<rsp x='" + large + "'/>", false},
        {"<rsp>" + large + "</rsp>", false},
        {"<rsp><![CDATA[" + large + "]]></rsp>", false},
        {"<rsp>" + sections + "</rsp>", false},
        {"<rsp><!--" + large + "--></rsp>", false},
        {"<rsp>" + nested + "</rsp>", false},
        {"<rsp>" + sets + "</rsp>", false},
        {"<rsp stat='fail'><err code='1'/></rsp>", false},
    };
    for (const auto& [document, isAnswer] : cases) {
        SCOPED_TRACE(document.substr(0, 60));
        const bool ofSets = document.find("<photoset ") != std::string::npos;
        const auto read = [&, text = document] {
            ofSets ? PhotosetSaxHandler().read(text) : SaxReader().read(text);
        };
        if (isAnswer) {
            EXPECT_NO_THROW(read());
        } else {
            EXPECT_THROW(read(), Poco::Exception);
        }
    }
}

TEST(SaxReader, StopsInTheMiddleOfADocument) {
    class Counter : public SaxReader {
    public:
        void startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                          const Poco::XML::XMLString&, const Poco::XML::Attributes&) override {
            if (++count == 10) HostServiceUsageParams::getInstance()->setBackupState(true);
        }
        int count = 0;
    } counter;
    HostServiceUsageParams::getInstance()->setBackupState(false);
    std::string document = "<rsp>";
    for (int i = 0; i < 100000; ++i) document += "<photo/>";
    counter.read(document + "</rsp>");
    EXPECT_LT(counter.count, 1000);
    HostServiceUsageParams::getInstance()->setBackupState(false);
}

TEST(PhotosetSaxHandler, TitlesArriveWholeWhereverTheyStand) {
    HostServiceUsageParams::getInstance()->setBackupState(false);
    const std::string text = "Summer > holiday]", description = std::string(3999, 'd') + "]";
    for (std::size_t shift = 0; shift < 4096; shift += 61) {
        std::string list = "<rsp x='" + std::string(shift, '>') + "'><!-- > --><photosets>";
        for (int i = 0; i < 60; ++i) {
            const std::string number = std::to_string(1000 + i);
            const bool section = i % 2 == 0;
            list += "<photoset id='" + number + "'><title>" + (section ? "<![CDATA[" : "") + text +
                    (section ? "a]b]]]]><![CDATA[>" : "") + number + (section ? "]]>" : "") +
                    "</title  ><description>" + (i % 10 ? "d" : description) + "</description></photoset>";
        }
        PhotosetSaxHandler handler;
        handler.read(list + "</photosets></rsp>");
        const auto sets = handler.getPhotosetList();
        ASSERT_EQ(sets.size(), 60u);
        for (const auto& [id, set] : sets) {
            const bool section = std::stoi(id) % 2 == 0;
            const std::string sent = text + (section ? "a]b]]>" : "") + id;
            ASSERT_EQ(set.getTitle(), Norvale_Plugin_Core::Utils().NormalizeString(sent)) << shift;
            ASSERT_EQ(set.getDescription(), std::stoi(id) % 10 ? "d" : description) << shift;
        }
    }
}

TEST(PhotosetSaxHandler, ReadsARealShapedList) {
    HostServiceUsageParams::getInstance()->setBackupState(false);
    PhotosetSaxHandler handler;
    handler.read(R"(<?xml version="1.0" encoding="utf-8" ?>
<rsp stat="ok"><photosets cancreate="1" page="1" pages="1" perpage="500" total="3">
  <photoset id="7" owner="1@N00" primary="41" secret="s" server="5" farm="6" photos="3" videos="2" can_comment="0">
    <title>Trip</title><description>By &lt;sea&gt;</description></photoset>
  <photoset id="7" primary="99" photos="1" videos="0"><title>Second of the same id</title></photoset>
  <photoset id="8" videos="2" photos="3"><title>Tom &amp; Jerry</title><description></description></photoset>
</photosets></rsp>)");
    const auto sets = handler.getPhotosetList();
    ASSERT_EQ(sets.size(), 2u);
    const PhotoSet& trip = sets.at("7");
    EXPECT_EQ(trip.getTitle() + "|" + trip.getResourceTitle() + "|" + trip.getCoverImageID(), "Trip|Trip|41");
    EXPECT_EQ(trip.getNumberOfPhotos(), 5);
    EXPECT_EQ(sets.at("8").getNumberOfPhotos(), 3) << "a photos attribute behind videos replaces the count";
    EXPECT_NE(sets.at("8").getTitle(), "Tom & Jerry") << "of a text in several chunks the last one counts";
}

TEST(PhotosetSaxHandler, AFailureAnswerIsAnAuthorisationErrorAndStopsTheRun) {
    auto* params = HostServiceUsageParams::getInstance();
    params->setBackupState(false);
    params->setRetryAttempts("3");
    PhotosetSaxHandler handler;
    handler.read(R"(<rsp stat="fail"><err code="98" msg="Invalid auth token"/></rsp>)");
    EXPECT_TRUE(handler.getPhotosetList().empty());
    int code = 0;
    std::string text;
    params->getErrorDetails(code, text);
    EXPECT_GE(code, 2);
    EXPECT_TRUE(params->isBackupStopped());
    EXPECT_FALSE(params->isManuallyStopped());
}

namespace {

std::string size(const std::string& label, const std::string& source, int width, int height) {
    return "<size label=\"" + label + "\" width=\"" + std::to_string(width) + "\" height=\"" +
           std::to_string(height) + "\" source=\"" + source + "\" url=\"u\" media=\"photo\"/>";
}

Photo complete(const std::string& mediaType, const std::string& sizes) {
    Photo photo;
    photo.setMediaType(mediaType);
    std::istringstream body("<rsp stat=\"ok\"><sizes canblog=\"1\" canprint=\"1\" candownload=\"1\">" +
                            sizes + "</sizes></rsp>");
    PhotoListSaxHandler().parsePhotoInformationV2(body, photo);
    return photo;
}

}  // namespace

TEST(SizeSelection, TakesTheLastSuitableRendition) {
    HostServiceUsageParams::getInstance()->setBackupState(false);
    const std::string square = size("Square", "sq", 75, 75), thumb = size("Thumbnail", "th", 100, 75),
                      small = size("Small 320", "s3", 320, 240), medium = size("Medium", "m", 500, 375),
                      medium800 = size("Medium 800", "m8", 800, 600), large = size("Large", "l", 1024, 768),
                      original = size("Original", "o", 4000, 3000), hidden = size("Original", "", 4000, 3000);
    const std::string player = size("Video Player", "vp", 640, 480),
                      site = size("Site MP4", "site", 640, 360),
                      video = size("Video Original", "vo", 1920, 1080),
                      unsized = "<size label=\"Mobile MP4\" width=\"\" height=\"\" source=\"mob\"/>";
    struct {
        const char* mediaType;
        std::string sizes, thumbnail, path;
        int width, height;
    } const cases[] = {
        {"photo", square + thumb + small + medium + medium800 + large + original, "th", "o", 4000, 3000},
        {"photo", square + thumb + small + medium + medium800 + large, "th", "l", 1024, 768},
        {"photo", thumb + large + hidden, "th", "l", 4000, 3000},
        {"photo", thumb + original + medium, "th", "m", 500, 375},
        {"photo", thumb, "th", "th", 0, 0},
        {"photo", thumb + size("medium", "x", 1, 1) + player, "th", "th", 0, 0},
        {"photo", square, "", "", 0, 0},
        {"video", thumb + large + player + site + video, "th", "vo", 1920, 1080},
        {"video", thumb + video + site, "th", "site", 640, 360},
        {"video", thumb + video + unsized, "th", "mob", 0, 0},
        {"video", thumb + original, "th", "", 0, 0},
        {"", thumb + original, "", "", 0, 0},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.sizes);
        const Photo photo = complete(test.mediaType, test.sizes);
        EXPECT_EQ(photo.getThumbnailUrl(), test.thumbnail);
        EXPECT_EQ(photo.getImagePath(), test.path);
        EXPECT_EQ(photo.getWidth(), test.width);
        EXPECT_EQ(photo.getHeight(), test.height);
    }
    Photo untouched;
    untouched.setMediaType("photo");
    std::istringstream cutOff("<rsp stat=\"ok\"><sizes>" + thumb + large.substr(0, 30));
    EXPECT_THROW(PhotoListSaxHandler().parsePhotoInformationV2(cutOff, untouched), Poco::Exception);
    EXPECT_EQ(untouched.getImagePath(), "") << "a thumbnail must not be taken for the picture";
}

TEST(PhotoListSaxHandler, StripsDescriptions) {
    const std::pair<const char*, const char*> cases[] = {
        {"\n\tHello\t\n", "Hello"}, {"\n\n", ""}, {"\t\t", ""}, {"  a\n b ", "a\n b"}, {"", ""}};
    PhotoListSaxHandler handler;
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(handler.sanetizeString(text), expected) << testing::PrintToString(text);
    }
}

TEST(PhotoSetProcessor, KnowsVideosByTheFirstDot) {
    std::string name;
    PhotoSetProcessor processor(name);
    for (const char* video : {"clip.mov", "clip.mp4", "x.m2ts", ".3gp"})
        EXPECT_TRUE(processor.isVideo(video));
    for (const char* other : {"clip.MOV", "a.b.mp4", "mp4", "", "clip.", "clip.jpg", "clip.mp4 "}) {
        EXPECT_FALSE(processor.isVideo(other)) << other;
    }
}

namespace {

class TextBytes : public RawBytes {
public:
    explicit TextBytes(std::string text) : text_(std::move(text)) {}
    int nextByte() override { return at_ < text_.size() ? static_cast<unsigned char>(text_[at_++]) : -1; }
    int readBytes(char* buffer, std::streamsize count) override {
        const std::size_t size = text_.copy(buffer, static_cast<std::size_t>(count), at_);
        at_ += size;
        return static_cast<int>(size);
    }

private:
    std::string text_;
    std::size_t at_ = 0;
};

}  // namespace

TEST(PlainBody, EndsBehindItsLengthOrWithTheConnection) {
    const std::string text = std::string(300000, 'a') + "the end";
    const auto all = static_cast<std::int64_t>(text.size());
    const std::pair<std::int64_t, std::size_t> expected[] = {
        {-1, text.size()},     {0, 0}, {1, 1}, {all - 1, text.size() - 1}, {all, text.size()},
        {all + 1, text.size()}};
    for (const auto& [length, size] : expected) {
        TextBytes source(text);
        PlainBody plain(source, length);
        std::istream body(&plain);
        char block[kBlockSize];
        std::string read;
        while (const std::streamsize count = readBlock(body, block)) {
            read.append(block, static_cast<std::size_t>(count));
        }
        EXPECT_TRUE(read == text.substr(0, size)) << length << " gives " << read.size();
        EXPECT_FALSE(body.bad()) << length;
    }
}

TEST(ChunkedBody, TellsAWholeBodyFromOneThatBreaksOff) {
    const std::string whole = "5\r\nhello\r\n6;name=v\xe9\xff\r\n world\r\n0\r\n\r\n";
    const std::size_t lastChunk = whole.find("0\r\n\r\n");
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        TextBytes source(whole.substr(0, length));
        ChunkedBody chunks(source);
        std::istream body(&chunks);
        char block[kBlockSize];
        std::string read;
        while (const std::streamsize count = readBlock(body, block)) {
            read.append(block, static_cast<std::size_t>(count));
        }
        // The size line of the last chunk is the end; what follows carries nothing.
        const bool complete = length >= lastChunk + 3;
        EXPECT_EQ(!body.bad(), complete) << length;
        EXPECT_TRUE(!complete || read == "hello world") << read;
    }
    for (const char* nonsense :
         {"\r\n\r\n", "-5\r\nhello", "5\r\nhello world", "fffffffffffffffff\r\nx", "zz\r\n"}) {
        TextBytes source(nonsense);
        ChunkedBody chunks(source);
        std::istream body(&chunks);
        body.ignore(1000);
        EXPECT_TRUE(body.bad()) << nonsense;
    }
}
