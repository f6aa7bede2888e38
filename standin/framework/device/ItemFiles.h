// Which files on the device belong to an item's row.

#ifndef STANDIN_FRAMEWORK_DEVICE_ITEMFILES_H
#define STANDIN_FRAMEWORK_DEVICE_ITEMFILES_H

#include <string>
#include <vector>

#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_standin {

/// True when path names a thumbnail of the item: in a folder inside the item's, base name, "_", id, and any
/// extension.
inline bool isThumbnailOf(const ItemRow& row, const std::string& path) {
    const std::string folder = folderOf(path);
    return !folder.empty() && folderOf(folder) == row.folder &&
           splitName(nameOf(path)).base == splitName(nameOf(row.mediaPath)).base + "_" + row.id;
}

/// The thumbnail that the item's row names, in the folder of that word.
inline std::string thumbnailPath(const ItemRow& row, const std::string& thumbnailWord) {
    const std::string name = splitName(nameOf(row.mediaPath)).base + "_" + row.id + "." + row.imageExtension;
    return joinPath(joinPath(row.folder, thumbnailWord), name);
}

/// Where a thumbnail of the item's base name and extension may stand: in the folder of that word, and in
/// those of all languages.
inline std::vector<std::string> thumbnailCandidates(const ItemRow& row, const std::string& thumbnailWord) {
    std::vector<std::string> paths = {thumbnailPath(row, thumbnailWord)};
    for (const std::string& culture : knownCultures()) {
        const std::string folder = joinPath(row.folder, localisedKeyword(culture, kThumbnailKey));
        const std::string path = joinPath(folder, nameOf(paths.front()));
        if (path != paths.front()) paths.push_back(path);
    }
    return paths;
}

/// The path with each extension that a thumbnail may have.
inline std::vector<std::string> withImageExtensions(const std::string& path) {
    std::vector<std::string> paths;
    for (const char* extension : {".jpg", ".png", ".gif", ".webp", ".tif", ".heic"}) {
        paths.push_back(path + extension);
    }
    return paths;
}

/// Paths that the recorded version of the item's file at path may have: the row may have got another name
/// since, and a thumbnail another format.
inline std::vector<std::string> versionsOf(const std::string& path, const ItemRow& row) {
    if (folderOf(path) == row.folder) return {row.mediaPath};
    return withImageExtensions(
        joinPath(folderOf(path), splitName(nameOf(row.mediaPath)).base + "_" + row.id));
}

}  // namespace flickr_standin

#endif
