// The program flickr-backup as a user starts it, against the simulated service.

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim/FlickrSim.h"
#include "tests/TestFolder.h"

namespace fs = std::filesystem;
using namespace flickr_sim;
using testing::HasSubstr;
using testing::Not;

namespace {

/// A copy of the application folder, a device, an account and the service.
class CommandTest : public testing::Test {
protected:
    CommandTest() {
        const fs::path app = fs::path(FLICKR_BACKUP_PROGRAM).parent_path();
        fs::copy(app, folder_ + "/flickr-backup.app", fs::copy_options::recursive);
        fs::remove(formerConfiguration());
        fs::create_directory(folder_ + "/bin");
        fs::create_symlink("../flickr-backup.app/flickr-backup", folder_ + "/bin/flickr-backup");
        fs::create_directory(device());
        sim_ = std::make_unique<FlickrSim>(account_);
        writeCredentials(sim_->credentials().apiKey);
    }

    std::string device() const { return folder_ + "/device"; }
    std::string service() const { return device() + "/Brightkettle/My Flickr Items"; }
    std::string credentials() const { return folder_ + "/flickr.ini"; }
    std::string formerConfiguration() const {
        return folder_ + "/flickr-backup.app/Resources/Plugins/Flickr_plugin_config.xml";
    }
    std::string configuration(const std::string& profile = "") const {
        return folder_ + "/config/flickr-backup/" + profile + "Flickr_plugin_config.xml";
    }
    std::string log() const { return readFile(folder_ + "/state/flickr-backup/NVHLDevLog.log"); }

    void writeCredentials(const std::string& key) {
        const Credentials accepted = sim_->credentials();
        std::ofstream(credentials()) << "api_key = " << key << "\napi_secret = " << accepted.apiSecret
                                     << "\ntoken = " << accepted.token << "\n";
        ::chmod(credentials().c_str(), 0600);
    }

    /// Starts the program, by its link in bin.
    pid_t start(std::vector<std::string> arguments, const std::string& tag = "") {
        arguments.insert(arguments.begin(), "flickr-backup");
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        const std::string program = folder_ + "/bin/flickr-backup", out = folder_ + "/out" + tag,
                          err = folder_ + "/err" + tag;
        const pid_t child = ::fork();
        if (child == 0) {
            ::setenv("XDG_CONFIG_HOME", (folder_ + "/config").c_str(), 1);
            ::setenv("XDG_STATE_HOME", (folder_ + "/state").c_str(), 1);
            ::setenv("LSAN_OPTIONS", "print_suppressions=0", 0);  // keeps a sanitizer's list off the output
            ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
            ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
            ::execv(program.c_str(), argv.data());
            ::_exit(127);
        }
        return child;
    }

    /// Starts a run, and has the preloaded library strike calls on the device: its settings without FAULT_.
    pid_t startWithFault(const std::vector<std::pair<std::string, std::string>>& settings) {
        ::setenv("LD_PRELOAD", FAULTFS, 1);
        ::setenv("FAULT_UNDER", device().c_str(), 1);
        for (const auto& [name, value] : settings) ::setenv(("FAULT_" + name).c_str(), value.c_str(), 1);
        const pid_t child = start(runArguments());
        for (const auto& setting : settings) ::unsetenv(("FAULT_" + setting.first).c_str());
        ::unsetenv("FAULT_UNDER");
        ::unsetenv("LD_PRELOAD");
        return child;
    }

    /// Its exit status; out_ and err_ hold what it wrote.
    int finish(pid_t child, const std::string& tag = "") {
        int status = 0;
        ::waitpid(child, &status, 0);
        out_ = readFile(folder_ + "/out" + tag);
        err_ = readFile(folder_ + "/err" + tag);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    int command(std::vector<std::string> arguments) { return finish(start(std::move(arguments))); }
    void configure() {
        ASSERT_EQ(command({"configure", "--data-url", sim_->dataUrl(), "--credentials", credentials(),
                           "--retries", "2"}),
                  0)
            << err_;
    }
    std::vector<std::string> runArguments() const {
        return {"run", "--device", device(), "--credentials", credentials(), "--verbose"};
    }
    /// Runs with --json.
    Poco::JSON::Object::Ptr runJson(int expectedStatus) {
        std::vector<std::string> arguments = runArguments();
        arguments.push_back("--json");
        EXPECT_EQ(command(arguments), expectedStatus) << out_ << err_;
        return Poco::JSON::Parser().parse(out_).extract<Poco::JSON::Object::Ptr>();
    }
    /// Waits until the service has had so many requests for media.
    void waitForMedia(std::uint64_t count) {
        for (int i = 0; i < 1000 && sim_->counts().media < count; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ASSERT_GE(sim_->counts().media, count);
    }

    const TestFolder temporary_;
    const std::string folder_ = temporary_.path();
    Account account_;
    std::unique_ptr<FlickrSim> sim_;
    std::string out_, err_;
};

}  // namespace

TEST_F(CommandTest, TheApplicationFolderStandsByItself) {
    ::setenv("LD_TRACE_LOADED_OBJECTS", "1", 1);  // the loader tells where it finds what, and ends
    command({});
    ::unsetenv("LD_TRACE_LOADED_OBJECTS");
    EXPECT_THAT(out_, HasSubstr(" => " + folder_ + "/flickr-backup.app/"));
}

TEST_F(CommandTest, VerifyDoesNotCallADamagedDatabaseOneThatAgrees) {
    account_.addItem("", photo("loose"));
    configure();
    ASSERT_EQ(command(runArguments()), 0) << out_ << err_;
    std::string bytes = readFile(device() + "/backup.db");
    bytes[bytes.rfind("_Anonymous")] = '-';  // in an index, not in the row
    std::ofstream(device() + "/backup.db") << bytes;
    EXPECT_EQ(command({"verify", "--device", device()}), 1) << out_ << err_;
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("The database is damaged: "), Not(HasSubstr("agree"))));
}

TEST_F(CommandTest, BacksUpReportsAndChecks) {
    const std::string trip = account_.addSet("Trip");
    const std::string sunset = account_.addItem(trip, photo("sunset"));
    account_.addItem(trip, video("clip"));
    account_.addItem("", photo("loose"));
    configure();

    ASSERT_EQ(command(runArguments()), 0) << out_ << err_;
    EXPECT_THAT(out_, testing::AllOf(testing::StartsWith("Backup complete"), HasSubstr("new        3 items"),
                                     HasSubstr(service() + "\n")));
    EXPECT_THAT(err_, testing::AllOf(HasSubstr("new: Trip/sunset.jpg\n"), HasSubstr("new: loose.jpg\n")));

    account_.edit(sunset, Content::bytes("another picture"), 1800000000);
    sim_->clearLog();
    const auto second = runJson(0);
    EXPECT_EQ(second->getValue<int>("new"), 0);
    EXPECT_EQ(second->getValue<int>("edited"), 1);
    EXPECT_EQ(second->getValue<int>("unchanged"), 2);
    EXPECT_EQ(sim_->counts().media, 1u);

    EXPECT_EQ(command({"status", "--device", device()}), 0) << out_ << err_;
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("Trip\n"), HasSubstr("(in no set)\n"), HasSubstr("3 items, "),
                                     HasSubstr("agree.\n")));
    EXPECT_EQ(command({"verify", "--device", device()}), 0) << out_ << err_;

    // One changed byte, one lost and one strange file.
    std::fstream(service() + "/Trip/sunset.jpg", std::ios::in | std::ios::out).put('X');
    EXPECT_EQ(command({"status", "--device", device()}), 0) << "sizes are the same\n" << out_;
    fs::remove(service() + "/loose.jpg");
    std::ofstream(service() + "/Trip/strange.jpg") << "?";
    EXPECT_EQ(command({"status", "--device", device()}), 1);
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("missing on the device (1):\n  loose.jpg\n"),
                                     HasSubstr("not recorded (1):\n  Trip/strange.jpg\n")));
    EXPECT_EQ(command({"verify", "--device", device()}), 1);
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("  loose.jpg\n"), HasSubstr("  Trip/strange.jpg\n"),
                                     HasSubstr("Altered since it was backed up (1):\n  Trip/sunset.jpg\n")));
    // A run that says nothing of a lost file would be the second worst.
    EXPECT_EQ(command(runArguments()), 1);
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("NOT complete"), HasSubstr("loose.jpg")));

    // What a device holds does not steer the terminal.
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open((device() + "/backup.db").c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, "UPDATE backupmetadata SET ItemUpdatedOn = char(27) || '[2J'", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    command({"status", "--device", device()});
    EXPECT_THAT(out_ + err_, Not(HasSubstr("\x1b")));

    for (const std::string& secret :
         {sim_->credentials().apiKey, sim_->credentials().apiSecret, sim_->credentials().token}) {
        EXPECT_THAT(log() + readFile(configuration()), Not(HasSubstr(secret)));
    }
    EXPECT_THAT(log(), HasSubstr("Flickr Backup Started."));
}

TEST_F(CommandTest, NamesWhatFailedForGoodAndSaysSoByItsExitStatus) {
    const std::string trip = account_.addSet("Trip");
    const std::string bad = account_.addItem(trip, photo("bad"));
    account_.addItem(trip, photo("good"));
    configure();
    sim_->faults().add(media(bad), always(), fault::status(503));
    auto summary = runJson(1);
    EXPECT_EQ(summary->getValue<std::string>("result"), "failed");
    EXPECT_EQ(summary->getValue<int>("new"), 1);
    ASSERT_EQ(summary->getArray("failures")->size(), 1u) << out_;
    EXPECT_THAT(summary->getArray("failures")->getObject(0)->getValue<std::string>("name"), HasSubstr("bad"));

    sim_->faults().clear();
    summary = runJson(0);
    EXPECT_EQ(summary->getValue<int>("new"), 1);
    EXPECT_EQ(summary->getValue<int>("unchanged"), 1);

    // Of three items that are left out two are there already, and two have one title.
    account_.addItem(trip, photo("bad"));
    sim_->faults().add(rest("flickr.photos.getSizes"), always(), fault::status(500));
    summary = runJson(1);
    EXPECT_EQ(summary->getArray("failures")->size(), 3u) << out_;
    EXPECT_EQ(summary->getValue<int>("kept"), 2) << out_;
    EXPECT_EQ(command(runArguments()), 1);
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("Not backed up (1):"), HasSubstr("kept       2 items"),
                                     HasSubstr("\"bad.jpg\" (" + bad + "_" + trip + ") in \"Trip\": ")));
    sim_->faults().clear();

    const std::string token = sim_->credentials().token;
    sim_->faults().add(rest(), always(), fault::serviceError(98, "Invalid auth token " + token));
    summary = runJson(3);
    EXPECT_EQ(summary->getValue<std::string>("result"), "failed");
    EXPECT_THAT(out_,
                HasSubstr(R"(["Invalid Auth Token. The service answers with error 98: Invalid auth token )"));
    EXPECT_THAT(log(), HasSubstr("Invalid auth token "));
    EXPECT_THAT(out_ + err_ + log(), Not(HasSubstr(token)));
}

// Paths and variables are bytes to the system and texts to Foundation.
TEST_F(CommandTest, ServesOddBytesOrRefusesThem) {
    account_.addItem(account_.addSet("Trip"), photo("one"));
    configure();
    const std::string odd = folder_ + "/\xff", place = device();
    fs::create_directories(odd);
    fs::copy(credentials(), odd + "/flickr.ini");
    ::setenv("ODD", "\xff", 1);
    ::setenv("GNUSTEP_STRING_ENCODING", "NSISOLatin1StringEncoding", 1);
    const fs::path before = fs::current_path();
    fs::current_path(odd);
    // Without a byte on the device that is not asked for.
    for (const std::string& path : {place + "/a\\b", place + "/\xe3\x83\x9e \xc3\xbc"}) {
        fs::create_directory(path);
        EXPECT_EQ(command({"run", "--device", path, "--credentials", "flickr.ini", "--culture", "ja"}), 0)
            << err_;
        EXPECT_EQ(command({"verify", "--device", path}), 0) << out_ << err_;
        fs::remove_all(path);
        EXPECT_TRUE(fs::is_empty(place));
    }
    for (const std::vector<std::string>& more : std::vector<std::vector<std::string>>{
             {"--device", odd}, {"--device", place, "--culture", "de-\xff"}, {"--device", place, "\xff"}}) {
        std::vector<std::string> arguments = {"run", "--credentials", odd + "/flickr.ini"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        EXPECT_EQ(command(arguments), 2) << out_;
        EXPECT_THAT(err_, testing::MatchesRegex("flickr-backup: [^\n]+\n"));
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(odd), {}), 1);
    EXPECT_TRUE(fs::is_empty(place));
    fs::current_path(before);
    ::unsetenv("ODD");
    ::unsetenv("GNUSTEP_STRING_ENCODING");
    fs::rename(folder_ + "/flickr-backup.app", odd + "/flickr-backup.app");
    fs::remove(folder_ + "/bin/flickr-backup");
    fs::create_symlink(odd + "/flickr-backup.app/flickr-backup", folder_ + "/bin/flickr-backup");
    EXPECT_EQ(command(runArguments()), 3) << out_;
    EXPECT_THAT(err_, HasSubstr("not UTF-8"));
    EXPECT_TRUE(fs::is_empty(place));
}

TEST_F(CommandTest, StopsOnASignalAndGoesOnNextTime) {
    for (int i = 0; i < 4; ++i) account_.addItem("", photo("picture " + std::to_string(i)));
    configure();
    sim_->faults().add(media(), from(2), fault::slow(16, std::chrono::milliseconds(50)));
    std::vector<std::string> arguments = runArguments();
    const pid_t child = start(arguments);
    waitForMedia(2);

    // The device is this run's alone meanwhile.
    EXPECT_EQ(finish(start(arguments, "2"), "2"), 3);
    EXPECT_THAT(err_, testing::MatchesRegex("flickr-backup: [^\n]+\n"));

    ::kill(child, SIGINT);
    ::kill(child, SIGTERM);
    ::kill(child, SIGHUP);
    EXPECT_EQ(finish(child), 130) << out_ << err_;
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("Backup stopped"), HasSubstr("new        1 item\n")));
    EXPECT_THAT(err_, HasSubstr("Stopping"));

    sim_->faults().clear();
    EXPECT_EQ(runJson(0)->getValue<int>("new"), 3);
    EXPECT_EQ(command({"verify", "--device", device()}), 0) << out_;
}

#if !defined(__SANITIZE_ADDRESS__)  // whose runtime wants to be loaded first
TEST_F(CommandTest, TellsInOneSentenceWhyAnItemsFilesDoNotGetTheirNames) {
    account_.addItem("", photo("one"));
    configure();
    const pid_t child =
        startWithFault({{"CALLS", "fsync"}, {"PATH", "Items/.part"}, {"AT", "1"}, {"HOW", "13"}});
    EXPECT_EQ(finish(child), 1);
    EXPECT_THAT(out_, HasSubstr(": Cannot write \"one.jpg\": Permission denied\n"));
    EXPECT_THAT(out_, Not(HasSubstr("Exception")));
    EXPECT_EQ(runJson(0)->getValue<int>("new"), 1);
}

// The old file cannot step aside, the new one takes its place, and the new thumbnail is refused.
TEST_F(CommandTest, KeepsTheOldFileThatCouldNotStepAside) {
    const std::string id = account_.addItem("", photo("one"));
    configure();
    ASSERT_EQ(command(runArguments()), 0) << err_;
    const std::string before = readFile(service() + "/one.jpg");
    account_.edit(id, flickr_sim::Content::bytes("the new bytes"), 1800000000);
    for (const bool refused : {true, false}) {
        if (refused) sim_->faults().add(flickr_sim::thumbnail(), always(), fault::status(404));
        const pid_t child =
            startWithFault({{"CALLS", "renameat2"}, {"PATH", "one_Old"}, {"AT", "1"}, {"HOW", "13"}});
        EXPECT_EQ(finish(child), refused ? 1 : 0) << out_;
        sim_->faults().clear();
        EXPECT_EQ(readFile(service() + "/one.jpg") == before, refused) << refused;
    }
    std::vector<std::string> versions;
    for (const auto& entry : fs::recursive_directory_iterator(service() + "/.versions")) {
        if (entry.path().extension() == ".jpg") versions.push_back(readFile(entry.path()));
    }
    EXPECT_EQ(versions, std::vector<std::string>{before});
}

TEST_F(CommandTest, AStopBehindTheRunCountsToo) {
    account_.addItem("", photo("one"));
    configure();
    ASSERT_EQ(command(runArguments()), 0) << err_;
    // Held where the records' folder is looked for behind the run: to put it in order, and to compare it.
    for (const char* at : {"2", "3"}) {
        const pid_t child = startWithFault({{"CALLS", "mkdirat"}, {"AT", at}, {"HOW", "stop"}});
        int status = 0;
        ::waitpid(child, &status, WUNTRACED);
        ASSERT_TRUE(WIFSTOPPED(status));
        ::kill(child, SIGINT);
        ::kill(child, SIGCONT);
        EXPECT_EQ(finish(child), 130) << at << out_;
        EXPECT_THAT(err_, Not(HasSubstr("Stopping"))) << "that was the run";
    }
}
#endif

TEST_F(CommandTest, PausesForAFileAndForASignal) {
    for (int i = 0; i < 4; ++i) account_.addItem("", photo("picture " + std::to_string(i)));
    configure();
    sim_->faults().add(media(), from(2), fault::slow(16, std::chrono::milliseconds(50)));
    const std::string file = folder_ + "/pause";
    std::vector<std::string> arguments = runArguments();
    arguments.insert(arguments.end(), {"--pause-when", file});
    const pid_t child = start(arguments);
    waitForMedia(2);
    std::ofstream(file).put(' ');
    for (int i = 0; i < 1000 && readFile(folder_ + "/err").find("Paused") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ::kill(child, SIGUSR1);
    fs::remove(file);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(sim_->counts().media, 2u) << "the signal holds the run as well";
    sim_->faults().clear();
    ::kill(child, SIGUSR2);
    EXPECT_EQ(finish(child), 0) << out_ << err_;
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("new        4 items"), HasSubstr("unchanged  0 items")));
    EXPECT_THAT(err_, testing::AllOf(HasSubstr("Resuming"), Not(HasSubstr("settings.."))))
        << "the system's log is not the command's output";
    EXPECT_EQ(sim_->counts().media, 5u) << "only the item that was cut off came twice";

    EXPECT_EQ(command({"info"}), 0) << err_;
    EXPECT_THAT(out_, testing::AllOf(HasSubstr("OAuth"), HasSubstr("********"),
                                     Not(HasSubstr(sim_->credentials().apiKey)),
                                     Not(HasSubstr("48213377650912846"))));
}

TEST_F(CommandTest, RefusesWhatCannotBeDone) {
    account_.addItem("", photo("one"));
    const std::string url = sim_->dataUrl();
    auto refused = [&](int status, std::vector<std::string> arguments, const std::string& words) {
        EXPECT_EQ(command(arguments), status) << words << out_;
        EXPECT_THAT(err_, testing::AllOf(testing::MatchesRegex("flickr-backup: [^\n]+\n"), HasSubstr(words)));
        EXPECT_EQ(out_, "");
    };
    auto runWith = [&](std::vector<std::string> more) {
        std::vector<std::string> arguments = runArguments();
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    };
    refused(2, {}, "subcommand");
    refused(2, {"backup"}, "no command \"backup\"; see flickr-backup --help.");
    refused(2, {"rnu", "--device", "x"}, "did you mean run?");
    refused(2, {"run", "-device", "x"}, "no option \"-device\"; did you mean --device?");
    refused(2, {"run", "--dev=x"}, "did you mean --device?");
    refused(2, {"run", "--device", "x", "--medai", "images"}, "did you mean --media?");
    refused(2, {"run", "--device", "x", "--quite-another"}, "see flickr-backup run --help.");
    refused(2, {"run"}, "required; see flickr-backup run --help.");
    refused(2, {"run", "--device", "x", "--profile", "../x"}, "cannot be a profile's name");
    refused(3, runArguments(), "not configured yet");
    refused(3, {"run", "--device", device()}, "run \"flickr-backup login\"");
    refused(2, {"configure", "--data-url", url}, "--credentials");
    refused(2, {"configure", "--credentials", credentials()}, "--data-url");
    refused(2, {"configure", "--data-url", "https://x/", "--credentials", credentials()}, "http://");
    refused(2, {"configure", "--data-url", url, "--credentials", credentials(), "--retries", "0"}, "retries");
    ::chmod(credentials().c_str(), 0644);
    refused(3, {"configure", "--data-url", url, "--credentials", credentials()}, "chmod 600");
    ::chmod(credentials().c_str(), 0600);
    configure();
    refused(2, runWith({"--from", "2023-02-29"}), "YYYY-MM-DD");
    refused(2, runWith({"--from", "23-2-2"}), "YYYY-MM-DD");
    refused(2, runWith({"--media", "images,audio"}), "audio");
    refused(2, runWith({"--culture", "xx"}), "xx");
    refused(3, {"status", "--device", device()}, "no backup");
    refused(3, {"verify", "--device", device() + "/none"}, "no directory");
    EXPECT_EQ(sim_->counts().rest, 0u);
    EXPECT_TRUE(fs::is_empty(device()));

    ASSERT_EQ(command(runWith({"--media", "videos"})), 0) << err_;
    EXPECT_THAT(out_, HasSubstr("new        0 items"));
    ASSERT_EQ(command(runWith({"--from", "2023-11-15"})), 0) << err_;
    EXPECT_THAT(out_,
                testing::AllOf(HasSubstr("new        0 items"), HasSubstr("left out   1 item by --from\n")));
    ASSERT_EQ(command(runArguments()), 0) << err_;
    EXPECT_THAT(out_, HasSubstr("new        1 item\n"));

    refused(3, runWith({"--culture", "ja"}), "culture");
    fs::rename(service(), service() + ".away");
    refused(3, runArguments(), "records 1 item");
    writeCredentials("another-key");
    refused(3, runArguments(), "not the configured one");
    for (const char* name : {"configure", "run", "status", "verify"}) {
        EXPECT_EQ(command({name, "--help"}), 0);
        EXPECT_THAT(out_, HasSubstr("Example:\n  flickr-backup " + std::string(name)));
        EXPECT_EQ(out_.find("[0 - 36500]=30") != std::string::npos, name == std::string("run"));
    }
}

TEST_F(CommandTest, KeepsSettingsAndMemoryForEachUser) {
    account_.addItem(account_.addSet("Trip"), photo("one"));
    const auto config = [&](std::vector<std::string> more) {
        more.insert(more.begin(), "configure");
        return command(more);
    };
    // One of earlier days, where everybody had the same, is copied and left.
    configure();
    const std::string former = readFile(configuration());
    fs::rename(configuration(), formerConfiguration());
    ASSERT_EQ(command(runArguments()), 0) << out_ << err_;
    EXPECT_THAT(err_, HasSubstr("was copied to " + configuration()));
    EXPECT_EQ(readFile(configuration()), former);
    EXPECT_EQ(readFile(formerConfiguration()), former);
    EXPECT_EQ(fs::status(configuration()).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    // What is not named again stays; nothing is written in the program's folder.
    fs::remove_all(folder_ + "/config");
    fs::permissions(fs::path(formerConfiguration()).parent_path(), fs::perms(0555));
    ASSERT_EQ(config({"--retries", "7"}), 0) << err_;
    EXPECT_THAT(out_, testing::AllOf(HasSubstr(sim_->dataUrl()), HasSubstr("attempts     7")));
    EXPECT_EQ(command({"run", "--device", device()}), 0) << out_ << err_;
    EXPECT_EQ(config({"--check"}), 0) << err_;
    EXPECT_THAT(out_, HasSubstr("attempts     7\nThe service at 127.0.0.1:"));
    EXPECT_THAT(out_, HasSubstr("1 photo set."));
    EXPECT_EQ(config({"--check", "--data-url", "http://127.0.0.1:1/services/rest/", "--config",
                      folder_ + "/other", "--credentials", credentials()}),
              3);
    EXPECT_THAT(err_, HasSubstr("The service at 127.0.0.1:1 cannot be used: "));
    EXPECT_TRUE(fs::exists(folder_ + "/other/Flickr_plugin_config.xml"));
    EXPECT_EQ(command({"run", "--device", device(), "--config", folder_ + "/other", "--json"}), 3);
    EXPECT_THAT(out_, HasSubstr("[\"127.0.0.1:1 refuses the connection\"]"));

    // A profile has settings and a log of its own.
    EXPECT_EQ(command({"run", "--device", device(), "--profile", "second"}), 3);
    ASSERT_EQ(config({"--profile", "second", "--data-url", sim_->dataUrl(), "--credentials", credentials()}),
              0);
    EXPECT_THAT(readFile(configuration("profiles/second/")), HasSubstr("<retryAttempts>3<"));
    EXPECT_THAT(readFile(configuration()), HasSubstr("<retryAttempts>7<"));
    EXPECT_EQ(command({"run", "--device", device(), "--profile", "second"}), 0) << out_ << err_;
    EXPECT_TRUE(fs::exists(folder_ + "/state/flickr-backup/profiles/second/NVHLDevLog.log"));

    // A log that cannot be written is told.
    fs::remove_all(folder_ + "/state/flickr-backup/NVHLDevLog.log");
    fs::create_directory(folder_ + "/state/flickr-backup/NVHLDevLog.log");
    EXPECT_EQ(command({"run", "--device", device()}), 0);
    EXPECT_THAT(out_, HasSubstr("NVHLDevLog.log cannot be written: Is a directory"));

    // A device that is not mounted is no place for a new backup.
    fs::rename(device(), device() + ".unmounted");
    fs::create_directory(device());
    EXPECT_EQ(command({"run", "--device", device()}), 3);
    EXPECT_THAT(err_, HasSubstr("is the device mounted?"));
    EXPECT_TRUE(fs::is_empty(device()));
    EXPECT_EQ(command({"run", "--device", device(), "--new"}), 0) << err_;
    EXPECT_THAT(out_, HasSubstr("new        1 item\n"));
    fs::permissions(fs::path(formerConfiguration()).parent_path(), fs::perms(0755));
}
