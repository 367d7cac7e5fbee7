#pragma once
// Translation hook for texts shown to users. The host installs a localizer
// that looks a text up under its English wording; without one, or when it
// has no translation, the English text is used.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kvtrack {

/// Returns the translation of the English text, or absent when there is none.
using Localizer = std::function<std::optional<std::string>(std::string_view english)>;

/// The installed translation of the text, else the text itself. Thread-safe.
std::string localizedString(std::string_view english);

/// Installs the host's localizer; an empty one restores plain English. Thread-safe.
void setLocalizer(Localizer localizer);

}  // namespace kvtrack
