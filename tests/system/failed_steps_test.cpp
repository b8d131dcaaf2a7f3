// What a step that fails, or is only checked, does to data sets: it replaces nothing by nothing, and no later step
// takes the file of an earlier run for its result.

#include "system/data_files.h"
#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

namespace torvale::tests {

namespace {

constexpr const char* growth = "PARMS b1=190 b2=700 b3=350 s2=500; BOUNDS s2 > 0;"
                               "MODEL circumference ~ NORMAL(b1/(1 + exp(-(day - b2)/b3)), s2);";

// A folder with a file old.csv in it, of an earlier run.
struct Place {
  Place() { std::ofstream(folder.file("old.csv")) << "circumference,day\n1,2\n2,3\n4,5\n3,1\n"; }
  bool kept() const { return read_text(folder.file("old.csv")).starts_with("circumference,day\n1,2\n"); }

  // The program in that folder, which is both where data are found and where they are written.
  Run run(const std::string& program, bool check_only = false) const
  {
    Run result;
    RunSettings settings;
    settings.program_folder = settings.output_folder = folder.path();
    settings.data = {{"orange", source_file("examples/orange.csv")}};
    settings.log = [&](std::string_view s) { result.log += s; };
    settings.check_only = check_only;
    Session session(std::move(settings));
    result.outcome = session.run(program);
    return result;
  }

  Folder folder;
};

bool said(const host::StepResult& step, int number)
{
  return std::any_of(step.messages.begin(), step.messages.end(),
                     [&](const auto& m) { return m.group == 503 && m.number == number; });
}

} // namespace

TEST(FailedSteps, ReplaceNothingByNothing)
{
  const Place place;
  struct Case {
    const char* statements;
    int number, exit_code; // of the step; mistakes are found before anything is fitted
  };
  for (const Case& c : {Case{"PREDICT b1 OUT=old; PREDICT b2 OUT=old;", 9026, 3},
                        Case{"PREDICT b1 OUT=old; PREDICT b2 OUT=new(KEEP=nothing);", 9025, 3},
                        Case{"PREDICT b1 OUT=old; PREDICT b2 OUT=new(WHERE=(nothing > 1));", 9024, 3},
                        Case{"PREDICT b1 OUT=old; PREDICT b2 OUT=new(FIRSTROW=2);", 9033, 3},
                        Case{"PREDICT b1 OUT=old; PREDICT b2 OUT=nolib.new;", 9021, 3},
                        Case{"PREDICT b1 OUT=old; PREDICT b2 OUT='no/such/folder.csv';", 9012, 1}}) {
    SCOPED_TRACE(c.statements);
    const auto run = place.run(std::string("TORVALE DATA=orange; ") + growth + c.statements +
                               "RUN; TORVALE DATA=old; PARMS a=1 v=1; MODEL circumference ~ NORMAL(a, v); RUN;");
    ASSERT_EQ(run.outcome.results.steps.size(), 2u);
    const auto& first = run.outcome.results.steps[0];
    EXPECT_EQ(run.outcome.exit_code, c.exit_code) << run.log;
    EXPECT_TRUE(said(first, c.number)) << run.log;
    EXPECT_TRUE(said(first, 9441)) << run.log;
    EXPECT_TRUE(first.data_sets.empty());
    EXPECT_EQ(run.table("IterHistory"), nullptr);
    EXPECT_TRUE(said(run.outcome.results.steps[1], 9442)) << run.log;
    EXPECT_TRUE(place.kept());
  }
}

// What such a step has is written; and what a later step writes under the name is there again.
TEST(FailedSteps, KeepWhatTheyHave)
{
  const Place place;
  const auto run = place.run(std::string("TORVALE DATA=orange MAXITER=1 OUTEST=est; ") + growth +
                             "PREDICT b1 OUT=old; RUN;"
                             "TORVALE DATA='old.csv'; PARMS a=1 v=1; MODEL circumference ~ NORMAL(a, v); RUN;");
  EXPECT_EQ(run.outcome.exit_code, 4) << run.log; // also by its path
  EXPECT_TRUE(place.kept());
  EXPECT_EQ(read_csv_file(place.folder.file("est.csv")).rows.size(), 4u);

  const auto again = place.run(std::string("TORVALE DATA=orange MAXITER=1; ") + growth +
                               "PREDICT b1 OUT=old; RUN; TORVALE DATA=orange; " + growth +
                               "PREDICT b1 OUT=old; RUN;"
                               "TORVALE DATA=old TECHNIQUE=NONE; PARMS v=1; MODEL Pred ~ NORMAL(190, v); RUN;");
  EXPECT_EQ(again.outcome.exit_code, 5) << again.log;
  EXPECT_EQ(again.outcome.results.steps[2].data.rows, 35u) << again.log;
}

// A program that is only checked writes no data set; its later steps know the variables that there would be.
TEST(FailedSteps, CheckedProgramsWriteNothing)
{
  const Place place;
  const std::string program = std::string("TORVALE DATA=orange OUTEST=est; ") + growth +
                              "PREDICT b1 OUT=old; MCMC SAMPLES=10 OUT=draws; RUN;"
                              "TORVALE DATA=old; PARMS a=1 v=1; MODEL Pred ~ NORMAL(a, v); RUN;"
                              "TORVALE DATA=draws; PARMS a=1 v=1; MODEL b2 ~ NORMAL(a, v); RUN;"
                              "TORVALE DATA='est.csv'; PARMS a=1 v=1; MODEL Estimate ~ NORMAL(a, v); RUN;";
  const auto run = place.run(program, true);
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_TRUE(place.kept());
  EXPECT_FALSE(place.folder.holds("est.csv"));
  EXPECT_FALSE(place.folder.holds("draws.csv"));
  EXPECT_EQ(
      place.run(program + "TORVALE DATA=old; PARMS a=1; MODEL nothing ~ NORMAL(a, 1); RUN;", true).outcome.exit_code,
      3);
}

} // namespace torvale::tests
