// The program as users start it: exit codes, streams and files.

#include "system/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <sys/wait.h>

namespace torvale::tests {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

struct Result {
  int exit_code = -1;
  std::string out, err;
};

// A folder of its own that is gone when the object is.
class Folder {
public:
  Folder() : path_((fs::temp_directory_path() / ("torvale-cli-" + std::to_string(getpid()))).string()) { fs::create_directories(path_); }
  ~Folder() { fs::remove_all(path_); }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

Result torvale(const Folder& folder, const std::string& arguments)
{
  const std::string out = folder.file("stdout"), err = folder.file("stderr");
  const int status = std::system((std::string(TORVALE_BINARY) + " " + arguments + " >" + out + " 2>" + err).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_text(out), read_text(err)};
}

const std::string poisson = source_file("examples/fixed_poisson.tvl");

TEST(CommandLine, RunWritesListingLogAndResults)
{
  const Folder folder;
  const Result r = torvale(folder, "run " + poisson + " --json " + folder.file("r.json") + " --html " + folder.file("r.html"));
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("Parameter Estimates"));
  EXPECT_THAT(r.err, HasSubstr("NOTE"));
  const auto json = nlohmann::json::parse(read_text(folder.file("r.json")));
  EXPECT_EQ(json["program"], "fixed_poisson.tvl");
  EXPECT_EQ(json["steps"][0]["return_code"], 0);
  EXPECT_THAT(read_text(folder.file("r.html")), HasSubstr("</html>"));

  const Result quiet = torvale(folder, "run " + poisson + " --quiet --log " + folder.file("log"));
  EXPECT_EQ(quiet.out + quiet.err, "");
  const Result both = torvale(folder, "run " + poisson + " --json - 2>/dev/null");
  EXPECT_TRUE(nlohmann::json::accept(both.out)); // nothing but JSON on standard output
  const Result piped = torvale(folder, "run - --data warpbreaks=" + source_file("examples/warpbreaks.csv") + " < " + poisson);
  EXPECT_EQ(piped.out, r.out);
}

TEST(CommandLine, OutHoldsEverythingAndRepeatsToTheByte)
{
  const Folder folder;
  const std::string first = folder.file("a"), second = folder.file("b");
  EXPECT_EQ(torvale(folder, "run " + poisson + " --out " + first).exit_code, 0);
  EXPECT_EQ(torvale(folder, "run " + poisson + " --threads 3 --out " + second).exit_code, 0);
  for (const char* name : {"fixed_poisson.lst", "fixed_poisson.log", "results.json", "report.html"})
    EXPECT_EQ(read_text(first + "/" + name), read_text(second + "/" + name)) << name;
}

TEST(CommandLine, ExitCodesTellWhatWentWrong)
{
  const Folder folder;
  const auto program = [&](const std::string& text) {
    const TemporaryFile file("cli.tvl", text);
    return torvale(folder, "run " + file.path() + " --data warpbreaks=" + source_file("examples/warpbreaks.csv")).exit_code;
  };
  const std::string good = "TORVALE DATA=warpbreaks;\nPARMS b=3;\nm=exp(b);\nMODEL breaks ~ POISSON(m);\nRUN;\n";
  EXPECT_EQ(program(good), 0);
  EXPECT_EQ(program("TORVALE DATA=warpbreaks;\nPARMS b=3;\nMODEL breaks ~ POISSON(b;\nRUN;\n" + good), 3);
  EXPECT_EQ(program("TORVALE DATA=absent;\nPARMS b=3;\nMODEL y ~ POISSON(b);\nRUN;\n"), 4);
  EXPECT_EQ(program("TORVALE DATA=warpbreaks MAXITER=1;\nPARMS b=9;\nm=exp(b);\nMODEL breaks ~ POISSON(m);\nRUN;\n"), 5);
  EXPECT_EQ(program("TORVALE DATA=warpbreaks;\nPARMS b=-3;\nMODEL breaks ~ POISSON(b);\nRUN;\n"), 7);
  EXPECT_EQ(torvale(folder, "run --no-such-option x").exit_code, 2);
  EXPECT_EQ(torvale(folder, "run " + folder.file("absent.tvl")).exit_code, 2);
  EXPECT_EQ(torvale(folder, "run " + poisson + " --out /dev/null/x").exit_code, 1);
  EXPECT_EQ(torvale(folder, "--version").exit_code, 0);
}

TEST(CommandLine, CheckDescribeExplain)
{
  const Folder folder;
  const Result check = torvale(folder, "check --statements " + poisson);
  EXPECT_EQ(check.exit_code, 0) << check.err;
  EXPECT_THAT(check.out, HasSubstr("slot 1"));
  EXPECT_THAT(check.out, testing::Not(HasSubstr("Parameter Estimates")));
  const Result describe = torvale(folder, "describe " + source_file("examples/warpbreaks.csv"));
  EXPECT_EQ(describe.exit_code, 0);
  EXPECT_THAT(describe.out, HasSubstr("54 rows"));
  EXPECT_THAT(describe.out, HasSubstr("tension"));
  EXPECT_THAT(torvale(folder, "explain 503/232").out, HasSubstr("start"));
}

} // namespace

} // namespace torvale::tests
