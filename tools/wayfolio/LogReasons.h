#pragma once
// Picks the line worth showing out of what the library logged during an
// operation: the library logs the cause of a failure (parser position, the
// file it could not write) but returns only false.

#include "kvtrack/support/Log.h"

#include <initializer_list>
#include <string>
#include <string_view>

namespace wayfolio {

/// The last captured line containing one of the fragments, without a
/// leading one-word tag (as "TrackLibraryGPX: " in "TrackLibraryGPX: Error
/// ..."); "" when no line has any of them.
std::string relevantLogLine(const kvtrack::LogCapture& capture,
                            std::initializer_list<std::string_view> fragments);

}  // namespace wayfolio
