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

NewRecord::NewRecord(Device& device, const std::string& folder, std::string partName)
    : device_(device),
      folder_(folder),
      partName_(std::move(partName)),
      records_(device.makeRecordFolder(folder)),
      file_(makeFile(records_.get(), partName_)) {
    if (!file_.isOpen() && errno == EEXIST) {
        // What a killed process of the same number left.
        ::unlinkat(records_.get(), partName_.c_str(), 0);
        file_ = makeFile(records_.get(), partName_);
    }
    if (!file_.isOpen()) fail(errno);
}

NewRecord::~NewRecord() {
    if (placed_ || ::unlinkat(records_.get(), partName_.c_str(), 0) == 0 || errno == ENOENT) return;
    device_.ledger().leaveInUse();
}

void NewRecord::write(const std::string& text) {
    const int error = writeAll(file_, text.data(), text.size());
    if (error != 0) fail(error);
}

void NewRecord::send() {
    ::sync_file_range(file_.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
}

int NewRecord::flush() {
    return ::fdatasync(file_.get()) == 0 ? 0 : errno;
}

void NewRecord::place(const std::string& name) {
    if (::renameat(records_.get(), partName_.c_str(), records_.get(), name.c_str()) != 0) fail(errno);
    placed_ = true;
}

void NewRecord::fail(int error) {
    device_.fail("write in the folder", joinPath(folder_, kRecordFolder), error);
}

void writeFolderRecord(Device& device, const std::string& folder, const std::string& text) {
    device.ledger().markInUse();
    {
        NewRecord record(device, folder, newOwnName(kPartPrefix));
        record.write(text);
        record.place(kFolderRecord);
    }
    device.flushFolderRecordWithRows(folder);
}

}  // namespace flickr_standin
