// A user's settings, and what the program keeps for that user.
//
//   ~/.config/flickr-backup/            $XDG_CONFIG_HOME instead of ~/.config, or the folder of --config
//       credentials                     the sign-in
//       Flickr_plugin_config.xml        the plug-in's configuration, written by "configure"
//       profiles/NAME/                  both of the profile NAME: an account beside the first one
//   ~/.local/state/flickr-backup/       $XDG_STATE_HOME instead of ~/.local/state
//       NVHLDevLog.log                  the developer log
//       profiles/NAME/                  that of the profile NAME
//       devices/                        what is known of devices; see DeviceHistory.h
//       …                               the gateway's, of all profiles
//
// A user without a home has the program's own folder for both, as all users had once.

#ifndef STANDIN_APP_PROFILE_H
#define STANDIN_APP_PROFILE_H

#include <CLI/CLI.hpp>
#include <string>

namespace flickr_app {

constexpr const char* kConfigurationName = "Flickr_plugin_config.xml";

/// Which settings hold: those of a user, or of one of their profiles.
class Profile {
public:
    /// Adds --config and --profile to a command; this has to live as long as it.
    void addOptions(CLI::App& command);

    // Paths; nothing is made. Each throws UsageError when the profile's name cannot be one.
    std::string configurationFolder() const;
    std::string configurationFile() const;
    std::string credentialsFile() const;
    std::string logFolder() const;
    std::string logFile() const;
    /// Of all profiles; empty when the user has no home.
    static std::string stateFolder();

    /// Makes the two folders, for their owner only, and a copy of the configuration of the program's folder
    /// when the user has none of their own yet, which standard error is told. What cannot be made is left to
    /// whoever needs it.
    void prepare() const;

    /// Why the log cannot be written, as a sentence; empty when it can.
    std::string logProblem() const;

    /// To the framework: it takes configuration and log from here, whatever folder the plug-in names.
    void use() const;

private:
    std::string ofProfile(const std::string& folder) const;

    std::string folder_;  // of --config
    std::string name_;
};

}  // namespace flickr_app

#endif
