// Whole runs as the application performs them: through the loaded bundle, on the run loop, against the
// simulated service.

#include "tests/BundleHost.h"

#include <Poco/Exception.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "hostapi/HostServiceClientMac.h"
#include "hostapi/HostServiceUsageParams.h"
#include "standin/app/PerformRun.h"

namespace {

std::atomic<bool> holdsBeginning{false};  // of a run, until it is asked to stop

bool isStopped() {
    return Norvale_Plugin_Core::HostServiceUsageParams::getInstance()->isBackupStopped();
}

}  // namespace

// A run calls it before it forgets what was asked of the one before.
void Norvale_Plugin_Core::HostServiceClientMac::disConnect() {
    while (holdsBeginning && !isStopped()) std::this_thread::yield();
    holdsBeginning = false;
    static const auto real = reinterpret_cast<void (*)(HostServiceClientMac*)>(
        ::dlsym(RTLD_NEXT, "_ZN19Norvale_Plugin_Core20HostServiceClientMac10disConnectEv"));
    real(this);
}

namespace {

using namespace flickr_app;
using flickr_sim::photo;
using testing::ElementsAre;
using testing::HasSubstr;

class BundleTest : public testing::Test, public RunListener {
protected:
    BundleTest() {
        const std::string trip = host_.account.addSet("Trip");
        for (int i = 0; i < 12; ++i) host_.account.addItem(trip, photo("in the set " + std::to_string(i)));
        host_.account.addItem("", flickr_sim::video("loose"));
        request_.device = host_.device();
        request_.databaseName = "backup.db";
        request_.authToken = host_.sim.credentials().token;
        request_.dataTypes = {"Images", "Videos"};
        request_.culture = "en";
        // From its third file on the service is slow enough for what is asked for then.
        host_.sim.onRequest([this](const flickr_sim::Request& request) {
            for (; stopsFirst_ && patience_ > 0 && !isStopped(); --patience_)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (!slow_ || request.kind != flickr_sim::Kind::Media) return;
            if (++media_ >= 3) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        });
    }

    void progress(double items, double bytes) override {
        items_ = items;
        bytes_ = bytes;
    }
    bool stopRequested() override {
        if (failing_ && !pause_ && media_ >= 3) throw std::logic_error("of the listener");
        return stopsFirst_ || (stop_ && (media_ >= 3 || pauses_.size() >= 1));
    }
    bool pauseRequested() override {
        if (!pause_ || media_ < 3) return false;
        return pauses_.empty() || --restingPolls_ > 0;
    }
    void paused(bool isPaused) override {
        pauses_.push_back(isPaused);
        requests_ = host_.sim.counts().rest;
        if (isPaused) return;
        if (failing_) throw std::logic_error("of the recovery");
        host_.recover();  // as the application does
    }

    RunOutcome run() { return performRun(request_, *this); }

    BundleHost host_;
    RunRequest request_;
    std::atomic<int> media_{0}, patience_{500};
    bool slow_ = false, stop_ = false, stopsFirst_ = false, pause_ = false, failing_ = false;
    int restingPolls_ = 3;
    std::vector<bool> pauses_;
    std::uint64_t requests_ = 0;  // of the service, at the last change to or from a pause
    double items_ = 0, bytes_ = 0;
};

TEST_F(BundleTest, BacksUpAndHasNothingToDoNextTime) {
    for (const char* culture : {"en", "ja"}) {
        SCOPED_TRACE(culture);
        host_.database.reset();
        std::filesystem::remove_all(request_.device);
        std::filesystem::create_directory(request_.device);
        host_.database = std::make_unique<flickr_standin::BackupDatabase>(request_.device + "/backup.db");
        request_.culture = culture;
        RunOutcome outcome = run();
        EXPECT_EQ(outcome.status, 1) << outcome.errorText;
        EXPECT_EQ(outcome.detail, "");
        EXPECT_EQ(outcome.items, 13);
        EXPECT_EQ(items_, 13);
        EXPECT_GT(bytes_, 0);
        EXPECT_EQ(host_.backupProblem(culture), "");

        host_.sim.clearLog();
        outcome = run();
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.items, 0);
        EXPECT_EQ(host_.sim.counts().media, 0u);
    }
    EXPECT_TRUE(std::filesystem::is_directory(host_.serviceFolder("ja") + "/Trip"));
    EXPECT_FALSE(std::filesystem::exists(host_.serviceFolder("ja") + "/Trip/Thumbnail"))
        << "the thumbnails' folder follows the culture";
}

TEST_F(BundleTest, FailedRunsSayWhy) {
    request_.dataTypes.clear();
    EXPECT_EQ(run().detail, "500");
    request_.dataTypes = {"Images"};
    request_.authToken = "";
    EXPECT_EQ(run().detail, "110");
    request_.authToken = "of somebody else";
    const RunOutcome refused = run();
    EXPECT_NE(refused.status, 1);
    EXPECT_EQ(refused.detail, std::to_string(refused.status));
    EXPECT_FALSE(refused.stopped);

    request_.authToken = host_.sim.credentials().token;
    host_.sim.faults().add(flickr_sim::parseFault("method=flickr.photosets.getList,status=503"));
    EXPECT_EQ(run().detail, "511");
    host_.sim.faults().clear();
    EXPECT_EQ(run().status, 1) << "a failed run leaves the next one alone";

    EXPECT_TRUE(std::filesystem::exists(host_.bundle() + "/Resources/Info.plist"));
    const std::string elsewhere = host_.bundle() + ".away";
    std::filesystem::rename(host_.bundle(), elsewhere);
    EXPECT_THROW(
        {
            try {
                run();
            } catch (const Poco::Exception& exception) {
                EXPECT_THAT(exception.message(), HasSubstr("cannot be loaded"));
                throw;
            }
        },
        Poco::Exception);
    std::filesystem::rename(elsewhere, host_.bundle());
}

TEST_F(BundleTest, StopAndPause) {
    // A stop that the beginning of the run forgets is asked for again.
    stopsFirst_ = holdsBeginning = true;
    RunOutcome outcome = run();
    EXPECT_EQ(outcome.detail, "501");
    EXPECT_EQ(host_.sim.counts().media, 0u);
    EXPECT_FALSE(holdsBeginning);

    stopsFirst_ = false;
    slow_ = true;
    stop_ = true;
    outcome = run();
    EXPECT_EQ(outcome.detail, "501");
    EXPECT_TRUE(outcome.stopped);
    EXPECT_LT(outcome.items, 13);
    EXPECT_THAT(pauses_, ElementsAre());
    const double first = outcome.items;

    // At rest for a while, then begun again.
    stop_ = false;
    pause_ = true;
    media_ = 0;
    host_.recover();
    host_.sim.clearLog();
    outcome = run();
    EXPECT_EQ(outcome.status, 1) << outcome.detail;
    EXPECT_THAT(pauses_, ElementsAre(true, false));
    EXPECT_GE(outcome.items + first, 13) << "all passes together";
    // The stop and the pause cut one item off each; behind its file and before its thumbnail it has been
    // counted, and comes again all the same.
    EXPECT_LE(host_.sim.counts().media, 13 - first + 2) << "more than what was cut off came twice";
    EXPECT_EQ(host_.backupProblem(), "");

    // Stopped while it rests.
    for (const auto& set : host_.account.sets()) {
        for (int i = 0; i < 8; ++i) host_.account.addItem(set.id, photo("more " + std::to_string(i)));
    }
    stop_ = true;
    pauses_.clear();
    media_ = 0;
    outcome = run();
    EXPECT_EQ(outcome.detail, "501");
    EXPECT_TRUE(outcome.stopped);
    stop_ = pause_ = false;
    host_.recover();
    EXPECT_EQ(run().status, 1);
    EXPECT_EQ(host_.backupProblem(), "");
}

TEST_F(BundleTest, AListenerThatThrowsEndsTheRunFirst) {
    slow_ = failing_ = true;
    EXPECT_THROW(run(), std::logic_error);
    host_.recover();
    media_ = 0;
    pause_ = true;
    EXPECT_THROW(run(), std::logic_error);
    EXPECT_EQ(host_.sim.counts().rest, requests_) << "resumed on a device that is not in order";
    failing_ = pause_ = false;
    host_.recover();
    EXPECT_EQ(run().status, 1);
    EXPECT_EQ(host_.backupProblem(), "");
}

}  // namespace

int main(int argc, char** argv) {
    const bool lists = argc > 1 && std::strcmp(argv[1], "--gtest_list_tests") == 0;
    if (!lists) inApplicationFolder(argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
