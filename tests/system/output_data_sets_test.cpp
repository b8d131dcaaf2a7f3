// Every data set of a fit as a whole: names, order, and what stands in it. A golden file each; numbers to 1e-6, since
// standard errors come from differences.

#include "system/data_files.h"
#include "system/session.h"

#include "torvale/torvale.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

namespace torvale::tests {

namespace {

// Runs a program whose data sets go into a folder.
Run run_into(const Folder& folder, const std::string& program,
             const std::vector<std::pair<std::string, std::string>>& data = {})
{
  Run run;
  RunSettings settings;
  settings.program_folder = source_file("examples");
  settings.output_folder = folder.path();
  settings.data = data;
  settings.log = [&](std::string_view s) { run.log += s; };
  Session session(std::move(settings));
  run.outcome = session.run(program);
  return run;
}

void expect_golden(const Folder& folder, const std::string& name)
{
  const std::string golden = source_file("tests/data/outputs/" + name);
  if (std::getenv("TORVALE_WRITE_GOLDEN") != nullptr) {
    std::filesystem::copy_file(folder.file(name), golden, std::filesystem::copy_options::overwrite_existing);
    return;
  }
  const auto found = read_csv_file(folder.file(name)), expected = read_csv_file(golden);
  EXPECT_EQ(found.names, expected.names) << name;
  ASSERT_EQ(found.rows.size(), expected.rows.size()) << name;
  for (std::size_t row = 0; row < found.rows.size(); ++row)
    for (std::size_t k = 0; k < expected.names.size(); ++k) {
      const std::string &x = found.rows[row][k], &y = expected.rows[row][k];
      if (x == y) continue;
      char *x_end = nullptr, *y_end = nullptr;
      const double a = std::strtod(x.c_str(), &x_end), b = std::strtod(y.c_str(), &y_end);
      const bool numbers = !x.empty() && !y.empty() && *x_end == '\0' && *y_end == '\0';
      EXPECT_TRUE(numbers && std::abs(a - b) <= 1e-6 * (1e-3 + std::abs(b)))
          << name << ", row " << row + 1 << ", " << expected.names[k] << ": " << x << " for " << y;
    }
}

// Two groups; in the first a subject without a usable record, in the second a record without a response.
std::vector<std::pair<std::string, std::string>> groups()
{
  return {{"groups", source_file("tests/data/outputs/groups.csv")}};
}

} // namespace

TEST(OutputDataSets, OfOneLevelWithGroups)
{
  const Folder folder;
  const auto run =
      run_into(folder,
               "TORVALE DATA=groups TECHNIQUE=NONE OUTR=all OUTEST=estimates ALPHA=0.1; BY site; ID twice x b1;"
               "PARMS b0=0.7 b1=0.95 v=0.45 s2=0.06; BOUNDS v >= 0, s2 > 0; mu = b0 + u + b1*x; twice = 2*mu;"
               "MODEL y ~ NORMAL(mu, s2); RANDOM u ~ NORMAL(0, v) SUBJECT=id OUT=effects ALPHA=0.2 DF=5;"
               "PREDICT mu OUT=predicted(DROP=tValue RENAME=(Pred=Fitted)) DER; RUN;",
               groups());
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  for (const char* name : {"effects.csv", "all.csv", "estimates.csv", "predicted.csv"}) expect_golden(folder, name);
  EXPECT_FALSE(folder.holds("_r_id_1.csv")); // the statement has a data set of its own
}

TEST(OutputDataSets, OfNestedLevels)
{
  const Folder folder;
  const auto run = run_into(
      folder,
      "TORVALE DATA=nested_count(WHERE=(farm <= 6)) TECHNIQUE=NONE QPOINTS=1 EBITER EBMTOL=1e-6 OUTR=nested;"
      "PARMS b0=0.45 b1=0.65 v1=0.5 v2=0.39 v3=0.34; mu = exp(b0 + b1*x + u + v + w); MODEL count ~ POISSON(mu);"
      "RANDOM u ~ NORMAL(0, v1) SUBJECT=farm; RANDOM v ~ NORMAL(0, v2) SUBJECT=field(farm) OUT=fields;"
      "RANDOM w ~ NORMAL(0, v3) SUBJECT=plot(field farm) OUTRI=rounds; PREDICT mu OUT=nested_means; RUN;");
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  for (const char* name : {"nested.csv", "fields.csv", "rounds.csv", "_r_farm_1.csv", "_r_plot_3.csv"})
    expect_golden(folder, name);
  EXPECT_FALSE(folder.holds("_r_field_2.csv"));
  // The last round of a subject stands at its modes.
  const auto rounds = read_csv_file(folder.file("rounds.csv")), all = read_csv_file(folder.file("nested.csv"));
  std::map<std::vector<std::string>, double> last;
  const auto values = rounds.numbers("Estimate"), modes = all.numbers("Estimate");
  for (std::size_t k = 0; k < values.size(); ++k) {
    const auto& row = rounds.rows[k];
    last[{row[0], row[1], row[2]}] = values[k];
  }
  EXPECT_EQ(last.size(), modes.size());
  for (std::size_t k = 0; k < modes.size(); ++k)
    EXPECT_NEAR((last[{all.rows[k][0], all.rows[k][1], all.rows[k][2]}]), modes[k], 1e-4) << k;
  EXPECT_EQ(run.column("Shrinkage", "Variance").size(), 3u);
}

TEST(OutputDataSets, RoundsNeedLevelsThatTakeTurns)
{
  const Folder folder;
  const auto run = run_into(folder, "TORVALE DATA=cbpp QPOINTS=1 TECHNIQUE=NONE; PARMS b0=-1 v=0.5;"
                                    "MODEL incidence ~ BINOMIAL(size, LOGISTIC(b0 + u));"
                                    "RANDOM u ~ NORMAL(0, v) SUBJECT=herd OUTRI=rounds; RUN;");
  EXPECT_TRUE(run.said(503, 9573)) << run.log;
  EXPECT_TRUE(read_csv_file(folder.file("rounds.csv")).rows.empty());
}

// A fit that starts where another ended has nothing left to do; and it reads the groups of the other.
TEST(OutputDataSets, EstimatesStartAnotherFit)
{
  const std::string model =
      "BOUNDS s2b1 > 0, s2b2 > 0, s2 > 0; lcl = beta1 + b1; lka = beta2 + b2; lke = beta3;"
      "pred = dose*exp(lke+lka-lcl)*(exp(-exp(lke)*time) - exp(-exp(lka)*time))/(exp(lka)-exp(lke));"
      "MODEL conc ~ NORMAL(pred, s2);"
      "RANDOM b1 b2 ~ NORMAL([0,0],[s2b1,cb12,s2b2]) SUBJECT=subject; RUN;";
  const Folder folder;
  const auto run = run_into(folder, "TORVALE DATA=theoph QPOINTS=5 OUTEST=last; PARMS beta1=-3.22 beta2=0.47 "
                                    "beta3=-2.45 s2b1=0.03 cb12=0 s2b2=0.4 s2=0.5;" +
                                        model + "TORVALE DATA=theoph QPOINTS=5; PARMS / DATA=last;" + model);
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const auto& second = run.outcome.results.steps.at(1).groups.at(0);
  const auto table = [](const auto& group, const std::string& name) {
    return *std::find_if(group.tables.begin(), group.tables.end(), [&](const auto& t) { return t.name == name; });
  };
  const auto objective = [&](const auto& group) { return table(group, "FitStatistics").rows()[0].back().as_number(); };
  EXPECT_NEAR(objective(second), objective(run.outcome.results.steps.at(0).groups.at(0)), 2e-8);
  EXPECT_LE(table(second, "IterHistory").rows().size(), 2u);

  const std::string by = "BY site; mu = b0 + u + b1*x; BOUNDS v >= 0, s2 > 0; MODEL y ~ NORMAL(mu, s2);"
                         "RANDOM u ~ NORMAL(0, v) SUBJECT=id; RUN;";
  const auto groups_run = run_into(folder,
                                   "TORVALE DATA=groups OUTEST=by_site; PARMS b0=1 b1=0.9 v=0.2 s2=0.05;" + by +
                                       "TORVALE DATA=groups; PARMS / DATA=by_site BYDATA;" + by,
                                   groups());
  for (std::size_t g = 0; g < 2; ++g) {
    const auto &before = groups_run.outcome.results.steps.at(0).groups.at(g),
               &after = groups_run.outcome.results.steps.at(1).groups.at(g);
    EXPECT_NEAR(objective(after), objective(before), 2e-8);
    EXPECT_LE(table(after, "IterHistory").rows().size(), 2u);
  }
}

// What cannot be written ends the step with a message, before anything is fitted; a full disk is told when it shows.
TEST(OutputDataSets, PlacesThatCannotBeWritten)
{
  const Folder folder;
  const std::string model = "PARMS b0=-1 v=0.5; MODEL incidence ~ BINOMIAL(size, LOGISTIC(b0 + u));"
                            "RANDOM u ~ NORMAL(0, v) SUBJECT=herd";
  const auto absent =
      run_into(folder, "TORVALE DATA=cbpp; " + model + " OUT='" + folder.file("no/where.csv") + "'; RUN;");
  EXPECT_TRUE(absent.said(503, 9012)) << absent.log;
  EXPECT_EQ(absent.table("ParameterEstimates"), nullptr);
  const auto twice = run_into(folder, "TORVALE DATA=cbpp OUTR=same; " + model + "; PREDICT u OUT=same; RUN;");
  EXPECT_TRUE(twice.said(503, 9026)) << twice.log;
  EXPECT_EQ(twice.table("ParameterEstimates"), nullptr);
  const auto full = run_into(folder, "TORVALE DATA=cbpp TECHNIQUE=NONE; " + model + " OUT='/dev/full'; RUN;");
  EXPECT_TRUE(full.said(503, 9012)) << full.log;
  EXPECT_NE(full.outcome.exit_code, 0);
  const auto id = run_into(folder, "TORVALE DATA=cbpp; ID nothing; " + model + "; PREDICT u OUT=p; RUN;");
  EXPECT_NE(id.outcome.exit_code, 0);
  EXPECT_FALSE(folder.holds("p.csv"));
}

// What the run reads is not written, and stays as it is.
TEST(OutputDataSets, NeverReplaceTheInput)
{
  const Folder folder;
  const std::string text = read_text(source_file("tests/data/outputs/groups.csv"));
  std::ofstream(folder.file("input.csv")) << text;
  for (const std::string& out :
       {"PREDICT mu OUT='" + folder.file("input.csv") + "'; RUN;", std::string("PREDICT mu OUT=input; RUN;")}) {
    const auto run = run_into(folder, "TORVALE DATA='" + folder.file("input.csv") +
                                          "'; PARMS b0=0.7 b1=0.95 v=0.45 s2=0.06; mu = b0 + u + b1*x;"
                                          "MODEL y ~ NORMAL(mu, s2); RANDOM u ~ NORMAL(0, v) SUBJECT=id;" +
                                          out);
    EXPECT_NE(run.outcome.exit_code, 0) << run.log;
    EXPECT_EQ(read_text(folder.file("input.csv")), text);
  }
}

TEST(OutputDataSets, WhatDoesNotApplyIsTold)
{
  const Folder folder;
  const auto run =
      run_into(folder, "TORVALE DATA=warpbreaks OUTR=none; PARMS b0=3; MODEL breaks ~ POISSON(exp(b0)); RUN;");
  EXPECT_TRUE(run.said(503, 505)) << run.log;
  EXPECT_FALSE(folder.holds("none.csv"));
  // The data determine a + b; not a.
  const auto flat = run_into(folder, "TORVALE DATA=warpbreaks; PARMS a=1 b=2; MODEL breaks ~ POISSON(exp(a + b));"
                                     "PREDICT exp(a + b) OUT=sum; PREDICT a OUT=part; RUN;");
  EXPECT_TRUE(flat.said(503, 9572)) << flat.log;
  EXPECT_TRUE(std::isfinite(read_csv_file(folder.file("sum.csv")).numbers("StdErrPred")[0])) << flat.log;
  EXPECT_TRUE(std::isnan(read_csv_file(folder.file("part.csv")).numbers("StdErrPred")[0]));
}

} // namespace torvale::tests
