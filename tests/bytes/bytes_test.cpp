// The byte-string helpers: whole-file reads and writes, replacement and
// splitting on multi-character separators.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/temp_home.h"
#include "tessmar/signature.h"

namespace {

using tessmar::testing::BinaryData;
using tessmar::testing::ReadFile;
using tessmar::testing::TempHome;
using Pieces = std::vector<std::string>;


TEST(FileData, ReadsWholeFilesAndReportsWhetherAWriteReachedTheFile) {
  TempHome home;
  const std::string path = home.path() + "/data.bin";
  // Each write truncates what the one before left.
  for (const std::string& data : {BinaryData(5000), std::string("\0z", 2), std::string()}) {
    EXPECT_TRUE(WriteFileData(path, data));
    EXPECT_EQ(ReadFile(path), data);
    EXPECT_EQ(ReadFileData(path), data);
  }
  EXPECT_EQ(ReadFileData(home.path() + "/missing.bin"), "");
  EXPECT_FALSE(WriteFileData(home.path() + "/no/such/dir/out.bin", "x"));
  // One byte fits the stream's buffer: only the flush on close fails.
  EXPECT_FALSE(WriteFileData("/dev/full", "x"));
}

TEST(ReplaceAndSplit, ReplaceDoesNotRescanAndSplitKeepsNonEmptyPieces) {
  EXPECT_EQ(ReplaceString("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(ReplaceString("aaaaa", "aa", "b"), "bba");
  const std::pair<std::string, Pieces> cases[] = {
      {"_PS_a_PS__PS_b_PS_", {"a", "b"}}, {"a_PS", {"a_PS"}}, {"", {}},
      {std::string("\0a\0_PS_\0", 8), {std::string("\0a\0", 3), std::string("\0", 1)}}};
  for (const auto& [text, pieces] : cases) {
    EXPECT_EQ(SpilteFileData(text, "_PS_"), pieces) << testing::PrintToString(text);
  }
}

}  // namespace
