// The program's commands, one source file each.

#ifndef STANDIN_APP_COMMANDS_H
#define STANDIN_APP_COMMANDS_H

#include <CLI/CLI.hpp>

#include "standin/app/Profile.h"
#include "standin/app/Refusal.h"

namespace flickr_app {

/// What the commands share.
struct CommandContext {
    Profile profile;
    bool json = false;  ///< --json: standard output gets one JSON object
    int status = ExitUsage;
};

/// Adds --json to a command.
void addJsonOption(CLI::App& command, CommandContext& context);

// Each adds its command with options, help and example to the program. When the command is given it is done
// while the command line is parsed, and its exit status is put into the context; what it throws passes
// through: Refusal for what the user has to put right, Poco::Exception for what failed. The context has to
// live as long as the program.

/// "configure": writes the plug-in's configuration.
void addConfigureCommand(CLI::App& program, CommandContext& context);
/// "login", "logout": the sign-in at the service.
void addLoginCommand(CLI::App& program, CommandContext& context);
void addLogoutCommand(CLI::App& program, CommandContext& context);
/// "run": backs up.
void addRunCommand(CLI::App& program, CommandContext& context);
/// "status": lists what is backed up.
void addStatusCommand(CLI::App& program, CommandContext& context);
/// "verify": compares every file with what is recorded.
void addVerifyCommand(CLI::App& program, CommandContext& context);
/// "rebuild": makes the databases anew.
void addRebuildCommand(CLI::App& program, CommandContext& context);
/// "find": finds items and their files.
void addFindCommand(CLI::App& program, CommandContext& context);
/// "export": what is known of each item, as a table.
void addExportCommand(CLI::App& program, CommandContext& context);
/// "versions": lists what edits have replaced, and puts it back.
void addVersionsCommand(CLI::App& program, CommandContext& context);
/// "gallery": writes a page that shows the backup.
void addGalleryCommand(CLI::App& program, CommandContext& context);
/// "info": shows what the plug-in says about itself.
void addInfoCommand(CLI::App& program, CommandContext& context);

/// "completion": prints what a shell needs to complete the commands; "manual": the same for the manual page.
void addCompletionCommand(CLI::App& program, CommandContext& context);

}  // namespace flickr_app

#endif
