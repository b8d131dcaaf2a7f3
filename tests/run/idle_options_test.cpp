// Options that change nothing say so: in a note, and in the language page.

#include "run/idle_options.h"
#include "system/session.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

namespace torvale::tests {

namespace {

TEST(IdleOptions, TheLanguagePageMarksThemAndNoOthers)
{
  std::set<std::string> idle = {"FLOW", "TRACE", "DETAILS", "DEBUGD", "DEBUGP", "DERFLOW", "MEMTRACE", "DEBUGXG", "OPT",
                                "VARDEF"}; // of which the parser tells
  for (const run::IdleOption& o : run::idle_options()) idle.insert(o.name);
  std::set<std::string> marked;
  const std::string page = read_text(source_file("docs/language.md"));
  std::istringstream table(page.substr(page.find("<!-- options TORVALE -->"), page.find("## MODEL")));
  for (std::string line; std::getline(table, line) && line != "<!-- end -->";)
    if (line.starts_with("| `") && line.find("without effect") != std::string::npos)
      marked.insert(line.substr(3, line.find('`', 3) - 3));
  EXPECT_EQ(marked, idle);
}

TEST(IdleOptions, ANoteNamesThoseGiven)
{
  const auto run = run_text(example("fixed_poisson", "PNONE FLOW QMAX=50"));
  EXPECT_TRUE(run.said(503, 9436)) << run.log;
  EXPECT_NE(run.log.find("PNONE, trace switches"), std::string::npos) << run.log;
  EXPECT_FALSE(run_text(example("fixed_poisson", "QMAX=50")).said(503, 9436));
}

} // namespace

} // namespace torvale::tests
