// The host's developer log.

#ifndef HOSTAPI_DEVLOGGER_H
#define HOSTAPI_DEVLOGGER_H

#include <string>

#include "hostapi/LogLevel.h"

namespace Norvale_Plugin_Core {

/// The developer log: one file for the process, "NVHLDevLog.log", named when a PluginCore is constructed.
class DevLogger {
public:
    /// Appends one line to the log. Whatever the message holds it becomes exactly one line, and it never
    /// holds the run's token, key or secret. Safe to call from several threads at once. Before a log file
    /// has been named, and when it cannot be written, the line is dropped: logging never fails a backup.
    ///
    /// A failure is in the file when the call returns, with all that was logged before it. Other lines reach
    /// the file within a quarter of a second, and at the latest when the process ends by itself; a kill can
    /// take those of the last quarter of a second.
    ///
    /// sourceFile and line say where in the caller's source the line comes from (__FILE__, __LINE__).
    static void writeLog(std::string message, LogLevel level, const char* sourceFile, int line);
};

}  // namespace Norvale_Plugin_Core

#endif
