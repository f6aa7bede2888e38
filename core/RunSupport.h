// What every activity needs of a run: its log lines, its stop flag, its attempts and its calls of the file
// service.

#ifndef CORE_RUNSUPPORT_H
#define CORE_RUNSUPPORT_H

#include <cstddef>
#include <istream>
#include <string>
#include <string_view>
#include <utility>

#include "hostapi/Conventions.h"
#include "hostapi/DevLogger.h"
#include "hostapi/HostServiceUsageParams.h"

namespace Norvale_Plugin_Flickr {

/// The service's name, as exceptions are reported under it.
constexpr const char* kServiceName = "Flickr";

/// Writes one line at level 3. The source position is the caller's.
inline void logInfo(std::string message, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    Norvale_Plugin_Core::DevLogger::writeLog(std::move(message), Norvale_Plugin_Core::LogLevelInformation,
                                             file, line);
}

/// Writes one line at level 0.
inline void logFailure(std::string message, const char* file = __builtin_FILE(),
                       int line = __builtin_LINE()) {
    Norvale_Plugin_Core::DevLogger::writeLog(std::move(message), Norvale_Plugin_Core::LogLevelFailure, file,
                                             line);
}

/// Whether the backup is to stop.
inline bool isStopped() {
    return Norvale_Plugin_Core::HostServiceUsageParams::getInstance()->isBackupStopped();
}

/// The checkpoint of every loop: true after a stop request, which is then logged with stopLine.
inline bool stoppedAt(const char* stopLine, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) {
    if (!isStopped()) return false;
    logInfo(stopLine, file, line);
    return true;
}

/// The number of attempts that the host allows for every request and download.
inline int retryAttempts() {
    return Norvale_Plugin_Core::HostServiceUsageParams::getInstance()->getRetryAttempts();
}

/// Calls attempt(number) for 1, 2, … up to the host's retry count until it answers true; there is no pause
/// between attempts. Each one is logged as attemptLine followed by its number. A stop request ends the loop
/// before the next attempt, with stopLine in the log. The lines' source position is the caller's.
template <typename Attempt>
void tryAttempts(std::string_view attemptLine, const char* stopLine, Attempt attempt,
                 const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    for (int number = 1; number <= retryAttempts(); ++number) {
        if (stoppedAt(stopLine, file, line)) return;
        logInfo(std::string(attemptLine) + std::to_string(number), file, line);
        if (attempt(number)) return;
    }
}

/// The three texts by which the file service answers.
struct FileServiceAnswer {
    std::string command;
    std::string result;
    std::string error;

    bool isSuccess() const { return result == Norvale_Plugin_Core::kFileServiceSuccess; }
};

/// Makes one call of the file service: call gets the three texts to hand on.
template <typename Call>
FileServiceAnswer askFileService(Call call) {
    FileServiceAnswer answer;
    call(answer.command, answer.result, answer.error);
    return answer;
}

/// The same; whether the call succeeded. When not, failureLine is logged at level 0 for the caller's source
/// position.
template <typename Call>
bool fileServiceDoes(Call call, const std::string& failureLine, const char* file = __builtin_FILE(),
                     int line = __builtin_LINE()) {
    if (askFileService(call).isSuccess()) return true;
    logFailure(failureLine, file, line);
    return false;
}

/// Overwrites a secret, so that it does not stay in memory behind its use.
void wipe(std::string& secret);

/// Whether the text can stand in a request line; white space and control characters would end it early.
bool fitsRequestLine(const std::string& text);

/// Whether the text can be a host's name or address, as it stands in a request's header.
bool fitsHost(const std::string& text);

/// Whether the text can be an id that the service gave: letters, digits, "@", "_" and "-". Parameters are
/// signed one behind the other without separators, so that an id with other characters could carry parameters
/// of its own.
bool isId(const std::string& text);

/// As much of the text as fits in so many bytes without cutting a UTF-8 character.
std::string wholeCharacters(const std::string& text, std::size_t bytes);

/// Size in bytes of the blocks in which bodies are read.
constexpr std::size_t kBlockSize = 8192;

/// Reads up to a block from the body and returns how many bytes it got; 0 at the body's end and from a stream
/// that failed. A block is only smaller than kBlockSize at the end, or when a stop request came while a slow
/// peer was sending it.
std::streamsize readBlock(std::istream& body, char* block);

}  // namespace Norvale_Plugin_Flickr

#endif
