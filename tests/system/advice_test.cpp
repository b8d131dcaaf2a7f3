// Advice where the habits of other languages show: each says what to write, once, at its place; and nothing where all
// is well.

#include "host/values/text.h"
#include "system/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace torvale::tests {

namespace {

using ::testing::HasSubstr;

const std::string rows = "y,x,g\n1,1,yes\n2,2,no\n1,3,yes\n2,4,no\n1,5,yes\n-99,2,no\n";

tests::Run run_on(const std::string& text, const std::string& program)
{
  const TemporaryFile file("advice.csv", text);
  return run_text("TORVALE DATA=d;\n" + program + "\nRUN;", "examples", 0, {{"d", file.path()}});
}

std::vector<const host::Message*> warnings(const tests::Run& run)
{
  std::vector<const host::Message*> out;
  for (const auto& m : run.outcome.results.steps.at(0).messages)
    if (m.severity == host::Severity::warning) out.push_back(&m);
  return out;
}

TEST(Advice, ResponsesThatADistributionCannotHaveAreToldOnce)
{
  const auto run = run_on(rows, "PARMS a=0 b=0;\np = 1/(1 + exp(-a - b*x));\nMODEL y ~ BINARY(p);");
  ASSERT_EQ(warnings(run).size(), 1u) << run.log;
  EXPECT_EQ(warnings(run)[0]->number, 9552);
  EXPECT_THAT(warnings(run)[0]->text, HasSubstr("(y = 2)"));
  const auto counts = run_on("y,x\n3,1\n-99,2\n0,3\n2,4\n", "PARMS a=0;\nm = exp(a);\nMODEL y ~ POISSON(m);");
  ASSERT_EQ(warnings(counts).size(), 1u) << counts.log;
  EXPECT_THAT(warnings(counts)[0]->text, HasSubstr("WHERE=(y ^= -99)"));
}

TEST(Advice, TextsThatNeverOccurAreNamedWithThoseThatDo)
{
  const auto run = run_on(rows, "PARMS a=0 b=0 s2=1;\nm = a + b*(g = 'Yes');\nMODEL x ~ NORMAL(m, s2);");
  ASSERT_FALSE(warnings(run).empty()) << run.log;
  EXPECT_EQ(warnings(run)[0]->number, 9550);
  EXPECT_THAT(warnings(run)[0]->text, HasSubstr("yes"));
  EXPECT_EQ(warnings(run)[0]->line, 3);
  EXPECT_EQ(warnings(run)[0]->column, 16);
}

TEST(Advice, DecimalCommasAreThoseOfParmsAlone)
{
  const std::string model = "m = a + u;\nMODEL x ~ NORMAL(m, 4);";
  const auto comma = run_on(rows, "PARMS a=0,5;\nm = a;\nMODEL x ~ NORMAL(m, 4);");
  EXPECT_TRUE(comma.said(503, 9554)) << comma.log;
  const auto none = run_on(rows, "PARMS a=0 5; m = a + u; MODEL x ~ NORMAL(m, 4); RANDOM u ~ NORMAL(0,5) SUBJECT=g;");
  EXPECT_FALSE(none.said(503, 9554)) << none.log;
}

} // namespace

// What only PREDICT, ESTIMATE or ID read is used; a variable that nothing reads is told.
TEST(Advice, VariablesThatLaterStatementsRead)
{
  const std::string model =
      "PARMS a=1 b=0 s2=1; BOUNDS s2 > 0; p = a + b*x; q = 2*a; r = x*x; MODEL x ~ NORMAL(a + b*y, s2);";
  const auto noted = [](const tests::Run& run, const std::string& name) {
    return run.log.find("The variable " + name + " is given a value that no statement uses") != std::string::npos;
  };
  const auto none = run_on(rows, model);
  const auto all =
      run_text("TORVALE DATA=orange; ID r; PARMS a=1 s2=1; BOUNDS s2 > 0; p = a + day; q = 2*a; r = day*day;"
               "MODEL circumference ~ NORMAL(a, s2); PREDICT p; ESTIMATE 'q' q; RUN;");
  for (const char* name : {"p", "q", "r"}) {
    EXPECT_TRUE(noted(none, name)) << name << none.log;
    EXPECT_FALSE(noted(all, name)) << name << all.log;
  }
}

} // namespace torvale::tests
