// Severity of a developer log line.

#ifndef HOSTAPI_LOGLEVEL_H
#define HOSTAPI_LOGLEVEL_H

namespace Norvale_Plugin_Core {

/// Severity of one line of the developer log. The numbers are part of the host's interface; the plug-in
/// uses the two that are named here.
enum LogLevel {
    LogLevelFailure = 0,     ///< a refused file operation, a failed request, a redirect, a parse failure
    LogLevelInformation = 3  ///< what a run does: its start and end, settings received, progress by set
};

}  // namespace Norvale_Plugin_Core

#endif
