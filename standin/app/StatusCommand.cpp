#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "standin/app/Commands.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/LibraryOptions.h"
#include "standin/app/LibraryText.h"
#include "standin/app/Refusal.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using flickr_standin::FolderRow;

/// Bytes of media and thumbnails by device folder.
std::map<std::string, std::uintmax_t> sizesByFolder(BackupDatabase& database, const DeviceLayout& layout) {
    std::map<std::string, std::uintmax_t> sizes;
    database.forEachItem([&](const flickr_standin::ItemRow& item) {
        for (const std::string& path :
             {item.mediaPath, flickr_standin::thumbnailPath(item, layout.thumbnailWord)}) {
            std::error_code error;
            const std::uintmax_t size = std::filesystem::file_size(layout.serviceFolder + "/" + path, error);
            if (!error) sizes[item.folder] += size;
        }
    });
    return sizes;
}

std::string titleOf(const FolderRow& folder) {
    if (folder.deviceName.empty()) return "(in no set)";
    std::string title = printable(folder.serviceName);
    if (folder.deviceName != folder.serviceName) title += " (folder " + printable(folder.deviceName) + ")";
    return title;
}

int showStatus(const LibraryOptions& options) {
    const DeviceLayout layout = existingBackup(options.device, options.database);
    BackupDatabase database =
        beforehand([&] { return BackupDatabase(layout.databasePath, BackupDatabase::Missing::Refuse); });

    const std::vector<FolderRow> folders = database.folders();
    const auto sizes = sizesByFolder(database, layout);
    long items = 0;
    std::uintmax_t bytes = 0;
    std::cout << std::setw(8) << "Items" << std::setw(12) << "Size"
              << "  " << std::left << std::setw(21) << "Last update (UTC)" << std::right << "Set\n";
    for (const FolderRow& folder : folders) {
        const auto found = sizes.find(folder.deviceName);
        const std::uintmax_t size = found == sizes.end() ? 0 : found->second;
        items += folder.items;
        bytes += size;
        std::cout << std::setw(8) << folder.items << std::setw(12) << formatBytes(static_cast<double>(size))
                  << "  " << std::left << std::setw(21)
                  << (folder.updated.empty() ? "-" : printable(folder.updated)) << std::right
                  << titleOf(folder) << "\n";
    }
    std::cout << formatCount(items, "item") << ", " << formatBytes(static_cast<double>(bytes)) << " in "
              << printable(layout.serviceFolder) << "\n";

    const auto report = flickr_standin::compareBackup(database, layout.serviceFolder, layout.thumbnailWord);
    printDisagreements(std::cout, report);
    std::cout << std::flush;
    return report.agrees() ? ExitSuccess : ExitFailure;
}

}  // namespace

void addStatusCommand(CLI::App& program, int& status) {
    auto options = std::make_shared<LibraryOptions>();
    CLI::App* command = program.add_subcommand("status", "List what is backed up on a device");
    addLibraryOptions(*command, *options);
    command->footer(std::string(kExitStatuses) +
                    "\n"
                    "Example:\n"
                    "  flickr-backup status --device /media/usb");
    command->callback([options, &status] { status = showStatus(*options); });
}

}  // namespace flickr_app
