#include "tools/wayfolio/LogReasons.h"

namespace wayfolio {

std::string relevantLogLine(const kvtrack::LogCapture& capture,
                            std::initializer_list<std::string_view> fragments) {
  const auto lines = capture.lines();
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    for (const auto fragment : fragments) {
      if (line->find(fragment) == std::string::npos) continue;
      // A tag is one word naming the part that logged; it means nothing to users.
      const size_t colon = line->find(": ");
      const bool tagged = colon != std::string::npos && colon > 0 && line->find(' ') == colon + 1;
      return tagged ? line->substr(colon + 2) : *line;
    }
  }
  return {};
}

}  // namespace wayfolio
