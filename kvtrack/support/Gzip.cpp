#include "kvtrack/support/Gzip.h"

#include "kvtrack/support/Log.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

namespace kvtrack {

namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr int kGzipOrZlibWindow = 15 + 32;  // zlib tells the two apart by their headers
constexpr int kGzipWindow = 15 + 16;

// zlib counts in uInt; larger inputs are fed in pieces.
uInt piece(size_t size) {
  return static_cast<uInt>(std::min<size_t>(size, std::numeric_limits<uInt>::max()));
}

const char* reason(const z_stream& stream, const char* fallback) {
  return stream.msg ? stream.msg : fallback;
}

// Feeds the input to zlib in pieces.
class Input {
 public:
  explicit Input(std::string_view data)
      : next_(reinterpret_cast<const Bytef*>(data.data())), remaining_(data.size()) {}
  void refill(z_stream& stream) {
    if (stream.avail_in != 0 || remaining_ == 0) return;
    stream.next_in = const_cast<Bytef*>(next_);  // zlib never writes through it
    stream.avail_in = piece(remaining_);
    next_ += stream.avail_in;
    remaining_ -= stream.avail_in;
  }
  size_t left(const z_stream& stream) const { return stream.avail_in + remaining_; }
  // The next unread byte, when there is one.
  const Bytef* peek(const z_stream& stream) const { return stream.avail_in != 0 ? stream.next_in : next_; }

 private:
  const Bytef* next_;
  size_t remaining_;
};

bool startsGzipMember(const Bytef* at, size_t left) { return left >= 2 && at[0] == 0x1f && at[1] == 0x8b; }

Status refused(std::string reason) {
  logf("gzip: {}", reason);
  return Status::failure(std::move(reason));
}

}  // namespace

Result<std::string> gzipInflate(std::string_view data, size_t limit) {
  z_stream stream{};
  if (inflateInit2(&stream, kGzipOrZlibWindow) != Z_OK) {
    return refused("cannot start inflating (out of memory)");
  }
  struct End {
    z_stream& stream;
    ~End() { inflateEnd(&stream); }
  } end{stream};

  Input input(data);
  std::string inflated;
  std::string buffer(kChunk, '\0');
  for (;;) {
    input.refill(stream);
    stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
    stream.avail_out = static_cast<uInt>(buffer.size());
    const int status = inflate(&stream, Z_NO_FLUSH);
    const size_t produced = buffer.size() - stream.avail_out;
    if (produced > limit - inflated.size()) {
      return refused(fmt::format("data inflate to more than {} bytes; refused", limit));
    }
    inflated.append(buffer.data(), produced);
    if (status == Z_STREAM_END) {
      const size_t left = input.left(stream);
      if (left == 0) break;
      // Concatenated gzip files form one gzip file (zcat reads them so).
      if (startsGzipMember(input.peek(stream), left) && inflateReset(&stream) == Z_OK) continue;
      return refused(fmt::format("{} bytes of trailing garbage after the compressed data", left));
    }
    if (status == Z_BUF_ERROR && input.left(stream) == 0) {
      return refused("compressed data are truncated");
    }
    if (status != Z_OK) {
      return refused(fmt::format("data are not gzip or zlib compressed, or damaged ({})",
                                 reason(stream, "unknown error")));
    }
  }
  if (inflated.empty()) {
    return refused("compressed data hold nothing");
  }
  return inflated;
}

Result<std::string> gzipDeflate(std::string_view data) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    return refused("cannot start deflating (out of memory)");
  }
  struct End {
    z_stream& stream;
    ~End() { deflateEnd(&stream); }
  } end{stream};

  Input input(data);
  std::string deflated;
  std::string buffer(kChunk, '\0');
  int status = Z_OK;
  while (status != Z_STREAM_END) {
    input.refill(stream);
    const int flush = input.left(stream) == 0 ? Z_FINISH : Z_NO_FLUSH;
    stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
    stream.avail_out = static_cast<uInt>(buffer.size());
    status = deflate(&stream, flush);
    if (status == Z_STREAM_ERROR) {
      return refused(fmt::format("deflating failed ({})", reason(stream, "stream error")));
    }
    deflated.append(buffer.data(), buffer.size() - stream.avail_out);
  }
  return deflated;
}

}  // namespace kvtrack
