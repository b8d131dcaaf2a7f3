#include "host/storage/run_output.h"
#include "support.h"
#include <sys/stat.h>

namespace torvale::host {

TEST(AtomicFile, ReplacesOnlyWhenComplete)
{
  ScratchFolder folder;
  folder.write("r.json", "old");
  {
    AtomicFile file(folder / "r.json");
    file.write("half");
    EXPECT_EQ(folder.read("r.json"), "old");
  } // no commit
  EXPECT_EQ(folder.read("r.json"), "old");
  ::chmod((folder / "r.json").c_str(), 0640);
  std::string problem;
  ASSERT_TRUE(write_file(folder / "r.json", "new", problem));
  EXPECT_EQ(folder.read("r.json"), "new");
  struct stat info {};
  ::stat((folder / "r.json").c_str(), &info);
  EXPECT_EQ(info.st_mode & 0777, 0640u); // rights of the predecessor
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder.path())) ++files;
  EXPECT_EQ(files, 1u); // nothing temporary is left
}

TEST(AtomicFile, LinksStayLinksAndFaultsAreTold)
{
  ScratchFolder folder;
  folder.write("target", "old");
  std::filesystem::create_symlink(folder / "target", folder / "link");
  std::string problem;
  ASSERT_TRUE(write_file(folder / "link", "new", problem));
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
  EXPECT_EQ(folder.read("target"), "new");
  EXPECT_FALSE(write_file(folder / "no/such", "x", problem));
  EXPECT_FALSE(problem.empty());
  EXPECT_FALSE(write_file(folder.path(), "x", problem));
  EXPECT_TRUE(write_file("/dev/null", "x", problem)); // a device is written, not replaced
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  EXPECT_FALSE(std::filesystem::exists("/dev/full") && write_file("/dev/full", "x", problem));
}

TEST(Files, FoldersAndWholeFiles)
{
  ScratchFolder folder;
  std::string problem, bytes;
  EXPECT_TRUE(make_folder(folder / "a/b/c", problem));
  EXPECT_TRUE(make_folder(folder / "a/b/c", problem));
  folder.write("file", "x");
  EXPECT_FALSE(make_folder(folder / "file", problem));
  ASSERT_TRUE(read_file(folder / "file", bytes, problem));
  EXPECT_EQ(bytes, "x");
  EXPECT_FALSE(read_file(folder / "none", bytes, problem));
}

} // namespace torvale::host
