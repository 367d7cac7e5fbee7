#pragma once
// What an export tells its caller: whether the file was written (and why
// not), and what it had to leave out on the way (a photo it could not read,
// a track it could not export), each in words a person can read. The same
// lines are logged as they happen.

#include "kvtrack/support/Status.h"

#include <string>
#include <vector>

namespace kvtrack {

using ExportWarnings = std::vector<std::string>;

struct [[nodiscard]] ExportOutcome {
  Status status;
  ExportWarnings warnings;

  bool ok() const { return status.ok(); }
  explicit operator bool() const { return ok(); }
  const std::string& reason() const { return status.reason(); }
};

}  // namespace kvtrack
