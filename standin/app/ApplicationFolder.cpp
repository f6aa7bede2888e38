#include "standin/app/ApplicationFolder.h"

#include <filesystem>

#include "standin/app/Refusal.h"
#include "standin/framework/base/Text.h"

namespace flickr_app {

std::string pluginsDirectory() {
    static const std::string directory =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "Resources/Plugins/").string();
    if (directory != flickr_standin::validUtf8(directory)) {
        throw CannotBegin("The program's folder " + directory +
                          " has a name that is not UTF-8; move the program to another one.");
    }
    return directory;
}

}  // namespace flickr_app
