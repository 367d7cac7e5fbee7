#pragma once
// The library's one logging sink. Every log line of kvtrack goes through
// logLine(); it reaches standard error (unless switched off) and every live
// LogCapture, so tests can assert on the exact texts.

#include <fmt/format.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvtrack {

/// Writes one line (no trailing newline needed).
void logLine(std::string_view line);

/// Formats with fmt and writes the result as one line.
template <typename... Args>
void logf(fmt::format_string<Args...> format, Args&&... args) {
  logLine(fmt::format(format, std::forward<Args>(args)...));
}

/// Turns the standard-error output on or off (captures are unaffected).
void setLogToStandardError(bool enabled);

/// Collects every line logged, from any thread, while it is alive.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  /// True when any captured line contains the fragment.
  bool contains(std::string_view fragment) const;
  void clear();

  struct Store;

 private:
  std::shared_ptr<Store> store_;
};

}  // namespace kvtrack
