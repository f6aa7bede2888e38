#include "standin/framework/device/BackupReading.h"

#include <sys/stat.h>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Sqlite.h"
#include "standin/framework/device/DeviceLock.h"

namespace flickr_standin {

namespace {

/// The kind of what stands at path, links not followed; 0 for nothing.
mode_t kindOf(const std::string& path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

std::string descriptionsOf(const BackupPlace& place) {
    return place.serviceFolder + "/" + kDescriptionFolder;
}

std::string ledgerOf(const BackupPlace& place) {
    return descriptionsOf(place) + "/" + kLedgerName;
}

}  // namespace

BackupReading::BackupReading(const BackupPlace& place) : place_(place) {
    const auto lock = DeviceLock::forReading(place.device);
    isInUse_ = lock == nullptr;
    read([&] {
        const bool hasLedger = kindOf(descriptionsOf(place)) == S_IFDIR && kindOf(ledgerOf(place)) != 0;
        if (!isInUse_ && hasLedger) copyDatabase(ledgerOf(place), folder_.path(), place.whileCopying);
        if (place.database.empty()) return;
        database_ = std::make_unique<BackupDatabase>(
            isInUse_ ? place.database : copyDatabase(place.database, folder_.path(), place.whileCopying),
            BackupDatabase::Missing::Refuse);
    });
}

Device& BackupReading::device() {
    if (!device_) {
        device_ = std::make_unique<Device>(place_.serviceFolder, place_.thumbnailWord,
                                           Device::Elsewhere{folder_.path() + "/" + kLedgerName});
    }
    return *device_;
}

Poco::Exception BackupReading::naming(const Poco::Exception& exception) const {
    std::string text = exception.message().empty() ? exception.displayText() : exception.message();
    for (const std::string& original : {ledgerOf(place_), place_.database}) {
        const std::string copy = joinPath(folder_.path(), nameOf(original));
        for (std::size_t at = 0; (at = text.find(copy, at)) != std::string::npos; at += original.size()) {
            text.replace(at, copy.size(), original);
        }
    }
    return Poco::Exception(text, exception.code());
}

}  // namespace flickr_standin
