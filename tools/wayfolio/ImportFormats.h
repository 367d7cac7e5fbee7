#pragma once
// Which files gpsbabel has to convert before the library can read them.

#include <string>

namespace wayfolio {

/// The gpsbabel input format for the file's ending (any case); "" for GPX
/// and for endings not in the table, which are read as GPX.
std::string gpsbabelFormatForFile(const std::string& path);

}  // namespace wayfolio
