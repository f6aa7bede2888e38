// The object that the host loads, over a core that does what a test tells it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>

#include "core/FlickrPluginCore.h"
#include "host/CoreBridge.h"
#include "standin/app/Configuration.h"
#include "standin/app/PluginHost.h"
#include "tests/HostDriver.h"
#include "tests/TestFolder.h"

namespace {

/// What a backup was called with, its texts joined by "|" in the order of the arguments.
struct Backup {
    std::string arguments;
    char* videos;
    char* error;
};

struct FakeCore {
    std::mutex mutex;
    void* handle = nullptr;
    long made = 0, deleted = 0, misused = 0;
    std::string directories;
    std::vector<std::string> backups;
    std::atomic<bool> begun{false};      // there has been one
    std::function<int(Backup&)> script;  // by the run's thread
    std::string dataTypes = "Images;Videos;";
    std::function<void()> onDataTypes;  // the last text that is asked for
    std::atomic<bool> stopped{false};

    void use(void* core) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (core == nullptr || core != handle) ++misused;
    }
} fake;

int answer(void* core, char* out, const std::string& text) {
    fake.use(core);
    std::strcpy(out, text.c_str());
    return 1;
}

}  // namespace

namespace Norvale_Plugin_Flickr {

void* createObject(char* logDirectory, char* configDirectory, char*) {
    const std::lock_guard<std::mutex> lock(fake.mutex);
    if (fake.handle != nullptr) ++fake.misused;
    fake.directories = std::string(logDirectory) + "|" + configDirectory;
    ++fake.made;
    return fake.handle = new char;
}

int deleteObject(void* core, char*) {
    fake.use(core);
    const std::lock_guard<std::mutex> lock(fake.mutex);
    delete static_cast<char*>(core);
    fake.handle = nullptr;
    ++fake.deleted;
    return 1;
}

int getName(void* core, char* out, char*) {
    return answer(core, out, "Flickr");
}
int getId(void* core, char* out, char*) {
    return answer(core, out, "the id");
}
int getVersion(void* core, char* out, char*) {
    return answer(core, out, "the version");
}
int getTargetHostVersion(void* core, char* out, char*) {
    return answer(core, out, "the host");
}
int getAutheticationMechanism(void* core, char* out, char*) {
    return answer(core, out, "OAuth");
}
int getServiceCEK(void* core, char* out, char*) {
    return answer(core, out, "the cek");
}
int getLegend(void* core, char* out, char*) {
    return answer(core, out, "Bilder \xc3\xa4");
}
int getApiKey(void* core, char* out, char*) {
    return answer(core, out, flickr_app::sealSecret("key 1"));
}
int getApiSecret(void* core, char* out, char*) {
    return answer(core, out, "no base64 and no cipher");
}
int getSupportedDataTypes(void* core, char* out, char*) {
    if (fake.onDataTypes) fake.onDataTypes();
    return answer(core, out, fake.dataTypes);
}

int getProgress(double& count, double& size, char*) {
    count = 3;
    size = 4096;
    return 1;
}

int stopBackup(void* core, char*) {
    fake.use(core);
    fake.stopped = true;
    return 1;
}

int backup(void* core, char* connection, char* token, char* from, char* key, char* secret, char* types,
           char* videos, char* folder, char* cek, char* mountPoint, bool mode, char* culture, char* error) {
    fake.use(core);
    fake.stopped = false;
    Backup backup{"", videos, error};
    const char* const modeText = mode ? "primary" : "other";
    for (const char* text : std::initializer_list<const char*>{connection, token, from, key, secret, types,
                                                               folder, cek, mountPoint, modeText, culture}) {
        backup.arguments += std::string(text) + "|";
    }
    fake.backups.push_back(backup.arguments);
    fake.begun = true;
    return fake.script(backup);
}

}  // namespace Norvale_Plugin_Flickr

namespace {

using Messages = std::vector<std::string>;

class HostTest : public testing::Test {
protected:
    HostTest() {
        PluginHostQuietSystemLog();
        fake.script = [](Backup&) { return 1; };
        fake.made = fake.deleted = 0;
        fake.backups.clear();
        fake.onDataTypes = nullptr;
        HostCallbacks callbacks = {};
        callbacks.context = this;
        callbacks.finished = [](void* test, int status, const char* detail, int service, int hasSettings) {
            HostTest& self = *static_cast<HostTest*>(test);
            const std::lock_guard<std::mutex> lock(self.mutex_);
            std::string event = std::to_string(status) + " " + detail;
            if (hasSettings && service != status) event += " but " + std::to_string(service);
            if (!hasSettings) event += " without settings";
            self.events_.push_back(event);
            if (self.onEvent_) self.onEvent_();
            return self.raising_ == "finish" && self.events_.size() == 1 ? 1 : 0;
        };
        callbacks.ticked = [](void* test, double items, double bytes, int isRight) {
            HostTest& self = *static_cast<HostTest*>(test);
            EXPECT_TRUE(isRight && items == 3 && bytes == 4096);
            ++self.ticks_;
            return self.raising_ == "tick" ? 1 : 0;
        };
        callbacks.begins = [](void* test) {
            HostTest& self = *static_cast<HostTest*>(test);
            if (self.onBegin_) self.onBegin_(++self.begins_);
            return self.raising_ == "begin" ? 1 : 0;
        };
        callbacks.resumes = [](void* test, const char* key) {
            HostTest& self = *static_cast<HostTest*>(test);
            EXPECT_STREQ(key, "key");
            if (self.onResume_) self.onResume_();
        };
        callbacks.cultureAsked = [](void* test) {
            HostTest& self = *static_cast<HostTest*>(test);
            if (self.onCulture_) self.onCulture_();
        };
        callbacks.guard = [](void* test, void (*work)(void*), void* argument) {
            try {
                work(argument);
            } catch (const std::exception& exception) {
                static_cast<HostTest*>(test)->caught_ = exception.what();
            }
        };
        host_ = HostNew(&callbacks);
        set("mountPoint", device_.c_str());
        set("deviceCulture", "en");
        set("dataTypes", "Images;Videos;");
        set("authMechanism", "OAuth");
        set("serviceOAuthToken", "token");
        HostSetBackupFrom(host_, 2015, 3, 9);
    }

    ~HostTest() override {
        EXPECT_EQ(HostTimerInterval(host_), 0) << "a timer is left";
        EXPECT_EQ(HostFree(host_), 0) << "the plug-in object is leaked";
        EXPECT_EQ(fake.misused, 0) << "a core was used that is not there, or a second one was made";
    }

    void set(const char* key, const char* value) { HostSet(host_, key, value); }
    void send(const char* message) { HostSend(host_, message); }

    /// A whole run, with which the core has to go. Returns the events.
    Messages run(const char* message = "begin") {
        events_.clear();
        HostStart(host_, message);
        EXPECT_TRUE(HostRunLoop(host_, 60, nullptr, nullptr)) << "the run hangs";
        EXPECT_EQ(fake.made, fake.deleted);
        EXPECT_EQ(HostTimerInterval(host_), 0);
        return events_;
    }

    /// Runs the main run loop until the condition holds.
    bool wait(std::function<bool()> condition) {
        const auto done = [](void* context) -> int {
            return (*static_cast<std::function<bool()>*>(context))();
        };
        return HostRunLoop(host_, 60, done, &condition);
    }

    /// The backup sends itself these messages before it returns.
    void during(const Messages& messages, int status = 1) {
        fake.script = [=](Backup&) {
            if (fake.backups.size() == 1) {
                for (const std::string& message : messages) send(message.c_str());
            }
            return status;
        };
    }

    Host* host_;
    const TestFolder temporary_;
    const std::string device_ = temporary_.path();
    std::mutex mutex_;
    Messages events_;
    std::string caught_;
    std::atomic<int> ticks_{0};
    int begins_ = 0;
    std::string raising_;
    std::function<void(int)> onBegin_;
    std::function<void()> onResume_, onEvent_, onCulture_;
};

using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(HostTest, IdentityAndSettings) {
    EXPECT_STREQ(HostGet(host_, "getName"), "nil");
    send("initialize");
    EXPECT_THAT(fake.directories, testing::MatchesRegex("(.*)/Plugins/\\|.*/Plugins/"));
    const std::string salt = "3c1a9e20-7d4b-4a61-b8f2-5e07c9d2a4b3";
    const std::pair<const char*, std::string> expected[] = {
        {"getName", "Flickr"},
        {"getId", "the id"},
        {"getVersion", "the version"},
        {"getTargetHostVersion", "the host"},
        {"getAutheticationMechanism", "OAuth"},
        {"getServiceCEK", "the cek"},
        {"getLegend", "Bilder \xc3\xa4"},
        {"getApiKey", "key 1"},
        {"getApiSecret", "nil"},  // what is not enciphered is not handed out
        {"getPKEK", "32 bytes"},
        {"getPKEKSaltValue", salt},
        {"supportedDataTypes", "Images;Videos;"},
        {"getSupportedDataType", "[Images|Videos]"},
        {"supportedDataTypes", "Images;Videos"},
        {"getSupportedDataType", "[Images|Videos]"},
        {"settings service.serviceId", "the id"},
        {"settings service.name", "Flickr"},
        {"settings service.regionalName", "Flickr"},
        {"settings service.CEK", "the cek"},
        {"settings service.legend", "Bilder \xc3\xa4"},
        {"settings service.enabled", "true"},
        {"settings service.autheticationToken", "48213377650912846-3f9e0c2b7a6d1e54"},
        {"settings service.tokenFrob", "none"},
        {"settings service.apiKey", "key 1"},
        {"settings service.userSelectedDataType", "[Images|Videos]"},
        {"settings service.autheticationMechanism", "OAuth"},
        {"settings service.backupState", "4"},
        {"settings service.backupError", "0"},
        {"settingsV2 serviceID", "the id"},
        {"settingsV2 serviceName", "Flickr"},
        {"settingsV2 cEK", "the cek"},
        {"settingsV2 legend", "Bilder \xc3\xa4"},
        {"settingsV2 enabled", "1"},
        {"settingsV2 configured", "0"},
        {"settingsV2 dataTypes", "[Images|Videos]"},
        {"settingsV2 authMechanism", "OAuth"},
        {"settingsV2 backupStatus", "4"},
        {"settingsV2 backupError", "0"},
        {"settingsV2 pKEK", "32 bytes"},
        {"settingsV2 serviceAPIKey", "key 1"},
        {"settingsV2 backupFrom", "nil"},
    };
    for (const auto& [key, value] : expected) EXPECT_EQ(HostGet(host_, key), value) << key;
    EXPECT_THAT(HostGet(host_, "settings service.backupFrom"), HasSubstr("2001-01-01 00:00:00"));
    const std::string keywords = HostGet(host_, "getKeywordString");
    EXPECT_EQ(keywords.substr(0, 60), "HarbourlineKey=Harbourline||FlickrKey=My Flickr Items||Thumb");
    EXPECT_THAT(keywords, testing::EndsWith("||Dec=Dec||AM=AM||PM=PM||"));

    fake.dataTypes = "";
    send("initialize");  // reads again, over the core that is there
    EXPECT_EQ(fake.made, 1);
    EXPECT_STREQ(HostGet(host_, "settings service.userSelectedDataType"), "nil");
    EXPECT_STREQ(HostGet(host_, "settingsV2 dataTypes"), "nil");
    run();
}

TEST_F(HostTest, AnInitializeThatFailsIsDoneAgain) {
    fake.onDataTypes = [] { HostRaise("in initialize"); };
    EXPECT_THAT(run(), ElementsAre("2 500"));
    EXPECT_STREQ(HostGet(host_, "getApiKey"), "nil");
    std::string meanwhile;
    fake.onDataTypes = [&] { meanwhile = HostGet(host_, "getApiKey"); };
    EXPECT_THAT(run(), ElementsAre("1 "));
    EXPECT_STREQ(HostGet(host_, "getApiKey"), "key 1");
    EXPECT_EQ(meanwhile, "nil") << "what is enciphered is seen";
}

TEST_F(HostTest, EachOutcomeHasItsEvent) {
    const struct {
        const char *key, *value;  // a setting that differs
        int status;
        const char *error, *event, *message;
        std::size_t backups;
    } cases[] = {
        {"cEK", "", 1, "", "1 ", "", 1},
        {"cEK", "", 511, "It broke", "2 511", "Backup Info 511 : It broke", 1},
        {"cEK", "", 7, "", "2 7", "Backup Info 7", 1},
        {"cEK", "", 2, "\xff broken text", "2 2", "Backup Info 2 : \xc3\xbf broken text", 1},
        {"dataTypes", "", 1, "", "2 500", "", 0},
        {"authMechanism", "Basic", 1, "", "2 110", "", 0},
        {"serviceOAuthToken", "", 1, "", "2 110", "", 0},
        {"mountPoint", nullptr, 1, "", "2 500", "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.event);
        set("dataTypes", "Images;Videos;");
        set("authMechanism", "OAuth");
        set("serviceOAuthToken", "token");
        set("mountPoint", device_.c_str());
        set(c.key, c.value);
        fake.backups.clear();
        fake.script = [&](Backup& backup) {
            std::strcpy(backup.error, c.error);
            std::memset(backup.videos, 'v',
                        Norvale_Plugin_Flickr::kVideoListCapacity);  // is all the caller's
            return c.status;
        };
        EXPECT_THAT(run(), ElementsAre(c.event));
        EXPECT_EQ(fake.backups.size(), c.backups);
        if (*c.message != '\0') {
            EXPECT_STREQ(HostLastMessage(), c.message);
        }
    }
    EXPECT_FALSE(std::filesystem::exists("(null)"));
    EXPECT_EQ(fake.made, static_cast<long>(std::size(cases))) << "each run has a core of its own";
}

TEST_F(HostTest, TheCoreGetsTheSettings) {
    const std::string folder = device_ + "/Brightkettle/My Flickr Items";
    EXPECT_THAT(run(), ElementsAre("1 "));
    EXPECT_TRUE(std::filesystem::is_directory(folder));
    set("dataTypes", "Videos;");
    set("serviceAPIKey", "k");
    set("serviceAPISecret", "s");
    set("cEK", "c");
    set("mode", "1");
    set("deviceCulture", "de");
    HostSetBackupFromText(host_, "2019-12-31 11:30:00 +0000");
    run();
    EXPECT_THAT(fake.backups,
                ElementsAre(device_ + "/backup.db|token|3/9/2015|||Images;Videos;|" + folder + "||" +
                                device_ + "|primary|en|",
                            testing::AllOf(HasSubstr("/backup.db|token|12/31/2019|k|s|Videos;|"),
                                           HasSubstr("|c|" + device_ + "|other|de|"),
                                           testing::Not(HasSubstr("My Flickr Items")))));

    for (const char* noDate : {static_cast<const char*>(nullptr), "last summer"}) {
        fake.backups.clear();
        HostSetBackupFromText(host_, noDate);
        run();
        EXPECT_THAT(fake.backups, ElementsAre(HasSubstr("|1/1/2001|")));
    }

    // A "\\" in a path is no separator.
    const std::string odd = device_ + "/a\\b";
    std::filesystem::create_directory(odd);
    set("mountPoint", odd.c_str());
    fake.backups.clear();
    run();
    EXPECT_THAT(fake.backups, ElementsAre(testing::StartsWith(odd + "/backup.db|")));
    EXPECT_TRUE(std::filesystem::exists(odd + "/Brightkettle"));
}

TEST_F(HostTest, StopAtAnyMoment) {
    send("stopBackup");
    EXPECT_THAT(events_, ElementsAre("2 501 without settings")) << "there is no run: at once";

    // Before the core is called: nothing of the service or the device is touched.
    for (const bool hasCore : {false, true}) {
        onBegin_ = [=](int) {
            if (hasCore) send("initialize");
            send("stopBackup");
        };
        EXPECT_THAT(run(), ElementsAre("2 501")) << "one stop, one event";
    }
    onBegin_ = nullptr;
    send("initialize");
    send("stopBackup");
    EXPECT_THAT(run("process"), ElementsAre("2 501"));
    EXPECT_EQ(fake.backups.size(), 0u);

    // A beginning that the host asks for knows of no earlier stop.
    send("initialize");
    send("stopBackup");
    EXPECT_THAT(run(), ElementsAre("1 "));

    fake.script = [](Backup&) {
        while (!fake.stopped) std::this_thread::yield();
        return 1;
    };
    events_.clear();
    fake.begun = false;
    HostStart(host_, "begin");
    ASSERT_TRUE(wait([] { return fake.begun.load(); }));
    send("stopBackup");
    send("stopBackup");
    ASSERT_TRUE(HostRunLoop(host_, 60, nullptr, nullptr));
    EXPECT_THAT(events_, ElementsAre("2 501"));

    events_.clear();
    send("stopBackup");
    EXPECT_THAT(events_, ElementsAre("2 501 without settings")) << "the run is over: at once";
    raising_ = "finish";
    events_.clear();
    send("stopBackup");
    EXPECT_THAT(HostLastMessage(), HasSubstr("Error while stopping backup"));
}

TEST_F(HostTest, PauseAndWhatEndsIt) {
    // What comes while the backup runs, what comes when it waits, the only event, and how often the core
    // backs up.
    const struct {
        Messages during, waiting;
        const char* event;
        std::size_t backups;
    } cases[] = {
        {{"low"}, {"resume"}, "1 ", 2},
        {{"low"}, {"unholdWaitingCondition"}, "1 ", 2},
        {{"low", "low"}, {"recovered"}, "1 ", 2},
        {{"low"}, {"end"}, "2 501", 1},
        {{"low"}, {"stopBackup"}, "2 501", 1},
        {{"low", "resume"}, {}, "1 ", 2},
        {{"low", "unholdWaitingCondition"}, {}, "1 ", 2},
        {{"resume", "low"}, {"resume"}, "1 ", 2},  // a release is for the pause before it
        {{"low", "resume", "low"}, {"end"}, "2 501", 1},
        {{"low", "end"}, {}, "2 501", 1},
        {{"low", "stopBackup"}, {}, "2 501", 1},
        {{"low", "resume", "stopBackup"}, {}, "2 501", 1},
        {{"low", "stopBackup", "resume"}, {}, "2 501", 1},
        {{"pauseBackup"}, {}, "2 501", 1},  // not for bandwidth
        {{"resume"}, {}, "1 ", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.during) + testing::PrintToString(c.waiting));
        for (const int status : {1, 511}) {
            fake.backups.clear();
            events_.clear();
            fake.script = [&](Backup&) {
                if (fake.backups.size() > 1) return 1;
                for (const std::string& message : c.during) send(message.c_str());
                return status;
            };
            if (status != 1 && c.during == Messages{"resume"}) continue;  // no pause
            const long made = fake.made;
            fake.begun = false;
            HostStart(host_, "begin");
            if (!c.waiting.empty()) {
                ASSERT_TRUE(wait([] { return fake.begun.load(); }));
                ASSERT_TRUE(wait([&] { return HostIsWaiting(host_) || !HostIsRunning(host_); }));
                ASSERT_TRUE(HostIsWaiting(host_)) << "the pause was undone";
                ASSERT_TRUE(wait([&] { return HostRests(host_) > 0; })) << "it asks again without rest";
                for (const std::string& message : c.waiting) send(message.c_str());
            }
            ASSERT_TRUE(HostRunLoop(host_, 60, nullptr, nullptr)) << "the run waits for ever";
            EXPECT_THAT(events_, ElementsAre(c.event));
            EXPECT_EQ(fake.backups.size(), c.backups);
            EXPECT_EQ(fake.made, made + 1);
            EXPECT_EQ(fake.deleted, fake.made);
        }
    }
}

TEST_F(HostTest, StopBetweenTheWaitAndTheNextBegin) {
    during({"low", "resume"});
    for (const bool early : {true, false}) {
        fake.backups.clear();
        begins_ = 0;
        onResume_ = [=] {
            if (early) send("stopBackup");
        };
        onBegin_ = [=](int number) {
            if (number == 2 && !early) send("stopBackup");
        };
        EXPECT_THAT(run(), ElementsAre("2 501"));
        EXPECT_EQ(begins_, 2);
        EXPECT_EQ(fake.backups.size(), 1u) << "the stop was lost";
    }
}

TEST_F(HostTest, PauseBetweenTheWaitAndTheNextBegin) {
    during({"low", "resume"});
    onBegin_ = [this](int number) {
        if (number == 2) send("low");
    };
    HostStart(host_, "begin");
    ASSERT_TRUE(wait([this] { return (begins_ == 2 && HostIsWaiting(host_)) || !HostIsRunning(host_); }));
    EXPECT_TRUE(HostIsWaiting(host_)) << "the pause was lost";
    send("resume");
    ASSERT_TRUE(HostRunLoop(host_, 60, nullptr, nullptr));
    EXPECT_THAT(events_, ElementsAre("1 "));
    EXPECT_EQ(fake.backups.size(), 2u);
}

TEST_F(HostTest, ABackupBegunInAnswerToTheEventOfAnother) {
    // The second one's core and timer are there when the first one cleans up.
    std::atomic<bool> begun{false}, go{false};
    std::thread second;
    fake.script = [&](Backup&) {
        while (fake.backups.size() == 2 && !go) std::this_thread::yield();
        return 1;
    };
    onEvent_ = [&] {
        if (second.joinable()) return;
        onCulture_ = [&] {
            begun = true;
            while (HostIsRunning(host_)) std::this_thread::yield();  // the first one
            onCulture_ = nullptr;
        };
        second = std::thread([this] { send("begin"); });
        while (!begun) std::this_thread::yield();
    };
    HostStart(host_, "begin");
    const auto ended = [this] {
        const std::lock_guard<std::mutex> lock(mutex_);
        return events_.size() == 2;
    };
    EXPECT_TRUE(wait([&] { return ticks_ > 0 || ended(); }));
    EXPECT_GT(ticks_, 0);
    go = true;
    EXPECT_TRUE(wait(ended));
    second.join();
    EXPECT_THAT(events_, ElementsAre("1 ", "1 "));
    HostRunLoop(host_, 0.1, nullptr, nullptr);
    EXPECT_EQ(fake.made, fake.deleted);
}

TEST_F(HostTest, ACoreStaysWhileABackupWorksWithIt) {
    EXPECT_EQ(FlickrCoreCreate("", "", nullptr), 1);
    EXPECT_EQ(FlickrCoreCreate("", "", nullptr), 0);
    FlickrCoreDiscard(nullptr);
    EXPECT_FALSE(FlickrCoreExists());
    char error[FlickrTextCapacity] = "";
    EXPECT_EQ(FlickrCoreGetText(FlickrCoreName, error, error), 511);
    EXPECT_STRNE(error, "");
    EXPECT_EQ(FlickrCoreStop(error), 1);

    fake.script = [](Backup&) {  // the end of another run meanwhile
        FlickrCoreEnter();
        FlickrCoreLeave(nullptr);
        FlickrCoreDiscard(nullptr);
        return FlickrCoreExists() ? 1 : 2;
    };
    EXPECT_THAT(run(), ElementsAre("1 "));
}

TEST_F(HostTest, ManyPausesInOneRun) {
    constexpr std::size_t kPauses = 2000;
    fake.script = [this](Backup&) {
        if (fake.backups.size() <= kPauses) send("low"), send("resume");
        return 1;
    };
    EXPECT_THAT(run(), ElementsAre("1 "));
    EXPECT_EQ(fake.backups.size(), kPauses + 1);
    EXPECT_EQ(fake.made, 1);
}

TEST_F(HostTest, ExceptionsOfEitherLanguage) {
    const auto raise = [](Backup&) -> int {
        HostRaise("in the run");
        return 1;
    };
    const auto throwing = [](Backup&) -> int { throw std::runtime_error("of C++"); };

    fake.script = raise;
    EXPECT_THAT(run(), ElementsAre("2 500"));
    EXPECT_THAT(HostLastMessage(),
                testing::MatchesRegex("Error in Backup in ProcessBackup method.*in the run"));

    fake.script = throwing;
    EXPECT_THAT(run(), ElementsAre());
    EXPECT_EQ(caught_, "of C++");

    // In the pass that follows a pause.
    for (const std::function<int(Backup&)>& second : {std::function<int(Backup&)>(raise), {throwing}}) {
        fake.backups.clear();
        caught_.clear();
        fake.script = [&](Backup& backup) {
            if (fake.backups.size() > 1) return second(backup);
            send("low"), send("resume");
            return 1;
        };
        run();
        EXPECT_EQ(events_.size() + caught_.size(), events_.empty() ? std::strlen("of C++") : 1u);
    }

    fake.script = [](Backup&) { return 1; };
    raising_ = "finish";
    EXPECT_THAT(run(), ElementsAre("1 ", "2 500"));
    raising_ = "begin";
    EXPECT_THAT(run(), ElementsAre());
    EXPECT_THAT(HostLastMessage(), HasSubstr("BeginBackup error"));
    raising_ = "";
    EXPECT_THAT(run(), ElementsAre("1 "));
}

TEST_F(HostTest, TicksOnTheMainThread) {
    std::atomic<bool> go{false};
    fake.script = [&](Backup&) {
        while (!go) std::this_thread::yield();
        return 1;
    };
    for (const char* raising : {"", "tick"}) {  // a delegate that raises does not end the ticks
        raising_ = raising;
        go = false;
        ticks_ = 0;
        HostStart(host_, "begin");
        ASSERT_TRUE(wait([&] { return ticks_ >= 2; }));
        EXPECT_EQ(HostTimerInterval(host_), 1.0);
        go = true;
        ASSERT_TRUE(HostRunLoop(host_, 60, nullptr, nullptr));
    }
    EXPECT_THAT(HostLastMessage(), HasSubstr("Error inside Flickr Backup Updater method"));

    ticks_ = 0;
    send("tick");
    EXPECT_EQ(ticks_, 1) << "a timer of the host's own is as good";
}

// Requests from several threads while runs begin, wait and end: the fake core counts every use of a core that
// is not there. Also the program for the tools that watch threads.
TEST_F(HostTest, RequestsAtAnyMomentFromSeveralThreads) {
    std::atomic<bool> over{false};
    std::atomic<int> runs{0};
    fake.script = [](Backup&) {
        for (int i = 0; i < 200 && !fake.stopped; ++i) std::this_thread::yield();
        return 1;
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 3; ++seed) {
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            const char* const messages[] = {
                "low", "low", "resume",      "unholdWaitingCondition", "resume",
                "end", "low", "pauseBackup", "unholdWaitingCondition", "stopBackup"};
            while (!over) {
                send(messages[random() % std::size(messages)]);
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
            }
        });
    }
    for (; runs < 30; ++runs) {
        send("initialize");
        HostStart(host_, "begin");
        ASSERT_TRUE(HostRunLoop(host_, 60, nullptr, nullptr)) << "the run hangs";
        const std::lock_guard<std::mutex> lock(mutex_);
        EXPECT_FALSE(events_.empty());
    }
    over = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_THAT(run(), ElementsAre("1 "));
}

}  // namespace
