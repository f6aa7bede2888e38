// Configuration that is not in the file.

#ifndef STANDIN_FRAMEWORK_RUN_RUNCONFIGURATION_H
#define STANDIN_FRAMEWORK_RUN_RUNCONFIGURATION_H

#include <map>
#include <optional>
#include <string>

namespace flickr_standin {

/// Names such as "plugin.dataUrl", and their values in the form that they have in the file.
using ConfigurationValues = std::map<std::string, std::string>;

/// What the host application knows of the configuration for the runs that follow: values hold in place of the
/// file's, defaults where the file has none or is missing. Nothing is written, so two runs do not meet.
void setRunConfiguration(ConfigurationValues values, ConfigurationValues defaults);

/// None when the application has not set it. May be called from any thread, as the two below.
std::optional<std::string> runValue(const std::string& key);
std::optional<std::string> runDefault(const std::string& key);
/// Whether a run can do without the file.
bool hasRunDefaults();

/// The folders in which configuration and log stand, whatever folders a PluginCore is made for: of those two
/// paths only the file names count from now on. Empty: the paths hold as they are.
void setUserFolders(std::string configuration, std::string log);

/// A path that a PluginCore is made for, in the folder of the configuration or of the log.
std::string inConfigurationFolder(const std::string& path);
std::string inLogFolder(const std::string& path);

}  // namespace flickr_standin

#endif
