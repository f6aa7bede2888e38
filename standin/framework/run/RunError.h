// The codes under which errors of a run are recorded.

#ifndef STANDIN_FRAMEWORK_RUN_RUNERROR_H
#define STANDIN_FRAMEWORK_RUN_RUNERROR_H

namespace flickr_standin {

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

}  // namespace flickr_standin

#endif
