#include "standin/framework/device/Repair.h"

#include <sys/stat.h>

#include "standin/framework/base/Checksum.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/Recovery.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

namespace {

/// Enters a damaged file as it is: recovery has to know it again when it stands aside.
void enterAsItIs(Device& device, const std::string& path) {
    auto file = device.ledger().file(path);
    const auto status = device.status(path);
    if (!file || !status) return;
    Checksum checksum;
    file->size = static_cast<std::uint64_t>(status->st_size);
    file->checksum.clear();
    try {
        device.readFile(path, [&](const char* data, std::size_t size) { checksum.update(data, size); });
        file->checksum = checksum.text();
    } catch (DeviceException&) {
        device.requireThere();  // its content is not known
    }
    device.ledger().putFile(*file);
}

}  // namespace

BackupReport repairDevice(BackupDatabase& database, Device& device, const CheckProgress& progress) {
    recoverDevice(database, device);
    BackupReport report = checkBackup(database, device, Contents::Read, progress);
    database.fetchAgain(report.damagedItems);
    device.flushRows();
    for (const std::string& path : report.altered) enterAsItIs(device, path);
    return report;
}

}  // namespace flickr_standin
