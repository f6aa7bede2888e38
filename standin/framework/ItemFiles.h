// Which files on the device belong to an item's row.

#ifndef STANDIN_FRAMEWORK_ITEMFILES_H
#define STANDIN_FRAMEWORK_ITEMFILES_H

#include <string>
#include <vector>

#include "standin/framework/BackupDatabase.h"
#include "standin/framework/Ledger.h"
#include "standin/framework/Localisation.h"
#include "standin/framework/Names.h"

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
        paths.push_back(joinPath(folder, nameOf(row.thumbnailPath)));
    }
    return paths;
}

}  // namespace Norvale_Plugin_Core

#endif
