// What people get wrong: each mistake ends with its return code, its exit code, and a message that names the cause and
// the line.

#include "system/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace torvale::tests {

namespace {

using testing::HasSubstr;

struct Mistake {
  const char* name;
  const char* program;
  int return_code;
  int exit_code;
  std::vector<const char*> said; // each stands in the log
};

const std::vector<Mistake>& mistakes()
{
  static const std::vector<Mistake> all = {
      {"MisspelledOption",
       "TORVALE DATA=cbpp QPIONTS=5;\nPARMS b0=-1;\nMODEL incidence ~ BINOMIAL(size, b0);\nRUN;",
       3000,
       3,
       {"QPIONTS", "QPOINTS", "test.tvl:1"}},
      {"MisspelledStatement",
       "TORVALE DATA=cbpp;\nPARMS b0=-1;\nMODL incidence ~ BINOMIAL(size, b0);\nRUN;",
       3000,
       3,
       {"test.tvl:3"}},
      {"UnknownDependent",
       "TORVALE DATA=cbpp;\nPARMS b0=0.1;\nMODEL incidenc ~ BINOMIAL(size, b0);\nRUN;",
       3000,
       3,
       {"incidenc", "incidence", "test.tvl:3"}},
      {"MissingFile", "TORVALE DATA=nowhere;\nPARMS b0=-1;\nMODEL y ~ NORMAL(b0, 1);\nRUN;", 1008, 4, {"nowhere"}},
      {"NoDataOption", "TORVALE;\nPARMS b0=-1;\nMODEL y ~ NORMAL(b0, 1);\nRUN;", 1008, 4, {"DATA="}},
      {"CharacterResponse",
       "TORVALE DATA=epil;\nPARMS b0=1;\nMODEL trt ~ NORMAL(b0, 1);\nRUN;",
       3000,
       3,
       {"trt", "character", "test.tvl:3", "event = (trt = 'placebo')"}},
      {"UnquotedFile",
       "TORVALE DATA=cbpp.csv;\nPARMS b0=1;\nMODEL y ~ NORMAL(b0, 1);\nRUN;",
       1008,
       4,
       {"in quotes", "'cbpp.csv'"}},
      {"ParameterTwice",
       "TORVALE DATA=cbpp;\nPARMS b0=-1\n b0=2;\nMODEL incidence ~ NORMAL(b0, 1);\nRUN;",
       1012,
       3,
       {"b0", "test.tvl:3"}},
      {"ParameterAndEffect",
       "TORVALE DATA=cbpp;\nPARMS b0=-1 u=1 v=1;\nMODEL incidence ~ NORMAL(b0+u, 1);\nRANDOM u ~ NORMAL(0,v) "
       "SUBJECT=herd;\nRUN;",
       3000,
       3,
       {"u", "RANDOM"}},
      {"NoModel", "TORVALE DATA=cbpp;\nPARMS b0=-1;\nRUN;", 3000, 3, {"MODEL"}},
      {"TwoModels",
       "TORVALE DATA=cbpp;\nPARMS b0=-1;\nMODEL incidence ~ NORMAL(b0,1);\nMODEL size ~ NORMAL(b0,1);\nRUN;",
       3000,
       3,
       {"MODEL"}},
      {"WrongArgumentCount",
       "TORVALE DATA=cbpp;\nPARMS b0=1;\nMODEL incidence ~ POISSON(b0, 2);\nRUN;",
       1012,
       3,
       {"test.tvl:3"}},
      {"CovarianceTriangle",
       "TORVALE DATA=cbpp;\nPARMS b0=1 v=1;\nMODEL incidence ~ NORMAL(b0+u+w, 1);\nRANDOM u w ~ NORMAL([0,0],[v,v]) "
       "SUBJECT=herd;\nRUN;",
       1012,
       3,
       {"RANDOM", "test.tvl:4"}},
      {"UnknownSubject",
       "TORVALE DATA=cbpp;\nPARMS b0=1 v=1;\nMODEL incidence ~ NORMAL(b0+u, 1);\nRANDOM u ~ NORMAL(0,v) "
       "SUBJECT=herdd;\nRUN;",
       3000,
       3,
       {"herdd", "herd", "test.tvl:4"}},
      {"EffectWithoutInfluence",
       "TORVALE DATA=cbpp;\nPARMS b0=1 v=1;\nMODEL incidence ~ NORMAL(b0, 1);\nRANDOM u ~ NORMAL(0,v) "
       "SUBJECT=herd;\nRUN;",
       3000,
       3,
       {"u"}},
      {"EstimateTypo",
       "TORVALE DATA=cbpp;\nPARMS beta=1;\nMODEL incidence ~ NORMAL(beta, 1);\nESTIMATE 'e' exp(bta);\nRUN;",
       3000,
       3,
       {"bta", "beta", "test.tvl:4"}},
      {"BoundOnUnknown",
       "TORVALE DATA=cbpp;\nPARMS s2=1;\nBOUNDS s22 > 0;\nMODEL incidence ~ NORMAL(1, s2);\nRUN;",
       1012,
       3,
       {"s22", "test.tvl:3"}},
      {"BoundsCrossed",
       "TORVALE DATA=cbpp;\nPARMS s2=1;\nBOUNDS s2 > 3, s2 < 2;\nMODEL incidence ~ NORMAL(1, s2);\nRUN;",
       1012,
       3,
       {"s2"}},
      {"NoValidStart",
       "TORVALE DATA=cbpp;\nPARMS s2=-1;\nMODEL incidence ~ NORMAL(1, s2);\nRUN;",
       1012,
       7,
       {"observation"}},
      {"CovarianceNotPositive",
       "TORVALE DATA=cbpp QPOINTS=1;\nPARMS b0=1 v=-1;\nMODEL incidence ~ NORMAL(b0+u, 1);\nRANDOM u ~ NORMAL(0,v) "
       "SUBJECT=herd;\nRUN;",
       1012,
       7,
       {"covariance"}},
      {"AllStartsOutsideBounds",
       "TORVALE DATA=cbpp;\nPARMS s2=-1;\nBOUNDS s2 > 0;\nMODEL incidence ~ NORMAL(1, s2);\nRUN;",
       1012,
       7,
       {"bound"}},
      {"ProgramFault",
       "TORVALE DATA=cbpp;\nPARMS b0=1;\nz = 1/(size-size);\nMODEL incidence ~ NORMAL(b0*z, 1);\nRUN;",
       1012,
       4,
       {"division by zero", "test.tvl:3", "bservation 1"}},
      {"FaultInABranchThatSharesItsExpression",
       "TORVALE DATA=sleepstudy;\nPARMS b0=1;\nIF days < 3 THEN a = LOG(4-days);\nELSE a = 2;\n"
       "IF days = 5 THEN b = LOG(4-days);\nELSE b = 0;\nMODEL reaction ~ NORMAL(b0*a+b, 1);\nRUN;",
       1012,
       4,
       {"logarithm", "test.tvl:5", "observation 6", "b = LOG(4-days)"}},
      {"FaultInASubprogram",
       "TORVALE DATA=sleepstudy;\nFUNCTION f(x);\ny = LOG(x);\nRETURN (y);\nENDSUB;\nPARMS b0=1;\nz = f(days + 1);\n"
       "z = z + f(days - 3);\nMODEL reaction ~ NORMAL(b0*z, 1);\nRUN;",
       1012,
       4,
       {"logarithm", "called in line 8", "test.tvl:3", "observation 1"}},
      {"FaultOfAKeptValue",
       "TORVALE DATA=sleepstudy;\nPARMS b0=1 v=1;\nRETAIN t 5;\nt = t - b0;\nz = 1/t;\n"
       "MODEL reaction ~ NORMAL(z+u, 1);\nRANDOM u ~ NORMAL(0, v) SUBJECT=subject;\nRUN;",
       1012,
       4,
       {"division by zero", "test.tvl:5", "observation 5", "subject 308"}},
      {"LoopWithoutAWayOut",
       "TORVALE DATA=cbpp;\nPARMS b0=1;\nz = 1;\nDO WHILE(1);\nz = z + b0;\nEND;\nMODEL incidence ~ NORMAL(z, "
       "1);\nRUN;",
       1012,
       3,
       {"never ends", "test.tvl:4"}},
      {"LoopThatDoesNotEnd",
       "TORVALE DATA=cbpp;\nPARMS b0=1;\nz = 1;\nDO WHILE(z > 0);\nz = z + b0;\nEND;\nMODEL incidence ~ NORMAL(z, "
       "1);\nRUN;",
       1012,
       4,
       {"100000 passes", "test.tvl:4", "observation 1"}},
      {"LoopsInLoops",
       "TORVALE DATA=cbpp;\nPARMS b0=1;\nz = 0;\nDO i = 1 TO 400;\nDO j = 1 TO 400;\nDO k = 1 TO 400;\n"
       "z = z + i*j*k*b0;\nEND;\nEND;\nEND;\nMODEL incidence ~ NORMAL(z, 1);\nRUN;",
       1012,
       3,
       {"beyond all measure", "test.tvl:7"}},
      {"WordsOfOtherHabits",
       "TORVALE DATA=cbpp TECH=NEWTON METHOD=LAPLACE;\nPARMS b0=1;\nz = b0^2;\nCLASS herd;\nWHERE size > 3;\n"
       "MODEL incidence ~ NORMAL(z, 1);\nRUN;",
       3000,
       3,
       {"NRRIDG", "QPOINTS=1", "**", "indicators", "DATA=name(WHERE"}},
      {"RangeOfOption",
       "TORVALE DATA=cbpp ALPHA=1.5;\nPARMS b0=1;\nMODEL incidence ~ NORMAL(b0, 1);\nRUN;",
       3000,
       3,
       {"ALPHA", "1.5", "test.tvl:1"}},
      {"DependentInParms",
       "TORVALE DATA=cbpp;\nPARMS b0=1 incidence=2;\nMODEL incidence ~ NORMAL(b0, 1);\nRUN;",
       3000,
       3,
       {"incidence", "PARMS makes it a parameter", "test.tvl:3", "503/5"}},
      {"DependentOnlyInParms",
       "TORVALE DATA=cbpp;\nPARMS b0=1 y=2;\nMODEL y ~ NORMAL(b0, 1);\nRUN;",
       3000,
       3,
       {"503/5", "test.tvl:3"}},
      {"ReplicateIsAParameter",
       "TORVALE DATA=cbpp;\nPARMS b0=1 size=2;\nMODEL incidence ~ NORMAL(b0, 1);\nREPLICATE size;\nRUN;",
       3000,
       3,
       {"503/22", "size", "test.tvl:4"}},
      {"SubjectIsAParameter",
       "TORVALE DATA=cbpp;\nPARMS b0=1 v=1 herd=2;\nMODEL incidence ~ NORMAL(b0+u, 1);\nRANDOM u ~ NORMAL(0,v) "
       "SUBJECT=herd;\nRUN;",
       3000,
       3,
       {"503/9]", "herd", "test.tvl:4"}},
      {"UnknownByVariable",
       "TORVALE DATA=cbpp;\nBY herdd;\nPARMS b0=1;\nMODEL incidence ~ NORMAL(b0, 1);\nRUN;",
       3000,
       3,
       {"503/9]", "herdd", "herd?", "test.tvl:2"}},
      {"CharacterDependentComesFirst",
       "TORVALE DATA=epil;\nMODEL trt ~ NORMAL(b0+u, 1);\nPARMS b0=1;\nPARMS b1=1;\nESTIMATE 'e' b0+u+x;\nRUN;",
       3000,
       3,
       {"503/39", "test.tvl:2"}},
      {"EffectInEstimateBeforeUnknownName",
       "TORVALE DATA=cbpp;\nPARMS b0=1 v=1;\nMODEL incidence ~ NORMAL(b0+u, 1);\nRANDOM u ~ NORMAL(0,v) "
       "SUBJECT=herd;\nESTIMATE 'e' period + u;\nRUN;",
       3000,
       3,
       {"503/33", "test.tvl:5"}},
      {"MisspelledNameInEstimate",
       "TORVALE DATA=cbpp;\nPARMS beta=1;\nMODEL incidence ~ NORMAL(beta, 1);\nESTIMATE 'e' exp(bta);\nRUN;",
       3000,
       3,
       {"503/38", "bta", "beta?", "test.tvl:4"}},
      {"TooManyPoints",
       "TORVALE DATA=cbpp QPOINTS=6000;\nPARMS b0=1 v=1;\nMODEL incidence ~ NORMAL(b0+u, 1);\nRANDOM u ~ NORMAL(0,v) "
       "SUBJECT=herd;\nRUN;",
       1012,
       3,
       {"6000 points", "QPOINTS"}},
      {"TooManyPointsOfThreeEffects",
       "TORVALE DATA=sleepstudy QPOINTS=400;\nPARMS b0=1 v=1;\nMODEL reaction ~ NORMAL(b0+u+w*days+t*days**2, 1);\n"
       "RANDOM u w t ~ NORMAL([0,0,0],[v,0,v,0,0,v]) SUBJECT=subject;\nRUN;",
       1012,
       3,
       {"400 points", "QPOINTS"}},
      {"PointsBeyondAnyWholeNumber",
       "TORVALE DATA=cbpp QPOINTS=1e20 MAXITER=1e30 EBSTEPS=1e25;\nPARMS b0=1 v=1 / BEST=1e40;\n"
       "MODEL incidence ~ NORMAL(b0+u, 1);\nRANDOM u ~ NORMAL(0,v) SUBJECT=herd;\nRUN;",
       1012,
       3,
       {"QPOINTS"}},
      {"DotBehindTheFirstWord",
       "TORVALE.DATA=cbpp;\nPARMS b0=1;\nMODEL incidence ~ NORMAL(b0, 1);\nBY herd;\nID herd;\nRUN;",
       3000,
       3,
       {"TORVALE DATA", "test.tvl:1"}},
      {"UnknownFunction",
       "TORVALE DATA=cbpp;\nPARMS b0=1;\nz = expp(b0);\nMODEL incidence ~ NORMAL(z, 1);\nRUN;",
       1012,
       3,
       {"expp", "test.tvl:3"}},
  };
  return all;
}

class Mistakes : public testing::TestWithParam<std::size_t> {};

TEST_P(Mistakes, EndWithCodeAndCause)
{
  const Mistake& m = mistakes()[GetParam()];
  const auto run = run_text(m.program);
  ASSERT_EQ(run.outcome.results.steps.size(), 1u);
  EXPECT_EQ(run.outcome.results.steps[0].return_code, m.return_code) << run.log;
  EXPECT_EQ(run.outcome.exit_code, m.exit_code) << run.log;
  EXPECT_THAT(run.log, HasSubstr("ERROR"));
  for (const char* words : m.said) EXPECT_THAT(run.log, HasSubstr(words));
  EXPECT_EQ(run.table("ParameterEstimates"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(All, Mistakes, testing::Range<std::size_t>(0, mistakes().size()),
                         [](const auto& tested) { return std::string(mistakes()[tested.param].name); });

TEST(BadData, EndsTheGroupWithACause)
{
  const TemporaryFile empty("empty.csv", "y,x\n");
  const auto no_rows =
      run_text("TORVALE DATA=d;\nPARMS b=1;\nMODEL y ~ NORMAL(b,1);\nRUN;", "examples", 0, {{"d", empty.path()}});
  EXPECT_EQ(no_rows.outcome.exit_code, 4) << no_rows.log;
  EXPECT_TRUE(no_rows.said(503, 71)) << no_rows.log;

  const TemporaryFile holes("holes.csv", "id,y\n1,2\n.,3\n2,4\n");
  const auto subject =
      run_text("TORVALE DATA=d;\nPARMS b=1 v=1;\nMODEL y ~ NORMAL(b+u,1);\nRANDOM u ~ NORMAL(0,v) SUBJECT=id;\nRUN;",
               "examples", 0, {{"d", holes.path()}});
  EXPECT_EQ(subject.outcome.exit_code, 4) << subject.log;
  EXPECT_EQ(subject.outcome.results.steps[0].return_code, 1012);
  EXPECT_TRUE(subject.said(503, 28)) << subject.log;

  const TemporaryFile words("words.csv", "y,x\n1,2\nlow,3\n2,4\n");
  const auto text =
      run_text("TORVALE DATA=d;\nPARMS b=1;\nMODEL y ~ NORMAL(b,1);\nRUN;", "examples", 0, {{"d", words.path()}});
  EXPECT_EQ(text.outcome.exit_code, 3) << text.log;
  EXPECT_THAT(text.log, HasSubstr("low"));
}

// Why a fit cannot start is told at the worst records themselves, wherever they stand in the data.
TEST(BadData, WorstRecordsOfAStartAreTheirOwn)
{
  constexpr int rows = 1300;
  std::string text = "id,x,y\n";
  for (int i = 1; i <= rows; ++i)
    text += std::to_string((i + 99) / 100) + "," + std::to_string(i == 700 || i == 1234 ? -i : i) + ",3\n";
  const TemporaryFile data("worst.csv", text);
  const auto fixed =
      run_text("TORVALE DATA=d;\nPARMS b=1;\nMODEL y ~ POISSON(b*x);\nRUN;", "examples", 0, {{"d", data.path()}});
  EXPECT_EQ(fixed.outcome.exit_code, 7) << fixed.log;
  EXPECT_THAT(fixed.log, HasSubstr("at observation 700: y = 3 with Poisson(-700)"));
  EXPECT_THAT(fixed.log, HasSubstr("at observation 1234: y = 3 with Poisson(-1234)"));
  const auto mixed = run_text("TORVALE DATA=d;\nPARMS b=1 v=1;\nMODEL y ~ POISSON(b*x+u);\n"
                              "RANDOM u ~ NORMAL(0,v) SUBJECT=id;\nRUN;",
                              "examples", 0, {{"d", data.path()}});
  EXPECT_THAT(mixed.log, HasSubstr("1 of 100 records of this subject"));
  EXPECT_THAT(mixed.log, HasSubstr("observation 700: y = 3 with Poisson(-700)"));
  EXPECT_THAT(mixed.log, HasSubstr("observation 1234: y = 3 with Poisson(-1234)"));
}

TEST(BadData, ParameterInTheStatementAndInItsDataSet)
{
  const TemporaryFile starts("starts.csv", "Parameter,Estimate\nb0,1\ns,900\nb0,2\n");
  const auto run =
      run_text("TORVALE DATA=sleepstudy;\nPARMS b0=1 / DATA=starts;\nMODEL reaction ~ NORMAL(b0, s);\nRUN;", "examples",
               0, {{"starts", starts.path()}});
  EXPECT_EQ(run.outcome.exit_code, 3) << run.log;
  EXPECT_TRUE(run.said(503, 237)) << run.log;
}

TEST(BadData, StartingValuesWithoutRows)
{
  const std::string program = "TORVALE DATA=sleepstudy;\nPARMS / DATA=starts;\nMODEL reaction ~ NORMAL(b0, s);\nRUN;";
  for (const char* header : {"b0,s\n", "Parameter,Estimate\n"}) {
    const TemporaryFile starts("starts.csv", header);
    const auto run = run_text(program, "examples", 0, {{"starts", starts.path()}});
    EXPECT_EQ(run.outcome.exit_code, 4) << run.log;
    EXPECT_TRUE(run.said(503, 9430)) << run.log;
  }
}

// Fragments of groups are no groups: nothing is fitted, nothing shown.
TEST(BadData, OrderOfGroupsIsCheckedFirst)
{
  const TemporaryFile data("unsorted.csv", "g,y\n1,2\n1,3\n2,4\n2,6\n1,5\n1,1\n");
  const auto fit = [&](const std::string& by) {
    return run_text("TORVALE DATA=d;\nBY " + by + ";\nPARMS m=1;\nMODEL y ~ NORMAL(m,1);\nRUN;", "examples", 0,
                    {{"d", data.path()}});
  };
  for (const char* by : {"g", "DESCENDING g"}) {
    const auto run = fit(by);
    EXPECT_EQ(run.outcome.exit_code, 4) << run.log;
    EXPECT_TRUE(run.said(503, 9032)) << run.log;
    EXPECT_EQ(run.listing, "");
    EXPECT_TRUE(run.outcome.results.steps[0].groups.empty());
  }
  EXPECT_EQ(fit("g NOTSORTED").outcome.results.steps[0].groups.size(), 3u);
}

// Paths that the file system refuses are told as any other file that is not there.
TEST(BadData, PathsThatTheSystemRefuses)
{
  const std::string program = "TORVALE DATA=d;\nPARMS b=1;\nMODEL y ~ NORMAL(b,1);\nRUN;";
  const TemporaryFile circle("circle.csv", "");
  std::filesystem::remove(circle.path());
  std::filesystem::create_symlink(circle.path(), circle.path());
  for (const std::string& path :
       {circle.path(), "/tmp/" + std::string(300, 'x') + ".csv", std::string("/dev/null/x.csv")}) {
    const auto run = run_text(program, "examples", 0, {{"d", path}});
    EXPECT_EQ(run.outcome.exit_code, 4) << run.log;
    EXPECT_TRUE(run.said(503, 9002)) << run.log;
  }
}

// A wrong step does not stop the steps after it; the run's exit code is the worse one.
TEST(BadData, LaterStepsRun)
{
  const auto run =
      run_text("TORVALE DATA=nowhere;\nPARMS b=1;\nMODEL y ~ NORMAL(b,1);\nRUN;\n" + example("fixed_poisson", ""));
  ASSERT_EQ(run.outcome.results.steps.size(), 2u);
  EXPECT_EQ(run.outcome.results.steps[0].return_code, 1008);
  EXPECT_EQ(run.outcome.results.steps[1].return_code, 0) << run.log;
  EXPECT_EQ(run.outcome.exit_code, 4);
}

} // namespace

} // namespace torvale::tests
