// The plug-in's requests and whole runs of it through the gateway, against the simulated service as it is
// today.

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/URI.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/SignedRequest.h"
#include "gateway/Gateway.h"
#include "gateway/ServiceAnswer.h"
#include "gateway/SignIn.h"
#include "hostapi/DbInterface.h"
#include "sim/TodayApi.h"
#include "tests/BackupFixture.h"

namespace {

using namespace flickr_gateway;
using namespace std::chrono_literals;
using flickr_sim::FlickrSim;
using flickr_sim::photo;
using flickr_sim::video;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
namespace fault = flickr_sim::fault;

const Cancelled kNever = [] { return false; };

/// The plug-in's own requests and whole runs, through a gateway to the service as it is today.
class GatewayTest : public BackupFixture {
protected:
    void serveToday(flickr_sim::TodayOptions today = {}) {
        flickr_sim::SimOptions options;
        options.today = today;
        sim_ = std::make_unique<FlickrSim>(account_, options);
        std::ofstream(folder_ + "/ca.pem") << sim_->authorityPem();
        const flickr_sim::Credentials& accepted = sim_->credentials();
        settings_.addresses = ServiceAddresses::below(sim_->serviceUrl());
        settings_.trust = {folder_ + "/ca.pem", "127.0.0.1"};
        settings_.keys = {accepted.apiKey, accepted.apiSecret, accepted.token, accepted.tokenSecret};
        settings_.userId = accepted.userId;
        settings_.stateFolder = folder_ + "/state";
        settings_.patience = {20ms, 200ms, 1500ms, 50ms};
        settings_.expectation.recorded = [this](const std::string& id, const std::string& set,
                                                std::int64_t updated) {
            const auto row = database_->item(id + "_" + (set.empty() ? "Anonymous" : set));
            return row && row->updated == Norvale_Plugin_Core::DbInterface().convertToString(
                                              Poco::DateTime(Poco::Timestamp::fromEpochTime(updated)));
        };
    }

    void start() {
        gateway_ = std::make_unique<Gateway>(settings_);
        url_ = gateway_->dataUrl();
    }

    /// A backup through a gateway of its own.
    RunResult runThrough() {
        start();
        configure(gateway_->dataUrl(), "2");
        RunOptions options;
        options.apiKey = gateway_->keys().apiKey;
        options.apiSecret = gateway_->keys().apiSecret;
        options.token = gateway_->keys().token;
        const RunResult result = run(options);
        problems_ = gateway_->problems();
        gateway_.reset();
        return result;
    }

    /// One call as the plug-in makes it; the status stands in front of the body.
    std::string call(const std::string& method,
                     const std::vector<std::pair<std::string, std::string>>& parameters = {}) {
        const Norvale_Plugin_Flickr::ServiceAccess access{
            gateway_->dataUrl(), gateway_->keys().token, gateway_->keys().apiKey, gateway_->keys().apiSecret};
        Norvale_Plugin_Flickr::SignedRequest request(access, method);
        for (const auto& [name, value] : parameters) request.add(name, value);
        Norvale_Plugin_Flickr::HttpExchange exchange = request.addToken().prepared();
        const int status = exchange.exchange().getStatus();
        if (status != 200) return std::to_string(status) + " ";
        return "200 " + std::string(std::istreambuf_iterator<char>(exchange.body()), {});
    }

    std::vector<ListedItem> page(const std::string& set, unsigned number) {
        const std::string answer =
            call(set.empty() ? "flickr.photos.getNotInSet" : "flickr.photosets.getPhotos",
                 {{"photoset_id", set}, {"page", std::to_string(number)}});
        return answer.compare(0, 4, "200 ") == 0 ? readAnswer(answer.substr(4)).items
                                                 : std::vector<ListedItem>();
    }

    /// All that comes for these bytes, until the connection ends. onPiece: called when something has come.
    std::string send(
        const std::string& bytes, const std::function<void()>& onPiece = [] {}) {
        const Poco::URI address(url_);
        Poco::Net::StreamSocket socket(Poco::Net::SocketAddress(address.getHost(), address.getPort()));
        socket.sendBytes(bytes.data(), static_cast<int>(bytes.size()));
        std::string all;
        char block[4096];
        try {
            for (int got; (got = socket.receiveBytes(block, sizeof block)) > 0; onPiece())
                all.append(block, static_cast<std::size_t>(got));
        } catch (Poco::Exception&) {
            all += "RESET";
        }
        return all;
    }

    /// A device on which nothing is.
    void emptyDevice() {
        database_.reset();
        std::filesystem::remove_all(folder_ + "/device");
        std::filesystem::create_directories(service_);
        database_ = std::make_unique<flickr_standin::BackupDatabase>(folder_ + "/device/backup.db");
    }

    GatewaySettings settings_;
    std::unique_ptr<Gateway> gateway_;
    std::string url_;  // stays when the gateway has gone
    std::vector<std::string> problems_;
};

TEST_F(GatewayTest, BacksUpAWholeAccountWithFewRequests) {
    const std::string trip = account_.addSet("Tom & Jerry"), all = account_.addSet("R&B [2]]>");
    for (int i = 0; i < 20; ++i) {
        flickr_sim::Item item = photo("p" + std::to_string(i), 1700000000 + i % 3);
        account_.addItem(trip, item);
    }
    for (int i = 0; i < 3; ++i) account_.addItem(all, video("v" + std::to_string(i)));
    account_.addItem("", photo("Q&A [1] ]]>"));
    serveToday();
    std::atomic<int> atATime{0}, most{0};
    sim_->faults().add({}, flickr_sim::always(), [&](const flickr_sim::Request& r, flickr_sim::Reply&) {
        if (r.kind == flickr_sim::Kind::Rest) return;
        most = std::max<int>(most, ++atATime);
        // Whoever comes waits for three others, once; a busy machine takes its time to bring them.
        for (int i = 0; i < 500 && most < 4; ++i) std::this_thread::sleep_for(10ms);
        std::this_thread::sleep_for(10ms);
        --atATime;
    });
    EXPECT_EQ(runThrough().status, 1);
    EXPECT_THAT(problems_, IsEmpty());
    expectComplete();
    EXPECT_THAT(names(), AllOf(HasSubstr("Tom & Jerry/p3.jpg"), HasSubstr("R&B [2]]_/v1.mp4"),
                               HasSubstr("Q&A [1] ]]_.jpg")));
    EXPECT_EQ(most, 4) << "files at a time";
    auto counts = sim_->counts();
    EXPECT_EQ(counts.rest, 8u) << "sets 1, pages 2 and 2, videos 3";
    EXPECT_EQ(counts.methods["flickr.photos.getSizes"], 3u);
    std::set<std::string> asked;
    std::vector<std::string> order;
    for (const flickr_sim::Request& request : sim_->log()) {
        EXPECT_TRUE(request.https);
        EXPECT_THAT(request.target, Not(HasSubstr(settings_.keys.apiKey))) << "no address holds a key";
        if (request.kind != flickr_sim::Kind::Media && request.kind != flickr_sim::Kind::Thumbnail) continue;
        if (request.kind == flickr_sim::Kind::Thumbnail) {
            EXPECT_TRUE(asked.insert(request.itemId).second) << "fetched twice";
        } else if (order.empty() || order.back() != request.itemId) {
            order.push_back(request.itemId);
        }
    }
    // No secret of the account is in what the plug-in or its host writes.
    for (const std::string& secret :
         {settings_.keys.apiSecret, settings_.keys.token, settings_.keys.tokenSecret}) {
        EXPECT_THAT(log(), Not(HasSubstr(secret)));
    }

    sim_->clearLog();
    EXPECT_EQ(runThrough().status, 1);
    counts = sim_->counts();
    EXPECT_EQ(counts.rest, 5u) << "an unchanged account: sets and pages";
    EXPECT_EQ(counts.media + counts.thumbnails, 0u);
    // One of twenty was edited: only it is fetched.
    account_.edit(account_.items(trip)[5]->id, flickr_sim::Content::bytes("new"), 1700009999);
    EXPECT_EQ(runThrough().status, 1);
    EXPECT_EQ(sim_->counts().media + sim_->counts().thumbnails, 2u);
    expectComplete();
}

TEST_F(GatewayTest, TakesTheBestThatThereIsAndAsksForItOnce) {
    const std::string set = account_.addSet("S");
    for (int i = 0; i < 4; ++i) account_.addItem(set, photo("p" + std::to_string(i)));
    flickr_sim::TodayOptions today;
    today.originalsInLists = false;
    serveToday(today);
    EXPECT_EQ(runThrough().status, 1);
    expectComplete();
    EXPECT_EQ(sim_->counts().methods["flickr.photos.getSizes"], 4u);
    emptyDevice();
    account_.retitle(account_.items(set)[0]->id, "other", 1700000001);
    EXPECT_EQ(runThrough().status, 1);
    expectComplete();
    EXPECT_EQ(sim_->counts().methods["flickr.photos.getSizes"], 5u)
        << "kept for the three that are as they were";
}

TEST_F(GatewayTest, ListsWholeWhileTheAccountChanges) {
    const std::string set = account_.addSet("S");
    std::vector<std::string> ids;
    for (int i = 0; i < 1200; ++i) ids.push_back(account_.addItem(set, photo("p" + std::to_string(i))));
    for (int i = 0; i < 501; ++i) account_.addItem("", photo("l"));
    for (int i = 0; i < 520; ++i) account_.addSet("set" + std::to_string(i));
    serveToday();
    start();
    EXPECT_EQ(readAnswer(call("flickr.photosets.getList").substr(4)).sets.size(), 521u);
    EXPECT_EQ(sim_->counts().methods["flickr.photosets.getList"], 2u);
    // A page without a set, before others, is no end; one list after another of such pages is.
    sim_->faults().add(flickr_sim::rest("flickr.photosets.getList"), flickr_sim::nth(1),
                       fault::body("<rsp stat=\"ok\"><photosets page=\"1\" pages=\"2\"/></rsp>"));
    EXPECT_EQ(readAnswer(call("flickr.photosets.getList").substr(4)).sets.size(), 21u);
    sim_->faults().add(flickr_sim::rest("flickr.photosets.getList"), flickr_sim::always(),
                       fault::body("<rsp stat=\"ok\"><photosets page=\"1\" pages=\"999999\"/></rsp>"));
    EXPECT_THAT(readAnswer(call("flickr.photosets.getList").substr(4)).sets, IsEmpty());
    sim_->faults().clear();
    EXPECT_EQ(readAnswer(call("flickr.photosets.getList").substr(4)).sets.size(), 521u);

    // The plug-in will ask for three pages. Meanwhile some are added behind, and one goes on a page that was
    // read: another moves over the edge.
    std::set<std::string> listed;
    for (const ListedItem& item : page(set, 1)) listed.insert(item.id);
    EXPECT_EQ(listed.size(), 500u);
    account_.deleteItem(ids[0]);
    for (int i = 0; i < 400; ++i) account_.addItem(set, photo("new"));
    for (unsigned number : {2u, 3u}) {
        for (const ListedItem& item : page(set, number)) listed.insert(item.id);
    }
    for (const auto& item : account_.items(set)) EXPECT_EQ(listed.count(item->id), 1u) << item->id;

    EXPECT_EQ(page("", 1).size(), 500u);
    EXPECT_EQ(page("", 2).size(), 1u);
    EXPECT_EQ(page("", 3).size(), 0u);
    EXPECT_THAT(
        call("flickr.photosets.getPhotos", {{"photoset_id", "12"}, {"page", "1"}}),
        StartsWith("200 <?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<rsp stat=\"fail\">\n<err code=\"1\""));
    EXPECT_EQ(call("flickr.photosets.getPhotos", {{"photoset_id", "1&x=2"}, {"page", "1"}}).substr(0, 3),
              "200");
}

TEST_F(GatewayTest, FetchesAheadWithoutExpectationAfterTwoItemsInARow) {
    const std::string set = account_.addSet("S");
    for (int i = 0; i < 30; ++i) account_.addItem(set, photo("p" + std::to_string(i)));
    serveToday();
    settings_.expectation.recorded = nullptr;
    start();
    call("flickr.photosets.getList");
    const auto items = page(set, 1);
    const auto fetch = [&](std::size_t n, const std::string& file) {
        const std::string sizes = call("flickr.photos.getSizes", {{"photo_id", items[n].id}});
        const std::size_t at = sizes.find("http://"), end = sizes.find("/thumbnail", at);
        const std::string target = sizes.substr(at, end - at) + "/" + file;
        const std::string here = Poco::URI(gateway_->dataUrl()).getAuthority();
        return send("GET " + target + " HTTP/1.1\r\nHost: " + here + "\r\nConnection: close\r\n\r\n");
    };
    for (std::size_t n : {3u, 9u, 20u, 21u}) EXPECT_THAT(fetch(n, "media"), StartsWith("HTTP/1.1 200"));
    const auto fetched = [&] { return sim_->counts().media + sim_->counts().thumbnails; };
    for (int i = 0; i < 3000 && fetched() < 21; ++i) std::this_thread::sleep_for(20ms);
    EXPECT_EQ(fetched(), 21u) << "of 21 and all that follow the thumbnails as well";
    std::set<std::string> expected, asked;
    for (std::size_t n : {3u, 9u, 20u, 21u, 22u, 23u, 24u, 25u, 26u, 27u, 28u, 29u})
        expected.insert(items[n].id);
    for (const flickr_sim::Request& request : sim_->log()) {
        if (request.kind == flickr_sim::Kind::Media) asked.insert(request.itemId);
    }
    EXPECT_EQ(asked, expected) << "3 and 9 are not in a row";
}

TEST_F(GatewayTest, RefusesEverybodyButThePlugin) {
    account_.addItem(account_.addSet("S"), photo("p"));
    serveToday();
    start();
    const std::string here = Poco::URI(gateway_->dataUrl()).getAuthority();
    const InwardKeys& keys = gateway_->keys();
    const auto get = [&](const std::string& target, const std::string& host,
                         const std::string& verb = "GET") {
        return send(verb + " " + target + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n");
    };
    const std::string path = "/services/rest/?method=flickr.photosets.getList&api_key=";
    EXPECT_THAT(get(path + keys.apiKey, "evil.example"), StartsWith("HTTP/1.1 403"));
    EXPECT_THAT(get("http://evil.example" + path + keys.apiKey, here), StartsWith("HTTP/1.1 403"));
    EXPECT_THAT(get(path + keys.apiKey, here, "POST"), StartsWith("HTTP/1.1 405"));
    EXPECT_THAT(get("/", here), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get("/media/" + std::string(32, '0') + "/1/media", here), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get(path + "x", here), HasSubstr("code=\"100\""));
    EXPECT_THAT(
        get(path + keys.apiKey + "&auth_token=" + keys.token + "&api_sig=" + std::string(32, '0'), here),
        HasSubstr("code=\"96\""));
    EXPECT_EQ(sim_->counts().rest, 0u) << "nothing went on to the service";
    EXPECT_THAT(call("flickr.photos.delete"), HasSubstr("code=\"112\""));
}

/// What is done to the service, and how a run through the gateway ends.
TEST_F(GatewayTest, GetsThroughWhatTheServiceDoes) {
    const std::string set = account_.addSet("S");
    std::string big;
    for (int i = 0; big.size() < 300000; ++i) big += std::to_string(i);
    for (int i = 0; i < 6; ++i) {
        account_.addItem(
            set, i == 0 ? video("v") : photo("p" + std::to_string(i), flickr_sim::Content::bytes(big)));
    }
    serveToday();
    settings_.patience.giveUp = 1min;
    const auto clean = [&] {
        sim_->faults().clear();
        sim_->today().listLimit().set({});
        sim_->today().mediaLimit().set({});
        emptyDevice();
    };
    const std::vector<std::pair<const char*, std::vector<const char*>>> survived = {
        {"429 with a time", {"count=3,status=429,retry-after=1"}},
        {"503 without one, of lists", {"kind=rest,count=4,status=503"}},
        {"a list that breaks off, and one that is none",
         {"kind=rest,nth=2,cut=100", "kind=rest,nth=3,malformed=1"}},
        {"connections that end", {"every=5,drop=before"}},
        {"media that break off and are resumed", {"kind=media,cut=40000"}},
        {"the same, known by their dates", {"kind=media,weak-tag=1", "kind=media,cut=40000"}},
        {"media that break off once, and no ranges",
         {"kind=media,ignore-range=1", "kind=media,count=3,cut=100"}},
        {"thumbnails that break off at each tenth byte", {"kind=thumbnail,cut=10"}},
        {"chunks", {"kind=media,framing=chunked"}},
        {"errors of media hosts", {"kind=media,every=3,status=500"}},
    };
    for (const auto& [what, faults] : survived) {
        SCOPED_TRACE(what);
        clean();
        for (const char* text : faults) sim_->faults().add(flickr_sim::parseFault(text));
        EXPECT_EQ(runThrough().status, 1);
        expectComplete();
    }
    EXPECT_GT(sim_->counts().parts, 0u);

    clean();
    sim_->today().mediaLimit().set({5, 1s});
    sim_->today().listLimit().set({1, 1s});
    EXPECT_EQ(runThrough().status, 1);
    EXPECT_GT(sim_->counts().refused, 0u);
    expectComplete();

    clean();
    settings_.bytesPerSecond = 3 << 20;
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(runThrough().status, 1);
    EXPECT_GT(std::chrono::steady_clock::now() - began, 450ms) << "for 5 files of 300,000 bytes";
    expectComplete();
}

TEST_F(GatewayTest, NeverMixesTwoStatesOfAFile) {
    const std::string before(300000, 'a');
    account_.addItem(account_.addSet("S"), photo("p", flickr_sim::Content::bytes(before)));
    serveToday();
    for (const std::string& after :
         {std::string(300000, 'b'), before + "and more", before.substr(0, 290000)}) {
        SCOPED_TRACE(after.size());
        // Cut once, then another file, whatever part is asked for.
        std::atomic<int> requests{0};
        sim_->faults().clear();
        sim_->faults().add(flickr_sim::media(), flickr_sim::always(),
                           [&](const flickr_sim::Request& request, flickr_sim::Reply& reply) {
                               (requests++ == 0 ? fault::dropInBody(100000) : fault::body(after))(request,
                                                                                                  reply);
                           });
        emptyDevice();
        EXPECT_EQ(runThrough().status, 1);
        EXPECT_GT(requests, 2) << "what was begun is given up, and fetched from the start";
        EXPECT_TRUE(read("S/p.jpg") == after);
    }
}

TEST_F(GatewayTest, SaysWhatItCannotHelp) {
    const std::string set = account_.addSet("S");
    const std::string bad = account_.addItem(set, photo("bad"));
    account_.addItem(set, photo("good"));
    serveToday();
    const auto fails = [&](const std::string& sentence, bool refused = false) {
        const RunResult result = runThrough();
        EXPECT_NE(result.status, 1) << sentence;
        EXPECT_THAT(problems_, Contains(HasSubstr(sentence)));
        EXPECT_EQ(log().find("Invalid Auth Token") != std::string::npos, refused) << sentence;
    };
    sim_->today().oauth().setClockOffset(3600);
    fails("set its clock right");
    sim_->today().oauth().setClockOffset(0);
    settings_.trust.caFile = "";
    fails("certificate");
    settings_.trust = {folder_ + "/ca.pem", ""};
    fails("which is none of the public network");
    settings_.trust.privateHost = "127.0.0.1";
    sim_->faults().add(flickr_sim::parseFault("kind=rest,status=429,retry-after=1"));
    fails("only asked us to wait for too long");
    sim_->faults().clear();
    sim_->faults().add(flickr_sim::parseFault("kind=rest,error=105"));
    fails("error 105");
    EXPECT_EQ(names(), "") << "no list was taken for empty";

    sim_->faults().clear();
    sim_->faults().add(flickr_sim::parseFault("method=flickr.photosets.getList,error=1"));
    fails("error 1:");

    // A file that cannot be had costs that item only.
    for (const char* text :
         {"kind=media,item=%,length=99999999", "kind=media,item=%,cut=0", "kind=media,item=%,status=404",
          "kind=media,item=%,redirect=http://127.0.0.1:1/", "kind=media,item=%,redirect=self"}) {
        SCOPED_TRACE(text);
        sim_->faults().clear();
        std::string spec = text;
        sim_->faults().add(flickr_sim::parseFault(spec.replace(spec.find('%'), 1, bad)));
        runThrough();
        EXPECT_THAT(problems_, Contains(StartsWith("\"bad\" (" + bad + "): ")));
        EXPECT_THAT(names(), AllOf(HasSubstr("S/good.jpg\n"), Not(HasSubstr("S/bad.jpg"))));
    }
    sim_->faults().clear();
    sim_->today().oauth().expireTokens();
    fails("flickr-backup login", true);
}

TEST_F(GatewayTest, GivesSignsOfLifeAndStopsWhateverIsUnderWay) {
    const std::string set = account_.addSet("S");
    for (int i = 0; i < 9; ++i) account_.addItem(set, photo("p" + std::to_string(i)));
    serveToday();
    settings_.patience.giveUp = 10min;
    const auto request = [&] {
        const InwardKeys& keys = gateway_->keys();
        const Norvale_Plugin_Flickr::ServiceAccess access{gateway_->dataUrl(), keys.token, keys.apiKey,
                                                          keys.apiSecret};
        return "GET " +
               Norvale_Plugin_Flickr::SignedRequest(access, "flickr.photosets.getList").addToken().target() +
               " HTTP/1.1\r\nHost: " + Poco::URI(gateway_->dataUrl()).getAuthority() + "\r\n\r\n";
    };
    sim_->faults().add(flickr_sim::parseFault("kind=rest,nth=1,status=429,retry-after=1"));
    start();
    EXPECT_THAT(send(request()),
                AllOf(StartsWith("HTTP/1.1 100 Continue\r\n\r\n"), HasSubstr("HTTP/1.1 200 OK")));

    // In each of these states the end of the gateway ends the plug-in's request. A wait that is not ended
    // would last for ever.
    for (const char* text : {"kind=rest,status=429,retry-after=9999", "kind=rest,slow=1/100000",
                             "kind=media,slow=9/100000", "kind=media,status=429,retry-after=9999"}) {
        SCOPED_TRACE(text);
        sim_->faults().clear();
        sim_->clearLog();
        sim_->faults().add(flickr_sim::parseFault(text));
        start();
        const bool ofMedia = std::string(text).find("kind=media") == 0;
        std::string bytes = request();
        if (ofMedia) {
            call("flickr.photosets.getList");
            page(set, 1);
            const std::string sizes =
                call("flickr.photos.getSizes", {{"photo_id", account_.items(set)[8]->id}});
            const std::size_t at = sizes.rfind("http://");
            bytes = "GET " + sizes.substr(at, sizes.find('"', at) - at) +
                    " HTTP/1.1\r\nHost: " + Poco::URI(url_).getAuthority() + "\r\n\r\n";
        }
        const auto asked = std::async(std::launch::async, [&] { return send(bytes); });
        while ((ofMedia ? sim_->counts().media : sim_->counts().rest) == 0 ||
               asked.wait_for(300ms) == std::future_status::ready) {
        }
        if (std::string(text).find("429") != std::string::npos) {
            while (gateway_->waitText().empty()) std::this_thread::sleep_for(20ms);
            EXPECT_THAT(gateway_->waitText(), StartsWith("The service asks us to wait: "));
        }
        gateway_.reset();
        asked.wait();
    }
}

TEST_F(GatewayTest, TellsWhyAFileFailsThatWasUnderWayAlready) {
    const std::string set = account_.addSet("S");
    const std::string id = account_.addItem(set, photo("gone"));
    serveToday();
    std::atomic<bool> goesOn{false};
    std::atomic<int> came{0};
    sim_->faults().add(flickr_sim::media(), flickr_sim::always(),
                       [&](const flickr_sim::Request&, flickr_sim::Reply& reply) {
                           ++came;
                           while (!goesOn) std::this_thread::sleep_for(10ms);
                           reply.status = 404;
                       });
    start();
    call("flickr.photosets.getList");
    page(set, 1);
    while (came == 0) std::this_thread::sleep_for(10ms);
    const std::string sizes = call("flickr.photos.getSizes", {{"photo_id", id}});
    const std::size_t at = sizes.rfind("http://");
    // The sign of life says that the request waits for what is under way.
    const std::string answer = send("GET " + sizes.substr(at, sizes.find('"', at) - at) +
                                        " HTTP/1.1\r\nHost: " + Poco::URI(url_).getAuthority() + "\r\n\r\n",
                                    [&] { goesOn = true; });
    EXPECT_THAT(answer, HasSubstr("HTTP/1.1 404"));
    EXPECT_EQ(came, 1);
    EXPECT_THAT(gateway_->problems(), Contains(HasSubstr("status 404")));
}

TEST_F(GatewayTest, SignsIn) {
    serveToday();
    const auto signIn = [&](const std::string& secret) {
        return std::make_unique<SignIn>(settings_.addresses, settings_.trust, settings_.keys.apiKey, secret);
    };
    auto attempt = signIn(settings_.keys.apiSecret);
    attempt->begin("oob", kNever);
    EXPECT_THAT(attempt->page(),
                AllOf(StartsWith(sim_->serviceUrl() + "/services/oauth/authorize?oauth_token="),
                      HasSubstr("perms=read")));
    const std::string code =
        sim_->today().oauth().decide(attempt->requestToken(), flickr_sim::OAuthProvider::Answer::Allow);
    const SignedIn signedIn = attempt->finish(" " + code + "\n", kNever);
    EXPECT_EQ(signedIn.userId, sim_->credentials().userId);
    EXPECT_EQ(signedIn.userName, sim_->credentials().userName);
    EXPECT_NE(signedIn.keys.token, settings_.keys.token);
    settings_.keys = signedIn.keys;
    settings_.userId = "";  // is asked for
    account_.addItem(account_.addSet("S"), photo("p"));
    EXPECT_EQ(runThrough().status, 1);
    expectComplete();

    const auto failure = [](const std::function<void()>& work) {
        try {
            work();
        } catch (Failure& refused) {
            return std::string(refused.what());
        }
        return std::string();
    };
    EXPECT_THAT(failure([&] { signIn("wrong")->begin("oob", kNever); }), HasSubstr("API key and secret"));
    attempt->begin("oob", kNever);
    sim_->today().oauth().decide(attempt->requestToken(), flickr_sim::OAuthProvider::Answer::Deny);
    EXPECT_THAT(failure([&] { attempt->finish("1", kNever); }), HasSubstr("not allowed"));
    attempt->begin("oob", kNever);
    sim_->today().oauth().decide(attempt->requestToken(), flickr_sim::OAuthProvider::Answer::Allow);
    EXPECT_THAT(failure([&] { attempt->finish("000-000-000", kNever); }),
                HasSubstr("does not accept this code"));
    sim_->today().oauth().setClockOffset(3600);
    EXPECT_THAT(failure([&] { attempt->begin("oob", kNever); }), HasSubstr("clock"));
}

}  // namespace
