#include "sim/Picture.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
// jpeglib.h needs stdio first.
#include <jpeglib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

namespace flickr_sim {

namespace {

/// Turns libjpeg's exit on errors into a jump; warnings about damaged files are not shown.
struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;

    ErrorManager() {
        jpeg_std_error(&base);
        base.error_exit = [](j_common_ptr info) {
            std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
        };
        base.output_message = [](j_common_ptr) {};
    }
};

using FilePtr = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

FilePtr openForReading(const std::string& path) {
    return FilePtr(std::fopen(path.c_str(), "rb"), &std::fclose);
}

using Row = std::vector<unsigned char>;

/// Encodes rows of RGB that fill() provides one by one.
template <typename Fill>
std::string encode(int width, int height, int quality, Fill fill) {
    jpeg_compress_struct encoder;
    ErrorManager errors;
    encoder.err = &errors.base;
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    Row row(static_cast<std::size_t>(width) * 3);
    if (setjmp(errors.jump)) {
        jpeg_destroy_compress(&encoder);
        std::free(buffer);
        return std::string();
    }
    jpeg_create_compress(&encoder);
    jpeg_mem_dest(&encoder, &buffer, &size);
    encoder.image_width = static_cast<JDIMENSION>(width);
    encoder.image_height = static_cast<JDIMENSION>(height);
    encoder.input_components = 3;
    encoder.in_color_space = JCS_RGB;
    jpeg_set_defaults(&encoder);
    jpeg_set_quality(&encoder, quality, TRUE);
    encoder.optimize_coding = TRUE;
    jpeg_start_compress(&encoder, TRUE);
    while (encoder.next_scanline < encoder.image_height) {
        fill(static_cast<int>(encoder.next_scanline), row);
        JSAMPROW line = row.data();
        jpeg_write_scanlines(&encoder, &line, 1);
    }
    jpeg_finish_compress(&encoder);
    jpeg_destroy_compress(&encoder);
    std::string result(reinterpret_cast<char*>(buffer), size);
    std::free(buffer);
    return result;
}

/// A sky over hills under a sun, in the design's colours; the same scene at every size.
std::string drawScene(unsigned design, int width, int height) {
    const double hue = design * 6.2831853 / kDesigns;
    const auto tone = [&](double shift) { return 128 + 90 * std::sin(hue + shift); };
    const double sunX = 0.2 + 0.6 * design / kDesigns;
    return encode(width, height, 80, [&](int y, Row& row) {
        const double v = (y + 0.5) / height;
        for (int x = 0; x < width; ++x) {
            const double u = (x + 0.5) / width;
            const double hill = 0.65 + 0.12 * std::sin(5 * u + hue) + 0.05 * std::sin(13 * u - hue);
            const double sun = std::hypot(u - sunX, (v - 0.3) * height / width);
            const double light = v > hill ? 0.45 - 0.3 * (v - hill) : (sun < 0.08 ? 1.4 : 1.1 - 0.5 * v);
            unsigned char* pixel = &row[static_cast<std::size_t>(x) * 3];
            for (int c = 0; c < 3; ++c) {
                pixel[c] = static_cast<unsigned char>(std::clamp(light * tone(2.1 * c), 0.0, 255.0));
            }
        }
    });
}

}  // namespace

std::shared_ptr<const std::string> drawPicture(unsigned design, int width, int height) {
    static std::mutex mutex;
    static std::map<std::tuple<unsigned, int, int>, std::shared_ptr<const std::string>> drawn;
    const std::tuple<unsigned, int, int> key(design % kDesigns, std::max(width, 1), std::max(height, 1));
    std::lock_guard<std::mutex> lock(mutex);
    std::shared_ptr<const std::string>& picture = drawn[key];
    if (!picture) {
        picture = std::make_shared<const std::string>(
            drawScene(std::get<0>(key), std::get<1>(key), std::get<2>(key)));
    }
    return picture;
}

std::string reduceJpeg(const std::string& path, int longestSide) {
    const FilePtr file = openForReading(path);
    if (!file) return std::string();

    // Pixels of the reduced picture: sums of red, green and blue, and how many pixels they sum.
    std::vector<std::array<std::uint32_t, 4>> sums;
    Row line;
    int width = 0;
    int height = 0;
    jpeg_decompress_struct decoder;
    ErrorManager errors;
    decoder.err = &errors.base;
    if (setjmp(errors.jump)) {
        jpeg_destroy_decompress(&decoder);
        return std::string();
    }
    jpeg_create_decompress(&decoder);
    jpeg_stdio_src(&decoder, file.get());
    jpeg_read_header(&decoder, TRUE);
    decoder.out_color_space = JCS_RGB;
    const std::uint64_t longest = std::max(decoder.image_width, decoder.image_height);
    decoder.scale_denom = 8;
    decoder.scale_num = static_cast<unsigned>(
        std::clamp<std::uint64_t>((8ull * static_cast<unsigned>(longestSide) + longest - 1) / longest, 1, 8));
    jpeg_start_decompress(&decoder);

    const std::size_t fromWidth = decoder.output_width;
    const std::size_t fromHeight = decoder.output_height;
    const double scale = std::min(
        1.0, static_cast<double>(longestSide) / static_cast<double>(std::max(fromWidth, fromHeight)));
    width = std::max(1, static_cast<int>(static_cast<double>(fromWidth) * scale));
    height = std::max(1, static_cast<int>(static_cast<double>(fromHeight) * scale));
    sums.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    line.resize(fromWidth * 3);
    while (decoder.output_scanline < decoder.output_height) {
        const std::size_t row = decoder.output_scanline * static_cast<std::size_t>(height) / fromHeight;
        JSAMPROW target = line.data();
        jpeg_read_scanlines(&decoder, &target, 1);
        for (std::size_t x = 0; x < fromWidth; ++x) {
            const std::size_t column = x * static_cast<std::size_t>(width) / fromWidth;
            auto& sum = sums[row * static_cast<std::size_t>(width) + column];
            for (std::size_t c = 0; c < 3; ++c) sum[c] += line[x * 3 + c];
            ++sum[3];
        }
    }
    jpeg_abort_decompress(&decoder);
    jpeg_destroy_decompress(&decoder);

    return encode(width, height, 85, [&](int y, Row& row) {
        for (std::size_t x = 0; x < static_cast<std::size_t>(width); ++x) {
            const auto& sum = sums[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + x];
            for (std::size_t c = 0; c < 3; ++c) {
                row[x * 3 + c] = static_cast<unsigned char>(sum[c] / std::max(sum[3], 1u));
            }
        }
    });
}

bool measureJpeg(const std::string& path, int& width, int& height) {
    const FilePtr file = openForReading(path);
    if (!file) return false;

    jpeg_decompress_struct decoder;
    ErrorManager errors;
    decoder.err = &errors.base;
    if (setjmp(errors.jump)) {
        jpeg_destroy_decompress(&decoder);
        return false;
    }
    jpeg_create_decompress(&decoder);
    jpeg_stdio_src(&decoder, file.get());
    jpeg_read_header(&decoder, TRUE);
    width = static_cast<int>(decoder.image_width);
    height = static_cast<int>(decoder.image_height);
    jpeg_destroy_decompress(&decoder);
    return true;
}

}  // namespace flickr_sim
