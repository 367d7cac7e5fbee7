// wayfolio with one system call made to fail, for tests of what users see
// when the disk fills up: WAYFOLIO_TEST_FAULT="write:3:ENOSPC" fails the
// third write, "fsync:1:EIO" the first flush, "rename:2:EIO" the second
// rename; without the variable it is wayfolio itself.
#include "tests/common/FaultySystemCalls.h"
#include "tools/wayfolio/CommandLine.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

int main(int argc, char** argv) {
  using kvtrack::testing::FaultySystemCalls;
  FaultySystemCalls calls;
  const char* fault = std::getenv("WAYFOLIO_TEST_FAULT");
  if (fault && *fault) {
    const std::string text = fault;
    const size_t first = text.find(':'), second = text.rfind(':');
    const std::map<std::string, FaultySystemCalls::Call> kinds{
        {"write", FaultySystemCalls::Call::kWrite},
        {"fsync", FaultySystemCalls::Call::kFsync},
        {"rename", FaultySystemCalls::Call::kRename}};
    const std::map<std::string, int> errors{{"ENOSPC", ENOSPC}, {"EIO", EIO}};
    calls.failNth(kinds.at(text.substr(0, first)), std::atoi(text.substr(first + 1).c_str()),
                  errors.at(text.substr(second + 1)));
  }
  const kvtrack::ScopedSystemCalls inForce(calls);
  return wayfolio::runCommandLine(argc, argv);
}
