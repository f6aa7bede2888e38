// Waiting for the disk.

#ifndef STANDIN_FRAMEWORK_DEVICE_FLUSHES_H
#define STANDIN_FRAMEWORK_DEVICE_FLUSHES_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "standin/framework/base/Descriptor.h"

namespace flickr_standin {

/// One thing that the disk is to know.
struct Flush {
    std::string path;           ///< what a failure is told of
    std::function<int()> call;  ///< gives 0 or an error number; called from any thread
};

/// What there is in the file, or which names in the folder. The descriptor has to stay open.
Flush flushOf(const Descriptor& opened, const std::string& path);

/// A flush that failed.
struct FailedFlush {
    std::string path;
    int error = 0;  ///< number
};

/// Waits for all of them at once: a disk takes little longer for them than for one. Gives the first that
/// failed, when all have come to their end.
std::optional<FailedFlush> waitFor(const std::vector<Flush>& flushes);

}  // namespace flickr_standin

#endif
