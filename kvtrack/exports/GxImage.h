#pragma once
// A still image on disk as the KML export needs it: its pixel size, its EXIF
// orientation and a downscaled JPEG copy. Backed by libvips, which decodes
// JPEGs at a reduced size when asked for a much smaller copy, so a 4000 x 3000
// photo never has to be held in memory at full size.

#include "kvtrack/support/Status.h"

#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class GxImage {
 public:
  /// Opens the image by reading its header only; fails (logged) when the
  /// file is missing or not an image libvips understands.
  static Result<GxImage> imageWithPath(const std::string& path);

  /// Stored pixel size, before any EXIF rotation.
  int width() const { return width_; }
  int height() const { return height_; }
  /// The EXIF orientation value 1..8 (1 when the file names none); 5 and
  /// above mean the picture is shown turned by a quarter.
  int orientation() const { return orientation_; }

  /// Writes a JPEG of exactly width x height stored pixels (high-quality
  /// Lanczos reduction), quality 0..1, without metadata. Fails, logged, when
  /// the image cannot be decoded or the file not written.
  Status writeScaledJpeg(const std::string& target, int width, int height, float quality) const;

  /// A JPEG that fits within maxWidth x maxHeight, turned upright by its
  /// EXIF orientation (so it shows right without metadata), quality 0..1,
  /// as bytes. Absent, logged, when the image cannot be decoded or encoded.
  std::optional<std::string> uprightJpegData(int maxWidth, int maxHeight, float quality) const;

 private:
  GxImage(std::string path, int width, int height, int orientation)
      : path_(std::move(path)), width_(width), height_(height), orientation_(orientation) {}

  std::string path_;
  int width_ = 0, height_ = 0, orientation_ = 1;
};

}  // namespace kvtrack
