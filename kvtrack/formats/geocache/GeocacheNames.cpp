#include "kvtrack/formats/geocache/GeocacheNames.h"

#include "kvtrack/support/CaseInsensitive.h"

#include <array>

namespace kvtrack {

namespace {

// Index = enumeration value.
constexpr std::array<const char*, 4> kStatusNames = {"Draft", "Available", "Unavailable",
                                                     "Archived"};
constexpr std::array<const char*, 7> kContainerNames = {"Virtual", "Nano",  "Micro", "Small",
                                                        "Regular", "Large", "Other"};
// "benchmark" is lower case in the files other programs write.
constexpr std::array<const char*, 13> kTypeNames = {
    "Traditional",    "Multi",            "Virtual", "Webcam",     "Event",
    "Other",          "Locationless",     "benchmark",
    "Mystery/Puzzle", "Letterbox Hybrid", "Wherigo", "Earthcache", "Unknown Cache"};
constexpr std::array<const char*, 13> kGroundspeakTypeNames = {
    "Traditional Cache",    "Multi-cache",      "Virtual Cache",      "Webcam Cache",
    "Event Cache",          "Other Cache",      "Locationless Cache", "benchmark Cache",
    "Mystery/Puzzle Cache", "Letterbox Hybrid", "Wherigo Cache",      "Earthcache",
    "Unknown Cache"};
constexpr std::array<const char*, 6> kLogTypeNames = {"Found", "Not Found", "Not Attempted",
                                                      "Note",  "Other",     "Owner Maintenance"};
constexpr std::array<const char*, 6> kGroundspeakLogTypeNames = {
    "Found it", "Didn't find it", "Other", "Write note", "Other", "Owner Maintenance"};

// The name of a value, or the fallback for one out of range.
template <size_t N>
const char* nameAt(const std::array<const char*, N>& names, int32_t value, const char* fallback = nullptr) {
  if (value < 0 || static_cast<size_t>(value) >= N) return fallback;
  return names[static_cast<size_t>(value)];
}

// First entry in value order that matches ignoring case.
template <size_t N>
int32_t valueOf(const std::array<const char*, N>& names, std::string_view name, int32_t unknown) {
  for (size_t i = 0; i < N; ++i) {
    if (equalsCaseInsensitive(names[i], name)) return static_cast<int32_t>(i);
  }
  return unknown;
}

}  // namespace

std::optional<std::string> gpxNameforStatus(int32_t status) {
  const char* name = nameAt(kStatusNames, status);
  if (!name) return std::nullopt;
  return std::string(name);
}

int32_t statusForGPXName(std::string_view name) { return valueOf(kStatusNames, name, 0); }

std::string gpxNameForContainer(int32_t container) {
  return nameAt(kContainerNames, container, "Other");
}

int32_t containerForGPXName(std::string_view name) { return valueOf(kContainerNames, name, 6); }

std::string gpxNameForType(int32_t type) {
  return nameAt(kTypeNames, type, "Other");
}

int32_t typeForGPXName(std::string_view name) { return valueOf(kTypeNames, name, 5); }

std::string groundspeakGpxNameForType(int32_t type) {
  return nameAt(kGroundspeakTypeNames, type, "Other");
}

int32_t typeForGroundspeakGPXName(std::string_view name) {
  return valueOf(kGroundspeakTypeNames, name, 12);
}

std::string gpxNameForLogType(int32_t logType) {
  return nameAt(kLogTypeNames, logType, "Other");
}

int32_t logTypeForGPXName(std::string_view name) { return valueOf(kLogTypeNames, name, 4); }

std::string groundspeakGpxNameForLogType(int32_t logType) {
  return nameAt(kGroundspeakLogTypeNames, logType, "");
}

}  // namespace kvtrack
