// Who may use a device at a time.

#include <Poco/Exception.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>

#include "standin/framework/device/DeviceLock.h"
#include "tests/framework/FrameworkFixture.h"

using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using testing::HasSubstr;

namespace {

using DeviceLockTest = FrameworkTest;

TEST_F(DeviceLockTest, LetsOneRunAtATimeUseADevice) {
    auto first = std::make_unique<DeviceLock>(folder_.string());
    const auto refusal = [&]() -> std::string {
        try {
            DeviceLock second(folder_.string());
            return "";
        } catch (Poco::Exception& exception) {
            return exception.message();
        }
    };
    EXPECT_THAT(refusal(), HasSubstr("Another backup"));
    first.reset();
    EXPECT_EQ(refusal(), "");
    if (::fork() == 0) {
        new DeviceLock(folder_.string());
        ::kill(::getpid(), SIGKILL);
    }
    ::wait(nullptr);
    EXPECT_EQ(refusal(), "") << "the holder was killed";
    EXPECT_THROW(DeviceLock((folder_ / "none").string()), Poco::Exception);

    // Readers keep a run waiting, and a run keeps readers off.
    auto reader = DeviceLock::forReading(folder_.string());
    EXPECT_TRUE(DeviceLock::forReading(folder_.string()) && reader);
    std::atomic<bool> isHeld{false};
    std::thread run([&] {
        const DeviceLock lock(folder_.string());
        isHeld = true;
        EXPECT_FALSE(DeviceLock::forReading(folder_.string()));
    });
    EXPECT_FALSE(isHeld);
    reader.reset();
    run.join();
    EXPECT_TRUE(DeviceLock::forReading((folder_ / "none").string())) << "nothing to lock";
}

}  // namespace
