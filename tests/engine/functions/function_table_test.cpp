#include "engine/functions/distributions.h"
#include "engine/functions/plain_graph.h"
#include "host/values/missing.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <set>
#include <sstream>

namespace torvale::engine {
namespace {

constexpr double gap = host::missing;

TEST(FunctionTable, NamesAliasesAndOrders)
{
  std::set<std::string_view> seen;
  for (const LanguageFunction& f : language_functions()) {
    EXPECT_TRUE(seen.insert(f.name).second) << f.name;
    EXPECT_EQ(find_function(f.name), &f);
  }
  EXPECT_EQ(find_function("ln"), find_function("LOG"));
  EXPECT_EQ(find_function("nosuch"), nullptr);
  int order = -1;
  EXPECT_EQ(find_function("Lag12", &order), find_function("lag"));
  EXPECT_EQ(order, 12);
  EXPECT_NE(find_function("DIF", &order), nullptr);
  EXPECT_EQ(order, 1);
  EXPECT_EQ(find_function("LAG0"), nullptr);
  EXPECT_EQ(find_function("LAG101"), nullptr);
  EXPECT_EQ(find_function("LAGOON"), nullptr);
}

TEST(FunctionTable, MisspelledNamesSuggestTheNearest)
{
  EXPECT_EQ(nearest_name("lgama", {}), "LGAMMA");
  EXPECT_EQ(nearest_name("sqtr", {}), "SQRT");
  EXPECT_EQ(nearest_name("logitsic", {}), "LOGISTIC");
  EXPECT_EQ(nearest_name("zzzzzz", {}), "");
  const std::string_view own[] = {"clearance"};
  EXPECT_EQ(nearest_name("clearence", own), "clearance");
}

TEST(FunctionTable, ArgumentCountsAreExplained)
{
  EXPECT_EQ(argument_fault(*find_function("LOG"), 1), "");
  EXPECT_EQ(argument_fault(*find_function("LOG"), 2), "The function LOG(x) takes 1 argument, but 2 are given.");
  EXPECT_EQ(argument_fault(*find_function("ROUND"), 0),
            "The function ROUND(x [, unit]) takes 1 or 2 arguments, but 0 are given.");
  EXPECT_EQ(argument_fault(*find_function("VAR"), 1),
            "The function VAR(x, ...) takes at least 2 arguments, but 1 is given.");
}

TEST(FunctionTable, StatisticsPassOverMissingArguments)
{
  EXPECT_EQ(call("SUM", {1, gap, 4}), 5);
  EXPECT_EQ(call("MEAN", {1, gap, 4}), 2.5);
  EXPECT_EQ(call("N", {1, gap, 4}), 2);
  EXPECT_EQ(call("NMISS", {1, gap, 4}), 1);
  EXPECT_EQ(call("VAR", {1, gap, 4, 7}), 9);
  EXPECT_EQ(call("STD", {1, gap, 4, 7}), 3);
  EXPECT_EQ(call("MIN", {gap, 3, 2}), 2);
  EXPECT_EQ(call("MAX", {gap, -3, -2}), -2);
  EXPECT_EQ(call("COALESCE", {gap, gap, 5}), 5);
  EXPECT_EQ(call("MISSING", {gap}), 1);
  for (const char* f : {"SUM", "MEAN", "MIN", "MAX"}) EXPECT_TRUE(std::isnan(call(f, {gap, gap}))) << f;
  EXPECT_TRUE(std::isnan(call("VAR", {gap, 1})));
  EXPECT_EQ(call("N", {gap, gap}), 0);
}

TEST(FunctionTable, WellKnownValues)
{
  EXPECT_EQ(call("FACT", {5}), 120);
  EXPECT_EQ(call("COMB", {6, 3}), 20);
  EXPECT_NEAR(call("LFACT", {10}), std::log(3628800.0), 1e-14);
  EXPECT_NEAR(call("LCOMB", {6, 3}), std::log(20.0), 1e-14);
  EXPECT_NEAR(call("BETA", {2, 3}), 1.0 / 12, 1e-16);
  EXPECT_NEAR(call("LOGSUMEXP", {1000, 1000, 1000, 1000}), 1000 + std::log(4.0), 1e-12);
  EXPECT_NEAR(call("PROBIT", {0.975}), 1.959963984540054, 1e-14);
  EXPECT_NEAR(call("PHI", {1.959963984540054}), 0.975, 1e-15);
  EXPECT_EQ(call("ROUND", {2.345, 0.01}), 2.35);
}

TEST(FunctionTable, RandomNumbersDependOnWhereTheyAreDrawn)
{
  GraphBuilder g;
  const NodeId seed = g.constant(5), row = g.symbol(0), site = g.constant(1), count = g.constant(0);
  const NodeId u = expand_random(g, *find_function("UNIFORM"), seed, row, site, count, {});
  EXPECT_EQ(evaluate(g, u, {3}), evaluate(g, u, {3}));
  EXPECT_NE(evaluate(g, u, {3}), evaluate(g, u, {4}));
  const NodeId own_seed[] = {g.constant(6)};
  EXPECT_NE(evaluate(g, u, {3}),
            evaluate(g, expand_random(g, *find_function("UNIFORM"), seed, row, site, count, own_seed), {3}));
}

// docs/functions.md shows every function and distribution as the table has it.
TEST(FunctionTable, TheReferenceListsEveryFunction)
{
  std::ifstream file(TORVALE_SOURCE_DIR "/docs/functions.md");
  std::stringstream page;
  page << file.rdbuf();
  const std::string text = page.str();
  for (const LanguageFunction& f : language_functions()) {
    if (f.name.front() == '_') continue; // of generated statements
    const std::string entry = "`" + std::string(f.name) + "(" + std::string(f.arguments) + ")`";
    EXPECT_NE(text.find(entry), std::string::npos) << "missing: | " << entry << " | " << f.summary << " |";
  }
  for (const Distribution& d : distributions()) {
    const std::string entry = "| `" + std::string(d.name) + "` | " + std::string(d.parameters) + " |";
    EXPECT_NE(text.find(entry), std::string::npos) << "missing: " << entry;
  }
}

} // namespace
} // namespace torvale::engine
