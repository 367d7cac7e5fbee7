#pragma once
// What users are told about exports: why a file could not be written, and
// which photos or tracks an export left out (the library logs each one and
// carries on).

#include "kvtrack/support/Log.h"

#include <string>

namespace wayfolio {

/// "could not write PATH: REASON", with the reason found on disk.
std::string cannotWrite(const std::string& path);

/// Collects the export's log lines while alive; report() prints each photo
/// or track that was left out, or only half exported, as "  warning: ..."
/// on standard error.
class ExportProblems {
 public:
  /// How many lines report() printed.
  size_t report() const;

 private:
  kvtrack::LogCapture capture_;
};

}  // namespace wayfolio
