#include "kvtrack/support/Localization.h"

#include <memory>
#include <mutex>
#include <utility>

namespace kvtrack {
namespace {

std::mutex localizerMutex;
std::shared_ptr<const Localizer> installedLocalizer;

}  // namespace

std::string localizedString(std::string_view english) {
  std::shared_ptr<const Localizer> localizer;
  {
    std::lock_guard lock(localizerMutex);
    localizer = installedLocalizer;
  }
  // Called outside the lock, so a localizer may itself ask for texts or be replaced meanwhile.
  if (localizer) {
    if (std::optional<std::string> translated = (*localizer)(english)) return std::move(*translated);
  }
  return std::string(english);
}

void setLocalizer(Localizer localizer) {
  auto installed = localizer ? std::make_shared<const Localizer>(std::move(localizer)) : nullptr;
  std::lock_guard lock(localizerMutex);
  installedLocalizer = std::move(installed);
}

}  // namespace kvtrack
