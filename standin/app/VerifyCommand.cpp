#include <unistd.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include "standin/app/Commands.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/LibraryOptions.h"
#include "standin/app/LibraryText.h"
#include "standin/app/Refusal.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using Clock = std::chrono::steady_clock;

int verify(const LibraryOptions& options) {
    const DeviceLayout layout = existingBackup(options.device, options.database);
    const auto lock = beforehand([&] { return flickr_standin::DeviceLock(layout.device); });
    BackupDatabase database =
        beforehand([&] { return BackupDatabase(layout.databasePath, BackupDatabase::Missing::Refuse); });
    const std::string problem = database.integrityProblem();

    const bool terminal = ::isatty(STDERR_FILENO);
    Clock::time_point next = Clock::now();
    const auto report = flickr_standin::verifyBackup(
        database, layout.serviceFolder, layout.thumbnailWord, [&](std::uint64_t bytes) {
            if (!terminal || Clock::now() < next) return;
            next = Clock::now() + std::chrono::seconds(1);
            std::cerr << "\r\033[K" << formatBytes(static_cast<double>(bytes)) << " read" << std::flush;
        });
    if (terminal) std::cerr << "\r\033[K" << std::flush;

    std::cout << formatCount(report.items, "item") << ", " << formatCount(report.files, "file") << ", "
              << formatBytes(static_cast<double>(report.bytes)) << " read in "
              << printable(layout.serviceFolder) << "\n";
    if (report.withoutChecksum) {
        std::cout << formatCount(report.withoutChecksum, "file")
                  << " could be compared by size only, since no checksum is kept.\n";
    }
    if (!problem.empty()) std::cout << "The database is damaged: " << printable(problem) << "\n";
    if (problem.empty() || !report.agrees()) printDisagreements(std::cout, report);
    std::cout << std::flush;
    return report.agrees() && problem.empty() ? ExitSuccess : ExitFailure;
}

}  // namespace

void addVerifyCommand(CLI::App& program, int& status) {
    auto options = std::make_shared<LibraryOptions>();
    CLI::App* command =
        program.add_subcommand("verify", "Read every file of a backup and compare it with its checksum");
    addLibraryOptions(*command, *options);
    command->footer(std::string(kExitStatuses) +
                    "\n"
                    "Example:\n"
                    "  flickr-backup verify --device /media/usb");
    command->callback([options, &status] { status = verify(*options); });
}

}  // namespace flickr_app
