#include "standin/app/Profile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>

#include "standin/app/ApplicationFolder.h"
#include "standin/app/Format.h"
#include "standin/app/PrivateFile.h"
#include "standin/app/Refusal.h"
#include "standin/framework/run/RunConfiguration.h"

namespace fs = std::filesystem;

namespace flickr_app {
namespace {

std::string orProgramFolder(const std::string& folder) {
    return folder.empty() ? fs::path(pluginsDirectory()).parent_path().string() : folder;
}

}  // namespace

void Profile::addOptions(CLI::App& command) {
    command.add_option("--config", folder_, "Folder of the settings; without it ~/.config/flickr-backup")
        ->type_name("DIR");
    command.add_option("--profile", name_, "Use the settings of this name, such as those of another account")
        ->type_name("NAME");
}

std::string Profile::ofProfile(const std::string& folder) const {
    if (name_.empty()) return folder;
    const bool isPlain = name_.find_first_not_of(
                             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                             "0123456789-_.@") == std::string::npos;
    if (!isPlain || name_.front() == '.' || name_.size() > 64) {
        throw UsageError("\"" + name_ + "\" cannot be a profile's name; give up to 64 letters and digits.");
    }
    return folder + "/profiles/" + name_;
}

std::string Profile::configurationFolder() const {
    if (!folder_.empty()) return ofProfile(fs::absolute(folder_).string());
    return ofProfile(orProgramFolder(userConfigurationFolder()));
}

std::string Profile::configurationFile() const {
    return configurationFolder() + "/" + kConfigurationName;
}

std::string Profile::credentialsFile() const {
    return configurationFolder() + "/credentials";
}

std::string Profile::stateFolder() {
    return userStateFolder();
}

std::string Profile::logFolder() const {
    return ofProfile(orProgramFolder(stateFolder()));
}

std::string Profile::logFile() const {
    return logFolder() + "/NVHLDevLog.log";
}

void Profile::prepare() const {
    makePrivateFolder(configurationFolder());
    makePrivateFolder(logFolder());
    std::error_code ignored;
    const std::string own = configurationFile(), former = pluginsDirectory() + kConfigurationName;
    const bool isFirst = folder_.empty() && name_.empty();
    if (!isFirst || fs::exists(own, ignored)) return;
    std::ifstream file(former);
    if (!file) return;
    const std::string text(std::istreambuf_iterator<char>(file), {});
    if (!replacePrivateFile(own, text).empty()) return;
    std::cerr << printable("The configuration " + former + " was copied to " + own +
                           ", which holds from now on.")
              << std::endl;
}

std::string Profile::logProblem() const {
    const std::string path = logFile();
    const int file = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) return "The log " + path + " cannot be written: " + std::strerror(errno);
    ::close(file);
    return "";
}

void Profile::use() const {
    flickr_standin::setUserFolders(configurationFolder(), logFolder());
}

}  // namespace flickr_app
