#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

#include "standin/app/BackupOptions.h"
#include "standin/app/BackupText.h"
#include "standin/app/Commands.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/ProgressLine.h"
#include "standin/app/Refusal.h"
#include "standin/app/Signals.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/device/Rebuild.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using flickr_standin::BackupReport;
using flickr_standin::RebuildReport;
using Clock = std::chrono::steady_clock;

RebuildReport makeAnew(const DeviceLayout& layout) {
    ProgressLine line(std::cerr, styleOf(STDERR_FILENO));
    const Clock::time_point start = Clock::now();
    return flickr_standin::rebuildDatabases(layout.place(), [&](const RebuildReport& report) {
        throwIfStopped();
        line.show(std::chrono::duration<double>(Clock::now() - start).count(),
                  formatCount(report.items, "item") + " taken in", columnsOf(STDERR_FILENO));
    });
}

void printPaths(const char* title, const std::vector<std::string>& paths) {
    if (!paths.empty()) std::cout << title << " (" << formatNumber(static_cast<long>(paths.size())) << "):\n";
    for (const std::string& path : paths) std::cout << "  " << printable(path) << "\n";
}

void printText(const RebuildReport& made, const BackupReport& found, const DeviceLayout& layout) {
    std::cout << "Made " << printable(layout.databasePath) << " anew: " << formatCount(made.items, "item")
              << ", " << formatCount(made.sets, "set") << "\n";
    for (const std::string& name : made.kept) std::cout << "What stood there is kept as " << name << "\n";
    if (made.newChecksums > 0) {
        std::cout << formatCount(made.newChecksums, "file")
                  << " had no checksum that could be read, and got one as it is now\n";
    }
    if (made.withoutUpload > 0) {
        std::cout << "Not known: when " << formatCount(made.withoutUpload, "item")
                  << (made.withoutUpload == 1 ? " was" : " were") << " uploaded\n";
    }
    printPaths("Left out, since the description does not fit the place or another file of the item",
               made.leftOut);
    printDisagreements(std::cout, found);
    std::cout << std::flush;
}

void printObject(const RebuildReport& made, const BackupReport& found, const DeviceLayout& layout,
                 bool isWhole) {
    Poco::JSON::Object object = jsonReport("rebuild", isWhole ? "success" : "failed");
    object.set("folder", flickr_standin::validUtf8(layout.serviceFolder));
    object.set("database", flickr_standin::validUtf8(layout.databasePath));
    object.set("sets", std::int64_t{made.sets});
    object.set("items", std::int64_t{made.items});
    object.set("withoutUpload", std::int64_t{made.withoutUpload});
    object.set("newChecksums", std::int64_t{made.newChecksums});
    object.set("kept", jsonArray(made.kept));
    object.set("leftOut", jsonArray(made.leftOut));
    addDisagreements(object, found);
    printJson(std::cout, object);
}

int rebuild(const BackupOptions& options, bool json) {
    const DeviceLayout layout = backupToRebuild(options.device, options.database);
    const Signals signals;
    const auto lock = beforehand([&] { return flickr_standin::DeviceLock(layout.device); });
    const RebuildReport made = makeAnew(layout);
    BackupDatabase database(layout.databasePath);
    flickr_standin::recoverBackup(database, layout.serviceFolder, layout.thumbnailWord);
    const BackupReport found =
        flickr_standin::compareBackup(database, layout.serviceFolder, layout.thumbnailWord);
    const bool isWhole = found.agrees() && made.leftOut.empty();
    if (json) {
        printObject(made, found, layout, isWhole);
    } else {
        printText(made, found, layout);
    }
    return isWhole ? ExitSuccess : ExitFailure;
}

}  // namespace

void addRebuildCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<BackupOptions>();
    CLI::App* command = program.add_subcommand(
        "rebuild", "Make a lost or damaged database anew from the descriptions and the files");
    addBackupOptions(*command, *options);
    addJsonOption(*command, context);
    command->footer(
        std::string("The database and the list of checksums that are there are kept as backup.db.old and\n"
                    ".ledger.db.old. The next run fetches what has no description, or no file, again.\n") +
        kExitStatuses +
        "\n"
        "Example:\n"
        "  flickr-backup rebuild --device /media/usb");
    command->callback([options, &context] { context.status = rebuild(*options, context.json); });
}

}  // namespace flickr_app
