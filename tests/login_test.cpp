// The program flickr-backup against the service as it is today: signing in, backing up, signing out.

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/URI.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/FlickrSim.h"
#include "sim/TodayApi.h"
#include "tests/TestFolder.h"

namespace fs = std::filesystem;
using namespace flickr_sim;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

/// A proxy that leads wherever it is asked to.
class Proxy {
public:
    Proxy() : listening_(std::async(std::launch::async, [this] { listen(); })) {}
    ~Proxy() { stopping_ = true; }  // the futures wait for their ends

    std::string address() const { return "http://" + socket_.address().toString(); }
    int connections() const { return connections_; }

private:
    using Socket = Poco::Net::StreamSocket;

    void listen() {
        std::vector<std::future<void>> passing;
        while (!stopping_) {
            if (!socket_.poll(Poco::Timespan(0, 50000), Socket::SELECT_READ)) continue;
            passing.push_back(std::async(std::launch::async,
                                         [this, client = socket_.acceptConnection()] { pass(client); }));
        }
    }

    void pass(Socket client) {
        std::string head;
        for (char c; head.find("\r\n\r\n") == std::string::npos && client.receiveBytes(&c, 1) == 1;)
            head += c;
        if (head.compare(0, 8, "CONNECT ") != 0) return;
        Socket server(Poco::Net::SocketAddress(head.substr(8, head.find(' ', 8) - 8)));
        ++connections_;
        const std::string answer = "HTTP/1.1 200 OK\r\n\r\n";
        client.sendBytes(answer.data(), static_cast<int>(answer.size()));
        const auto forward = [](Socket& from, Socket& to) {
            char bytes[4096];
            if (!from.poll(Poco::Timespan(0, 1000), Socket::SELECT_READ)) return true;
            const int size = from.receiveBytes(bytes, sizeof bytes);
            return size > 0 && to.sendBytes(bytes, size) == size;
        };
        while (!stopping_ && forward(client, server) && forward(server, client)) {
        }
    }

    Poco::Net::ServerSocket socket_{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::atomic<int> connections_{0};
    std::atomic<bool> stopping_{false};
    std::future<void> listening_;
};

class LoginTest : public testing::Test {
protected:
    LoginTest() {
        fs::copy(fs::path(FLICKR_BACKUP_PROGRAM).parent_path(), folder_ + "/flickr-backup.app",
                 fs::copy_options::recursive);
        fs::remove(folder_ + "/flickr-backup.app/Resources/Plugins/Flickr_plugin_config.xml");
        fs::create_directory(folder_ + "/device");
        sim_ = std::make_unique<FlickrSim>(account_, today());
        std::ofstream(folder_ + "/ca.pem") << sim_->authorityPem();
        fs::create_directories(folder_ + "/config/flickr-backup");
        write("api_key = " + sim_->credentials().apiKey + "\n# mine\napi_secret = " +
              sim_->credentials().apiSecret + "\nservice = " + sim_->serviceUrl() + "\n");
    }

    static SimOptions today() {
        SimOptions options;
        options.today.emplace();
        options.credentials.userName = "Sim\nservice = https://127.0.0.1:1\nOwner\xc2\x9b";
        return options;
    }

    /// As a person's browser goes back to the program.
    static std::string visit(const Poco::URI& back, const std::string& target) {
        Poco::Net::HTTPClientSession session(back.getHost(), back.getPort());
        Poco::Net::HTTPRequest request("GET", target, "HTTP/1.1");
        session.sendRequest(request);
        Poco::Net::HTTPResponse response;
        std::istream& body = session.receiveResponse(response);
        return std::to_string(response.getStatus()) + std::string(std::istreambuf_iterator<char>(body), {});
    }

    std::string file() const { return folder_ + "/config/flickr-backup/credentials"; }
    void write(const std::string& text) {
        std::ofstream(file()) << text;
        ::chmod(file().c_str(), 0600);
    }

    /// Its exit status; out() and err() are what it wrote.
    int command(const std::string& arguments, const std::string& input = "/dev/null",
                const std::string& program = "flickr-backup.app/flickr-backup ") {
        const std::string line =
            "cd " + folder_ + " && env -u DISPLAY -u WAYLAND_DISPLAY XDG_CONFIG_HOME=" + folder_ +
            "/config XDG_STATE_HOME=" + folder_ + "/state LSAN_OPTIONS=print_suppressions=0 " + program +
            arguments + " <" + input + " >out 2>err";
        return WEXITSTATUS(std::system(line.c_str()));
    }
    std::string out() const { return readFile(folder_ + "/out"); }
    std::string err() const { return readFile(folder_ + "/err"); }

    /// As the user's state has them for the hour.
    std::size_t callsCounted() const {
        std::size_t sum = 0;
        for (const auto& entry : fs::directory_iterator(folder_ + "/state/flickr-backup")) {
            if (entry.path().filename().string().find("requests-") != 0) continue;
            std::ifstream file(entry.path());
            std::string next, minute, count;
            for (file >> next >> count; file >> minute >> count;) sum += std::stoul(count);
        }
        return sum;
    }

    void waitFor(const std::string& text) const {
        while (out().find(text) == std::string::npos) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    /// The token in the address that the program has printed.
    std::string waitForToken() const {
        waitFor("&perms=read");
        const std::string text = out();
        const std::size_t start = text.find("oauth_token=") + 12;
        return text.substr(start, text.find('&', start) - start);
    }

    const TestFolder temporary_;
    const std::string folder_ = temporary_.path();
    Account account_;
    std::unique_ptr<FlickrSim> sim_;
};

TEST_F(LoginTest, SignsInBacksUpAndSignsOut) {
    EXPECT_EQ(command("run --device device"), 3);
    EXPECT_THAT(err(), HasSubstr("run \"flickr-backup login\""));

    // By the code that the service shows, once it is known whom to trust.
    EXPECT_EQ(command("login --no-browser"), 3);
    EXPECT_THAT(err(), HasSubstr("certificate"));
    ASSERT_EQ(::mkfifo((folder_ + "/typed").c_str(), 0600), 0);
    auto login = std::async(std::launch::async,
                            [&] { return command("login --no-browser --ca ca.pem", folder_ + "/typed"); });
    {
        std::ofstream typed(folder_ + "/typed");
        typed << sim_->today().oauth().decide(waitForToken(), OAuthProvider::Answer::Allow) << std::endl;
    }
    EXPECT_EQ(login.get(), 0) << err();
    EXPECT_THAT(out(), HasSubstr("Signed in as Sim?service = https://127.0.0.1:1?Owner? (12345678@N00)"));
    EXPECT_THAT(readFile(file()), HasSubstr("user_name = Sim service = https://127.0.0.1:1 Owner"))
        << "no line of the service's own";
    EXPECT_THAT(readFile(file()), AllOf(HasSubstr("# mine\n"), HasSubstr("ca = " + folder_ + "/ca.pem"),
                                        HasSubstr("service = https://"), HasSubstr("token_secret = "),
                                        HasSubstr("user_id = " + sim_->credentials().userId)));
    EXPECT_EQ(fs::status(file()).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    const std::string set = account_.addSet("Tom & Jerry");
    for (const char* title : {"a", "b"}) account_.addItem(set, photo(title));
    account_.addItem("", video("v"));
    EXPECT_EQ(command("run --device device"), 0) << out() << err();
    const std::string service = folder_ + "/device/Brightkettle/My Flickr Items/";
    EXPECT_TRUE(fs::is_regular_file(service + "Tom & Jerry/b.jpg"));
    EXPECT_EQ(readFile(service + "v.mp4"), contentOf(*account_.items("")[0], "Video Original").text());
    EXPECT_THAT(readFile(service + ".records/.account"), HasSubstr(sim_->credentials().userId + " "));
    EXPECT_FALSE(fs::exists(folder_ + "/flickr-backup.app/Resources/Plugins/Flickr_plugin_config.xml"))
        << "nothing is configured";
    sim_->clearLog();
    EXPECT_EQ(command("run --device device --json"), 0) << out() << err();
    EXPECT_THAT(out(), HasSubstr("\"unchanged\":3"));
    EXPECT_EQ(sim_->counts().rest, 4u) << "sets, a page, and two of the items in no set";
    EXPECT_EQ(command("verify --device device"), 0) << out() << err();

    // Two at once share the hour's calls, and one of them goes through a proxy.
    fs::create_directory(folder_ + "/second");
    sim_->clearLog();
    const std::size_t before = callsCounted();
    const Proxy proxy;
    ::setenv("https_proxy", proxy.address().c_str(), 1);
    auto second = std::async(std::launch::async, [&] { return command("run --device second"); });
    while (proxy.connections() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ::unsetenv("https_proxy");
    EXPECT_EQ(command("run --device device"), 0) << out() << err();
    EXPECT_EQ(second.get(), 0) << out() << err();
    EXPECT_EQ(callsCounted() - before, sim_->counts().rest);
    EXPECT_EQ(readFile(folder_ + "/second/Brightkettle/My Flickr Items/Tom & Jerry/b.jpg"),
              readFile(service + "Tom & Jerry/b.jpg"));

    // What a power cut has left of the account's name tells nothing.
    for (const std::string& left : {std::string(), std::string(30, '\0'), std::string("123")}) {
        std::ofstream(service + ".records/.account") << left;
        EXPECT_EQ(command("run --device device"), 0) << err();
        EXPECT_THAT(readFile(service + ".records/.account"), HasSubstr(sim_->credentials().userId + " "));
    }

    // Problems are told in the service's words.
    sim_->faults().add(parseFault("kind=rest,error=105"));
    EXPECT_EQ(command("configure --check"), 3);
    EXPECT_THAT(err(), HasSubstr("error 105"));
    EXPECT_EQ(command("run --device device"), 3);
    EXPECT_THAT(out(), HasSubstr("error 105"));
    sim_->faults().clear();

    // Another authority than the file's.
    std::ofstream(folder_ + "/other.pem") << FlickrSim(account_, today()).authorityPem();
    EXPECT_EQ(command("run --device device --ca other.pem"), 3);
    EXPECT_THAT(out(), HasSubstr("certificate"));

    // Another account is not mixed with this one.
    const std::string mine = readFile(file());
    std::string other = mine;
    other.replace(other.find(sim_->credentials().userId), sim_->credentials().userId.size(), "99@N01");
    write(other);
    EXPECT_EQ(command("configure --check --retries 2"), 0) << err();
    EXPECT_THAT(out(), HasSubstr("accepts the sign-in of Sim?service"));
    EXPECT_EQ(command("run --device device"), 3);
    EXPECT_THAT(err(), AllOf(HasSubstr("of the account " + sim_->credentials().userId), HasSubstr("99@N01")));
    write(mine);

    EXPECT_EQ(command("logout"), 0);
    EXPECT_THAT(readFile(file()),
                AllOf(HasSubstr("api_secret"), HasSubstr("# mine"), Not(HasSubstr("token"))));
    EXPECT_EQ(command("run --device device"), 3);
    EXPECT_THAT(err(), HasSubstr("flickr-backup login"));

    // By the page to which the service sends the user back.
    login = std::async(std::launch::async, [&] { return command("login"); });
    const Poco::URI back(sim_->today().oauth().decide(waitForToken(), OAuthProvider::Answer::Allow));
    EXPECT_EQ(visit(back, "/?" + back.getRawQuery()), "404") << "a stranger who does not know the address";
    EXPECT_EQ(visit(back, back.getPath() + "?oauth_token=x&oauth_verifier=1"), "404");
    EXPECT_THAT(visit(back, back.getPathAndQuery()), HasSubstr("You are signed in"));
    EXPECT_EQ(login.get(), 0) << err();
    EXPECT_EQ(command("run --device device"), 0) << out() << err();

    // With nothing but a terminal: key and secret are asked for, and the secret does not show.
    const std::string& key = sim_->credentials().apiKey;
    const std::string& secret = sim_->credentials().apiSecret;
    write("service = " + sim_->serviceUrl() + "\nca = " + folder_ + "/ca.pem\n");
    login = std::async(std::launch::async, [&] {
        return command("'flickr-backup.app/flickr-backup login --no-browser' /dev/null", folder_ + "/typed",
                       "script -qec ");
    });
    {
        std::ofstream typed(folder_ + "/typed");
        waitFor("Key: ");
        typed << key << std::endl;
        waitFor("Secret: ");
        typed << secret << std::endl;
        typed << sim_->today().oauth().decide(waitForToken(), OAuthProvider::Answer::Allow) << std::endl;
        EXPECT_EQ(login.get(), 0) << out();
    }
    EXPECT_THAT(out(), AllOf(HasSubstr(key), HasSubstr("Signed in as"), Not(HasSubstr(secret))));
    EXPECT_THAT(readFile(file()), AllOf(HasSubstr("api_key = " + key), HasSubstr("api_secret = " + secret)));
}

TEST_F(LoginTest, SaysWhatToDoWhenTheUserHasRefused) {
    write(readFile(file()) + "ca = " + folder_ + "/ca.pem\n");
    const std::string before = readFile(file());
    auto login = std::async(std::launch::async, [&] { return command("login"); });
    const Poco::URI back(sim_->today().oauth().decide(waitForToken(), OAuthProvider::Answer::Deny));
    EXPECT_THAT(visit(back, back.getPathAndQuery()), HasSubstr("You are not signed in"));
    EXPECT_EQ(login.get(), 3);
    EXPECT_THAT(err(), AllOf(HasSubstr("not allowed"), HasSubstr("run \"flickr-backup login\" again")));
    EXPECT_EQ(readFile(file()), before);
}

TEST_F(LoginTest, TiesADeviceToTheAccountBeforeItsFirstRunHasEnded) {
    const Credentials& known = sim_->credentials();
    const std::string account = folder_ + "/device/Brightkettle/My Flickr Items/.records/.account";
    write(readFile(file()) + "ca = " + folder_ + "/ca.pem\ntoken = " + known.token +
          "\ntoken_secret = " + known.tokenSecret + "\nuser_id = " + known.userId + "\nfuture = 1\r\n");
    account_.addItem("", photo("p"));
    std::atomic<bool> goesOn{false};
    sim_->faults().add(media(), always(), [&](const Request&, Reply&) {
        while (!goesOn) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    });
    auto run = std::async(std::launch::async, [&] { return command("run --device device"); });
    for (int i = 0; i < 3000 && readFile(account).find(known.userId) == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_THAT(readFile(account), HasSubstr(known.userId));
    goesOn = true;
    EXPECT_EQ(run.get(), 0) << out() << err();
}

}  // namespace
