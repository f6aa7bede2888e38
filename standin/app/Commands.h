// The program's commands, one source file each.

#ifndef STANDIN_APP_COMMANDS_H
#define STANDIN_APP_COMMANDS_H

#include <CLI/CLI.hpp>

namespace flickr_app {

class Profile;

// Each adds its command with options, help and example to the program. When the command is given it is done
// while the command line is parsed, and its exit status is put into status; what it throws passes through:
// Refusal for what the user has to put right, Poco::Exception for what failed. A profile has to live as long
// as the program.

/// "configure": writes the plug-in's configuration.
void addConfigureCommand(CLI::App& program, Profile& profile, int& status);
/// "login", "logout": the sign-in at the service.
void addLoginCommand(CLI::App& program, Profile& profile, int& status);
void addLogoutCommand(CLI::App& program, Profile& profile, int& status);
/// "run": backs up.
void addRunCommand(CLI::App& program, Profile& profile, int& status);
/// "status": lists what is backed up.
void addStatusCommand(CLI::App& program, int& status);
/// "verify": compares every file with what is recorded.
void addVerifyCommand(CLI::App& program, int& status);
/// "gallery": writes a page that shows the backup.
void addGalleryCommand(CLI::App& program, int& status);
/// "info": shows what the plug-in says about itself.
void addInfoCommand(CLI::App& program, Profile& profile, int& status);

}  // namespace flickr_app

#endif
