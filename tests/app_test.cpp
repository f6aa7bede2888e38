// The command's parts by themselves: cipher, credentials, configuration, layout of a device, texts.

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
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

namespace fs = std::filesystem;
using namespace flickr_app;
using flickr_standin::Cipher;
using testing::HasSubstr;
using testing::Not;

namespace {

class AppTest : public testing::Test {
protected:
    AppTest() {
        char name[] = "/tmp/flickr-app-test-XXXXXX";
        folder_ = mkdtemp(name);
    }
    ~AppTest() override { fs::remove_all(folder_); }

    std::string write(const std::string& name, const std::string& text, mode_t mode = 0600) {
        const std::string path = folder_ + "/" + name;
        std::ofstream(path) << text;
        ::chmod(path.c_str(), mode);
        return path;
    }

    std::string folder_;
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
        for (const unsigned char c : known.key()) {
            hex << "0123456789abcdef"[c >> 4] << "0123456789abcdef"[c & 15];
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

    for (const mode_t mode : {0640, 0604, 0620, 0602, 0601}) {
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
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    EXPECT_THAT(text.str(),
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

    // Once there is one, another culture or another database would lose sight of it.
    fs::create_directories(serviceFolderOn(device, "de") + "/Reise");
    write("backup.db", "");
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

    std::ostringstream plain, terminal;
    {
        ProgressLine lines(plain, false), inPlace(terminal, true);
        for (ProgressLine* line : {&lines, &inPlace}) {
            line->show(1, 1, 5000);
            line->show(3, 2, 9000, "stopping");
        }
    }
    EXPECT_EQ(plain.str(), "1 item, 5.0 kB, 5.0 kB/s, 1.0 s\n2 items, 9.0 kB, 2.0 kB/s, 3.0 s, stopping\n");
    EXPECT_EQ(terminal.str(),
              "\r\033[K1 item, 5.0 kB, 5.0 kB/s, 1.0 s\r\033[K2 items, 9.0 kB, 2.0 kB/s, 3.0 s, stopping\n");
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
    const struct {
        const RunReport& report;
        int exit;
        const char *text, *result, *member, *json;
    } kCases[] = {
        {item, 1, "Not backed up (2):\n  \"a?b.jpg\" (5_72) in \"Trip\": The service answered 503\n",
         "failed", "failures",
         R"([{"id":"5_72","name":"a\nb.jpg","onDevice":false,"reason":"The service answered 503","set":"Trip"},)"
         R"({"id":"6_72","name":"c.jpg","onDevice":true,"reason":"It answered 503","set":"Trip"},)"
         R"({"id":"","name":"","onDevice":false,"reason":"No list","set":"Anonymous"}])"},
        {item, 1, "perhaps not as it is now (1):\n  \"c.jpg\" (6_72) in \"Trip\": It answered 503\n",
         "failed", "kept", "1"},
        {item, 1, "  not tried  11 items, and all of 1 further set\n", "failed", "untried", "11"},
        {item, 1, "  items in no set: No list\n", "failed", "new", "3"},
        {list, 1, "Errors:\n  The database is locked\n", "failed", "errors", R"(["The database is locked"])"},
        {status, 1, "Errors:\n  Error text\n", "failed", "errors", R"(["Error text"])"},
        {stopped, 130, "Backup stopped", "stopped", "errors", "[]"},
        {report, 0, "/media/usb?[2J/Brightkettle/My Flickr Items\n", "success", "bytes", "5000000000"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(exitStatus(c.report), c.exit) << c.text;
        EXPECT_THAT(summaryText(c.report), HasSubstr(c.text));
        EXPECT_EQ(summaryText(c.report).find("Backup complete") == 0, c.exit == 0) << c.text;
        const auto json =
            Poco::JSON::Parser().parse(summaryJson(c.report)).extract<Poco::JSON::Object::Ptr>();
        EXPECT_EQ(json->getValue<std::string>("result"), c.result);
        std::ostringstream member;
        Poco::JSON::Stringifier::stringify(json->get(c.member), member);
        EXPECT_EQ(member.str(), c.json);
    }
}
