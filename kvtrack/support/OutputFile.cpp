#include "kvtrack/support/OutputFile.h"

#include "kvtrack/support/SystemCalls.h"

#include <fcntl.h>

#include <cerrno>

namespace kvtrack {

namespace {
constexpr size_t kBufferSize = 256 * 1024;
}  // namespace

OutputFile::OutputFile(UniqueFd descriptor, std::string path)
    : descriptor_(std::move(descriptor)), path_(std::move(path)) {
  buffer_.reserve(kBufferSize);
}

Result<OutputFile> OutputFile::create(const std::string& path, unsigned mode) {
  UniqueFd descriptor = openFile(path, O_WRONLY | O_CREAT | O_TRUNC, static_cast<mode_t>(mode));
  if (!descriptor) return systemFailure("write", path);
  return OutputFile(std::move(descriptor), path);
}

void OutputFile::write(std::string_view bytes) {
  if (!status_) return;
  if (buffer_.size() + bytes.size() > kBufferSize) flushBuffer();
  if (bytes.size() >= kBufferSize) {
    if (status_) status_ = writeAll(descriptor_.get(), bytes, path_);
    return;
  }
  buffer_.append(bytes);
}

void OutputFile::flushBuffer() {
  if (status_ && !buffer_.empty()) status_ = writeAll(descriptor_.get(), buffer_, path_);
  buffer_.clear();
}

Status OutputFile::finish(bool syncToDisk) {
  flushBuffer();
  if (status_ && syncToDisk && SystemCalls::current().fsync(descriptor_.get()) != 0) {
    status_ = systemFailure("write", path_);
  }
  if (descriptor_ && SystemCalls::current().close(descriptor_.release()) != 0 && status_ &&
      errno != EINTR) {
    status_ = systemFailure("write", path_);
  }
  return status_;
}

}  // namespace kvtrack
