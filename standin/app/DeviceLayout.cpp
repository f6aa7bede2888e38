#include "standin/app/DeviceLayout.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "standin/app/Refusal.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Text.h"

namespace fs = std::filesystem;

namespace flickr_app {
namespace {

/// Anything but the host's own files, whose names begin with a dot.
bool holdsSomething(const std::string& folder) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().filename().string().front() != '.') return true;
    }
    return false;
}

/// The culture whose service folder on the device holds something; empty when there is none.
std::string cultureOnDevice(const std::string& device) {
    for (const std::string& culture : flickr_standin::knownCultures()) {
        if (holdsSomething(serviceFolderOn(device, culture))) return culture;
    }
    return "";
}

/// A culture's language: "de" for "de-AT".
std::string languageOf(const std::string& culture) {
    return culture.substr(0, culture.find_first_of("-_."));
}

void checkCulture(const std::string& culture) {
    const std::vector<std::string> known = flickr_standin::knownCultures();
    const bool isPlain = flickr_standin::validUtf8(culture) == culture;
    if (isPlain && std::find(known.begin(), known.end(), languageOf(culture)) != known.end()) return;
    std::string list;
    for (const std::string& name : known) list += (list.empty() ? "" : ", ") + name;
    throw UsageError("The culture \"" + culture + "\" is not known; give one of " + list + ".");
}

/// What is written below a link would land elsewhere.
void refuseLink(const std::string& folder) {
    std::error_code error;
    if (fs::is_symlink(fs::symlink_status(folder, error))) {
        throw CannotBegin(
            "The folder " + folder +
            " is a symbolic link; move it away, or give the directory to which it leads its place.");
    }
}

/// A database of no bytes beside pictures is what a full disk or a failed copy leaves: it is no new one.
/// Where there is nothing else yet, the power went while it was being made.
void refuseEmptyDatabase(const DeviceLayout& layout) {
    if (!layout.holdsBackup) return;
    std::error_code error;
    const std::string& path = layout.databasePath;
    if (!fs::is_regular_file(path, error) || fs::file_size(path, error) > 0) return;
    if (fs::exists(path + "-wal", error) && fs::file_size(path + "-wal", error) > 0) return;
    throw CannotBegin("The database " + path + " is empty; have it made anew with flickr-backup rebuild.");
}

/// The layout, whether the database is there or not.
DeviceLayout layoutOn(const std::string& device, const std::string& databaseName,
                      const std::string& culture) {
    std::error_code error;
    DeviceLayout layout;
    layout.device = fs::canonical(device, error).string();
    if (error || !fs::is_directory(layout.device, error)) {
        throw CannotBegin("The device " + device +
                          " is no directory that can be reached; mount it, or give the right one.");
    }
    if (databaseName.empty() || databaseName == "Brightkettle" || databaseName.front() == '.' ||
        databaseName != flickr_standin::safeName(databaseName)) {
        throw UsageError("The database's name \"" + databaseName +
                         "\" cannot be used; give a plain file name like \"" + kDefaultDatabase + "\".");
    }
    if (!culture.empty()) checkCulture(culture);

    refuseLink((layout.device == "/" ? "" : layout.device) + "/Brightkettle");
    for (const std::string& known : flickr_standin::knownCultures()) {
        refuseLink(serviceFolderOn(layout.device, known));
    }
    const std::string present = cultureOnDevice(layout.device);
    layout.holdsBackup = !present.empty();
    layout.culture = !culture.empty() ? culture : layout.holdsBackup ? present : "en";
    layout.thumbnailWord = flickr_standin::localisedKeyword(layout.culture, flickr_standin::kThumbnailKey);
    layout.serviceFolder = serviceFolderOn(layout.device, layout.culture);
    layout.databasePath = (layout.device == "/" ? "" : layout.device) + "/" + databaseName;
    if (layout.holdsBackup && layout.serviceFolder != serviceFolderOn(layout.device, present)) {
        throw CannotBegin("The device " + layout.device + " holds a backup in the culture \"" + present +
                          "\"; use that one, or another device.");
    }
    return layout;
}

}  // namespace

std::string serviceFolderOn(const std::string& device, const std::string& culture) {
    return (device == "/" ? "" : device) + "/Brightkettle/" +
           flickr_standin::localisedServiceFolderName(culture);
}

DeviceLayout layoutOf(const std::string& device, const std::string& databaseName,
                      const std::string& culture) {
    DeviceLayout layout = layoutOn(device, databaseName, culture);
    std::error_code error;
    if (layout.holdsBackup && !fs::exists(layout.databasePath, error)) {
        throw CannotBegin("The device holds a backup in " + layout.serviceFolder + ", but its database " +
                          layout.databasePath +
                          " is missing; give its name with --database, or have it made anew with " +
                          "flickr-backup rebuild.");
    }
    refuseEmptyDatabase(layout);
    return layout;
}

DeviceLayout existingBackup(const std::string& device, const std::string& databaseName) {
    DeviceLayout layout = layoutOf(device, databaseName, "");
    std::error_code error;
    if (!fs::exists(layout.databasePath, error)) {
        throw CannotBegin("There is no backup on the device " + layout.device + ": it has no database \"" +
                          databaseName + "\".");
    }
    return layout;
}

DeviceLayout backupToShow(const std::string& device, const std::string& databaseName) {
    DeviceLayout layout = layoutOn(device, databaseName, "");
    std::error_code error;
    if (!fs::exists(layout.databasePath, error)) layout.databasePath.clear();
    if (layout.databasePath.empty() && !layout.holdsBackup) {
        throw CannotBegin("There is no backup on the device " + layout.device + "; give the right one.");
    }
    return layout;
}

DeviceLayout backupToRebuild(const std::string& device, const std::string& databaseName) {
    DeviceLayout layout = layoutOn(device, databaseName, "");
    if (!layout.holdsBackup) {
        throw CannotBegin("There is no backup on the device " + layout.device + "; give the right one.");
    }
    return layout;
}

}  // namespace flickr_app
