// The developer log.

#ifndef STANDIN_FRAMEWORK_RUN_LOG_H
#define STANDIN_FRAMEWORK_RUN_LOG_H

#include <string>

namespace flickr_standin {

/// Sends the developer log to the file at path from now on. Before it grows past 10 MiB it is turned over: it
/// becomes NAME.1.gz, what had that name NAME.2.gz, and so on up to NAME.4.gz.
void nameLogFile(const std::string& path);

/// Which lines the file gets; at first all.
enum class LogDetail {
    Failures,
    Normal,  ///< without those that come for every element of a list and every unchanged item
    Everything
};
void setLogDetail(LogDetail detail);

enum class LogLine { Failure, Information };

/// Adds a line, with secrets masked; a failure reaches the file at once. sourceFile may be null.
void writeLogLine(LogLine kind, std::string message, const char* sourceFile, int line);

/// Writes the lines that were gathered. They reach the file by themselves within a quarter of a second.
void flushLogFile();

}  // namespace flickr_standin

#endif
