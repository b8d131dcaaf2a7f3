// Replays the committed inputs of the fuzzer: seeds, and everything that it ever found.
#include "../../fuzz/language_entry.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace torvale::language::test {

TEST(FuzzCorpus, Replays)
{
  std::vector<std::filesystem::path> files;
  for (const auto& f : std::filesystem::directory_iterator(TORVALE_SOURCE_DIR "/tests/data/fuzz_corpus/language"))
    files.push_back(f.path());
  std::sort(files.begin(), files.end());
  EXPECT_GE(files.size(), 9u);
  for (const auto& path : files) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    const std::string bytes = text.str();
    SCOPED_TRACE(path);
    fuzz::language_input(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()); // traps on a fault
  }
}

} // namespace torvale::language::test
