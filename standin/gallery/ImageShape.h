// The size of a picture, from the header of its file.

#ifndef STANDIN_GALLERY_IMAGESHAPE_H
#define STANDIN_GALLERY_IMAGESHAPE_H

#include <cstdio>

namespace flickr_gallery {

/// In pixels; 0 when it is not known.
struct ImageShape {
    int width = 0;
    int height = 0;
};

/// Reads a JPEG, PNG, GIF or WebP file from its start as far as its header goes. Any other file, and one
/// whose header is damaged, has no shape.
ImageShape imageShape(std::FILE* file);

}  // namespace flickr_gallery

#endif
