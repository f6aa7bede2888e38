// The developer log.

#ifndef STANDIN_FRAMEWORK_RUN_LOG_H
#define STANDIN_FRAMEWORK_RUN_LOG_H

#include <string>

namespace flickr_standin {

/// Sends the developer log to the file at path from now on. It grows to at most 10 MiB; two older ones are
/// kept beside it.
void nameLogFile(const std::string& path);

enum class LogLine { Failure, Information };

/// Adds a line, with secrets masked; a failure reaches the file at once. sourceFile may be null.
void writeLogLine(LogLine kind, std::string message, const char* sourceFile, int line);

/// Writes the lines that were gathered. They reach the file by themselves within a quarter of a second.
void flushLogFile();

}  // namespace flickr_standin

#endif
