// Files and folders below an open folder, through which nothing outside it can be reached: no link is
// followed, and what has a name is never replaced unasked.

#ifndef STANDIN_FRAMEWORK_DEVICE_DEVICEFILES_H
#define STANDIN_FRAMEWORK_DEVICE_DEVICEFILES_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "standin/framework/base/Descriptor.h"

namespace flickr_standin {

/// Whether other users of the machine may read what the process writes from now on, as far as its file mode
/// mask lets them. Without it all is for its owner only.
void shareDevices(bool shared);

/// Mode of a new folder.
mode_t folderMode();

/// Opens a regular file for reading; anything else that has the name is refused, and keeps nobody waiting.
/// Not open, with errno, when that fails.
Descriptor openRegular(int folder, const std::string& name);

/// Opens the folder at path below another one, which no part of the path leads out of, and no link. Not open,
/// with errno, when that fails.
Descriptor openBelow(int root, const std::string& path, int flags);

/// True for the error numbers of a link or a file where a folder was wanted.
bool isLinkOrFile(int error);

/// A new file for writing; not open, with errno, when it cannot be made or something has the name.
Descriptor makeFile(int folder, const std::string& name);

/// How many names in the folder's list are equal to this one but for what file systems may not see (case,
/// say); none, with errno, when it cannot be read. The list is right where a look at the name is not: of a
/// file that has gone from a file system in user space the kernel remembers other spellings for a second.
std::optional<long> entriesLike(int folder, const std::string& name);

/// True when two names lead to one file or folder of a folder: they are equal, or differ in a way that the
/// file system does not see (case, say). The numbers of files alone do not tell: a file system in user space
/// may give each spelling a number of its own. None, with errno, when the list cannot be read.
std::optional<bool> isOneEntry(int folder, const std::string& name, const std::string& other);

/// Renames without replacing anything; 0 or an error number.
int renameWithoutReplacing(int fromFolder, const std::string& from, int toFolder, const std::string& to);

}  // namespace flickr_standin

#endif
