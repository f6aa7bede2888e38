// Which files on the device belong to an item's row.

#ifndef STANDIN_FRAMEWORK_DEVICE_ITEMFILES_H
#define STANDIN_FRAMEWORK_DEVICE_ITEMFILES_H

#include <string>
#include <vector>

#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/device/Ledger.h"
#include "standin/framework/store/BackupDatabase.h"

namespace Norvale_Plugin_Core {

/// True when path names a thumbnail of the item: in a folder inside the item's, base name, "_", id, and any
/// extension.
inline bool isThumbnailOf(const ItemRow& row, const std::string& path) {
    const std::string folder = folderOf(path);
    return !folder.empty() && folderOf(folder) == row.folder &&
           splitName(nameOf(path)).base == splitName(nameOf(row.mediaPath)).base + "_" + row.id;
}

/// Where a thumbnail of the item's base name and extension may stand: in the current language's thumbnail
/// folder, and in those of the others.
inline std::vector<std::string> thumbnailCandidates(const ItemRow& row) {
    std::vector<std::string> paths = {row.thumbnailPath};
    for (const std::string& culture : knownCultures()) {
        const std::string folder = joinPath(row.folder, localisedKeyword(culture, "ThumbnailKey"));
        const std::string path = joinPath(folder, nameOf(row.thumbnailPath));
        if (path != row.thumbnailPath) paths.push_back(path);
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

}  // namespace Norvale_Plugin_Core

#endif
