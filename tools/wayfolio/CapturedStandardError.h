#pragma once
// Collects what child programs (gpsbabel) write to standard error while the
// object is alive, so that a failure can quote their complaint in one clear
// message instead of leaving raw lines on the terminal.

#include <cstdio>
#include <string>

namespace wayfolio {

class CapturedStandardError {
 public:
  /// Inactive captures leave standard error alone (--verbose shows all).
  explicit CapturedStandardError(bool active);
  ~CapturedStandardError();
  CapturedStandardError(const CapturedStandardError&) = delete;
  CapturedStandardError& operator=(const CapturedStandardError&) = delete;

  /// Ends the capture and returns its first non-blank line, trimmed.
  std::string firstLine();

 private:
  void restore();

  std::FILE* file_ = nullptr;
  int savedDescriptor_ = -1;
};

}  // namespace wayfolio
