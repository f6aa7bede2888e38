// The log: its lines, what they hide, and its files.

#include <Poco/InflatingStream.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "hostapi/DevLogger.h"
#include "standin/framework/run/Log.h"
#include "standin/framework/run/Secrets.h"
#include "tests/framework/FrameworkFixture.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;
using namespace flickr_standin;

namespace {

using LogTest = FrameworkTest;

TEST_F(LogTest, WritesOneLineForEachCallAndNoSecrets) {
    const std::string log = (folder_ / "dev.log").string();
    nameLogFile(log);
    setLogSecrets({"s3cr/t", "s3cr/t-and-more", ""});
    constexpr int kThreads = 4, kLines = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < kLines; ++line) {
                DevLogger::writeLog(
                    "evil\nline\r\x1b[31m \xff\u202e\u2028\\ s3cr/t s3cr/t-and-more s3cr%2Ft "
                    "GET /?api_key=KEY&auth_token=TOK&api_sig=SIG& end",
                    LogLevelFailure, "core/x.cpp", 12);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::istringstream lines(readFile(log));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_THAT(line,
                    testing::EndsWith(
                        " FAIL core/x.cpp:12 evil\\nline\\r\\x1b[31m \\xff\\u{202e}\\u{2028}\\\\ *** *** *** "
                        "GET /?api_key=***&auth_token=***&api_sig=***& end"));
    }
    EXPECT_EQ(count, kThreads * kLines);

    const auto before = fs::file_size(log);
    DevLogger::writeLog("gathered", LogLevelInformation, "x", 1);
    EXPECT_EQ(fs::file_size(log), before);
    for (int i = 0; i < 500 && fs::file_size(log) == before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_THAT(readFile(log), testing::EndsWith(" INFO x:1 gathered\n")) << "comes by itself";
    DevLogger::writeLog("before", LogLevelInformation, "x", 1);
    DevLogger::writeLog("failed", LogLevelFailure, "x", 1);
    EXPECT_THAT(readFile(log), testing::ContainsRegex(" INFO x:1 before\n.* FAIL x:1 failed\n$"));

    // A file that takes half a line, and nothing more for a while.
    rlimit limits = {};
    getrlimit(RLIMIT_FSIZE, &limits);
    const auto formerly = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit smaller = {static_cast<rlim_t>(fs::file_size(log)) + 60, limits.rlim_max};
    setrlimit(RLIMIT_FSIZE, &smaller);
    DevLogger::writeLog(std::string(100, 'a'), LogLevelFailure, "x", 1);
    DevLogger::writeLog("meanwhile", LogLevelFailure, "x", 1);
    setrlimit(RLIMIT_FSIZE, &limits);
    std::signal(SIGXFSZ, formerly);
    DevLogger::writeLog("afterwards", LogLevelFailure, "x", 1);
    EXPECT_THAT(readFile(log), testing::ContainsRegex("failed\n[^\n]* x:1 a{100}\n[^\n]* x:1 meanwhile\n"
                                                      "[^\n]* x:1 afterwards\n$"));

    setLogSecrets({"S", "run", "Photo"});
    DevLogger::writeLog("Started, S; run=run&x='S' runs Photo-S Photos", LogLevelFailure, "x", 1);
    EXPECT_THAT(readFile(log), testing::EndsWith(" Started, ***; ***=***&x='***' runs ***-*** Photos\n"))
        << "a short secret is masked as a value, not within a word";

    setLogDetail(LogDetail::Normal);
    for (const char* detail :
         {"*********************** Photo Started**************************", "Listed item - 1 a",
          "Photo - a already backed up no change, continuing to next photo"}) {
        DevLogger::writeLog(detail, LogLevelInformation, "x", 1);
    }
    DevLogger::writeLog("******", LogLevelInformation, "/home/me/build/../core/y.cpp", 3);
    DevLogger::writeLog("told", LogLevelFailure, "x", 1);
    EXPECT_THAT(readFile(log),
                testing::ContainsRegex(" Photos\n[^\n]* INFO core/y.cpp:3 [*]{6}\n[^\n]* x:1 told\n$"));
    setLogDetail(LogDetail::Failures);
    DevLogger::writeLog("not a failure", LogLevelInformation, "x", 1);
    setLogDetail(LogDetail::Everything);

    for (int i = 0; i < 4000; ++i) {
        DevLogger::writeLog(std::string(20000, 'x'), LogLevelInformation, nullptr, 0);
    }
    EXPECT_LE(fs::file_size(log), 10u << 20);
    EXPECT_TRUE(fs::exists(log + ".4.gz"));
    for (const char* other : {".5.gz", ".1", ".0.gz", ".0.gz.part"})
        EXPECT_FALSE(fs::exists(log + other)) << other;
    std::ifstream compressed(log + ".1.gz", std::ios::binary);
    Poco::InflatingInputStream older(compressed, Poco::InflatingStreamBuf::STREAM_GZIP);
    const std::string text(std::istreambuf_iterator<char>(older), {});
    EXPECT_GT(text.size(), 9u << 20);
    EXPECT_LE(text.size(), 10u << 20);
    EXPECT_EQ(text.back(), '\n');

    // A log that cannot be compressed grows on, and the older ones stay; one that another process has turned
    // over is begun anew.
    const std::string foreign = log + ".0.gz.part";
    fs::create_directory(foreign);
    const auto olderSize = fs::file_size(log + ".4.gz");
    const auto fill = [] {
        for (int i = 0; i < 600; ++i)
            DevLogger::writeLog(std::string(20000, 'x'), LogLevelInformation, "x", 0);
    };
    fill();
    EXPECT_GT(fs::file_size(log), 10u << 20);
    EXPECT_EQ(fs::file_size(log + ".4.gz"), olderSize);
    fs::remove(foreign);
    fs::rename(log, log + ".elsewhere");
    fill();
    EXPECT_LE(fs::file_size(log), 10u << 20);

    const std::string earlier = (folder_ / "earlier.log").string();
    std::ofstream(earlier).put('\n');
    fs::resize_file(earlier, 10u << 20);
    nameLogFile(earlier);
    DevLogger::writeLog("one line more", LogLevelFailure, "x", 1);
    EXPECT_TRUE(fs::exists(earlier + ".1.gz")) << "what an earlier process wrote counts";
    EXPECT_THAT(readFile(earlier), testing::EndsWith(" one line more\n"));

    nameLogFile((folder_ / "none" / "x.log").string());
    DevLogger::writeLog("dropped", LogLevelInformation, "x", 1);
    setLogSecrets({});
}

}  // namespace
