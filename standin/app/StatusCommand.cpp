#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "standin/app/BackupOptions.h"
#include "standin/app/BackupText.h"
#include "standin/app/Commands.h"
#include "standin/app/DeviceHistory.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/Refusal.h"
#include "standin/app/Signals.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/BackupCheck.h"
#include "standin/framework/device/BackupReading.h"
#include "standin/framework/device/ItemFiles.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using flickr_standin::BackupReading;
using flickr_standin::Contents;
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

/// One line about a run.
std::string runText(const PastRun& run, bool lasts) {
    std::string text = run.began.substr(0, 10) + " " + run.began.substr(11, 5) + "  ";
    if (run.ended.empty()) return text + (lasts ? "is going on" : "was cut off before its end");
    text += run.result == "success" ? "complete" : run.result == "stopped" ? "stopped" : "NOT complete";
    text += ": " + formatNumber(run.newItems) + " new, " + formatNumber(run.editedItems) + " edited, " +
            formatNumber(run.unchangedItems) + " unchanged, " + formatBytes(static_cast<double>(run.bytes));
    return text;
}

/// What the last run that ended left to do; empty for nothing.
std::string toDoText(const PastRun& run) {
    std::vector<std::string> parts;
    if (run.failures > 0) parts.push_back(formatCount(run.failures, "failure") + " to mend");
    if (run.untriedItems > 0) parts.push_back(formatCount(run.untriedItems, "item") + " not tried");
    if (run.untriedSets > 0) parts.push_back(formatCount(run.untriedSets, "set") + " not listed to the end");
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
    return text;
}

/// The run that ended last; none when none did.
const PastRun* lastEnded(const std::vector<PastRun>& runs) {
    const auto found =
        std::find_if(runs.rbegin(), runs.rend(), [](const PastRun& run) { return !run.ended.empty(); });
    return found == runs.rend() ? nullptr : &*found;
}

struct SetLine {
    FolderRow folder;
    std::uintmax_t bytes;
};

/// What "status" tells.
struct Status {
    DeviceLayout layout;
    std::vector<SetLine> sets;
    long items = 0;
    std::uintmax_t bytes = 0;
    bool isInUse = false;  ///< a run, or another command that wants the device for itself
    std::vector<PastRun> runs;
    flickr_standin::BackupReport report;  ///< empty while the device is in use

    bool runLasts() const { return isInUse && !runs.empty() && runs.back().ended.empty(); }
};

Status statusOf(const BackupOptions& options) {
    Status status;
    status.layout = existingBackup(options.device, options.database);
    status.runs = DeviceHistory(status.layout.device).runs();
    const Signals signals;
    BackupReading reading = beforehand([&] { return BackupReading(status.layout.place()); });
    status.isInUse = reading.isInUse();
    reading.read([&] {
        const auto sizes = sizesByFolder(reading.database(), status.layout);
        for (const FolderRow& folder : reading.database().folders()) {
            const auto found = sizes.find(folder.deviceName);
            status.sets.push_back({folder, found == sizes.end() ? 0 : found->second});
            status.items += folder.items;
            status.bytes += status.sets.back().bytes;
        }
        // What is on its way is neither recorded nor missing.
        if (status.isInUse) return;
        status.report = flickr_standin::checkBackup(reading.database(), reading.device(), Contents::SizesOnly,
                                                    [](const auto&) { throwIfStopped(); });
    });
    return status;
}

void printStatus(const Status& status) {
    constexpr std::size_t kShownRuns = 5;
    std::cout << std::setw(8) << "Items" << std::setw(12) << "Size"
              << "  " << std::left << std::setw(21) << "Last update (UTC)" << std::right << "Set\n";
    for (const auto& [folder, bytes] : status.sets) {
        std::cout << std::setw(8) << folder.items << std::setw(12) << formatBytes(static_cast<double>(bytes))
                  << "  " << std::left << std::setw(21)
                  << (folder.updated.empty() ? "-" : printable(folder.updated)) << std::right
                  << titleOf(folder) << "\n";
    }
    std::cout << formatCount(status.items, "item") << ", " << formatBytes(static_cast<double>(status.bytes))
              << " in " << printable(status.layout.serviceFolder) << "\n";
    if (!status.runs.empty()) std::cout << "Last runs (UTC):\n";
    const std::size_t first = status.runs.size() - std::min(status.runs.size(), kShownRuns);
    for (std::size_t i = first; i < status.runs.size(); ++i) {
        const bool isLast = i + 1 == status.runs.size();
        std::cout << "  " << runText(status.runs[i], isLast && status.isInUse) << "\n";
    }
    const PastRun* const ended = lastEnded(status.runs);
    const std::string toDo = ended != nullptr && !status.runLasts() ? toDoText(*ended) : "";
    if (!toDo.empty()) std::cout << "Still to do: " << toDo << "\n";
    if (status.isInUse) {
        std::cout << (status.runLasts() ? "A backup is going on" : "Another command uses the device")
                  << "; database and device are compared when it has ended.\n";
    } else {
        printDisagreements(std::cout, status.report);
    }
    std::cout << std::flush;
}

void printStatusJson(const Status& status, int exitStatus) {
    using flickr_standin::validUtf8;
    Poco::JSON::Object object = jsonReport("status", exitStatus == ExitSuccess ? "success" : "failed");
    object.set("folder", validUtf8(status.layout.serviceFolder));
    object.set("database", validUtf8(status.layout.databasePath));
    object.set("items", std::int64_t{status.items});
    object.set("bytes", static_cast<std::uint64_t>(status.bytes));
    object.set("inUse", status.isInUse);
    object.set("running", status.runLasts());
    Poco::JSON::Array sets;
    for (const auto& [folder, bytes] : status.sets) {
        Poco::JSON::Object entry(Poco::JSON_PRESERVE_KEY_ORDER);
        entry.set("id", validUtf8(folder.id));
        entry.set("title", validUtf8(folder.serviceName));
        entry.set("folder", validUtf8(folder.deviceName));
        entry.set("items", std::int64_t{folder.items});
        entry.set("bytes", static_cast<std::uint64_t>(bytes));
        entry.set("updated", validUtf8(folder.updated));
        sets.add(entry);
    }
    object.set("sets", sets);
    object.set("runs", jsonRuns(status.runs));
    addDisagreements(object, status.report);
    printJson(std::cout, object);
}

int showStatus(const BackupOptions& options, bool json) {
    const Status status = statusOf(options);
    const int exitStatus = status.report.agrees() ? ExitSuccess : ExitFailure;
    if (json) {
        printStatusJson(status, exitStatus);
    } else {
        printStatus(status);
    }
    return exitStatus;
}

}  // namespace

void addStatusCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<BackupOptions>();
    CLI::App* command = program.add_subcommand("status", "List what is backed up on a device");
    addBackupOptions(*command, *options);
    addJsonOption(*command, context);
    command->footer(std::string(kExitStatuses) +
                    "\n"
                    "Example:\n"
                    "  flickr-backup status --device /media/usb");
    command->callback([options, &context] { context.status = showStatus(*options, context.json); });
}

}  // namespace flickr_app
