#pragma once
// gzip compression for files exchanged with a synchronised store.

#include "kvtrack/support/Status.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kvtrack {

/// Inflated data larger than this is refused: a few kilobytes of hostile
/// input could otherwise inflate to fill the memory. Track files are far
/// smaller.
inline constexpr size_t kGzipInflateLimit = size_t{2} << 30;  // 2 GiB

/// The data of a gzip file (several members in a row are joined, as zcat
/// does) or of a zlib stream. Fails, with a log line, when the data are not
/// compressed that way, are damaged or truncated, inflate to more than
/// `limit` bytes, or inflate to nothing.
Result<std::string> gzipInflate(std::string_view data, size_t limit = kGzipInflateLimit);

/// The data as one gzip member. Fails, with a log line, when zlib fails.
Result<std::string> gzipDeflate(std::string_view data);

}  // namespace kvtrack
