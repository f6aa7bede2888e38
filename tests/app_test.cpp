// The command's parts by themselves: cipher, credentials, configuration, layout of a device, texts.

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Stringifier.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "hostapi/PluginCore.h"
#include "standin/app/Configuration.h"
#include "standin/app/Credentials.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/ProgressLine.h"
#include "standin/app/Refusal.h"
#include "standin/app/Summary.h"
#include "standin/framework/base/Cipher.h"
#include "tests/TestFolder.h"

namespace fs = std::filesystem;
using namespace flickr_app;
using flickr_standin::Cipher;
using testing::HasSubstr;
using testing::Not;

namespace {

class AppTest : public testing::Test {
protected:
    std::string write(const std::string& name, const std::string& text, mode_t mode = 0600) {
        const std::string path = folder_ + "/" + name;
        std::ofstream(path) << text;
        ::chmod(path.c_str(), mode);
        return path;
    }

    const TestFolder temporary_;
    const std::string folder_ = temporary_.path();
};

/// The sentence of the Refusal that the action ends in; empty when there is none.
template <typename Action>
std::string refusal(Action action) {
    try {
        action();
        return "";
    } catch (const Refusal& error) {
        return error.what();
    }
}

}  // namespace

TEST(CipherTest, SealsOpensAndRefusesWhatWasChanged) {
    const Cipher cipher("", kPluginSalt);
    std::string all(70000, '\0');
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i * 31);
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{16}, all.size()}) {
        const std::string plain = all.substr(0, length), sealed = cipher.encrypt(plain);
        EXPECT_EQ(cipher.decrypt(sealed), plain);
        EXPECT_NE(cipher.encrypt(plain), sealed) << "the nonce repeats";
        EXPECT_EQ(sealed.size(), length + 28);
    }
    const std::string sealed = cipher.encrypt("demo0secret");
    for (std::size_t i = 0; i < sealed.size(); ++i) {
        std::string changed = sealed;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        EXPECT_THROW(cipher.decrypt(changed), Poco::DataFormatException) << i;
        EXPECT_THROW(cipher.decrypt(sealed.substr(0, i)), Poco::DataFormatException) << i;
    }
    EXPECT_THROW(Cipher("x", kPluginSalt).decrypt(sealed), Poco::DataFormatException);
    EXPECT_THROW(Cipher("", "other").decrypt(sealed), Poco::DataFormatException);

    // As computed by another implementation: a change would make every configuration unreadable.
    for (const auto& [passPhrase, key] :
         {std::pair("", "6f06539fd2b2bfbcb5ed22c29d1c1317cd6e3df3737d912a14d673d69cf84bd3"),
          std::pair("x", "057536a376f65144e8c9afc977993bf1bfeb659097102e4dab61ed4555a2d8fb")}) {
        const Cipher known(passPhrase, kPluginSalt);
        std::ostringstream hex;
        for (const char c : known.key()) {
            const auto byte = static_cast<unsigned char>(c);
            hex << "0123456789abcdef"[byte >> 4] << "0123456789abcdef"[byte & 15];
        }
        EXPECT_EQ(hex.str(), key);
    }
}

TEST_F(AppTest, ReadsCredentialsOnlyFromPrivateCompleteFiles) {
    const std::string good = "; mine\napi_key = k1\napi_secret=s=2 ${x}\r\n token\t= 721-a.b_c~d \n";
    const Credentials read = readCredentials(write("good", good));
    EXPECT_EQ(read.apiKey, "k1");
    EXPECT_EQ(read.apiSecret, "s=2 ${x}");
    EXPECT_EQ(read.token, "721-a.b_c~d");

    for (const mode_t mode : {0640u, 0604u, 0620u, 0602u, 0601u}) {
        const std::string path = write("open", good, mode);
        EXPECT_THAT(refusal([&] { readCredentials(path); }), HasSubstr("chmod 600 " + path)) << mode;
    }
    const struct {
        const char *text, *sentence;
    } kBad[] = {
        {"", "\"api_key\""},
        {"api_key = k\napi_secret = s\n", "\"token\""},
        {"api_key = k\napi_secret =\ntoken = t\n", "\"api_secret\""},
        {"api_key = hushed&x=1\napi_secret = s\ntoken = t\n", "\"api_key\""},
        {"api_key = k\napi_secret = s\ntoken = hushed hushed\n", "\"token\""},
    };
    for (const auto& bad : kBad) {
        const std::string sentence = refusal([&] { readCredentials(write("bad", bad.text)); });
        EXPECT_THAT(sentence, HasSubstr(bad.sentence)) << bad.text;
        EXPECT_THAT(sentence, Not(HasSubstr("hushed")));
    }
    EXPECT_THAT(refusal([&] { readCredentials(folder_ + "/none"); }), HasSubstr("flickr-backup login"));
    EXPECT_THAT(refusal([&] { readCredentials(folder_); }), HasSubstr("is a directory"));
    const std::string pipe = folder_ + "/pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_THAT(refusal([&] { readCredentials(pipe); }), HasSubstr("no ordinary file"))
        << "or waits for ever";
    EXPECT_THAT(refusal([&] { readCredentials(write("large", std::string(70000, ';'))); }),
                HasSubstr("too large"));
    // Only root can give a file away; others have the files that are root's.
    const std::string foreign = ::geteuid() == 0 ? write("foreign", good) : "/etc/passwd";
    EXPECT_TRUE(::geteuid() != 0 || ::chown(foreign.c_str(), 65534, 65534) == 0);
    EXPECT_THAT(refusal([&] { readCredentials(foreign); }), HasSubstr("belongs to another user"));
}

TEST_F(AppTest, WritesCredentialsForTheirOwnerOnlyAndKeepsWhatItDoesNotKnow) {
    const auto modeOf = [](const std::string& path) {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0u;
    };
    const std::string path = folder_ + "/deep/folder/credentials";
    changeCredentials(path, {{"api_key", "k"}, {"user_name", "A\nservice = https://127.0.0.1:1\r\nB"}});
    EXPECT_EQ(modeOf(folder_ + "/deep"), 0700u);
    EXPECT_EQ(modeOf(folder_ + "/deep/folder"), 0700u);
    EXPECT_EQ(modeOf(path), 0600u);
    const Credentials read = readWhatThereIs(path);
    EXPECT_EQ(read.service, "");
    EXPECT_EQ(read.userName, "A service = https://127.0.0.1:1  B");

    const std::string other = write("other", "Token = old\r\nfuture = 1\r\n; token = mine\r\n");
    changeCredentials(other, {{"token", ""}, {"user_id", "7"}});
    EXPECT_EQ(readFile(other), "future = 1\r\n; token = mine\r\nuser_id = 7\n");
}

TEST_F(AppTest, KeepsSecretsOutOfMemoryThatIsNotTheirs) {
    alignas(Credentials) char memory[sizeof(Credentials)];
    const std::string path = write("good", "api_key = k1k1\napi_secret = s2s2\ntoken = t3t3\n");
    auto* held = new (memory) Credentials(readCredentials(path));
    const auto holds = [&](const char* value) {
        return std::string(memory, sizeof memory).find(value) != std::string::npos;
    };
    EXPECT_TRUE(holds("k1k1") && holds("s2s2") && holds("t3t3"));
    held->~Credentials();
    EXPECT_FALSE(holds("k1k1") || holds("s2s2") || holds("t3t3"));

    std::string text(100, 'x');
    const char* kept = text.data();
    flickr_standin::wipe(text);
    EXPECT_EQ(text, "");
    EXPECT_EQ(std::string(kept, 100), std::string(100, '\0'));

    rlimit core = {1, 1};
    ::getrlimit(RLIMIT_CORE, &core);
    EXPECT_EQ(core.rlim_cur, 0u);
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 0);
}

TEST(ConfigurationTest, TakesOnlyAddressesThatThePluginCanUse) {
    for (const char* url : {"http://api.example.net/services/rest/", "http://127.0.0.1:8080/services/rest/",
                            "http://[::1]:80/services/rest/"}) {
        EXPECT_EQ(refusal([&] { checkDataUrl(url); }), "") << url;
    }
    const struct {
        const char *url, *sentence;
    } kBad[] = {
        {"https://api.example.net/services/rest/", "http://"},
        {"api.example.net/services/rest/", "http://"},
        {"http:///services/rest/", "name a host"},
        {"http://me:pw@host/services/rest/", "name a host"},
        {"http://host", "http://host/services/rest/"},
        {"http://host:81/services/rest", "http://host:81/services/rest/"},
        {"http://host/services/rest/?a=b", "http://host/services/rest/"},
        {"http://host:99999/services/rest/", "is no address"},
        {"", "http://"},
    };
    for (const auto& bad : kBad) {
        EXPECT_THAT(refusal([&] { checkDataUrl(bad.url); }), HasSubstr(bad.sentence)) << bad.url;
    }
}

TEST_F(AppTest, WritesAConfigurationThatThePluginReads) {
    const std::string path = folder_ + "/Flickr_plugin_config.xml";
    const std::string url = "http://127.0.0.1:8080/services/rest/";
    write("Flickr_plugin_config.xml", "an older one", 0644);
    writeConfiguration(path, {url, 7, "key<&>1", "secret${2}"});

    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_THAT(readFile(path),
                testing::AllOf(Not(HasSubstr("key<")), Not(HasSubstr("key&")), Not(HasSubstr("secret$"))));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), {}), 1) << "a temporary file is left";

    const Configuration read = readConfiguration(path);
    EXPECT_EQ(read.dataUrl, url);
    EXPECT_EQ(read.retryAttempts, 7);
    EXPECT_EQ(read.apiKey, "key<&>1");
    EXPECT_EQ(read.apiSecret, "secret${2}");

    Norvale_Plugin_Core::PluginCore plugin(path, folder_ + "/log");
    char value[2048] = "", error[2048] = "";
    using Getter = int (Norvale_Plugin_Core::PluginCore::*)(char*, char*);
    const std::pair<Getter, const char*> kIdentity[] = {
        {&Norvale_Plugin_Core::PluginCore::getName, "Flickr"},
        {&Norvale_Plugin_Core::PluginCore::getVersion, FLICKR_BACKUP_VERSION},
        {&Norvale_Plugin_Core::PluginCore::getSupportedDataTypes, "Images;Videos;"},
        {&Norvale_Plugin_Core::PluginCore::getAutheticationMechanism, "OAuth"},
    };
    for (const auto& [getter, expected] : kIdentity) {
        EXPECT_EQ((plugin.*getter)(value, error), 1) << error;
        EXPECT_STREQ(value, expected);
    }
    const std::pair<const char*, std::string> kValues[] = {
        {"plugin.retryAttempts", "7"}, {"plugin.dataUrl", url}, {"plugin.CEK", ""}};
    for (const auto& [key, expected] : kValues) {
        EXPECT_EQ(plugin.getValueString(key, value, error), 1) << error;
        EXPECT_EQ(value, expected) << key;
    }
    ASSERT_EQ(plugin.getValueString("plugin.apiSecret", value, error), 1);
    EXPECT_EQ(openSecret(value), "secret${2}");

    // What cannot be read or written says so, and an address that cannot be used replaces nothing.
    EXPECT_NE(refusal([&] { writeConfiguration(path, {"https://x/", 1, "k", "s"}); }), "");
    EXPECT_EQ(readConfiguration(path).retryAttempts, 7);
    EXPECT_THAT(refusal([&] {
                    writeConfiguration(folder_ + "/no/file.xml", {url, 1, "k", "s"});
                }),
                HasSubstr("cannot be written: No such file"));
    EXPECT_THAT(refusal([&] { readConfiguration(folder_ + "/none"); }), HasSubstr("not configured yet"));
    for (const char* broken : {"<config><plugin>", "<config><plugin/></config>",
                               "<config><plugin><dataUrl>http://h/services/rest/</dataUrl>"
                               "<retryAttempts>1</retryAttempts><apiKey>AAAA</apiKey></plugin></config>"}) {
        const std::string file = write("broken", broken);
        EXPECT_THAT(refusal([&] { readConfiguration(file); }), HasSubstr("flickr-backup configure"))
            << broken;
    }
}

TEST_F(AppTest, FindsTheOneBackupOfADevice) {
    const std::string device = fs::canonical(folder_).string();
    EXPECT_EQ(layoutOf(folder_ + "/.", "backup.db", "").serviceFolder,
              device + "/Brightkettle/My Flickr Items");
    EXPECT_THAT(refusal([&] { layoutOf(folder_ + "/none", "backup.db", ""); }), HasSubstr("no directory"));
    EXPECT_THAT(refusal([&] { layoutOf(folder_, "backup.db", "xx"); }),
                HasSubstr("is not known; give one of en, "));
    EXPECT_THAT(refusal([&] { existingBackup(folder_, "backup.db"); }), HasSubstr("There is no backup"));
    for (const char* name : {"", "..", "a/b", ".hidden", "Brightkettle", "con"}) {
        EXPECT_THAT(refusal([&] { layoutOf(folder_, name, ""); }), HasSubstr("cannot be used")) << name;
    }

    // A database of no bytes is no new one where pictures are; without any the power went at the beginning.
    write("backup.db", "");
    EXPECT_FALSE(layoutOf(folder_, "backup.db", "").holdsBackup);
    fs::create_directories(serviceFolderOn(device, "de") + "/Reise");
    EXPECT_THAT(refusal([&] { layoutOf(folder_, "backup.db", ""); }), HasSubstr("flickr-backup rebuild"));
    EXPECT_TRUE(backupToRebuild(folder_, "backup.db").holdsBackup);

    // Once there is one, another culture or another database would lose sight of it.
    write("backup.db", "rows");
    EXPECT_EQ(layoutOf(folder_, "backup.db", "").culture, "de");
    EXPECT_EQ(layoutOf(folder_, "backup.db", "de-AT").serviceFolder, serviceFolderOn(device, "de"));
    EXPECT_TRUE(existingBackup(folder_, "backup.db").holdsBackup);
    EXPECT_THAT(refusal([&] { layoutOf(folder_, "backup.db", "en"); }), HasSubstr("culture \"de\""));
    EXPECT_THAT(refusal([&] { layoutOf(folder_, "other.db", "de"); }), HasSubstr("other.db is missing"));
}

TEST(FormatTest, WritesForPeopleAndKeepsTerminalsSafe) {
    const std::pair<double, const char*> kSizes[] = {{0, "0 B"},       {999, "999 B"},
                                                     {1000, "1.0 kB"}, {999960, "1.0 MB"},
                                                     {5e12, "5.0 TB"}, {5e16, "50000.0 TB"}};
    for (const auto& [bytes, text] : kSizes) EXPECT_EQ(formatBytes(bytes), text);
    const std::pair<double, const char*> kTimes[] = {{0.04, "0.0 s"},
                                                     {59.9, "59.9 s"},
                                                     {59.96, "1 min 00 s"},
                                                     {3599.4, "59 min 59 s"},
                                                     {7500, "2 h 05 min"}};
    for (const auto& [seconds, text] : kTimes) EXPECT_EQ(formatDuration(seconds), text);
    EXPECT_EQ(formatCount(1, "item"), "1 item");
    EXPECT_EQ(formatCount(123, "item"), "123 items");
    EXPECT_EQ(formatCount(1234567, "item"), "1,234,567 items");
    EXPECT_EQ(printable("a\x1b[31m\r\nb\x7f"), "a?[31m??b?");
    EXPECT_EQ(printable("\u00e9\u65e5\U0001f600"), "\u00e9\u65e5\U0001f600");
    EXPECT_EQ(printable("\u202egpj\u0085\xff"), "?gpj?_");

    EXPECT_EQ(columnsIn("a\u00e9\u65e5"), 4u);
    EXPECT_EQ(cutColumns("\u65e5\u65e5\u65e5\u65e5", 7), "\u65e5\u65e5...");
    EXPECT_EQ(cutColumns("abc", 2), "..");
}

TEST(ProgressTest, SaysWhatMattersMostInTheColumnsThatThereAre) {
    using Phase = flickr_standin::RunMoment::Phase;
    ProgressState sets, listing, copying, waiting;
    listing.moment = {Phase::Listing, "Trip to the sea", 340, 512, 1, 5120, ""};
    copying.moment = {Phase::Items, "Anonymous", 0, 0, 1340, 5120, "\u5915\u713c\u3051.jpg"};
    copying.bytes = 1.2e9;
    copying.rate = 4.5e6;
    copying.secondsLeft = 700;
    waiting = copying;
    waiting.note = "The service asks us to wait: 45 s";
    const struct {
        const ProgressState& state;
        std::size_t columns;
        const char* text;
    } kCases[] = {
        {sets, 80, "Listing the photo sets"},
        {listing, 79, "1 of 5,120 items, Listing Trip to the sea: 340 of 512"},
        {listing, 29, "Listing Trip t...: 340 of 512"},
        {copying, 199,
         "1,340 of 5,120 items, 1.2 GB, 4.5 MB/s, 12 min left, items in no set: \u5915\u713c\u3051.jpg"},
        {copying, 79,
         "1,340 of 5,120 items, 1.2 GB, 4.5 MB/s, 12 min left, items in no set: \u5915\u713c\u3051..."},
        {copying, 29, "1,340/5,120, items in no s..."},
        {copying, 8, "1,340..."},
        {waiting, 79, "1,340 of 5,120 items, 4.5 MB/s, 12 min left, The service asks us to wait: 45 s"},
        {waiting, 29, "The service asks us to wai..."},
    };
    for (const auto& expected : kCases) {
        EXPECT_EQ(progressText(expected.state, expected.columns), expected.text) << expected.columns;
        EXPECT_LE(columnsIn(progressText(expected.state, expected.columns)), expected.columns);
    }

    Pace pace;
    EXPECT_LT(pace.secondsFor(10), 0);
    for (int second = 0; second <= 20; ++second) pace.add(second, second * 1e6, second * 2L);
    EXPECT_EQ(pace.rate(), 1e6);
    EXPECT_EQ(pace.secondsFor(100), 50);
    for (int second = 21; second <= 30; ++second) pace.add(second, 2e7, 40);
    EXPECT_EQ(pace.rate(), 0) << "nothing comes any more";

    std::ostringstream none, lines, inPlace;
    {
        ProgressLine off(none, ProgressStyle::None), plain(lines, ProgressStyle::Lines),
            terminal(inPlace, ProgressStyle::InPlace);
        for (ProgressLine* line : {&off, &plain, &terminal}) {
            for (const double elapsed : {1.0, 2.0, 12.0}) line->show(elapsed, sets, 80);
            line->message("Paused.");
        }
    }
    EXPECT_EQ(none.str(), "Paused.\n");
    EXPECT_EQ(lines.str(), "Listing the photo sets\nListing the photo sets\nPaused.\n");
    const std::string shown = "\r\033[KListing the photo sets";
    EXPECT_EQ(inPlace.str(), shown + shown + shown + "\r\033[KPaused.\n");
}

TEST(SummaryTest, CallsARunCompleteOnlyWhenNothingFailed) {
    RunReport report;
    report.outcome.status = 1;
    report.done.newItems = 3;
    report.done.bytes = 5e9;
    report.serviceFolder = "/media/usb\x1b[2J/Brightkettle/My Flickr Items";
    EXPECT_EQ(exitStatus(report), ExitSuccess);
    EXPECT_THAT(summaryText(report), testing::StartsWith("Backup complete after"));

    RunReport item = report, list = report, status = report, stopped = report;
    item.done.failures = {{"a\nb.jpg", "Trip", "The service answered 503", "5_72"},
                          {"c.jpg", "Trip", "It answered 503", "6_72", true},
                          {"", "Anonymous", "No list", ""}};
    item.done.untriedItems = 11;
    item.done.untriedSets = 1;
    list.done.errors = {"The database is locked"};
    status.outcome = {511, "511", "Error text", false};
    stopped.outcome = {1, "501", "", true};
    report.leftOutByDate = 12;
    report.leftOutByKind = 1;
    report.goneItems = 3;
    RunReport nothing;
    nothing.done.errors = {"127.0.0.1:1 refuses the connection"};
    const struct {
        const RunReport& report;
        int exit;
        const char *text, *result, *member, *json;
    } kCases[] = {
        {item, 1, "Not backed up (2):\n  \"a?b.jpg\" (5_72) in \"Trip\": The service answered 503\n",
         "failed", "failures",
         R"([{"id":"5_72","name":"a\nb.jpg","set":"Trip","reason":"The service answered 503","onDevice":false},)"
         R"({"id":"6_72","name":"c.jpg","set":"Trip","reason":"It answered 503","onDevice":true},)"
         R"({"id":"","name":"","set":"Anonymous","reason":"No list","onDevice":false}])"},
        {item, 1, "perhaps not as it is now (1):\n  \"c.jpg\" (6_72) in \"Trip\": It answered 503\n",
         "failed", "kept", "1"},
        {item, 1, "  not tried  11 items, and all of 1 further set\n", "failed", "untried", "11"},
        {item, 1, "  items in no set: No list\n", "failed", "new", "3"},
        {list, 1, "Errors:\n  The database is locked\n", "failed", "errors", R"(["The database is locked"])"},
        {status, 1, "Errors:\n  Error text\n", "failed", "errors", R"(["Error text"])"},
        {stopped, 130, "Backup stopped", "stopped", "errors", "[]"},
        {report, 0, "/media/usb?[2J/Brightkettle/My Flickr Items\n", "success", "bytes", "5000000000"},
        {report, 0, "  left out   12 items by --from, 1 item by --media\n", "success", "leftOutByKind", "1"},
        {report, 0, "\n3 items are no longer at the service; they stay here\n", "success", "gone", "3"},
        {nothing, 3, "ended after 0.0 s.\nErrors:\n  127.0.0.1:1 refuses the connection\n", "failed",
         "exitStatus", "3"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(exitStatus(c.report), c.exit) << c.text;
        EXPECT_THAT(summaryText(c.report), HasSubstr(c.text));
        EXPECT_EQ(summaryText(c.report).find("Backup complete") == 0, c.exit == 0) << c.text;
        const Poco::JSON::Object json = summaryJson(c.report);
        EXPECT_EQ(json.getValue<std::string>("result"), c.result);
        EXPECT_EQ(isWorthTelling(c.report, Talk::Quiet, true), c.exit != 0);
        EXPECT_EQ(isWorthTelling(c.report, Talk::Normal, false), c.exit != 0);
        EXPECT_TRUE(isWorthTelling(c.report, Talk::Normal, true));
        EXPECT_TRUE(isWorthTelling(c.report, Talk::Verbose, false));
        std::ostringstream member;
        Poco::JSON::Stringifier::stringify(json.get(c.member), member);
        EXPECT_EQ(member.str(), c.json);
    }
}
