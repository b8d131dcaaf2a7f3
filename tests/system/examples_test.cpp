// Every shipped example runs clean and has standard errors; the gallery in the documentation shows the programs as they
// are.

#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace torvale::tests {

namespace {

std::vector<std::filesystem::path> programs()
{
  std::vector<std::filesystem::path> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(source_file("examples")))
    if (entry.path().extension() == ".tvl") found.push_back(entry.path());
  std::sort(found.begin(), found.end());
  return found;
}

TEST(Examples, RunClean)
{
  const auto all = programs();
  ASSERT_GE(all.size(), 18u);
  for (const auto& path : all) {
    const auto run = run_text(read_text(path.string()), path.parent_path().string());
    EXPECT_EQ(run.outcome.exit_code, 0) << path << "\n" << run.log;
    EXPECT_EQ(run.log.find("WARNING"), std::string::npos) << path << "\n" << run.log;
    ASSERT_FALSE(run.outcome.results.steps.empty()) << path;
    for (std::size_t group = 0; group < run.outcome.results.steps[0].groups.size(); ++group) {
      const auto errors = run.column("ParameterEstimates", "StandardError", group);
      ASSERT_FALSE(errors.empty()) << path;
      for (const double e : errors) EXPECT_TRUE(std::isfinite(e) && e > 0) << path << " " << e;
    }
  }
}

// A program of the gallery stands between ```torvale and ```; the line before names its file.
TEST(Examples, GalleryShowsTheProgramsAsShipped)
{
  int shown = 0;
  for (const char* const gallery : {"docs/examples.md", "docs/pharmacokinetics.md"}) {
    const std::string page = read_text(source_file(gallery));
    for (std::size_t at = 0; (at = page.find("```torvale\n", at)) != std::string::npos; ++shown) {
      const std::size_t name = page.rfind("`examples/", at) + 1;
      const std::string file = page.substr(name, page.find('`', name) - name);
      at += 11;
      EXPECT_EQ(page.substr(at, page.find("```", at) - at), read_text(source_file(file))) << file;
    }
  }
  EXPECT_GE(shown, 12);
}

} // namespace

} // namespace torvale::tests
