// The developer log. A line is
//
//   2024-03-01T12:00:00.123Z INFO core/PhotoSetProcessor.cpp:57 Processing Photo Set: Trip
//
// Before the file grows past its limit it becomes NAME.1.gz, the former NAME.1.gz becomes NAME.2.gz, and so
// on. Where that fails it grows on, and is tried again a limit later.
//
// A run writes a dozen lines for each item, and a call of the system for each would be a tenth of what an
// unchanged item costs. So lines are gathered for up to a quarter of a second. A failure is written at once,
// with all that came before it, and so is everything when the process ends by itself; a kill can take the
// last quarter of a second's lines. What the system does not take, on a full disk say, is tried again with
// the lines that come. POCO's file channel would write every line by itself, or end a kill in the middle of
// one.

#include "standin/framework/run/Log.h"

#include <Poco/DeflatingStream.h>
#include <Poco/Exception.h>
#include <Poco/StreamCopier.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>

#include "core/RunLines.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/run/Secrets.h"

namespace flickr_standin {

namespace {

constexpr int kOlderLogs = 4;
constexpr off_t kLargestLog = 10 * 1024 * 1024;
constexpr std::size_t kUsualPrefix = 128;
constexpr std::size_t kMostGathered = 64 * 1024;
constexpr std::chrono::milliseconds kGatheringTime{250};

/// Writes a compressed copy, whole or not at all.
bool compress(const std::string& path, const std::string& compressed) {
    const std::string part = compressed + ".part";
    try {
        const int file = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (file < 0) return false;
        ::close(file);
        std::ifstream from(path, std::ios::binary);
        std::ofstream to(part, std::ios::binary);
        Poco::DeflatingOutputStream deflated(to, Poco::DeflatingStreamBuf::STREAM_GZIP);
        Poco::StreamCopier::copyStream(from, deflated);
        deflated.close();
        to.close();
        if (from.bad() || !deflated || !to) throw Poco::WriteFileException(part);
    } catch (Poco::Exception&) {
        ::unlink(part.c_str());
        return false;
    }
    return std::rename(part.c_str(), compressed.c_str()) == 0;
}

/// Lines that come for every element of a list and for every unchanged item.
bool isDetail(const std::string& message) {
    using namespace Norvale_Plugin_Flickr;
    constexpr std::string_view kElement = "***********************";
    const bool isElement =
        startsWith(message, kElement) && message.find_first_not_of('*') != std::string::npos;
    return isElement || kItemNamed.read(message) || kPhotoUnchanged.read(message) ||
           kVideoUnchanged.read(message);
}

/// The file and its folder: what is above them is where somebody once built the program.
std::string_view sourceOf(const char* path) {
    const std::string_view text = path == nullptr ? "-" : path;
    const std::size_t file = text.rfind('/');
    if (file == std::string_view::npos || file == 0) return text;
    const std::size_t folder = text.rfind('/', file - 1);
    return folder == std::string_view::npos ? text : text.substr(folder + 1);
}

std::atomic<LogDetail> logDetail{LogDetail::Everything};

class Log {
public:
    void name(const std::string& path) {
        const std::lock_guard<std::mutex> lock(mutex_);
        close();
        path_ = path;
        rotateAt_ = kLargestLog;
        open();
    }

    bool isOpen() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return descriptor_ >= 0;
    }

    void add(const std::string& line, bool atOnce) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (descriptor_ < 0) return;
        if (size_ + static_cast<off_t>(gathered_.size() + line.size()) > rotateAt_) rotate();
        const bool first = gathered_.empty();
        gathered_ += line;
        if (atOnce || !gathers_ || gathered_.size() >= kMostGathered) {
            write();
            if (gathers_ && !gathered_.empty()) writeSoon();
        } else if (first) {
            writeSoon();
        }
    }

    void flush() {
        const std::lock_guard<std::mutex> lock(mutex_);
        write();
    }

    /// For the process's end: there is no thread to write what is gathered from here on.
    void stopGathering() {
        const std::lock_guard<std::mutex> lock(mutex_);
        gathers_ = false;
        write();
    }

    // Never destroyed, for threads that log until the very end.
    static Log& theLog() {
        static Log& log = *new Log;
        return log;
    }

private:
    void open() {
        descriptor_ = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        struct stat status = {};
        size_ = descriptor_ >= 0 && ::fstat(descriptor_, &status) == 0 ? status.st_size : 0;
    }

    void close() {
        write();
        gathered_.clear();
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = -1;
    }

    /// The older logs move only when there is one to take the first place. Another process may have turned
    /// the file over already: then there is a new one of the name.
    void rotate() {
        struct stat mine = {}, named = {};
        write();
        const bool isNamed = ::fstat(descriptor_, &mine) == 0 && ::stat(path_.c_str(), &named) == 0 &&
                             mine.st_ino == named.st_ino && mine.st_dev == named.st_dev;
        const std::string compressed = path_ + ".0.gz";
        bool isDone = !isNamed;
        if (isNamed && compress(path_, compressed)) {
            for (int number = kOlderLogs; number > 1; --number) {
                std::rename(older(number - 1).c_str(), older(number).c_str());
            }
            isDone = std::rename(compressed.c_str(), older(1).c_str()) == 0 && ::unlink(path_.c_str()) == 0;
        }
        if (isDone) {
            close();
            open();
        }
        rotateAt_ = isDone ? kLargestLog : size_ + kLargestLog;
    }

    std::string older(int number) const { return path_ + "." + std::to_string(number) + ".gz"; }

    /// Whole lines in one call, so that those of several processes do not mix. What the system does not take
    /// waits for the next call, so that no line is glued to the half of another; when it becomes too much
    /// only the rest of the line that was begun waits.
    void write() {
        if (descriptor_ < 0) return;
        std::size_t done = 0;
        while (done < gathered_.size()) {
            const ssize_t written = ::write(descriptor_, &gathered_[done], gathered_.size() - done);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) break;
            done += static_cast<std::size_t>(written);
        }
        size_ += static_cast<off_t>(done);
        gathered_.erase(0, done);
        if (gathered_.size() > kMostGathered) gathered_.erase(gathered_.find('\n') + 1);
    }

    void writeSoon() {
        try {
            if (!writer_.joinable()) {
                writer_ = std::thread([this] { writeLater(); });
                std::atexit([] { theLog().stopGathering(); });
            }
            condition_.notify_one();
        } catch (std::system_error&) {
            // The system has no thread to give.
            gathers_ = false;
            write();
        }
    }

    [[noreturn]] void writeLater() {
        for (std::unique_lock<std::mutex> lock(mutex_);;) {
            condition_.wait(lock, [this] { return !gathered_.empty(); });
            lock.unlock();
            std::this_thread::sleep_for(kGatheringTime);
            lock.lock();
            write();
        }
    }

    std::mutex mutex_;
    std::string path_;
    int descriptor_ = -1;
    off_t size_ = 0;
    off_t rotateAt_ = kLargestLog;
    std::string gathered_;
    bool gathers_ = true;
    std::condition_variable condition_;
    std::thread writer_;
};

/// Writes the current time behind text. A run writes a dozen lines for each item, most of them within one
/// second: that one is formatted once.
void appendTime(std::string& text) {
    thread_local std::time_t second = -1;
    thread_local char shown[32];
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != second) {
        tm parts = {};
        ::gmtime_r(&now.tv_sec, &parts);
        std::strftime(shown, sizeof shown, "%Y-%m-%dT%H:%M:%S.", &parts);
        second = now.tv_sec;
    }
    text += shown;
    for (long unit = 100000000; unit >= 1000000; unit /= 10)
        text += static_cast<char>('0' + now.tv_nsec / unit % 10);
    text += 'Z';
}

}  // namespace

void nameLogFile(const std::string& path) {
    Log::theLog().name(path);
}

void setLogDetail(LogDetail detail) {
    logDetail = detail;
}

void flushLogFile() {
    Log::theLog().flush();
}

void writeLogLine(LogLine kind, std::string message, const char* sourceFile, int line) {
    Log& log = Log::theLog();
    if (!log.isOpen()) return;
    if (kind != LogLine::Failure) {
        if (logDetail == LogDetail::Failures) return;
        if (logDetail == LogDetail::Normal && isDetail(message)) return;
    }
    const std::string shown = oneLine(maskSecrets(std::move(message)));
    std::string text;
    text.reserve(shown.size() + kUsualPrefix);
    appendTime(text);
    text.append(kind == LogLine::Failure ? " FAIL " : " INFO ").append(sourceOf(sourceFile));
    text.append(":").append(std::to_string(line)).append(" ").append(shown).append("\n");
    log.add(text, kind == LogLine::Failure);
}

}  // namespace flickr_standin
