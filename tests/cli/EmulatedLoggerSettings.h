#pragma once
// What the test builds of wayfolio with an emulated logger share: logs
// dated last year (never in the future, whatever today is), and their
// settings read from the environment the test gives them.

#include <cstdlib>
#include <ctime>

namespace kvtrack::testing {

inline int lastYear() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local.tm_year + 1900 - 1;
}

/// The number in the variable, or the fallback when it is unset or empty.
inline int environmentNumber(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value && *value ? std::atoi(value) : fallback;
}

}  // namespace kvtrack::testing
