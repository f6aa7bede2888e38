// The gateway's parts by themselves.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/PhotosetSaxHandler.h"
#include "gateway/HourlyBudget.h"
#include "gateway/OAuth.h"
#include "gateway/Patience.h"
#include "gateway/PluginXml.h"
#include "gateway/SizeOption.h"
#include "gateway/Spool.h"
#include "tests/TestFolder.h"

namespace {

using namespace flickr_gateway;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const Cancelled kNever = [] { return false; };

TEST(OAuth, SignsAsTheStandardDoes) {
    // RFC 5849, 3.4.1.1, whose example is a POST with a body, and 1.2.
    EXPECT_EQ(
        signatureBase("POST", "http://EXAMPLE.COM:80/request",
                      {{"b5", "=%3D"},
                       {"a3", "a"},
                       {"c@", ""},
                       {"a2", "r b"},
                       {"oauth_consumer_key", "9djdj82h48djs9d2"},
                       {"oauth_token", "kkk9d7dh3k39sjv7"},
                       {"oauth_signature_method", "HMAC-SHA1"},
                       {"oauth_timestamp", "137131201"},
                       {"oauth_nonce", "7d8f3e4a"},
                       {"c2", ""},
                       {"a3", "2 q"}}),
        "POST&http%3A%2F%2Fexample.com%2Frequest&a2%3Dr%2520b%26a3%3D2%2520q%26a3%3Da%26b5%3D%253D%25253D"
        "%26c%2540%3D%26c2%3D%26oauth_consumer_key%3D9djdj82h48djs9d2%26oauth_nonce%3D7d8f3e4a"
        "%26oauth_signature_method%3DHMAC-SHA1%26oauth_timestamp%3D137131201%26oauth_token%3D"
        "kkk9d7dh3k39sjv7");
    EXPECT_EQ(signatureOf(signatureBase("GET", "http://photos.example.net/photos",
                                        {{"file", "vacation.jpg"},
                                         {"size", "original"},
                                         {"oauth_consumer_key", "dpf43f3p2l4k3l03"},
                                         {"oauth_token", "nnch734d00sl2jdk"},
                                         {"oauth_signature_method", "HMAC-SHA1"},
                                         {"oauth_timestamp", "137131202"},
                                         {"oauth_nonce", "chapoH"}}),
                          "kd94hf93k423kf44", "pfkkdhi9sl3r4s00"),
              "MdpQcU8iPSUjWoN/UDMsK2sui9I=");
}

/// Asks a library that others have written.
TEST(OAuth, IsAcceptedByAnotherLibraryAndRefusedWhenAltered) {
    const std::string address = "https://Host.Example:8443/services/rest/";
    const Parameters query = {{"title", "a b&c=d/é~*+%"}, {"empty", ""}, {"method", "flickr.test.login"}};
    const OAuthKeys keys{"key", "s&cret", "token-1", "t%ken secret"};
    const std::string check =
        "import sys, types, oauthlib.oauth1.rfc5849.signature as s\n"
        "from oauthlib.oauth1.rfc5849 import utils\n"
        "url, header = sys.argv[1:3]\n"
        "p = s.collect_parameters(url.split('?')[1], [], {'Authorization': header}, "
        "exclude_oauth_signature=False)\n"
        "signature = dict(p)['oauth_signature']\n"
        "r = types.SimpleNamespace(uri=url.split('?')[0], http_method='GET', signature=signature,\n"
        "    params=[q for q in p if q[0] != 'oauth_signature'])\n"
        "sys.exit(0 if s.verify_hmac_sha1(r, 's&cret', 't%ken secret') else 3)\n";
    const auto verify = [&](const Parameters& sent, const std::string& header) {
        const auto quoted = [](std::string text) {
            for (std::size_t at = 0; (at = text.find('\'', at)) != std::string::npos; at += 4) {
                text.replace(at, 1, "'\\''");
            }
            return "'" + text + "'";
        };
        const int status = std::system(("/usr/bin/python3 -c " + quoted(check) + " " +
                                        quoted(address + "?" + queryOf(sent)) + " " + quoted(header))
                                           .c_str());
        return WEXITSTATUS(status);
    };
    const std::string header = authorizationOf(keys, address, query);
    EXPECT_EQ(verify(query, header), 0);
    EXPECT_EQ(verify({{"title", "another"}}, header), 3);
    EXPECT_NE(header, authorizationOf(keys, address, query)) << "each request has a nonce of its own";
}

TEST(Renditions, TheBestIsTakenUnderALabelThatThePluginReads) {
    const auto named = [](std::vector<std::string> labels) {
        std::vector<Rendition> list;
        for (const std::string& label : labels) list.push_back({label, "https://x/" + label, 0, 0});
        return list;
    };
    EXPECT_EQ(bestPicture(named({"Thumbnail", "Original", "X-Large 6K"}))->label, "Original");
    EXPECT_EQ(bestPicture({{"Large", "l", 1024, 768},
                           {"Large 2048", "k", 2048, 1536},
                           {"Medium", "m", 500, 375},
                           {"Original", "", 9000, 9000},
                           {"Large Square", "q", 5000, 5000}})
                  ->label,
              "Large 2048");
    EXPECT_EQ(bestVideo(named({"Video Player", "360p", "1080p", "Mobile MP4", "Thumbnail"}))->label, "1080p");
    EXPECT_EQ(bestVideo(named({"Video Player", "Thumbnail"})), nullptr);
    EXPECT_EQ(
        thumbnailOf({{"Large", "l", 1024, 768}, {"Medium", "m", 500, 375}, {"1080p", "v", 1, 1}})->label,
        "Medium");
    const ItemRenditions found{{"Thumbnail", "t&", 100, 75}, {"X-Large 6K", "b", 6144, 4608}};
    EXPECT_THAT(sizesXml(found, false),
                AllOf(HasSubstr("label=\"Thumbnail\" width=\"100\" height=\"75\" source=\"t&#38;\""),
                      HasSubstr("label=\"Large\" width=\"6144\"")));
    EXPECT_THAT(sizesXml(found, true), HasSubstr("label=\"Video Original\""));
}

TEST(Answers, AreReadAndWrittenWhole) {
    const ServiceAnswer sets = readAnswer(
        "<rsp stat=\"ok\"><photosets pages=\"2\" total=\"501\"><photoset id=\"7\" primary=\"1\" photos=\"3\" "
        "videos=\"2\"><title>Tom &amp; Jerry &lt;3\nend</title><description>a &amp; b</description>"
        "</photoset><photoset id=\"8\"><title>[Trip]]&gt; [2019]</title></photoset>"
        "<photoset id=\"9\"><title>R&amp;B [2]]&gt;]&amp;]]&gt;</title></photoset></photosets></rsp>");
    EXPECT_EQ(sets.pages, 2u);
    Norvale_Plugin_Flickr::PhotosetSaxHandler plugin;
    plugin.read(setListXml(sets.sets));
    auto read = plugin.getPhotosetList();
    EXPECT_EQ(read["7"].getTitle(), "Tom & Jerry _3 end") << "whole";
    EXPECT_EQ(read["8"].getTitle(), "[Trip]]_ [2019]");
    EXPECT_EQ(read["9"].getTitle(), "R&B [2]]_]&]]_");
    EXPECT_EQ(read["7"].getNumberOfPhotos(), 5);
    EXPECT_EQ(read["7"].getDescription(), "a & b");

    const ServiceAnswer page = readAnswer(
        "<rsp stat=\"ok\"><photoset id=\"7\" page=\"1\" pages=\"1\" total=\"1\"><photo id=\"1\" "
        "title=\"&quot;&amp;&#10;\" "
        "lastupdate=\"5\" media=\"photo\" url_t=\"https://x/t\" width_t=\"100\" height_t=\"75\" "
        "url_zz=\"x\"><description>]]&gt;</description></photo></photoset></rsp>");
    ASSERT_EQ(page.items.size(), 1u);
    EXPECT_EQ(page.items[0].title, "\"&\n");
    EXPECT_EQ(readAnswer(pageXml(page.items, true)).items[0].title, "\"&\n");
    EXPECT_EQ(readAnswer(pageXml(page.items, false)).items[0].description, "]]>");
    EXPECT_THAT(pageXml(page.items, true), Not(HasSubstr("dateupload")));
    EXPECT_EQ(readAnswer(failureXml(98, "a<b")).message, "a<b");
    for (const std::string& bad :
         {std::string("<html><body>Sign in to the network</body></html>"),
          std::string("<rsp stat=\"ok\"><a>"), std::string("<rsp/>"),
          "<rsp stat=\"ok\"><photo id=\"" + std::string(300000, 'x') + "\"/></rsp>"}) {
        EXPECT_THROW(readAnswer(bad), Failure) << bad.substr(0, 60);
    }
}

TEST(Budget, GivesNoMoreThanTheLimitInAnyHourAndGoesOnEvenlyWhenLow) {
    const TestFolder folder;
    const std::string file = folder.path() / "budget";
    std::chrono::system_clock::time_point now(std::chrono::hours(400000));
    const auto clock = [&now] { return now; };
    HourlyBudget first(file, 60, clock), second(file, 60, clock);
    std::vector<std::chrono::system_clock::time_point> sent;
    const auto send = [&](HourlyBudget& budget) {
        std::chrono::milliseconds wait{};
        while ((wait = budget.take()).count() > 0) now += wait;
        sent.push_back(now);
    };
    const auto start = now;
    for (int i = 0; i < 50; ++i) send(i % 2 ? first : second);
    EXPECT_EQ(now, start) << "full speed at first";
    for (int i = 0; i < 200; ++i) send(i % 2 ? first : second);
    std::chrono::system_clock::duration longest{};
    for (std::size_t i = 60; i < sent.size(); ++i) EXPECT_GT(sent[i] - sent[i - 60], 1h) << i;
    for (std::size_t i = 51; i < 60; ++i) longest = std::max(longest, sent[i] - sent[i - 1]);
    EXPECT_LT(longest, 15min) << "evenly, not all at once and then none";
    struct stat status {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    // Without a file the object counts by itself.
    HourlyBudget alone("", 60, clock);
    unsigned given = 0;
    while (given < 1000 && alone.take().count() == 0) ++given;
    EXPECT_EQ(given, 51u);

    now -= 300h;  // the clock was wrong
    EXPECT_EQ(first.take().count(), 0);
    std::ofstream(file) << "next \xff\n1 2 x";
    EXPECT_EQ(first.take().count(), 0);
}

TEST(Sizes, AreTakenAsPeopleWriteThemOrRefused) {
    const auto taken = [](const std::string& text) {
        CLI::App app;
        std::uint64_t bytes = 7;
        takeSize(*app.add_option("--size", bytes), 1024);
        try {
            app.parse("--size=" + text);
        } catch (CLI::Error&) {
            return std::string("refused");
        }
        return std::to_string(bytes);
    };
    const std::pair<const char*, const char*> kSizes[] = {{"0", "0"},
                                                          {"1024", "1024"},
                                                          {"500k", "512000"},
                                                          {"2MB", "2097152"},
                                                          {"2mib", "2097152"},
                                                          {"3Gi", "3221225472"},
                                                          {"1T", "1099511627776"},
                                                          {"1023", "refused"},
                                                          {"-5", "refused"},
                                                          {"1.5M", "refused"},
                                                          {"5x", "refused"},
                                                          {"", "refused"},
                                                          {"k", "refused"},
                                                          {"999999999999T", "refused"},
                                                          {"9999999999999", "refused"}};
    for (const auto& [text, bytes] : kSizes) EXPECT_EQ(taken(text), bytes) << text;
}

TEST(Patience, WaitsOnceForAllAndNoLongerThanAsked) {
    Patience patience({10s, 35s, 600s, 15s});
    const auto within = [&](std::chrono::milliseconds least, std::chrono::milliseconds most) {
        const auto left = patience.remaining();
        EXPECT_TRUE(left > least && left <= most) << left.count() << " ms";
    };
    EXPECT_EQ(patience.await(kNever), 0u);
    for (int i = 0; i < 8; ++i) patience.refused(0, "");  // eight transfers, one refusal
    within(5s, 12500ms);
    EXPECT_THROW(patience.await([] { return true; }), CancelledFailure);
    patience.refused(1, "");
    within(13s, 25s);
    patience.refused(2, "");
    within(26s, 43750ms);
    patience.refused(3, "Thu, 01 Jan 2060 00:00:00 GMT");
    within(23h, 24h);
    patience.refused(4, "77");
    within(60s, 77s);
    patience.succeeded();
    patience.refused(5, "soon");
    within(5s, 12500ms);
    patience.refused(4, "7777");  // sent before the present wait
    within(5s, 12500ms);
    EXPECT_THROW(Patience({10s, 35s, 0s, 15s}).refused(0, ""), Failure) << "no success for too long";
}

TEST(Spool, KeepsTheOrderThroughMemoryAndFile) {
    SpoolRoom room(1 << 20, 16 << 20);
    Spool spool(room);
    std::string sent;
    for (int i = 0; sent.size() < (12u << 20); ++i) sent += std::to_string(i) + ",";
    std::atomic<int> blocks{0};
    std::thread writer([&] {
        for (std::size_t at = 0; at < sent.size(); at += 100000) {
            spool.append(sent.data() + at, std::min<std::size_t>(100000, sent.size() - at), kNever);
            ++blocks;
        }
        spool.end(Spool::End::Whole);
    });
    while (blocks < 60) std::this_thread::yield();  // the memory is full
    spool.attachReader();
    std::string received;
    std::vector<char> block(70000);
    std::size_t size = 0;
    Spool::Outcome outcome;
    while ((outcome = spool.read(block.data(), block.size(), size, 10s)) == Spool::Outcome::Bytes) {
        received.append(block.data(), size);
    }
    writer.join();
    EXPECT_EQ(outcome, Spool::Outcome::Whole);
    EXPECT_TRUE(received == sent);

    // Without a reader a body waits once memory and file are full, and goes on with one.
    SpoolRoom small(1000, 1000);
    Spool full(small);
    full.append(sent.data(), 1000, kNever);
    full.append(sent.data(), 1000, kNever);
    EXPECT_FALSE(small.hasMemory());
    EXPECT_THROW(full.append(sent.data(), 1, [] { return true; }), CancelledFailure);
    Spool other(small);
    other.attachReader();
    other.append(sent.data(), 1000, kNever);
}

}  // namespace
