#include "tools/wayfolio/ExportProblems.h"

#include <cstdio>

namespace wayfolio {

size_t reportWarnings(const kvtrack::ExportWarnings& warnings) {
  for (const std::string& warning : warnings) std::fprintf(stderr, "  warning: %s\n", warning.c_str());
  return warnings.size();
}

}  // namespace wayfolio
