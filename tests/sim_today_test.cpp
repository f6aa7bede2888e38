// The simulated service as it is today, over real connections: signatures, sign-in, lists, limits and media.

#include <Poco/InflatingStream.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SSLException.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "sim/FlickrSim.h"
#include "sim/OAuthSignature.h"
#include "tests/TestFolder.h"

namespace flickr_sim {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

struct Answer {
    int status = 0;
    std::map<std::string, std::string> headers;
    std::string body;
};

class SimToday : public ::testing::Test {
protected:
    using Parameters = std::map<std::string, std::string>;

    void serve(TodayOptions today = {}) {
        SimOptions options;
        options.today = today;
        sim_ = std::make_unique<FlickrSim>(account_, options);
        std::ofstream(authority_, std::ios::trunc) << sim_->authorityPem();
        trust_ = new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, authority_,
                                        Poco::Net::Context::VERIFY_STRICT);
        session_ = std::make_unique<Poco::Net::HTTPSClientSession>("127.0.0.1", sim_->httpsPort(), trust_);
        session_->setKeepAlive(true);
    }

    /// Over one connection that trusts the service's authority only.
    Answer get(const std::string& url, const Headers& headers = {}) {
        Poco::Net::HTTPRequest request("GET", Poco::URI(url).getPathAndQuery(), "HTTP/1.1");
        for (const auto& header : headers) request.set(header.first, header.second);
        session_->sendRequest(request);
        return receive(*session_);
    }

    Answer getPlain(const std::string& pathAndQuery) {
        Poco::Net::HTTPClientSession session("127.0.0.1", sim_->port());
        Poco::Net::HTTPRequest request("GET", pathAndQuery, "HTTP/1.1");
        session.sendRequest(request);
        return receive(session);
    }

    void order(const std::string& text) {
        EXPECT_EQ(getPlain("/sim/" + text + "&word=" + sim_->orderWord()).status, 200) << text;
    }

    /// A signed call.
    Answer call(const std::string& method, Parameters parameters = {}, const Headers& headers = {}) {
        static int nonce = 0;
        const Credentials& known = sim_->credentials();
        parameters.insert({{"method", method},
                           {"oauth_consumer_key", known.apiKey},
                           {"oauth_token", known.token},
                           {"oauth_signature_method", "HMAC-SHA1"},
                           {"oauth_timestamp", std::to_string(std::time(nullptr))},
                           {"oauth_nonce", std::to_string(++nonce)}});
        std::string query = "?";
        for (const auto& [name, value] : parameters) query += name + '=' + oauthEncode(value) + '&';
        const std::string path = "/services/rest/" + query;
        Request request;
        request.https = true;
        const std::string host = "127.0.0.1:" + std::to_string(sim_->httpsPort());
        EXPECT_TRUE(parseRequest("GET " + path + " HTTP/1.1\r\nHost: " + host, request));
        const std::string signature =
            oauthSignature(OAuthParameters(request).baseString(request), known.apiSecret, known.tokenSecret);
        return get(sim_->serviceUrl() + path + "oauth_signature=" + oauthEncode(signature), headers);
    }

    Account account_;
    const TestFolder folder_;
    const std::string authority_ = folder_.path() / "authority.pem";
    std::unique_ptr<FlickrSim> sim_;
    Poco::Net::Context::Ptr trust_;
    std::unique_ptr<Poco::Net::HTTPSClientSession> session_;

private:
    static Answer receive(Poco::Net::HTTPClientSession& session) {
        Poco::Net::HTTPResponse response;
        Answer answer;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), answer.body);
        answer.status = response.getStatus();
        for (const auto& header : response) answer.headers[header.first] = header.second;
        return answer;
    }
};

unsigned countOf(const std::string& text, const std::string& part) {
    unsigned count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
    return count;
}

// The examples of RFC 5849, sections 3.4.1.1 and 1.2.
TEST(OAuthSignature, IsThatOfTheStandard) {
    Request request;
    ASSERT_TRUE(
        parseRequest("POST /request?b5=%3D%253D&a3=a&c%40=&a2=r%20b HTTP/1.1\nHost: EXAMPLE.com:80\n"
                     "Content-Type: application/x-www-form-urlencoded\n"
                     "Authorization: OAuth realm=\"Example\", oauth_consumer_key=\"9djdj82h48djs9d2\", "
                     "oauth_token=\"kkk9d7dh3k39sjv7\",oauth_signature_method=\"HMAC-SHA1\", "
                     "oauth_timestamp=\"137131201\", "
                     "oauth_nonce=\"7d8f3e4a\", oauth_signature=\"bYT5CMsGcbgUdFHObYMEfcx6bsw%3D\"",
                     request));
    request.body = "c2&a3=2+q";
    EXPECT_EQ(
        OAuthParameters(request).baseString(request),
        "POST&http%3A%2F%2Fexample.com%2Frequest&a2%3Dr%2520b%26a3%3D2%2520q%26a3%3Da%26b5%3D%253D%25253D"
        "%26c%2540%3D%26c2%3D%26oauth_consumer_key%3D9djdj82h48djs9d2%26oauth_nonce%3D7d8f3e4a%26"
        "oauth_signature_method%3DHMAC-SHA1%26oauth_timestamp%3D137131201%26oauth_token%3D"
        "kkk9d7dh3k39sjv7");
    Request photo;
    ASSERT_TRUE(parseRequest(
        "GET /photos?file=vacation.jpg&size=original HTTP/1.1\nHost: photos.example.net\nAuthorization: "
        "OAuth "
        "realm=\"Photos\", oauth_consumer_key=\"dpf43f3p2l4k3l03\", oauth_token=\"nnch734d00sl2jdk\", "
        "oauth_signature_method=\"HMAC-SHA1\", oauth_timestamp=\"137131202\", oauth_nonce=\"chapoH\", "
        "oauth_signature=\"MdpQcU8iPSUjWoN%2FUDMsK2sui9I%3D\"",
        photo));
    const OAuthParameters given(photo);
    EXPECT_EQ(oauthSignature(given.baseString(photo), "kd94hf93k423kf44", "pfkkdhi9sl3r4s00"),
              given.value("oauth_signature"));
}

TEST_F(SimToday, AcceptsAndRefusesTheSignaturesOfAnotherImplementation) {
    serve();
    const Credentials& known = sim_->credentials();
    const std::string command = std::string("/usr/bin/python3 ") + SIM_TODAY_OAUTH + ' ' +
                                sim_->serviceUrl() + ' ' + authority_ + ' ' + known.apiKey + ' ' +
                                known.apiSecret + ' ' + known.token + ' ' + known.tokenSecret;
    EXPECT_EQ(std::system(command.c_str()), 0);
    EXPECT_GT(sim_->counts().oauth, 0u);
    // A clock that is off, and tokens that are no longer good.
    order("clock?offset=-3600");
    EXPECT_THAT(call("flickr.test.login").body, StartsWith("oauth_problem=timestamp_refused"));
    sim_->today().oauth().setClockOffset(0);
    EXPECT_THAT(call("flickr.test.login").body, HasSubstr("<username>Sim Owner</username>"));
    order("expire-tokens?");
    EXPECT_THAT(call("flickr.test.login").body, HasSubstr("code=\"98\""));
}

TEST_F(SimToday, AnswersOverHttpsOnlyAndToThoseWhoTrustIt) {
    const std::string id = account_.addItem("", photo("p"));
    serve();
    EXPECT_THAT(getPlain("/services/rest/?method=flickr.test.login").body, HasSubstr("code=\"95\""));
    EXPECT_EQ(getPlain("/services/oauth/request_token").status, 403);
    EXPECT_EQ(getPlain(Poco::URI(sim_->mediaUrl(id)).getPath()).status, 403);
    sim_->clearLog();
    EXPECT_EQ(get(sim_->mediaUrl(id)).body, account_.item(id)->content.text());
    EXPECT_THAT(call("flickr.test.login").body, HasSubstr("stat=\"ok\""));
    EXPECT_EQ(sim_->counts().connections, 1u) << "it stays open";

    Account others;
    SimOptions options;
    options.today.emplace();
    FlickrSim stranger(others, options);
    Poco::Net::HTTPSClientSession session("127.0.0.1", stranger.httpsPort(), trust_);
    Poco::Net::HTTPRequest request("GET", "/");
    EXPECT_THROW(session.sendRequest(request), Poco::Net::SSLException);
}

TEST_F(SimToday, ListsWithTodaysExtrasAndLabels) {
    const std::string set = account_.addSet("S");
    Item large = photo("p");
    large.width = 7000;
    large.height = 3500;
    const std::string id = account_.addItem(set, large);
    const std::string film = account_.addItem(set, video("v"));
    for (int i = 0; i < 600; ++i) account_.addItem("", photo("l"));
    serve();
    const Parameters ask = {
        {"photoset_id", set}, {"user_id", kOwner}, {"extras", "url_k,url_6k,url_o,o_dims"}};
    const std::string list = call("flickr.photosets.getPhotos", ask).body;
    EXPECT_THAT(list, AllOf(HasSubstr("url_k=\"" + sim_->mediaUrl(id, "Large 2048") + "\" height_k=\"1024\""),
                            HasSubstr("width_6k=\"6144\""), HasSubstr("o_width=\"7000\"")));
    EXPECT_EQ(countOf(list, " url_o="), 1u) << "of the photo, not of the video";
    EXPECT_THAT(call("flickr.photosets.getPhotos", {{"photoset_id", set}}).body, HasSubstr("code=\"2\""));
    EXPECT_EQ(countOf(call("flickr.photos.getNotInSet", {{"per_page", "900"}}).body, "<photo "), 500u);
    EXPECT_EQ(countOf(call("flickr.photos.getNotInSet", {{"page", "2"}}).body, "<photo "), 100u);
    EXPECT_THAT(call("flickr.photosets.getList", {{"page", "2"}, {"per_page", "1"}}).body,
                HasSubstr("page=\"2\" pages=\"1\" perpage=\"1\" total=\"1\""));

    const std::string sizes = call("flickr.photos.getSizes", {{"photo_id", id}}).body;
    for (const char* label : {"Small 400", "Large 1600", "X-Large 5K", "Original"}) {
        EXPECT_THAT(sizes, HasSubstr(std::string("label=\"") + label + "\""));
    }
    const std::string films = call("flickr.photos.getSizes", {{"photo_id", film}}).body;
    for (const char* label : {"Video Player", "Video Original", "1080p", "HD MP4", "iphone_wifi", "orig"}) {
        EXPECT_THAT(films, HasSubstr(std::string("label=\"") + label + "\""));
    }
    const Answer packed = call("flickr.photosets.getPhotos", ask, {{"Accept-Encoding", "deflate, gzip"}});
    EXPECT_EQ(packed.headers.at("Content-Encoding"), "gzip");
    std::istringstream stream(packed.body);
    Poco::InflatingInputStream inflating(stream, Poco::InflatingStreamBuf::STREAM_GZIP);
    std::string unpacked;
    Poco::StreamCopier::copyToString(inflating, unpacked);
    EXPECT_EQ(unpacked, list);

    // A list that changes between two pages.
    order("before-page?page=2&order=delete%3Fid%3D" + account_.items("")[0]->id);
    EXPECT_THAT(call("flickr.photos.getNotInSet", {{"page", "1"}}).body, HasSubstr("total=\"600\""));
    EXPECT_THAT(call("flickr.photos.getNotInSet", {{"page", "2"}}).body, HasSubstr("total=\"599\""));

    TodayOptions other;
    other.originalsInLists = false;
    serve(other);
    EXPECT_THAT(call("flickr.photosets.getPhotos", ask).body,
                AllOf(HasSubstr("url_k"), Not(HasSubstr("url_o"))));
    EXPECT_THAT(call("flickr.photos.getSizes", {{"photo_id", id}}).body, HasSubstr("\"Original\""));
    other.originals = false;
    serve(other);
    EXPECT_THAT(call("flickr.photos.getSizes", {{"photo_id", id}}).body, Not(HasSubstr("\"Original\"")));
}

TEST_F(SimToday, LimitsRequests) {
    const std::string id = account_.addItem("", photo("p"));
    TodayOptions options;
    options.lists = {2, std::chrono::seconds(3600)};
    serve(options);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(call("flickr.test.login").status, 200);
    const Answer refused = call("flickr.test.login");
    EXPECT_EQ(refused.status, 429);
    EXPECT_EQ(refused.headers.at("Retry-After"), "3600");
    EXPECT_EQ(get(sim_->mediaUrl(id)).status, 200);
    order("limits?media=1&window=50&retry-after=0");
    EXPECT_EQ(call("flickr.test.login").status, 200);
    EXPECT_EQ(get(sim_->mediaUrl(id, "Thumbnail")).status, 200);
    EXPECT_THAT(get(sim_->mediaUrl(id)).headers, Not(::testing::Contains(::testing::Key("Retry-After"))));
    EXPECT_EQ(sim_->counts().refused, 2u);
    order("limits?list=0&media=0");
    order("fault?spec=status%3D429,retry-after%3D7,for%3D1000");
    EXPECT_EQ(get(sim_->serviceUrl() + "/services/oauth/request_token").headers.at("Retry-After"), "7");
    sim_->faults().clear();
    order("fault?spec=status%3D429,for%3D0");
    EXPECT_EQ(call("flickr.test.login").status, 200);
}

TEST_F(SimToday, GivesPartsOfFiles) {
    const std::string id = account_.addItem("", photo("p", Content::bytes("0123456789")));
    serve();
    const std::string url = sim_->mediaUrl(id);
    const Answer whole = get(url);
    const std::string tag = whole.headers.at("ETag");
    const std::string date = whole.headers.at("Last-Modified");
    const struct {
        const char* range;
        std::string condition;
        int status;
        const char* body;
        const char* contentRange;
    } cases[] = {
        {"bytes=4-", tag, 206, "456789", "bytes 4-9/10"},
        {"bytes=4-6", date, 206, "456", "bytes 4-6/10"},
        {"bytes=8-99", "", 206, "89", "bytes 8-9/10"},
        {"bytes=-3", "", 206, "789", "bytes 7-9/10"},
        {"bytes=-99", "", 206, "0123456789", "bytes 0-9/10"},
        {"bytes=10-", "", 416, "", "bytes */10"},
        {"bytes=4-", "\"other\"", 200, "0123456789", ""},
        {"bytes=1-2,4-5", "", 200, "0123456789", ""},
        {"bytes=5-4", "", 200, "0123456789", ""},
        {"lines=1-", "", 200, "0123456789", ""},
    };
    for (const auto& test : cases) {
        Headers headers = {{"Range", test.range}};
        if (!test.condition.empty()) headers.emplace_back("If-Range", test.condition);
        Answer answer = get(url, headers);
        EXPECT_EQ(answer.status, test.status) << test.range;
        EXPECT_EQ(answer.body, test.body) << test.range;
        EXPECT_EQ(answer.headers["Content-Range"], test.contentRange) << test.range;
    }
    EXPECT_EQ(sim_->counts().parts, 5u);
    sim_->faults().add(parseFault("ignore-range=1"));
    EXPECT_EQ(get(url, {{"Range", "bytes=4-"}}).body, "0123456789");
    account_.edit(id, Content::bytes("abcdefghij"), 1700000001);
    EXPECT_NE(get(url).headers.at("ETag"), tag);

    // Across the blocks in which a large file is made; a video's address leads to another one first.
    const Content large = Content::video(1000000, 3);
    const std::string film = account_.addItem("", video("v", large));
    sim_->faults().clear();
    const Answer first = get(sim_->mediaUrl(film, "1080p"));
    ASSERT_EQ(first.status, 302);
    const Answer part = get(first.headers.at("Location"), {{"Range", "bytes=300000-700000"}});
    EXPECT_TRUE(part.body == large.text().substr(300000, 400001));
}

}  // namespace
}  // namespace flickr_sim
