#include "standin/framework/device/NewDescription.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/DeviceFiles.h"

namespace flickr_standin {

NewDescription::NewDescription(Device& device, const std::string& folder, std::string partName)
    : device_(device),
      folder_(folder),
      partName_(std::move(partName)),
      descriptions_(device.makeDescriptionFolder(folder)),
      file_(makeFile(descriptions_.get(), partName_)) {
    if (!file_.isOpen() && errno == EEXIST) {
        // What a killed process of the same number left.
        ::unlinkat(descriptions_.get(), partName_.c_str(), 0);
        file_ = makeFile(descriptions_.get(), partName_);
    }
    if (!file_.isOpen()) fail(errno);
}

NewDescription::~NewDescription() {
    if (placed_) return;
    if (::unlinkat(descriptions_.get(), partName_.c_str(), 0) != 0 && errno != ENOENT)
        device_.ledger().leaveInUse();
    device_.flushFolderWithRows(folder_);
}

void NewDescription::write(const std::string& text) {
    const int error = writeAll(file_, text.data(), text.size());
    if (error != 0) fail(error);
}

int NewDescription::flush() {
    return ::fdatasync(file_.get()) == 0 ? 0 : errno;
}

void NewDescription::place(const std::string& name) {
    if (::renameat(descriptions_.get(), partName_.c_str(), descriptions_.get(), name.c_str()) != 0)
        fail(errno);
    placed_ = true;
}

void NewDescription::fail(int error) {
    device_.fail("write in the folder", joinPath(folder_, kDescriptionFolder), error);
}

void writeFolderDescription(Device& device, const std::string& folder, const std::string& text) {
    device.ledger().markInUse();
    {
        NewDescription description(device, folder, newOwnName(kPartPrefix));
        description.write(text);
        description.place(kFolderDescription);
    }
    device.flushFolderDescriptionWithRows(folder);
}

}  // namespace flickr_standin
