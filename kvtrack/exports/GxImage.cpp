#include "kvtrack/exports/GxImage.h"

#include "kvtrack/support/Log.h"

#include <vips/vips.h>

#include <algorithm>
#include <cmath>
#include <mutex>

namespace kvtrack {

namespace {

bool startVips() {
  static std::once_flag once;
  static bool started = false;
  std::call_once(once, [] {
    started = VIPS_INIT("kvtrack") == 0;
    if (!started) {
      logf("GxImage: libvips could not start: {}", vips_error_buffer());
      return;
    }
    // Every photo is opened once; caching decoded operations only costs memory.
    vips_cache_set_max(0);
  });
  return started;
}

// libvips keeps errors in a per-thread buffer; take the text and clear it.
std::string takeVipsError() {
  std::string text = vips_error_buffer();
  vips_error_clear();
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  if (const auto newline = text.find('\n'); newline != std::string::npos) text.resize(newline);
  return text.empty() ? "unknown error" : text;
}

struct ImageUnref {
  void operator()(VipsImage* image) const { g_object_unref(image); }
};
using ImageHandle = std::unique_ptr<VipsImage, ImageUnref>;

Status logged(std::string reason) {
  logf("GxImage: {}", reason);
  return Status::failure(std::move(reason));
}

}  // namespace

Result<GxImage> GxImage::imageWithPath(const std::string& path) {
  if (!startVips()) return Status::failure("cannot open image " + path + ": libvips could not start");
  // Opening reads the header only; pixels are decoded when a copy is made.
  ImageHandle image(vips_image_new_from_file(path.c_str(), nullptr));
  if (!image) {
    return logged(fmt::format("cannot open image {}: {}", path, takeVipsError()));
  }
  const int width = vips_image_get_width(image.get());
  const int height = vips_image_get_height(image.get());
  const int orientation = std::clamp(vips_image_get_orientation(image.get()), 1, 8);
  return GxImage(path, width, height, orientation);
}

Status GxImage::writeScaledJpeg(const std::string& target, int width, int height, float quality) const {
  if (width <= 0 || height <= 0)
    return Status::failure(fmt::format("cannot scale {} to {} x {}", path_, width, height));
  if (!startVips()) return Status::failure("cannot scale " + path_ + ": libvips could not start");
  VipsImage* raw = nullptr;
  // The size is forced: width and height already keep the aspect ratio, up to
  // rounding. The pixels stay as stored; the orientation tag copied over with
  // the rest of the metadata turns them for display, as in the original.
  if (vips_thumbnail(path_.c_str(), &raw, width, "height", height, "size", VIPS_SIZE_FORCE, "no_rotate", TRUE,
                     "fail_on", VIPS_FAIL_ON_TRUNCATED, nullptr) != 0) {
    return logged(fmt::format("cannot decode {}: {}", path_, takeVipsError()));
  }
  ImageHandle scaled(raw);
  const int q = std::clamp(static_cast<int>(std::lround(quality * 100.0f)), 1, 100);
  if (vips_jpegsave(scaled.get(), target.c_str(), "Q", q, "strip", TRUE, nullptr) != 0) {
    return logged(fmt::format("cannot write {}: {}", target, takeVipsError()));
  }
  return {};
}

std::optional<std::string> GxImage::uprightJpegData(int maxWidth, int maxHeight,
                                                    float quality) const {
  if (maxWidth <= 0 || maxHeight <= 0 || !startVips()) return std::nullopt;
  VipsImage* raw = nullptr;
  // Fits within the box; libvips turns the pixels by the orientation tag.
  if (vips_thumbnail(path_.c_str(), &raw, maxWidth, "height", maxHeight, "size", VIPS_SIZE_DOWN,
                     "fail_on", VIPS_FAIL_ON_TRUNCATED, nullptr) != 0) {
    logf("GxImage: cannot decode {}: {}", path_, takeVipsError());
    return std::nullopt;
  }
  ImageHandle scaled(raw);
  const int q = std::clamp(static_cast<int>(std::lround(quality * 100.0f)), 1, 100);
  void* buffer = nullptr;
  size_t length = 0;
  if (vips_jpegsave_buffer(scaled.get(), &buffer, &length, "Q", q, "strip", TRUE, nullptr) != 0) {
    logf("GxImage: cannot encode a copy of {}: {}", path_, takeVipsError());
    return std::nullopt;
  }
  std::string bytes(static_cast<const char*>(buffer), length);
  g_free(buffer);
  return bytes;
}

}  // namespace kvtrack
