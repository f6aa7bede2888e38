#include "standin/gallery/ImageShape.h"

#include <csetjmp>
#include <cstring>

// jpeglib.h needs stdio first.
#include <jpeglib.h>

namespace flickr_gallery {
namespace {

// What a header's sizes are read from: up to the end of WebP's longest one.
constexpr std::size_t kHeader = 30;

struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
};

/// libjpeg ends a damaged file by a jump to here.
ImageShape jpegShape(std::FILE* file) {
    jpeg_decompress_struct decoder;
    ErrorManager errors;
    decoder.err = jpeg_std_error(&errors.base);
    errors.base.error_exit = [](j_common_ptr info) {
        std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
    };
    errors.base.output_message = [](j_common_ptr) {};
    jpeg_create_decompress(&decoder);
    if (setjmp(errors.jump)) {
        jpeg_destroy_decompress(&decoder);
        return {};
    }
    jpeg_stdio_src(&decoder, file);
    jpeg_read_header(&decoder, TRUE);
    const ImageShape shape = {static_cast<int>(decoder.image_width), static_cast<int>(decoder.image_height)};
    jpeg_destroy_decompress(&decoder);
    return shape;
}

int little(const unsigned char* bytes, int count) {
    int number = 0;
    while (count-- > 0) number = number << 8 | bytes[count];
    return number;
}

/// The three kinds of WebP: lossy, lossless, and extended, whose sizes are of the canvas.
ImageShape webpShape(const unsigned char* header) {
    const unsigned char* body = header + 20;
    if (std::memcmp(header + 12, "VP8 ", 4) == 0) {
        return {little(body + 6, 2) & 0x3fff, little(body + 8, 2) & 0x3fff};
    }
    if (std::memcmp(header + 12, "VP8L", 4) == 0) {
        return {(little(body + 1, 2) & 0x3fff) + 1, (little(body + 2, 3) >> 6 & 0x3fff) + 1};
    }
    if (std::memcmp(header + 12, "VP8X", 4) == 0) return {little(body + 4, 3) + 1, little(body + 7, 3) + 1};
    return {};
}

}  // namespace

ImageShape imageShape(std::FILE* file) {
    unsigned char header[kHeader] = {};
    const std::size_t read = std::fread(header, 1, kHeader, file);
    if (read >= 2 && header[0] == 0xff && header[1] == 0xd8) {
        std::rewind(file);
        return jpegShape(file);
    }
    if (read >= 24 && std::memcmp(header, "\x89PNG\r\n\x1a\n", 8) == 0) {
        // A size beyond 16 bits is no thumbnail's.
        return {header[18] << 8 | header[19], header[22] << 8 | header[23]};
    }
    if (read >= 10 && std::memcmp(header, "GIF8", 4) == 0) {
        return {little(header + 6, 2), little(header + 8, 2)};
    }
    const bool webp = std::memcmp(header, "RIFF", 4) == 0 && std::memcmp(header + 8, "WEBP", 4) == 0;
    return read == kHeader && webp ? webpShape(header) : ImageShape();
}

}  // namespace flickr_gallery
