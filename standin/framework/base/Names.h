// Names of files and folders that are safe and unique wherever a backup device may be read.
//
// A name is safe when FAT, exFAT, NTFS, APFS and ext4 all take it: valid UTF-8 without control characters and
// without any of  < > : " / \ | ? *,  not one of the names that Windows keeps for devices ("con", "NUL.txt",
// "com1"), with no blank or dot at its end, and 1 to 255 bytes long.
//
// Two names are the same name to some of these file systems when they differ in case or in the way their
// characters are composed. A name's key leaves these differences out: names with different keys can stand in
// one folder anywhere.

#ifndef STANDIN_FRAMEWORK_BASE_NAMES_H
#define STANDIN_FRAMEWORK_BASE_NAMES_H

#include <cstddef>
#include <ctime>
#include <optional>
#include <set>
#include <string>

namespace flickr_standin {

/// Longest name in bytes.
constexpr std::size_t kLongestName = 255;

/// Folder in each folder of the device in which the descriptions lie, and in the service folder also
/// the ledger.
constexpr const char* kDescriptionFolder = ".records";

/// Folder in a folder of the device in which older versions of its files are kept.
constexpr const char* kVersionFolder = ".versions";

/// The set id under which the plug-in keeps the items that are in no set. They stand in the root folder.
constexpr const char* kNoSetId = "Anonymous";

/// The gallery's page in the service folder, and the folder of its data.
constexpr const char* kGalleryPage = "index.html";
constexpr const char* kGalleryFolder = "index-data";

/// How the name of a file begins that is still being written, and of one that was replaced and is kept until
/// its item's row is written. Behind it stand the number of the process, "-", and a number.
constexpr const char* kPartPrefix = ".part-";
constexpr const char* kKeptPrefix = ".kept-";

/// A name of that form which this process has not given yet.
std::string newOwnName(const char* prefix);
/// True for the form only: digits, "-", digits behind the prefix.
bool isOwnName(const std::string& name, const char* prefix);

/// The text as a safe name. A safe name comes back unchanged, and an empty text as "_". When the text has to
/// be cut a file extension at its end is kept.
std::string safeName(const std::string& text);

/// The name without the differences that file systems may ignore.
std::string nameKey(const std::string& name);

/// Keys of names that no item and no set may have; see Localisation.h for the system's words.
using NameKeys = std::set<std::string>;

/// True for one name that a file or folder of the backup can have: not empty, neither "." nor "..", without
/// "/" and NUL, not too long, and none of the service's own.
bool isBackupName(const std::string& name);

/// A name in two parts: before its last dot, and from it. Without a dot the second is empty. This is how the
/// plug-in takes names apart when it puts a suffix to them.
struct NameParts {
    std::string base;
    std::string extension;
};
NameParts splitName(const std::string& name);

/// An item's title without the extension that the plug-in puts to it.
std::string withoutMediaExtension(const std::string& title);

/// The name under which the plug-in puts a file aside while a new version comes: "a_Old.jpg".
std::string asideName(const std::string& name);

/// Name of an older version of the file name that was replaced at a moment: "20170801T091500Z-a.jpg", the
/// moment in UTC. A name too long is cut, its extension is kept.
std::string versionName(const std::string& name, std::time_t replaced);
/// The moment in a version's name; none for a name of another form.
std::optional<std::time_t> replacedAt(const std::string& versionName);
/// The name that a file which stands aside had before; empty for any other name.
std::string nameBeforeAside(const std::string& name);

/// A safe name for an item made from title, with the extension kept and room left for what is put to it: a
/// thumbnail's name holds base, itemId and "_Old" as well. Never begins with a dot, never has a base that
/// ends in "_Old", and is none of the reserved ones.
/// number: 1 for the name itself, from 2 on for "name (2).jpg".
std::string itemName(const std::string& title, const std::string& itemId, long number,
                     const NameKeys& reserved);

/// The same for a folder.
std::string folderName(const std::string& title, long number, const NameKeys& reserved);

}  // namespace flickr_standin

#endif
