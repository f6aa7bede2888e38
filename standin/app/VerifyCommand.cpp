#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

#include "standin/app/Commands.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/LibraryOptions.h"
#include "standin/app/LibraryText.h"
#include "standin/app/Refusal.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using Clock = std::chrono::steady_clock;

int verify(const LibraryOptions& options, bool json) {
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

    const bool agrees = report.agrees() && problem.empty();
    if (json) {
        Poco::JSON::Object object = jsonReport("verify", agrees ? "success" : "failed");
        object.set("folder", flickr_standin::validUtf8(layout.serviceFolder));
        object.set("items", std::int64_t{report.items});
        object.set("files", std::int64_t{report.files});
        object.set("bytes", report.bytes);
        object.set("withoutChecksum", std::int64_t{report.withoutChecksum});
        object.set("databaseProblem", flickr_standin::validUtf8(problem));
        addDisagreements(object, report);
        printJson(std::cout, object);
        return agrees ? ExitSuccess : ExitFailure;
    }
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
    return agrees ? ExitSuccess : ExitFailure;
}

}  // namespace

void addVerifyCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<LibraryOptions>();
    CLI::App* command =
        program.add_subcommand("verify", "Read every file of a backup and compare it with its checksum");
    addLibraryOptions(*command, *options);
    addJsonOption(*command, context);
    command->footer(std::string(kExitStatuses) +
                    "\n"
                    "Example:\n"
                    "  flickr-backup verify --device /media/usb");
    command->callback([options, &context] { context.status = verify(*options, context.json); });
}

}  // namespace flickr_app
