#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

#include "standin/app/BackupOptions.h"
#include "standin/app/Commands.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/Refusal.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/store/BackupDatabase.h"
#include "standin/gallery/Gallery.h"

namespace flickr_app {
namespace {

struct Options : BackupOptions {
    bool anew = false;
};

int makeGallery(const Options& options, bool json) {
    using flickr_gallery::Reading;
    const DeviceLayout layout = backupToShow(options.device, options.database);
    const auto lock = beforehand([&] { return flickr_standin::DeviceLock(layout.device); });
    std::unique_ptr<flickr_standin::BackupDatabase> database;
    if (layout.databasePath.empty()) {
        std::cerr << "There is no database; the gallery is made from the descriptions.\n";
    } else {
        database = beforehand([&] {
            return std::make_unique<flickr_standin::BackupDatabase>(
                layout.databasePath, flickr_standin::BackupDatabase::Missing::Refuse);
        });
    }
    const auto report =
        flickr_gallery::writeGallery(layout.serviceFolder, layout.thumbnailWord, database.get(),
                                     options.anew ? Reading::Everything : Reading::Changes);
    if (json) {
        Poco::JSON::Object object = jsonReport("gallery", "success");
        object.set("items", std::int64_t{report.items});
        object.set("sets", std::int64_t{report.sets});
        object.set("written", std::int64_t{report.written});
        object.set("page", flickr_standin::validUtf8(report.page));
        printJson(std::cout, object);
        return ExitSuccess;
    }
    std::cout << formatCount(report.items, "item") << ", " << formatCount(report.sets, "set") << "; "
              << (report.written ? formatCount(report.written, "file") + " written"
                                 : "the gallery was up to date")
              << "\nOpen in a browser: " << printable(report.page) << "\n"
              << std::flush;
    return ExitSuccess;
}

}  // namespace

void addGalleryCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<Options>();
    CLI::App* command = program.add_subcommand("gallery", "Write a page that shows the backup in a browser");
    addBackupOptions(*command, *options);
    addJsonOption(*command, context);
    command->add_flag("--anew", options->anew,
                      "Read all descriptions and thumbnails again, not only what changed");
    command->footer(std::string("Each run does so at its end. The page needs no network and no server.\n") +
                    kExitStatuses +
                    "\n"
                    "Example:\n"
                    "  flickr-backup gallery --device /media/usb");
    command->callback([options, &context] { context.status = makeGallery(*options, context.json); });
}

}  // namespace flickr_app
