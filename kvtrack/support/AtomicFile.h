#pragma once
// Replacing a file only by a complete one: the new content goes to a hidden
// temporary file in the same folder, is flushed to disk and renamed over the
// old file, so a crash, a full disk or a reader at the wrong moment never
// sees half a file.

#include <functional>
#include <string>
#include <string_view>

namespace kvtrack {

/// The writer gets the temporary path (mode 0644, empty) and fills it.
/// Logs "Error writing file: PATH (reason)" and returns false on failure;
/// the old file then stays as it was and no temporary file is left.
bool writeFileAtomically(const std::string& path,
                         const std::function<bool(const std::string& temporary)>& write);
/// The same with the bytes given.
bool writeFileAtomically(const std::string& path, std::string_view bytes);

}  // namespace kvtrack
