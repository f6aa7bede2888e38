#include "standin/app/ApplicationFolder.h"

#include <filesystem>

namespace flickr_app {

std::string pluginsDirectory() {
    static const std::string directory =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "Resources/Plugins/").string();
    return directory;
}

std::string configurationFile() {
    return pluginsDirectory() + "Flickr_plugin_config.xml";
}

std::string logFile() {
    return pluginsDirectory() + "NVHLDevLog.log";
}

}  // namespace flickr_app
