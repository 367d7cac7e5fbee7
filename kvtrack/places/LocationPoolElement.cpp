#include "kvtrack/places/LocationPoolElement.h"

#include "kvtrack/places/GISService.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/SystemCalls.h"

#include <fmt/format.h>

#include <cerrno>
#include <cmath>
#include <sys/stat.h>
#include <vector>

namespace kvtrack {

namespace {

// Five short names; anything much larger is not a cell file.
constexpr size_t kMaxCellFileSize = 64 * 1024;

// The lines of the text, split at any line break; a final line break
// ends the last line rather than starting an empty one.
std::vector<std::string> lines(std::string_view text) {
  std::vector<std::string> parts;
  size_t from = 0;
  while (from < text.size()) {
    const size_t end = text.find_first_of("\r\n", from);
    parts.emplace_back(text.substr(from, end - from));
    if (end == std::string_view::npos) return parts;
    from = end + 1;
  }
  return parts;
}

}  // namespace

std::string LocationPoolElement::keyForLongitude(double longitude, double latitude) {
  if (!std::isfinite(longitude) || !std::isfinite(latitude) || std::fabs(longitude) > 180.0 ||
      std::fabs(latitude) > 90.0) {
    return {};
  }
  return fmt::format("{}_{}", static_cast<int32_t>(longitude * 200.0),
                     static_cast<int32_t>(latitude * 200.0));
}

LocationPoolElement::LocationPoolElement(double longitude, double latitude,
                                         std::string cacheFolder)
    : key_(keyForLongitude(longitude, latitude)),
      cacheFolder_(std::move(cacheFolder)),
      longitude_(longitude),
      latitude_(latitude) {
  load();
}

LocationPoolElement::~LocationPoolElement() { (void)store(); }

void LocationPoolElement::load() {
  if (key_.empty()) return;
  const std::string file = path();
  struct stat info {};
  if (::stat(file.c_str(), &info) != 0 && errno == ENOENT) return;
  const auto ignore = [&file](std::string_view why) {
    logf("LocationPoolElement: ignoring damaged cache file {}: {}", file, why);
  };
  if (S_ISREG(info.st_mode) && static_cast<size_t>(info.st_size) > kMaxCellFileSize) {
    return ignore(fmt::format("{} bytes", info.st_size));
  }
  const auto text = readWholeFile(file);
  if (!text) return ignore(text.reason());
  if (!GISService::resultStringForData(*text) || text->find('\0') != std::string::npos) {
    return ignore("not UTF-8 text");
  }
  const auto parts = lines(*text);
  if (parts.size() < 5) return ignore(fmt::format("{} lines instead of five", parts.size()));
  std::lock_guard lock(mutex_);
  names_ = {parts[0], parts[1], parts[2], parts[3], parts[4]};
  dirty_ = false;
  holdsData_ = true;
  lastStored_ = *text;
  dataAvailable_.store(true, std::memory_order_release);
}

Status LocationPoolElement::store() {
  std::unique_lock lock(mutex_);
  if (!dirty_ || !holdsData_ || key_.empty()) return {};
  const std::string text = fmt::format("{}\n{}\n{}\n{}\n{}\n", names_.name, names_.countryName,
                                       names_.countryCode, names_.placeName, names_.stateName);
  if (lastStored_ == text) return {};
  const std::string file = path();
  lock.unlock();
  // A failed write only costs a lookup in a later process.
  if (Status written = writeFileAtomically(file, text); !written) return written;
  lock.lock();
  lastStored_ = text;
  return {};
}

void LocationPoolElement::setText(std::string& field, std::string value, bool makesData) {
  std::lock_guard lock(mutex_);
  if (makesData && !value.empty()) holdsData_ = true;
  field = std::move(value);
  if (makesData) dirty_ = true;
  if (holdsData_) dataAvailable_.store(true, std::memory_order_release);
}

void LocationPoolElement::setName(std::string name) { setText(names_.name, std::move(name), true); }
void LocationPoolElement::setCountryName(std::string countryName) {
  setText(names_.countryName, std::move(countryName), true);
}
void LocationPoolElement::setCountryCode(std::string countryCode) {
  setText(names_.countryCode, std::move(countryCode), true);
}
void LocationPoolElement::setStateName(std::string stateName) {
  setText(names_.stateName, std::move(stateName), true);
}
void LocationPoolElement::setPlaceName(std::string placeName) {
  setText(names_.placeName, std::move(placeName), false);
}

void LocationPoolElement::fill(std::string name, std::string countryName,
                               std::string countryCode, std::string placeName,
                               std::string stateName) {
  std::lock_guard lock(mutex_);
  holdsData_ = holdsData_ || !name.empty() || !countryName.empty() || !countryCode.empty() ||
               !stateName.empty();
  names_ = {std::move(name), std::move(countryName), std::move(countryCode),
            std::move(placeName), std::move(stateName)};
  dirty_ = true;
  if (holdsData_) dataAvailable_.store(true, std::memory_order_release);
}

std::string LocationPoolElement::name() const { return names().name; }
std::string LocationPoolElement::countryName() const { return names().countryName; }
std::string LocationPoolElement::countryCode() const { return names().countryCode; }
std::string LocationPoolElement::placeName() const { return names().placeName; }
std::string LocationPoolElement::stateName() const { return names().stateName; }

LocationPoolElement::Names LocationPoolElement::names() const {
  std::lock_guard lock(mutex_);
  return names_;
}

double LocationPoolElement::longitude() const {
  std::lock_guard lock(mutex_);
  return longitude_;
}
void LocationPoolElement::setLongitude(double longitude) {
  std::lock_guard lock(mutex_);
  longitude_ = longitude;
}
double LocationPoolElement::latitude() const {
  std::lock_guard lock(mutex_);
  return latitude_;
}
void LocationPoolElement::setLatitude(double latitude) {
  std::lock_guard lock(mutex_);
  latitude_ = latitude;
}
bool LocationPoolElement::dirty() const {
  std::lock_guard lock(mutex_);
  return dirty_;
}

std::string LocationPoolElement::description() const {
  const Names n = names();
  if (!n.name.empty() && !n.countryName.empty()) return fmt::format("{}, {}: ", n.name, n.countryName);
  if (!n.placeName.empty() && !n.countryName.empty()) {
    return fmt::format("{}, {}: ", n.placeName, n.countryName);
  }
  if (!n.name.empty()) return n.name + ": ";
  if (!n.countryName.empty()) return n.countryName + ": ";
  return {};
}

}  // namespace kvtrack
