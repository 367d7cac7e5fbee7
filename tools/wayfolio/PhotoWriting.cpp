#include "tools/wayfolio/PhotoWriting.h"

#include "tools/wayfolio/Commands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <sstream>

namespace wayfolio {

WriteChoice parseWrite(const std::string& text) {
  WriteChoice choice;
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ',');) {
    if (item == "gps") {
      choice.gps = true;
    } else if (item == "places") {
      choice.places = true;
    } else if (item == "keywords") {
      choice.keywords = choice.places = true;  // keywords are the place names
    } else if (item == "times") {
      choice.times = true;
    } else {
      throw CommandError(fmt::format(
          "--write takes a comma-separated list of gps, places, keywords, times; not '{}'", item));
    }
  }
  return choice;
}


Progress::Progress() : shown_(::isatty(STDERR_FILENO) == 1) {}
Progress::~Progress() { clear(); }

void Progress::show(const char* stage, size_t number, size_t count, const std::string& path) {
  if (!shown_) return;
  std::fprintf(stderr, "\r\033[K%s [%zu/%zu] %s", stage, number, count,
               std::filesystem::path(path).filename().string().c_str());
  std::fflush(stderr);
}

void Progress::clear() {
  if (!shown_) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

}  // namespace wayfolio
