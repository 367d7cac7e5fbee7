#include "kvtrack/places/CoreLocationService.h"

namespace kvtrack {

void CoreLocationService::ConvertAddress(const std::string& /*address*/,
                                         const Completion& completionHandler) {
  if (completionHandler) completionHandler({});
}

Status CoreLocationService::ConvertLon(double, double, std::string&, std::string&, std::string&,
                                       std::string&, std::string&) {
  return {};
}

Status CoreLocationService::ConvertAddress(const std::string&, double&, double&) { return {}; }

}  // namespace kvtrack
