#include <Poco/DateTime.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "standin/app/BackupOptions.h"
#include "standin/app/Commands.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/Refusal.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/BackupReading.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/device/Versions.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using flickr_standin::startsWith;
using flickr_standin::validUtf8;
using flickr_standin::Version;

struct RestoreOptions : BackupOptions {
    std::string version;
};

std::string timeText(std::time_t time, const char* form) {
    return Poco::DateTimeFormatter::format(Poco::Timestamp::fromEpochTime(time), form);
}

/// Where the current file of a version's item lies; empty when the item is not recorded any more.
std::string currentPath(BackupDatabase& database, const Version& version) {
    const auto row = database.item(version.item);
    return row ? row->mediaPath : std::string();
}

int list(const BackupOptions& options, bool json) {
    const DeviceLayout layout = existingBackup(options.device, options.database);
    flickr_standin::BackupReading reading =
        beforehand([&] { return flickr_standin::BackupReading(layout.place()); });
    if (reading.isInUse()) {
        throw CannotBegin("A backup to " + layout.device +
                          " is going on; wait until it has finished, or stop it.");
    }
    Poco::JSON::Array entries;
    reading.read([&] {
        const std::vector<Version> versions = flickr_standin::versionsOn(reading.device());
        double bytes = 0;
        for (const Version& version : versions) {
            const std::string current = currentPath(reading.database(), version);
            bytes += static_cast<double>(version.size);
            Poco::JSON::Object entry(Poco::JSON_PRESERVE_KEY_ORDER);
            entry.set("version", validUtf8(version.path));
            entry.set("item", validUtf8(version.item));
            entry.set("current", validUtf8(current));
            entry.set("replaced", timeText(version.replaced, "%Y-%m-%dT%H:%M:%SZ"));
            entry.set("bytes", version.size);
            if (json) {
                entries.add(entry);
                continue;
            }
            std::cout << printable(version.path) << "\n  " << formatBytes(static_cast<double>(version.size))
                      << ", replaced on " << timeText(version.replaced, "%Y-%m-%d at %H:%M:%S UTC") << " by "
                      << (current.empty() ? "an item that is not recorded any more" : printable(current))
                      << "\n";
        }
        if (!json) {
            std::cout << (versions.empty()
                              ? "No older versions are kept"
                              : formatCount(static_cast<long>(versions.size()), "older version") + ", " +
                                    formatBytes(bytes))
                      << " in " << printable(layout.serviceFolder) << "\n";
        }
    });
    if (json) {
        Poco::JSON::Object object = jsonReport("versions", "success");
        object.set("folder", validUtf8(layout.serviceFolder));
        object.set("versions", entries);
        printJson(std::cout, object);
    }
    std::cout << std::flush;
    return ExitSuccess;
}

int restore(const RestoreOptions& options, bool json) {
    const DeviceLayout layout = existingBackup(options.device, options.database);
    // A shell completes whole paths.
    const std::string before = layout.serviceFolder + "/";
    const bool isWhole = startsWith(options.version, before);
    const std::string version = isWhole ? options.version.substr(before.size()) : options.version;
    const auto lock = beforehand([&] { return flickr_standin::DeviceLock(layout.device); });
    BackupDatabase database =
        beforehand([&] { return BackupDatabase(layout.databasePath, BackupDatabase::Missing::Refuse); });
    beforehand([&] { flickr_standin::recoverBackup(database, layout.serviceFolder, layout.thumbnailWord); });
    std::string restored;
    try {
        flickr_standin::withDevice(layout.serviceFolder, layout.thumbnailWord, [&](auto& device) {
            restored = flickr_standin::restoreVersion(database, device, version);
        });
    } catch (Poco::NotFoundException& exception) {
        throw UsageError(exception.message() + ".");
    }
    if (json) {
        Poco::JSON::Object object = jsonReport("versions", "success");
        object.set("folder", validUtf8(layout.serviceFolder));
        object.set("version", validUtf8(version));
        object.set("restored", validUtf8(restored));
        printJson(std::cout, object);
        return ExitSuccess;
    }
    std::cout
        << printable(restored)
        << " is the older version again; a file that stood there is kept as a version.\n"
        << "Its thumbnail stays. Runs leave it alone until the item is changed at the service; then they "
           "replace it\nand keep it as a version.\n"
        << std::flush;
    return ExitSuccess;
}

}  // namespace

void addVersionsCommand(CLI::App& program, CommandContext& context) {
    CLI::App* command =
        program.add_subcommand("versions", "List what edits at the service replaced, or put it back");
    command->require_subcommand(1);
    command->footer(
        std::string("Runs keep what an edit replaces for 30 days, or as --keep-versions says.\n") +
        kExitStatuses +
        "\n"
        "Examples:\n"
        "  flickr-backup versions list --device /media/usb\n"
        "  flickr-backup versions restore --device /media/usb "
        "Trip/.versions/20170801T091500Z-sunset.jpg");

    auto listed = std::make_shared<BackupOptions>();
    CLI::App* lists = command->add_subcommand("list", "List the older versions that are kept");
    addBackupOptions(*lists, *listed);
    addJsonOption(*lists, context);
    lists->footer(
        "Changes nothing, and needs no right to write.\n"
        "Example:\n"
        "  flickr-backup versions list --device /media/usb");
    lists->callback([listed, &context] { context.status = list(*listed, context.json); });

    auto restored = std::make_shared<RestoreOptions>();
    CLI::App* restores = command->add_subcommand("restore", "Put an older version back");
    restores->add_option("VERSION", restored->version, "Path of the version, as \"versions list\" shows it")
        ->required();
    addBackupOptions(*restores, *restored);
    addJsonOption(*restores, context);
    restores->footer(
        "The current file is kept as a version. The next change at the service replaces what was put back.\n"
        "Example:\n"
        "  flickr-backup versions restore --device /media/usb Trip/.versions/20170801T091500Z-sunset.jpg");
    restores->callback([restored, &context] { context.status = restore(*restored, context.json); });
}

}  // namespace flickr_app
