#include "tools/wayfolio/CapturedStandardError.h"

#include <unistd.h>

#include <sstream>

namespace wayfolio {

CapturedStandardError::CapturedStandardError(bool active) {
  if (!active) return;
  file_ = std::tmpfile();
  if (!file_) return;
  std::fflush(stderr);
  savedDescriptor_ = ::dup(STDERR_FILENO);
  if (savedDescriptor_ < 0 || ::dup2(::fileno(file_), STDERR_FILENO) < 0) {
    if (savedDescriptor_ >= 0) ::close(savedDescriptor_);
    savedDescriptor_ = -1;
    std::fclose(file_);
    file_ = nullptr;
  }
}

CapturedStandardError::~CapturedStandardError() {
  restore();
  if (file_) std::fclose(file_);
}

void CapturedStandardError::restore() {
  if (savedDescriptor_ < 0) return;
  std::fflush(stderr);
  ::dup2(savedDescriptor_, STDERR_FILENO);
  ::close(savedDescriptor_);
  savedDescriptor_ = -1;
}

std::string CapturedStandardError::firstLine() {
  restore();
  if (!file_) return {};
  std::rewind(file_);
  std::string text;
  char buffer[4096];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, file_)) > 0) text.append(buffer, n);
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) continue;
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
  }
  return {};
}

}  // namespace wayfolio
