// The simulated service by itself, over plain sockets: what it refuses, lists, changes, delivers and breaks.

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "sim/FlickrSim.h"
#include "sim/FolderAccount.h"
#include "sim/GeneratedAccount.h"
#include "sim/Picture.h"
#include "sim/RestApi.h"
#include "tests/TestFolder.h"

namespace flickr_sim {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

/// All bytes until the connection ends; "RESET" behind them when it ends hard.
std::string readAll(Poco::Net::StreamSocket& socket) {
    std::string text;
    char block[65536];
    try {
        for (int got; (got = socket.receiveBytes(block, sizeof block)) > 0;) {
            text.append(block, static_cast<std::size_t>(got));
        }
    } catch (Poco::Net::ConnectionResetException&) {
        text += "RESET";
    }
    return text;
}

struct Answer {
    std::string header;
    std::string body;
};

Answer split(const std::string& text) {
    const std::size_t end = text.find("\r\n\r\n");
    if (end == std::string::npos) return {text, ""};
    return {text.substr(0, end), text.substr(end + 4)};
}

/// Asks for a whole URL over a connection of its own.
Answer get(const std::string& url, const std::string& host = "127.0.0.1") {
    const Poco::URI address(url);
    const Poco::Net::SocketAddress where(address.getHost(), address.getPort());
    Poco::Net::StreamSocket socket;
    if (address.getScheme() == "https") {
        const Poco::Net::Context::Ptr context = new Poco::Net::Context(
            Poco::Net::Context::TLS_CLIENT_USE, "", "", "", Poco::Net::Context::VERIFY_NONE);
        socket = Poco::Net::SecureStreamSocket(where, context);
    } else {
        socket.connect(where);
    }
    const std::string request = "GET " + url + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: Close\r\n\r\n";
    socket.sendBytes(request.data(), static_cast<int>(request.size()));
    return split(readAll(socket));
}

std::string countOf(const std::string& text, const std::string& part) {
    unsigned count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
    return std::to_string(count);
}

class Sim : public ::testing::Test {
protected:
    using Parameters = std::map<std::string, std::string>;

    void serve(SimOptions options = {}) { sim_ = std::make_unique<FlickrSim>(account_, std::move(options)); }

    /// A call that is signed as it should be, unless the parameters hold a signature.
    std::string call(const std::string& method, Parameters parameters = {}) {
        const Credentials known;
        parameters.insert({{"method", method}, {"api_key", known.apiKey}, {"auth_token", known.token}});
        parameters.emplace("api_sig", signatureOf(known.apiSecret, parameters));
        Poco::URI url(sim_->dataUrl());
        for (const auto& parameter : parameters) url.addQueryParameter(parameter.first, parameter.second);
        return get(url.toString()).body;
    }

    Account account_;
    std::unique_ptr<FlickrSim> sim_;
};

TEST_F(Sim, RefusesAsTheServiceDoes) {
    const std::string list = "flickr.photosets.getList";
    EXPECT_EQ(signatureOf("S", {{"method", list}, {"auth_token", "T"}, {"api_key", "K"}, {"api_sig", "x"}}),
              "4327c7f4fdcaa6d0bf22092d3ed612a5");
    serve();
    EXPECT_THAT(call(list), AllOf(HasSubstr("stat=\"ok\""), HasSubstr("total=\"0\"")));
    EXPECT_THAT(call(list, {{"api_key", "other"}}), HasSubstr("stat=\"fail\">\n\t<err code=\"100\""));
    EXPECT_THAT(call(list, {{"api_sig", std::string(32, '0')}}),
                HasSubstr("code=\"96\" msg=\"Invalid signature\""));
    EXPECT_THAT(call(list, {{"auth_token", "other"}}), HasSubstr("code=\"98\""));
    EXPECT_THAT(call("flickr.x"), HasSubstr("code=\"112\" msg=\"Method &quot;flickr.x&quot; not found\""));
    EXPECT_THAT(call("flickr.photos.getSizes", {{"photo_id", "1"}}), HasSubstr("code=\"1\" msg=\"Photo not"));
    EXPECT_THAT(call("flickr.photosets.getPhotos", {{"photoset_id", "1"}}), HasSubstr("msg=\"Photoset not"));
    // The signature covers what the query means, not how it is written.
    const std::string sig = signatureOf("demo0secret", {{"method", list},
                                                        {"api_key", Credentials().apiKey},
                                                        {"auth_token", Credentials().token},
                                                        {"x", "a, b&"}});
    const std::string query = "?x=a%2C+b%26&api_sig=" + sig + "&auth_token=" + Credentials().token +
                              "&method=" + list + "&api_key=" + Credentials().apiKey;
    EXPECT_THAT(get(sim_->dataUrl() + query).body, HasSubstr("stat=\"ok\""));
    const Request last = sim_->log().back();
    EXPECT_EQ(last.line, "GET " + sim_->dataUrl() + query + " HTTP/1.1");
    EXPECT_EQ(last.headers, (Headers{{"Host", "127.0.0.1"}, {"Connection", "Close"}}));
    EXPECT_EQ(last.parameter("x"), "a, b&");
    EXPECT_EQ(sim_->counts().methods[list], 5u);
}

TEST_F(Sim, ListsPageByPage) {
    const std::string set = account_.addSet("All");
    for (int i = 0; i < 1001; ++i) account_.addItem(set, i == 7 ? video("v") : photo("p"));
    for (int i = 0; i < 201; ++i) account_.addItem("", photo("l"));
    serve();
    EXPECT_THAT(call("flickr.photosets.getList"), HasSubstr(" photos=\"1000\" videos=\"1\""));
    const std::vector<std::pair<const char*, const char*>> inSet = {
        {"1", "500"}, {"2", "500"}, {"3", "1"}, {"9", "1"}, {"x", "500"}};
    for (const auto& [page, photos] : inSet) {
        const std::string answer = call("flickr.photosets.getPhotos", {{"photoset_id", set}, {"page", page}});
        EXPECT_EQ(countOf(answer, "<photo "), photos) << page;
        EXPECT_THAT(answer, HasSubstr(" pages=\"3\" title=\"All\" total=\"1001\""));
    }
    const std::vector<std::pair<const char*, const char*>> loose = {{"1", "100"}, {"3", "1"}, {"4", "0"}};
    for (const auto& [page, photos] : loose) {
        EXPECT_EQ(countOf(call("flickr.photos.getNotInSet", {{"page", page}}), "<photo "), photos) << page;
    }
    sim_->setRepeatLastPage(true);
    EXPECT_EQ(countOf(call("flickr.photos.getNotInSet", {{"page", "4"}}), "<photo "), "1");
    EXPECT_EQ(countOf(call("flickr.photos.getNotInSet", {{"per_page", "150"}}), "<photo "), "150");
}

TEST_F(Sim, WritesWholeAnswers) {
    Item item = photo("a <b> & \"c\"\n", 1600000000);
    item.id = "../7";
    item.tags = {"one", "two"};
    item.description = "1 < 2\nline";
    item.width = 400;
    item.height = 800;
    account_.addItem(account_.addSet("S & T"), item);
    item.id = "8";
    item.renditions = {{"Odd & new", 1, 2, true, Content::bytes("odd")},
                       {"Original", 3, 4, false, Content()}};
    account_.addItem("", item);
    serve();
    EXPECT_THAT(call("flickr.photosets.getList"), HasSubstr("<title>S &amp; T</title>"));
    EXPECT_THAT(
        call("flickr.photosets.getPhotos",
             {{"photoset_id", account_.sets()[0].id},
              {"extras", "date_upload, last_update, date_taken, media, url_o, url_t, tags, description"}}),
        AllOf(HasSubstr("title=\"a &lt;b&gt; &amp; &quot;c&quot;&#10;\" isprimary=\"1\""),
              HasSubstr("lastupdate=\"1600000000\""), HasSubstr("datetaken=\"2023-11-14 22:13:20\""),
              HasSubstr("tags=\"one two\" media=\"photo\""), HasSubstr("height_t=\"100\" width_t=\"50\""),
              HasSubstr("<description>1 &lt; 2\nline</description>")));
    const std::string sizes = call("flickr.photos.getSizes", {{"photo_id", "../7"}});
    std::string labels;
    for (std::size_t at = 0; (at = sizes.find("label=\"", at)) != std::string::npos;) {
        at += 7;
        labels += sizes.substr(at, sizes.find('"', at) - at) + ',';
    }
    EXPECT_EQ(labels, "Square,Large Square,Thumbnail,Small,Small 320,Medium,Medium 640,Original,");
    EXPECT_EQ(get(sim_->mediaUrl("../7")).body, item.content.text());
    EXPECT_THAT(get(sim_->mediaUrl("../7", "Thumbnail")).body, StartsWith("\xFF\xD8"));
    EXPECT_THAT(
        call("flickr.photos.getSizes", {{"photo_id", "8"}}),
        AllOf(HasSubstr("label=\"Odd &amp; new\""), HasSubstr("source=\"\""), Not(HasSubstr("Thumbnail"))));
    EXPECT_EQ(get(sim_->mediaUrl("8", "Odd & new")).body, "odd");
    EXPECT_EQ(sim_->counts().media, 2u);
    EXPECT_EQ(sim_->counts().thumbnails, 1u);
}

TEST_F(Sim, ChangesWhileItServes) {
    const std::string one = account_.addSet("One");
    const std::string two = account_.addSet("Two");
    const std::string shared = account_.addItem(one, photo("shared"));
    const std::string other = account_.addItem(one, photo("other"));
    account_.addToSet(two, shared);
    serve();
    account_.edit(shared, Content::bytes("new"), 1800000000);
    account_.retitle(other, "another", 1800000001);
    account_.renameSet(two, "Second");
    EXPECT_THAT(call("flickr.photosets.getPhotos", {{"photoset_id", one}, {"extras", "last_update"}}),
                AllOf(HasSubstr("title=\"another\""), HasSubstr("lastupdate=\"1800000000\"")));
    EXPECT_EQ(get(sim_->mediaUrl(shared)).body, "new");
    account_.deleteSet(one);
    EXPECT_THAT(call("flickr.photosets.getList"), AllOf(HasSubstr("Second"), Not(HasSubstr("One"))));
    EXPECT_THAT(call("flickr.photos.getNotInSet"), AllOf(HasSubstr(other), Not(HasSubstr(shared))));
    account_.deleteItem(shared);
    EXPECT_TRUE(account_.set(two).cover.empty());
    EXPECT_THROW(account_.edit(shared, Content::bytes(""), 1), Poco::NotFoundException);

    sim_->onRequest([&](const Request& request) {
        if (request.kind == Kind::Media) account_.edit(other, Content::bytes("in time"), 1800000002);
    });
    EXPECT_EQ(get(sim_->mediaUrl(other)).body, "in time");

    const auto order = [&](const std::string& text) {
        return get(sim_->baseUrl() + "/sim/" + text + "&word=" + sim_->orderWord());
    };
    EXPECT_EQ(order("rename-set?title=T%20X").body, two + "\n");
    const std::string added = order("add?title=n&bytes=9000").body;
    EXPECT_EQ(account_.item(added.substr(0, added.size() - 1))->content.size(), 9000u);
    EXPECT_EQ(account_.set(two).title, "T X");
    EXPECT_THAT(order("edit?id=none").header, StartsWith("HTTP/1.1 400"));
    EXPECT_THAT(order("counts?").body, HasSubstr("\"media\":2,\"thumbnails\":0"));

    // Other users of the machine and pages in a browser change nothing.
    for (const char* text : {"/sim/delete-set", "/sim/delete-set?word=", "/sim/counts?word=0"}) {
        EXPECT_THAT(get(sim_->baseUrl() + text).header, StartsWith("HTTP/1.1 403")) << text;
    }
    EXPECT_THAT(order("fault?spec=kind=rest,file=/etc/passwd").header, StartsWith("HTTP/1.1 400"));
    for (const char* host : {"evil.example", "evil.example:80", "127.0.0.1.evil.example", "10.0.0.1", "x"}) {
        EXPECT_THAT(get(sim_->mediaUrl(other), host).header, StartsWith("HTTP/1.1 403")) << host;
    }
    EXPECT_EQ(get(sim_->mediaUrl(other), "localhost:1").body, "in time") << "through a relay";
}

TEST_F(Sim, DeliversInEveryWay) {
    const Content content = Content::video(1000000, 3);
    const std::string id = account_.addItem("", video("v", content));
    SimOptions options;
    options.httpsPort = 0;
    serve(options);
    for (const Framing framing : {Framing::ContentLength, Framing::Chunked, Framing::Close}) {
        for (const bool https : {false, true}) {
            MediaDelivery how;
            how.https = https;
            how.framing = framing;
            sim_->setDelivery(how);
            Answer answer = get(sim_->mediaUrl(id, "Site MP4"));
            EXPECT_EQ(answer.header.find("Length: 1000000") != std::string::npos,
                      framing == Framing::ContentLength);
            if (framing == Framing::Chunked) {
                std::string joined;
                for (std::istringstream chunks(answer.body); chunks;) {
                    std::string size;
                    std::getline(chunks, size);
                    std::string chunk(std::stoul(size, nullptr, 16), '\0');
                    if (chunk.empty()) break;
                    chunks.read(chunk.data(), static_cast<std::streamsize>(chunk.size())).ignore(2);
                    joined += chunk;
                }
                answer.body = joined;
            }
            EXPECT_TRUE(answer.body == content.text());
        }
    }
    MediaDelivery how;
    how.redirects = 1;
    how.redirectStatus = 307;
    how.relativeLocations = true;
    how.redirectToHttps = true;
    sim_->setDelivery(how);
    const std::string url = sim_->mediaUrl(id, "Site MP4");
    const std::string path = url.substr(sim_->baseUrl().size());
    EXPECT_THAT(get(url).header,
                AllOf(StartsWith("HTTP/1.1 307"), HasSubstr("Location: " + path + "?hops=1")));
    EXPECT_THAT(get(url + "?hops=1").header,
                HasSubstr("Location: " + sim_->baseUrl(Scheme::Https) + path + "?hops=0\r\n"));
    EXPECT_TRUE(get(sim_->baseUrl(Scheme::Https) + path + "?hops=0").body == content.text());

    // Two requests in one go, over a connection that stays open for them.
    sim_->clearLog();
    Poco::Net::StreamSocket socket(Poco::Net::SocketAddress("127.0.0.1", sim_->port()));
    const std::string two = "GET /a HTTP/1.1\r\n\r\nHEAD " + path + "?hops=0 HTTP/1.0\r\n\r\n";
    socket.sendBytes(two.data(), static_cast<int>(two.size()));
    EXPECT_THAT(readAll(socket), AllOf(StartsWith("HTTP/1.1 404"), EndsWith("Connection: close\r\n\r\n")));
    EXPECT_EQ(sim_->counts().connections, 1u);
    EXPECT_EQ(sim_->log().size(), 2u);
}

TEST_F(Sim, MisbehavesAsTold) {
    const std::string id = account_.addItem("", photo("p", Content::bytes("0123456789")));
    serve();
    const std::string url = sim_->mediaUrl(id);
    const auto ms = std::chrono::milliseconds(1);
    const struct {
        const char* name;
        Action action;
        ::testing::Matcher<const std::string&> header;
        std::string body;
    } cases[] = {
        {"status", fault::status(429), StartsWith("HTTP/1.1 429 "),
         "<html><body><h1>429 Too Many Requests</h1></body></html>\n"},
        {"drop", fault::dropBeforeHeader(), IsEmpty(), ""},
        {"reset", fault::dropBeforeHeader(fault::Close::Reset), "RESET", ""},
        {"header", fault::dropInHeader(12), "HTTP/1.1 200", ""},
        {"cut", fault::dropInBody(4), HasSubstr("Content-Length: 10\r\n"), "0123"},
        {"short", fault::shortBody(1), HasSubstr("Content-Length: 10\r\n"), "012345678"},
        {"truncated", fault::truncated(3), HasSubstr("Content-Length: 3\r\n"), "012"},
        {"slow", fault::slow(3, ms), HasSubstr("Content-Length: 10\r\n"), "0123456789"},
        {"body", fault::body("<x"), HasSubstr("Content-Length: 2\r\n"), "<x"},
        {"malformed", fault::malformed(), StartsWith("HTTP/1.1 200 "), "01234"},
        {"no length", fault::contentLength({}), Not(HasSubstr("Length")), "0123456789"},
        {"two lengths", fault::contentLength({"-5", "6"}),
         HasSubstr("Content-Length: -5\r\nContent-Length: 6\r\n"), "0123456789"},
        {"self", fault::redirectToSelf(), HasSubstr("Location: " + url), "<html><body>Found</body></html>\n"},
        {"ever", fault::redirectForever(303), AllOf(StartsWith("HTTP/1.1 303"), HasSubstr("?turn=1")),
         "<html><body>See Other</body></html>\n"},
        {"raw", fault::raw(std::string("\0\r\n\r\nx", 6)), std::string("\0", 1), "x"},
        {"text", parseFault("kind=media,status=500,framing=chunked,cut=6").action, HasSubstr("chunked"),
         "6\r\n<html>\r\n"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        sim_->faults().clear();
        const std::size_t number = sim_->faults().add(media(id), always(), test.action);
        const Answer answer = get(url);
        EXPECT_THAT(answer.header, test.header);
        EXPECT_EQ(answer.body, test.body);
        EXPECT_EQ(sim_->faults().hits(number), 1u);
    }
    sim_->faults().clear();
    sim_->faults().add(media(), always(), fault::hugeHeader(1000000));
    EXPECT_GT(get(url).header.size(), 1000000u);

    const struct {
        const char* when;
        const char* pattern;  // x: struck
    } schedules[] = {{"nth=3", "..x..."},   {"from=2,count=2", ".xx..."}, {"every=2", "x.x.x."},
                     {"rate=0", "......"},  {"rate=1,count=1", "x....."}, {"item=other", "......"},
                     {"path=_o", "xxxxxx"}, {"kind=rest", "......"}};
    for (const auto& test : schedules) {
        sim_->faults().clear();
        sim_->faults().add(parseFault(std::string(test.when) + ",status=503"));
        sim_->clearLog();
        for (int i = 0; i < 6; ++i) get(url);
        std::string pattern;
        for (const Request& request : sim_->log()) pattern += request.status == 503 ? 'x' : '.';
        EXPECT_EQ(pattern, test.pattern) << test.when;
    }
    for (const char* bad :
         {"", "status", "kind=film,status=1", "rate=2,status=1", "slow=5", "status=x", "odd=1", "nth=1"}) {
        EXPECT_THROW(parseFault(bad), Poco::SyntaxException) << bad;
    }
}

TEST_F(Sim, EndsWhateverItIsDoing) {
    const std::string id = account_.addItem("", video("v", Content::pattern(1ull << 40, 1)));
    serve();
    Poco::Net::StreamSocket unread(Poco::Net::SocketAddress("127.0.0.1", sim_->port()));
    Poco::Net::StreamSocket slow(unread.peerAddress());
    Poco::Net::StreamSocket silent(unread.peerAddress());
    const std::string get = "GET " + sim_->mediaUrl(id, "Site MP4");
    sim_->faults().add({std::nullopt, "", "", "?slow", nullptr}, always(),
                       fault::slow(1, std::chrono::hours(1)));
    for (auto [socket, rest] :
         {std::pair{&unread, " HTTP/1.1\r\n\r\n"}, std::pair{&slow, "?slow HTTP/1.1\r\n\r\n"}}) {
        const std::string request = get + rest;
        socket->sendBytes(request.data(), static_cast<int>(request.size()));
    }
    while (sim_->counts().connections < 2) std::this_thread::yield();
    sim_.reset();  // returns, or the test runs into its limit
    EXPECT_THROW(Poco::Net::StreamSocket{slow.peerAddress()}, Poco::Net::ConnectionRefusedException);
}

TEST(Content, HoldsWhatItSays) {
    const TestFolder folder;
    const std::string file = folder.path() / "content";
    const std::uint64_t odd = 3 * 65536 + 4242;
    for (const Content& content :
         {Content::pattern(odd, 5), Content::video(odd, 5), Content::video(0, 5), Content::bytes(""),
          Content::picture(3, 64, 48, "mark", 66000), Content::picture(3, 64, 48, "mark", 140001)}) {
        const std::string text = content.text();
        ASSERT_EQ(text.size(), content.size());
        std::ofstream(file, std::ios::binary) << text;
        EXPECT_TRUE(content.equalsFile(file));
        EXPECT_TRUE(Content::file(file).text() == text);
        std::ofstream(file, std::ios::binary) << text << 'x';
        EXPECT_FALSE(content.equalsFile(file));
    }
    EXPECT_EQ(Content::picture(3, 64, 48, "mark", 140001).size(), 140001u);
    const std::string pattern = Content::pattern(9 * 65536, 5).text();
    for (unsigned block = 1; block < 9; ++block) {
        EXPECT_NE(pattern.substr(0, 65536), pattern.substr(block * 65536u, 65536)) << block;
    }
    EXPECT_THAT(Content::video(100, 1).text(), HasSubstr("ftypisom"));
}

TEST(Sources, AreStableAndComplete) {
    Account first;
    Account second;
    Generation generation;
    generation.sets = 2;
    generation.itemsPerSet = 30;
    generation.videos = 3;
    for (Account* account : {&first, &second}) generate(*account, generation);
    EXPECT_EQ(first.sets()[0].photos, 28u);
    EXPECT_EQ(first.sets()[1].videos, 1u);
    std::set<std::string> contents;
    for (const Account::Set& set : first.sets()) {
        for (const Account::ItemPtr& item : first.items(set.id)) {
            EXPECT_TRUE(second.item(item->id)->content.text() == item->content.text());
            EXPECT_EQ(item->content.size(), item->isVideo ? 200000u : 20000u);
            contents.insert(item->content.text());
        }
    }
    EXPECT_EQ(contents.size(), 60u) << "each item's bytes are its own";

    const TestFolder folder;
    const std::filesystem::path& root = folder.path();
    std::filesystem::create_directories(root / "Trip" / "deeper");
    const std::string jpeg = Content::picture(1, 800, 400, "x").text();
    for (const auto& name :
         {"Trip/a.JPG", "Trip/deeper/b.mov", "bad\xFFname.png", "notes.txt", ".hidden.jpg"}) {
        std::ofstream(root / name, std::ios::binary) << jpeg;
    }
    Account files;
    addFolder(files, root.string());
    ASSERT_EQ(files.sets().size(), 1u);
    const auto trip = files.items(files.sets()[0].id);
    ASSERT_EQ(trip.size(), 2u);
    EXPECT_EQ(trip[0]->title, "a");
    EXPECT_EQ(trip[0]->width, 800);
    EXPECT_TRUE(contentOf(*trip[0], "Original").text() == jpeg);
    const Content small = contentOf(*trip[0], "Thumbnail");
    EXPECT_THAT(small.text(), AllOf(StartsWith("\xFF\xD8"), EndsWith("\xFF\xD9")));
    std::ofstream(root / "notes.txt", std::ios::binary) << small.text();
    int width = 0;
    int height = 0;
    EXPECT_TRUE(measureJpeg((root / "notes.txt").string(), width, height));
    EXPECT_EQ(std::make_pair(width, height), std::make_pair(100, 50));
    EXPECT_TRUE(trip[1]->isVideo);
    const auto loose = files.items("");
    ASSERT_EQ(loose.size(), 1u);
    EXPECT_EQ(loose[0]->title, "bad\xEF\xBF\xBDname");
    EXPECT_THROW(addFolder(files, root.string() + "/none"), Poco::Exception);
}

}  // namespace
}  // namespace flickr_sim
