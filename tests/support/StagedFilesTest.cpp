// Whole-file replacement where the target is no regular file.
#include "kvtrack/support/StagedFiles.h"

#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>

namespace kvtrack {
namespace {

// Exporting to /dev/stdout or a named pipe must write into it: renaming a
// finished file over it would, run as root on /dev/null, replace the device.
TEST(StagedFiles, APipeIsWrittenIntoAndStaysAPipe) {
  testing::ScratchFolder folder;
  const std::string pipe = folder.file("out.fifo");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::future<std::string> reader = std::async(std::launch::async, [&pipe] {
    std::ifstream in(pipe, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  });
  const std::string content(100000, 'x');
  ASSERT_TRUE(writeFileAtomically(pipe, content));
  EXPECT_EQ(reader.get(), content);
  EXPECT_TRUE(std::filesystem::is_fifo(pipe));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1) << "no temporary left";
}

}  // namespace
}  // namespace kvtrack
