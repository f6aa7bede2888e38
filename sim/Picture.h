// JPEG pictures: drawn, scaled down, measured.

#ifndef SIM_PICTURE_H
#define SIM_PICTURE_H

#include <memory>
#include <string>

namespace flickr_sim {

/// How many designs drawPicture() knows.
constexpr unsigned kDesigns = 16;

/// A drawn picture. It is drawn once for each design and size, and kept.
std::shared_ptr<const std::string> drawPicture(unsigned design, int width, int height);

/// A JPEG file scaled down until its longer side has at most longestSide pixels; empty when it cannot be
/// decoded. Decoded line by line, at the largest reduction that the format gives for nothing.
std::string reduceJpeg(const std::string& path, int longestSide);

/// The size in pixels of a JPEG file; false when it has none.
bool measureJpeg(const std::string& path, int& width, int& height);

}  // namespace flickr_sim

#endif
