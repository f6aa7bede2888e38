// A gallery of a backup: a page in the service folder that a browser opens from the disk, without a server.
//
//   index.html                    the page; names the four files below that it begins with
//   index-data/style-HASH.css     looks, texts and script of the page
//   index-data/texts-HASH.js
//   index-data/script-HASH.js
//   index-data/sets-HASH.js       the sets, one in a line, with the chunks of each
//   index-data/HASH.js            a chunk: items of one set and of neighbouring months, one in a line
//   index-data/search-HASH.js     what is searched of the items of some chunks, one chunk in a line
//
// HASH is that of the file's content, or of the names of the chunks that a search file is made from: what has
// a name never changes. A new gallery is written beside the old one, index.html is replaced by one that names
// the new files, and what it does not name any more goes. A kill at any moment leaves the old gallery or the
// new one.
//
// Data are scripts, since a page from the disk may load nothing else. A set's line is the JSON array
//
//   [id, digest, title, folder, cover, coverFile, number of items,
//    [[HASH, [[month, number of items, of them again], ...]], ...]]
//
// where "again" counts the photos that a set before it holds, too, and is left out when there are none,
// and an item's line
//
//   [id, stamp, taken, width, height, title, file, thumbnail, uploaded, updated, 1 for a video, description,
//    [tag, ...], [version, ...]]
//
// The versions are paths of older ones, relative to the set's folder, and left out when there are none.
//
// A search file's line is [HASH of the chunk, the photos' ids with blanks between, texts]: the texts have a
// line for each item, in the chunk's order, with the words of title, file, day taken, description and tags,
// each once, as searchKey() of base/Text.h makes them.
//
// month is "2017-07", or "" for items without a date; dates, paths and sizes are those of device/Catalogue.h.
// Digest and stamp tell the next run which sets and items it can take over as they are. In all texts "<", ">"
// and "&" and the two line ends of Unicode are escaped, so that no text can end the script that holds it.

#ifndef STANDIN_GALLERY_GALLERY_H
#define STANDIN_GALLERY_GALLERY_H

#include <string>

namespace flickr_standin {
class BackupDatabase;
}

namespace flickr_gallery {

struct GalleryReport {
    long items = 0;
    long sets = 0;     ///< the items in no set not counted
    long written = 0;  ///< files
    std::string page;  ///< path of index.html
};

/// Whether sets that are listed as before are taken over, or read anew with every description and thumbnail.
enum class Reading { Changes, Everything };

/// Brings the gallery in serviceFolder up to date; a gallery that is so already is not touched.
/// thumbnailWord: the word for the folders of thumbnails. database: none to take everything from the
/// descriptions.
///
/// Throws Poco::Exception with a sentence when a file of somebody else's has the page's name, and when
/// database or device cannot be read or written. The earlier gallery is whole then.
GalleryReport writeGallery(const std::string& serviceFolder, const std::string& thumbnailWord,
                           flickr_standin::BackupDatabase* database, Reading reading = Reading::Changes);

/// The text as a JSON string in a script.
std::string scriptString(const std::string& text);

}  // namespace flickr_gallery

#endif
