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
#include "standin/framework/device/BackupCheck.h"
#include "standin/framework/device/BackupReading.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using flickr_standin::BackupReading;
using flickr_standin::BackupReport;
using flickr_standin::DeviceLock;
using Clock = std::chrono::steady_clock;

/// How far a check is, on a terminal.
class CheckDisplay {
public:
    explicit CheckDisplay(BackupDatabase& database) : line_(std::cerr, styleOf(STDERR_FILENO)) {
        for (const auto& folder : database.folders()) files_ += kFilesOfItem * folder.items;
    }

    /// Throws Stopped when a signal ends the check.
    void show(const BackupReport& report) {
        throwIfStopped();
        const double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
        if (elapsed < next_) return;
        next_ = elapsed + kSeconds;
        line_.show(elapsed,
                   formatNumber(report.files) + " of " + formatCount(files_, "file") + ", " +
                       formatBytes(static_cast<double>(report.bytes)) + " read",
                   columnsOf(STDERR_FILENO));
    }

private:
    static constexpr long kFilesOfItem = 2;  // the item's own, and its thumbnail
    static constexpr double kSeconds = 0.5;

    ProgressLine line_;
    const Clock::time_point start_ = Clock::now();
    double next_ = 0;
    long files_ = 0;
};

struct Options : BackupOptions {
    bool repair = false;
};

/// What a check found.
struct Findings {
    std::string databaseProblem;
    BackupReport report;
};

Findings lookThrough(const DeviceLayout& layout) {
    const auto lock = DeviceLock::forReading(layout.device);
    if (!lock) {
        throw CannotBegin("A backup to " + layout.device +
                          " is going on; wait until it has finished, or stop it.");
    }
    BackupReading reading = beforehand([&] { return BackupReading(layout.place()); });
    Findings findings;
    reading.read([&] {
        findings.databaseProblem = reading.database().integrityProblem();
        CheckDisplay display(reading.database());
        findings.report =
            flickr_standin::checkBackup(reading.database(), reading.device(), flickr_standin::Contents::Read,
                                        [&](const BackupReport& report) { display.show(report); });
    });
    return findings;
}

Findings repair(const DeviceLayout& layout) {
    const auto lock = beforehand([&] { return DeviceLock(layout.device); });
    BackupDatabase database = beforehand([&] { return BackupDatabase(layout.databasePath); });
    const std::string problem = database.integrityProblem();
    if (!problem.empty()) {
        throw CannotBegin("The database " + layout.databasePath + " is damaged (" + problem +
                          "); flickr-backup rebuild makes it anew.");
    }
    CheckDisplay display(database);
    return {"", flickr_standin::repairBackup(database, layout.serviceFolder, layout.thumbnailWord,
                                             [&](const BackupReport& report) { display.show(report); })};
}

int verify(const Options& options, bool json) {
    const DeviceLayout layout = existingBackup(options.device, options.database);
    const Signals signals;
    const Findings findings = options.repair ? repair(layout) : lookThrough(layout);
    const auto& [problem, report] = findings;
    const auto marked = static_cast<long>(options.repair ? report.damagedItems.size() : 0);

    const bool agrees = report.agrees() && problem.empty();
    if (json) {
        Poco::JSON::Object object = jsonReport("verify", agrees ? "success" : "failed");
        object.set("folder", flickr_standin::validUtf8(layout.serviceFolder));
        object.set("items", std::int64_t{report.items});
        object.set("files", std::int64_t{report.files});
        object.set("versions", std::int64_t{report.versions});
        object.set("bytes", report.bytes);
        object.set("withoutChecksum", std::int64_t{report.withoutChecksum});
        object.set("databaseProblem", flickr_standin::validUtf8(problem));
        object.set("marked", std::int64_t{marked});
        addDisagreements(object, report);
        printJson(std::cout, object);
        return agrees ? ExitSuccess : ExitFailure;
    }
    std::cout << formatCount(report.items, "item") << ", " << formatCount(report.files, "file") << ", "
              << (report.versions ? formatCount(report.versions, "older version") + ", " : "")
              << formatBytes(static_cast<double>(report.bytes)) << " read in "
              << printable(layout.serviceFolder) << "\n";
    if (report.withoutChecksum) {
        std::cout << formatCount(report.withoutChecksum, "file")
                  << " could be compared by size only, since no checksum is kept.\n";
    }
    if (!problem.empty())
        std::cout << "The database is damaged: " << printable(problem)
                  << "\nflickr-backup rebuild makes it anew from the descriptions and the files.\n";
    if (problem.empty() || !report.agrees()) printDisagreements(std::cout, report);
    if (marked > 0) {
        std::cout << formatCount(marked, "item")
                  << (marked == 1 ? " is marked: the next run fetches it"
                                  : " are marked: the next run fetches them")
                  << " again.\n";
    } else if (report.damagedItems.size() > report.toFetchAgain.size()) {
        std::cout << "With --repair the next run fetches again what is missing or altered.\n";
    }
    std::cout << std::flush;
    return agrees ? ExitSuccess : ExitFailure;
}

}  // namespace

void addVerifyCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        program.add_subcommand("verify", "Read every file of a backup and compare it with its checksum");
    addBackupOptions(*command, *options);
    command->add_flag(
        "--repair", options->repair,
        "Put the backup in order, and have the next run fetch again what is missing or altered");
    addJsonOption(*command, context);
    command->footer(
        std::string(
            "An altered file stays until a new one has come, also when you have changed it yourself.\n"
            "What systems leave on disks (.DS_Store, Thumbs.db and the like) is passed over. Without\n"
            "--repair nothing is written.\n") +
        kExitStatuses +
        "\n"
        "Example:\n"
        "  flickr-backup verify --device /media/usb --repair");
    command->callback([options, &context] { context.status = verify(*options, context.json); });
}

}  // namespace flickr_app
