#pragma once
// Sets or unsets an environment variable for the life of a test scope.

#include <cstdlib>
#include <optional>
#include <string>

namespace kvtrack::testing {

class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    if (value) {
      setenv(name, value->c_str(), 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnvironment() {
    if (previous_) {
      setenv(name_, previous_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* name_;
  std::optional<std::string> previous_;
};

}  // namespace kvtrack::testing
