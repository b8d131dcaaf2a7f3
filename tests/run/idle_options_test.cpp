// Options that change nothing say so: in a note, and in the language page.

#include "run/statements/idle_options.h"
#include "system/session.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

namespace torvale::tests {

namespace {

TEST(IdleOptions, TheLanguagePageMarksThemAndNoOthers)
{
  std::set<std::string> idle = {"FLOW",    "TRACE",    "DETAILS", "DEBUGD", "DEBUGP",
                                "DERFLOW", "MEMTRACE", "DEBUGXG", "OPT",    "VARDEF"}; // of which the parser tells
  for (const run::IdleOption& o : run::idle_options()) idle.insert(o.name);
  std::set<std::string> marked;
  const std::string page = read_text(source_file("docs/language.md"));
  const auto begin = page.find("without effect (a note");
  std::istringstream words(page.substr(begin, page.find('\n', begin) - begin));
  for (std::string between, name; std::getline(words, between, '`') && std::getline(words, name, '`');)
    marked.insert(name);
  EXPECT_EQ(marked, idle);
}

TEST(IdleOptions, ANoteNamesThoseGiven)
{
  const auto run = run_text(example("fixed_poisson", "PNONE FLOW QMAX=50"));
  EXPECT_TRUE(run.said(503, 9436)) << run.log;
  EXPECT_NE(run.log.find("PNONE, trace switches"), std::string::npos) << run.log;
  EXPECT_FALSE(run_text(example("fixed_poisson", "QMAX=50")).said(503, 9436));
  EXPECT_TRUE(run_text(example("sleepstudy", "METHOD=FIRO QPOINTS=5")).said(503, 9436));
  EXPECT_TRUE(run_text(example("cbpp", "METHOD=HARDY QPOINTS=5")).said(503, 9436));
  EXPECT_FALSE(run_text(example("cbpp", "METHOD=HARDY QTOL=1e-6")).said(503, 9436)); // the precision of its sums
  EXPECT_TRUE(run_text(example("mixture_logit", "QTOL=0.1")).said(503, 9436));
  EXPECT_FALSE(run_text(example("cbpp", "QPOINTS=5")).said(503, 9436));
}

} // namespace

} // namespace torvale::tests
