// Waiting for the disk.

#ifndef STANDIN_FRAMEWORK_DEVICE_FLUSHES_H
#define STANDIN_FRAMEWORK_DEVICE_FLUSHES_H

#include <functional>
#include <string>
#include <vector>

#include "standin/framework/base/Descriptor.h"

namespace flickr_standin {

class Device;

/// One thing that the disk is to know.
struct Flush {
    std::string path;           ///< what a failure is told of
    std::function<int()> call;  ///< gives 0 or an error number; called from any thread
};

/// What there is in the file, or which names in the folder. The descriptor has to stay open.
Flush flushOf(const Descriptor& opened, const std::string& path);

/// Waits for all of them at once, however many there are: a disk takes little longer for them than for one.
/// Throws what the first failure means, when all have come to their end.
void waitFor(Device& device, const std::vector<Flush>& flushes);

}  // namespace flickr_standin

#endif
