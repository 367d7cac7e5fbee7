#pragma once
// What users are told of the photos or tracks an export left out.

#include "kvtrack/exports/ExportOutcome.h"

#include <cstddef>

namespace wayfolio {

/// Prints each warning as "  warning: ..." on standard error; how many.
size_t reportWarnings(const kvtrack::ExportWarnings& warnings);

}  // namespace wayfolio
