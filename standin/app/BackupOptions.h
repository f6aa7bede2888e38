// The options of the commands that look at a backup which is there.

#ifndef STANDIN_APP_BACKUPOPTIONS_H
#define STANDIN_APP_BACKUPOPTIONS_H

#include <CLI/CLI.hpp>
#include <string>

#include "standin/app/DeviceLayout.h"

namespace flickr_app {

/// Which backup.
struct BackupOptions {
    std::string device;
    std::string database = kDefaultDatabase;
};

/// Adds --device and --database to the command; options has to live as long as it.
inline void addBackupOptions(CLI::App& command, BackupOptions& options) {
    command.add_option("--device", options.device, "Directory that holds the backup")
        ->required()
        ->type_name("DIR");
    command.add_option("--database", options.database, "The metadata database's name under the device")
        ->type_name("NAME")
        ->capture_default_str();
}

}  // namespace flickr_app

#endif
