// The program as users start it: exit codes, streams and files.

#include "system/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
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

  const Result timed = torvale(folder, "run " + poisson + " --quiet --timing --log " + folder.file("log"));
  for (const char* stage : {"load ", "parse ", "compile ", "read ", "data pass ", "starting values ", "optimizer ", "covariance ", "report ", "all "})
    EXPECT_THAT(timed.err, HasSubstr(stage));
  EXPECT_THAT(timed.err, HasSubstr(" evaluations\n"));

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

// Lines of PUT replace neither what the run reads nor what it writes.
TEST(CommandLine, PutCannotReplaceFilesOfTheRun)
{
  const Folder folder;
  const auto write = [&](const std::string& name, const std::string& text) {
    std::ofstream(folder.file(name)) << text;
    return folder.file(name);
  };
  const std::string data = "y\n1\n2\n4\n";
  write("d.csv", data);
  const auto program = [&](const std::string& file) {
    return write("p.tvl", "TORVALE DATA=d;\nPARMS m=1;\nFILE '" + file + "';\nPUT y;\nMODEL y ~ NORMAL(m,1);\nRUN;\n");
  };
  for (const char* file : {"d.csv", "p.tvl", "../" , "results.json"}) {
    const std::string target = std::string(file) == "../" ? "../" + fs::path(folder.file("")).parent_path().filename().string() + "/d.csv" : file;
    const std::string text = read_text(program(target));
    const Result r = torvale(folder, "run " + folder.file("p.tvl") + " --data d=" + folder.file("d.csv") + " --out " + folder.file(""));
    EXPECT_EQ(r.exit_code, 1) << target;
    EXPECT_EQ(read_text(folder.file("d.csv")), data);
    EXPECT_EQ(read_text(folder.file("p.tvl")), text);
    EXPECT_TRUE(nlohmann::json::accept(read_text(folder.file("results.json"))));
    EXPECT_THAT(read_text(folder.file("p.log")), HasSubstr("503/9435"));
  }
  for (const std::string& target : {std::string("d.csv"), folder.file("d.csv")}) { // found by its name alone
    program(target);
    const Result r = torvale(folder, "run " + folder.file("p.tvl") + " --out " + folder.file(""));
    EXPECT_EQ(r.exit_code, 1) << target;
    EXPECT_EQ(read_text(folder.file("d.csv")), data);
  }
  program("lines.txt");
  EXPECT_EQ(torvale(folder, "run " + folder.file("p.tvl") + " --data d=" + folder.file("d.csv") + " --out " + folder.file("")).exit_code, 0);
  EXPECT_EQ(read_text(folder.file("lines.txt")), "1 \n2 \n4 \n");
}

// A closed standard stream is not the next file that is opened.
TEST(CommandLine, ClosedStreamsAndPipes)
{
  const Folder folder;
  const std::string json = folder.file("r.json");
  for (const char* closing : {">&-", "2>&-", "<&-"}) {
    const std::string command = std::string(TORVALE_BINARY) + " run " + poisson + " --json " + json + " >" +
                                folder.file("o") + " 2>" + folder.file("e") + " " + closing;
    const int status = std::system(command.c_str());
    EXPECT_EQ(WEXITSTATUS(status), 0) << closing;
    EXPECT_TRUE(nlohmann::json::accept(read_text(json))) << closing;
  }
  const std::string data = source_file("examples/warpbreaks.csv");
  const std::string command = "cat " + data + " | " + TORVALE_BINARY + " run " + poisson +
                              " --data warpbreaks=/dev/stdin >" + folder.file("o") + " 2>" + folder.file("e");
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 0) << read_text(folder.file("e"));
  EXPECT_EQ(read_text(folder.file("o")), torvale(folder, "run " + poisson).out);

  // A pipe gives its data once; every step has them.
  const TemporaryFile steps("steps.tvl", "TORVALE DATA=warpbreaks; PARMS b=3; MODEL breaks ~ POISSON(EXP(b)); RUN;\n"
                                         "TORVALE DATA=warpbreaks; PARMS b=3; MODEL breaks ~ POISSON(EXP(b)); RUN;\n");
  const std::string twice = "cat " + data + " | " + TORVALE_BINARY + " run " + steps.path() +
                            " --data warpbreaks=/dev/stdin >" + folder.file("o") + " 2>" + folder.file("e");
  EXPECT_EQ(WEXITSTATUS(std::system(twice.c_str())), 0) << read_text(folder.file("e"));
}

TEST(CommandLine, StrictRefusesNamesThatParmsLacks)
{
  const Folder folder;
  const TemporaryFile file("strict.tvl", "TORVALE DATA=warpbreaks;\nPARMS b0=3;\nm = exp(b0 + bwol*(wool='B') + u);\n"
                                         "MODEL breaks ~ POISSON(m);\nRUN;\n");
  const std::string run = "run " + file.path() + " --data warpbreaks=" + source_file("examples/warpbreaks.csv");
  const Result warned = torvale(folder, run);
  EXPECT_THAT(warned.err, HasSubstr("503/9433"));
  EXPECT_THAT(warned.err, HasSubstr("RANDOM"));
  const Result refused = torvale(folder, run + " --strict");
  EXPECT_EQ(refused.exit_code, 3);
  EXPECT_THAT(refused.err, HasSubstr("503/9434"));
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
