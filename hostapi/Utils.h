// Names, texts and picture formats.

#ifndef HOSTAPI_UTILS_H
#define HOSTAPI_UTILS_H

#include <Poco/Buffer.h>

#include <string>

namespace Norvale_Plugin_Core {

class Utils {
public:
    Utils() = default;

    /// The text as valid UTF-8 that is safe as a name on FAT, exFAT, NTFS, APFS and ext4. A text that is
    /// safe already comes back unchanged; so does every result.
    std::string NormalizeString(std::string text);

    /// The text without white space (blank, tab, line feed, carriage return, vertical tab, form feed) at its
    /// ends.
    std::string trimString(std::string text);

    /// The name up to its last "."; the whole name when it holds none.
    std::string getFileNameWithoutExtension(std::string name);

    /// The extension, without a dot, of the picture format that the first bytes of a file show: "jpg",
    /// "png", "gif", "webp", "tif" or "heic"; "jpg" for bytes of any other kind.
    std::string getImageExtension(Poco::Buffer<char>& firstBytes);
};

}  // namespace Norvale_Plugin_Core

#endif
