// The developer log. A line is
//
//   2024-03-01T12:00:00.123Z INFO core/PhotoSetProcessor.cpp:57 Processing Photo Set: Trip
//
// When the file has grown past its limit it becomes NAME.1, and a former NAME.1 becomes NAME.2.

#include "hostapi/DevLogger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <mutex>

#include "standin/framework/LogFile.h"
#include "standin/framework/LogText.h"
#include "standin/framework/RunJournal.h"
#include "standin/framework/RunSettings.h"

namespace Norvale_Plugin_Core {

namespace {

constexpr off_t kLargestLog = 10 * 1024 * 1024;

struct Log {
    std::mutex mutex;
    std::string path;
    int descriptor = -1;
    off_t size = 0;

    void open() {
        descriptor = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        struct stat status = {};
        size = descriptor >= 0 && ::fstat(descriptor, &status) == 0 ? status.st_size : 0;
    }

    void close() {
        if (descriptor >= 0) ::close(descriptor);
        descriptor = -1;
    }

    void rotate() {
        close();
        std::rename((path + ".1").c_str(), (path + ".2").c_str());
        std::rename(path.c_str(), (path + ".1").c_str());
        open();
    }
};

// Never destroyed, for threads that log until the very end.
Log& theLog() {
    static Log& log = *new Log;
    return log;
}

const char* levelName(LogLevel level) {
    return level == LogLevelFailure ? "FAIL" : "INFO";
}

/// The current time. A run writes a dozen lines for each item, so the cheap functions are used here.
std::string timeText() {
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    ::gmtime_r(&now.tv_sec, &parts);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(now.tv_nsec / 1000000));
    return text;
}

}  // namespace

void nameLogFile(const std::string& path) {
    Log& log = theLog();
    const std::lock_guard<std::mutex> lock(log.mutex);
    log.close();
    log.path = path;
    log.open();
}

void DevLogger::writeLog(std::string message, LogLevel level, const char* sourceFile, int line) {
    RunJournal::instance().logLine(message);

    Log& log = theLog();
    {
        const std::lock_guard<std::mutex> lock(log.mutex);
        if (log.descriptor < 0) return;
    }
    const std::string text = timeText() + " " + levelName(level) + " " + (sourceFile ? sourceFile : "-") +
                             ":" + std::to_string(line) + " " + oneLine(maskSecrets(std::move(message))) +
                             "\n";
    const std::lock_guard<std::mutex> lock(log.mutex);
    if (log.size + static_cast<off_t>(text.size()) > kLargestLog) log.rotate();
    // One write for one line, so that lines of several processes do not mix either.
    const ssize_t written = ::write(log.descriptor, text.data(), text.size());
    if (written > 0) log.size += written;
}

}  // namespace Norvale_Plugin_Core
