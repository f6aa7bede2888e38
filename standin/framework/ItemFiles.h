// Which files on the device belong to an item's row.

#ifndef STANDIN_FRAMEWORK_ITEMFILES_H
#define STANDIN_FRAMEWORK_ITEMFILES_H

#include <string>

#include "standin/framework/BackupDatabase.h"
#include "standin/framework/Ledger.h"
#include "standin/framework/Names.h"

namespace Norvale_Plugin_Core {

/// True when path names a thumbnail of the item: in a folder inside the item's, base name, "_", id, and any
/// extension.
inline bool isThumbnailOf(const ItemRow& row, const std::string& path) {
    const std::string folder = folderOf(path);
    return !folder.empty() && folderOf(folder) == row.folder &&
           splitName(nameOf(path)).base == splitName(nameOf(row.mediaPath)).base + "_" + row.id;
}

}  // namespace Norvale_Plugin_Core

#endif
