#pragma once
// The name tables that translate a geocache's enumerations to and from the
// texts of GPX files. Reverse lookups ignore case and fall back to a fixed
// value for unknown texts.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kvtrack {

/// "Draft", "Available", "Unavailable", "Archived"; absent for other values.
std::optional<std::string> gpxNameforStatus(int32_t status);
int32_t statusForGPXName(std::string_view name);  // unknown: 0
std::string gpxNameForContainer(int32_t container);
int32_t containerForGPXName(std::string_view name);  // unknown: 6
std::string gpxNameForType(int32_t type);
int32_t typeForGPXName(std::string_view name);  // unknown: 5
std::string groundspeakGpxNameForType(int32_t type);
int32_t typeForGroundspeakGPXName(std::string_view name);  // unknown: 12
std::string gpxNameForLogType(int32_t logType);
int32_t logTypeForGPXName(std::string_view name);  // unknown: 4
/// The "groundspeak:type" text of a log type; empty for unknown values.
std::string groundspeakGpxNameForLogType(int32_t logType);

}  // namespace kvtrack
