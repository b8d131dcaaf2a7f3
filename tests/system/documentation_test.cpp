// What the pages show works: their programs run, their command lines are understood, completions know every option.

#include "system/data_files.h"
#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>

namespace torvale::tests {

namespace {

struct Block {
  std::string file;
  std::string text;
};

std::vector<std::filesystem::path> pages()
{
  std::vector<std::filesystem::path> found = {source_file("README.md")};
  for (const auto& entry : std::filesystem::recursive_directory_iterator(source_file("docs")))
    if (entry.path().extension() == ".md") found.push_back(entry.path());
  std::sort(found.begin(), found.end());
  return found;
}

// What stands between lines of three back quotes in the pages.
std::vector<Block> code_blocks()
{
  std::vector<Block> blocks;
  for (const auto& page : pages()) {
    std::istringstream lines(read_text(page.string()));
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("```")) {
        inside = !inside;
        if (inside) blocks.push_back({page.string(), ""});
      } else if (inside) {
        blocks.back().text += line + "\n";
      }
    }
    EXPECT_FALSE(inside) << page;
  }
  return blocks;
}

// Options of a command, as its help shows them.
std::vector<std::string> options_of(const std::string& command)
{
  const std::string help = output_of(std::string(TORVALE_BINARY) + " " + command + " --help 2>&1");
  std::vector<std::string> options;
  for (std::size_t at = 0; (at = help.find("\n  ", at)) != std::string::npos; ++at) {
    const std::size_t dashes = help.find("--", at);
    if (dashes == std::string::npos ||
        help.substr(at + 1, dashes - at - 1).find_first_not_of(" -h,") != std::string::npos)
      continue;
    options.push_back(help.substr(dashes, help.find_first_of(" \n", dashes) - dashes));
  }
  return options;
}

TEST(Documentation, EveryProgramRuns)
{
  std::string trial = "site,visit,y\n", pk = "time,conc\n";
  for (int i = 0; i < 12; ++i)
    trial += std::string(1, static_cast<char>('A' + i % 3)) + "," + std::to_string(i % 4) + "," +
             std::to_string(1.0 + i % 5) + "\n";
  for (int i = 1; i <= 20; ++i) pk += std::to_string(0.3 * i) + "," + std::to_string(9.0 / i + 0.01 * (i % 3)) + "\n";
  const TemporaryFile trial_file("trial.csv", trial), pk_file("pk.csv", pk);
  std::vector<std::pair<std::string, std::string>> data = {{"trial", trial_file.path()}, {"pk", pk_file.path()}};
  for (const auto& entry : std::filesystem::directory_iterator(source_file("examples/general")))
    if (entry.path().extension() == ".csv" &&
        !std::filesystem::exists(source_file("examples") / entry.path().filename()))
      data.emplace_back(entry.path().stem().string(), entry.path().string());
  const Folder out;
  int programs = 0;
  for (const Block& block : code_blocks()) {
    const std::size_t step = block.text.find("TORVALE DATA=");
    if (step == std::string::npos || block.text.substr(0, step).find("NOTE") != std::string::npos) continue;
    ++programs;
    const bool complete = block.text.find("PARMS") != std::string::npos;
    const auto run = run_text(block.text, "examples", 0, data, false, 0, out.path());
    // A program without starting values shows statements only: it must be understood, whatever the fit does.
    if (complete)
      EXPECT_EQ(run.outcome.exit_code, 0) << block.file << "\n" << block.text << run.log;
    else
      EXPECT_NE(run.outcome.exit_code, 3) << block.file << "\n" << block.text << run.log;
  }
  EXPECT_GE(programs, 50);
}

TEST(Documentation, LinksLeadToPages)
{
  int links = 0;
  for (const auto& page : pages()) {
    const std::string text = read_text(page.string());
    for (std::size_t at = 0; (at = text.find("](", at)) != std::string::npos; ++at) {
      const std::string target = text.substr(at + 2, text.find_first_of(")#", at) - at - 2);
      if (target.empty() || target.starts_with("http") || target.find(' ') != std::string::npos) continue;
      ++links;
      EXPECT_TRUE(std::filesystem::exists(page.parent_path() / target)) << page << ": " << target;
    }
  }
  EXPECT_GE(links, 30);
  const std::string index = read_text(source_file("docs/README.md"));
  for (const auto& page : pages())
    if (page.filename() != "README.md") {
      EXPECT_NE(index.find("(" + page.lexically_relative(source_file("docs")).string() + ")"), std::string::npos)
          << page;
    }
}

TEST(Documentation, CommandLinesNameOptionsThatThereAre)
{
  int lines = 0;
  for (const Block& block : code_blocks()) {
    std::istringstream text(block.text);
    for (std::string line; std::getline(text, line);) {
      if (!line.starts_with("torvale ")) continue;
      ++lines;
      std::istringstream words(line.substr(0, line.find(" #")));
      std::string word, command;
      words >> word >> command;
      const auto known = options_of(command);
      ASSERT_FALSE(known.empty()) << line;
      while (words >> word) {
        if (!word.starts_with("--")) continue;
        EXPECT_NE(std::find(known.begin(), known.end(), word.substr(0, word.find('='))), known.end()) << line;
      }
    }
  }
  EXPECT_GE(lines, 5);
}

TEST(Documentation, CompletionsAndManPageKnowEveryOption)
{
  const std::string man = read_text(source_file("docs/torvale.1"));
  for (const char* command : {"run", "check", "describe"})
    for (const std::string& option : options_of(command)) {
      if (option == "--help") continue;
      for (const char* file : {"torvale.bash", "_torvale", "torvale.fish"}) {
        const std::string text = read_text(source_file(std::string("tools/completions/") + file));
        const bool fish = std::string(file) == "torvale.fish";
        EXPECT_NE(text.find(fish ? " -l " + option.substr(2) + " " : option), std::string::npos)
            << option << " in " << file;
      }
      std::string escaped;
      for (const char c : option) escaped += c == '-' ? std::string("\\-") : std::string(1, c);
      EXPECT_NE(man.find(escaped), std::string::npos) << option << " in the man page";
    }
}

} // namespace

} // namespace torvale::tests
