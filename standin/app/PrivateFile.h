// Files for the user's eyes only.

#ifndef STANDIN_APP_PRIVATEFILE_H
#define STANDIN_APP_PRIVATEFILE_H

#include <string>

namespace flickr_app {

/// Puts the content in the place of the file's, whole or not at all, readable for its owner only; on disk
/// before it takes its name, and the name on disk as well. The file's folder has to be there. Answers what
/// went wrong ("Permission denied"); empty when nothing did.
std::string replacePrivateFile(const std::string& path, const std::string& content);

/// Makes a folder and those above it that are missing, for their owner only. What cannot be made shows in
/// what is written there.
void makePrivateFolder(const std::string& path);

/// "$XDG_CONFIG_HOME/flickr-backup", or below "~/.config". Empty when there is no home.
std::string userConfigurationFolder();

/// "$XDG_STATE_HOME/flickr-backup", or below "~/.local/state". Empty when there is no home.
std::string userStateFolder();

}  // namespace flickr_app

#endif
