// The codes under which errors of a run are recorded.

#ifndef STANDIN_FRAMEWORK_RUN_RUNERROR_H
#define STANDIN_FRAMEWORK_RUN_RUNERROR_H

#include <Poco/Exception.h>

namespace Norvale_Plugin_Core {

/// Codes of recorded errors. 0 and 1 say that there is none, and 511 is the plug-in's own.
enum RunError {
    RunErrorOther = 2,
    RunErrorAuthorisation = 3,
    RunErrorConfiguration = 4,
    RunErrorNetwork = 5,
    RunErrorDatabase = 6,
    RunErrorDeviceFull = 7,
    RunErrorDeviceGone = 8,
    RunErrorDeviceReadOnly = 9
};

/// The code for an exception, by its class.
RunError runErrorOf(const Poco::Exception& exception);

}  // namespace Norvale_Plugin_Core

#endif
