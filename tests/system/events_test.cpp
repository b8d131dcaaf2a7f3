// Event records: random dosing histories against an independent simulation, and what the data may not say.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <sstream>

namespace torvale::tests {

namespace {

// 230 histories: doses, infusions by rate, RATE= and DURN=, additional doses, both kinds of steady state, lags (also of
// several intervals), bioavailability, resets, parameters that change between records; one to three compartments, with
// and without depot.
TEST(Events, HistoriesAgreeWithASimulation)
{
  const auto lines = split(read_text(source_file("tests/data/special/event_histories.csv")), '\n');
  const auto columns = split(lines[0], ',');
  std::map<std::string, std::size_t> at;
  for (std::size_t k = 0; k < columns.size(); ++k) at[columns[k]] = k;
  int compared = 0;
  for (const std::string n : {"1", "2", "3"})
    for (const std::string oral : {"0", "1"}) {
      std::string text = lines[0] + ",y\n";
      std::vector<std::vector<std::string>> rows;
      for (std::size_t r = 1; r < lines.size(); ++r) {
        const auto cells = split(lines[r], ',');
        if (cells[at["n"]] != n || cells[at["oral"]] != oral) continue;
        rows.push_back(cells);
        text += lines[r] + ",1\n";
      }
      std::vector<std::string> results = {"1"};
      std::string options = " KE=KE";
      const auto result = [&](const std::string& k, const std::string& more) {
        options += " PCONC" + k + "=c" + k + more;
        results.push_back(k);
      };
      if (n != "1") result("2", " K12=K12 K21=K21");
      if (n == "3") result("3", " K13=K13 K31=K31");
      if (oral == "1") result("0", " KA=KA");
      const TemporaryFile data("histories.csv", text);
      std::string predict;
      std::vector<std::unique_ptr<TemporaryFile>> outputs;
      for (const std::string& k : results) {
        outputs.push_back(std::make_unique<TemporaryFile>("events" + k + ".csv", ""));
        predict += "PREDICT c" + k + " OUT='" + outputs.back()->path() + "';";
      }
      const auto run = run_text(
          "TORVALE DATA=d TECHNIQUE=NONE; PARMS s2=1 v=1; CMPTMODEL EVENTS NCOMPS=" + n +
              " ADMTYPE=" + (oral == "1" ? "ORAL" : "IVB") + " PARMTYPE=1 PCONC=c1 RATE=30 DURN=1.6 F=bio ALAG=lag" +
              options + "; MODEL y ~ NORMAL(c1 + b, s2); RANDOM b ~ NORMAL(0, v) SUBJECT=id;" + predict + "RUN;",
          "/tmp", 0, {{"d", data.path()}});
      long observations = 0;
      std::map<std::string, bool> observed; // a subject without observations has no predictions
      for (const auto& cells : rows) {
        const bool observation = cells[at["evid"]] == "0" && cells[at["mdv"]] == "0";
        observations += observation;
        observed[cells[at["id"]]] = observed[cells[at["id"]]] || observation;
      }
      EXPECT_EQ(run.number("Dimensions", "Observations Used", "Value"), static_cast<double>(observations))
          << run.listing;
      for (std::size_t k = 0; k < results.size(); ++k) {
        const auto written = split(read_text(outputs[k]->path()), '\n');
        ASSERT_EQ(written.size(), rows.size() + 1) << run.log;
        for (std::size_t row = 0; row < rows.size(); ++row) {
          const auto& cells = rows[row];
          const bool other = cells[at["evid"]] != "1" && cells[at["evid"]] != "4" && cells[at["cmt"]] != "0";
          if ((results[k] == "1" && other) || !observed[cells[at["id"]]]) continue; // of the compartment that CMT names
          const double truth = std::stod(cells[at["a" + results[k]]]);
          const std::string got = split(written[row + 1], ',')[columns.size() + 1]; // Pred behind the data
          ASSERT_FALSE(got.empty() || got == ".") << n << oral << " row " << row + 1 << " " << results[k];
          EXPECT_NEAR(std::stod(got), truth, 1e-10 * (1 + std::fabs(truth)))
              << n << oral << " row " << row + 1 << " " << results[k];
          ++compared;
        }
      }
    }
  EXPECT_GT(compared, 4000);
}

Run fitted(const std::string& csv, const std::string& model)
{
  const TemporaryFile data("events.csv", csv);
  return run_text(
      "TORVALE DATA=d; PARMS lk=-1 lv=2 s2=0.1 v=0.1; BOUNDS s2 > 0, v > 0; k = exp(lk + b); vol = exp(lv);" + model +
          "MODEL y ~ NORMAL(c, s2); RANDOM b ~ NORMAL(0, v) SUBJECT=id; RUN;",
      "/tmp", 0, {{"d", data.path()}});
}

// One dose for each subject: by events, by the statement without events and by hand.
TEST(Events, SingleDosesSayTheSameModelThreeTimes)
{
  std::string events = "id,time,amt,evid,y\n", plain = "id,time,dose,y\n";
  for (int id = 1; id <= 8; ++id) {
    events += std::to_string(id) + ",0," + std::to_string(90 + id) + ",1,.\n";
    for (const double t : {0.5, 1.0, 2.5, 4.0, 7.0}) {
      const double k = 0.3 + 0.02 * (id % 5), y = (90 + id) / 8.0 * std::exp(-k * t) + 0.2 * std::sin(7.0 * id * t);
      events += std::to_string(id) + "," + std::to_string(t) + ",0,0," + std::to_string(y) + "\n";
      plain +=
          std::to_string(id) + "," + std::to_string(t) + "," + std::to_string(90 + id) + "," + std::to_string(y) + "\n";
    }
  }
  const std::string head = "CMPTMODEL NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c KE=k SCALE1=vol ";
  const auto by_events = fitted(events, head + "EVENTS;");
  const auto by_option = fitted(plain, head + "TIME=time DOSE=dose;");
  const auto by_hand = fitted(plain, "c = dose/vol*exp(-k*time);");
  ASSERT_EQ(by_hand.outcome.exit_code, 0) << by_hand.log;
  const auto hand = by_hand.column("ParameterEstimates", "Estimate");
  ASSERT_EQ(hand.size(), 4u);
  for (const auto* const run : {&by_events, &by_option}) {
    ASSERT_EQ(run->outcome.exit_code, 0) << run->log;
    const auto other = run->column("ParameterEstimates", "Estimate"),
               errors = run->column("ParameterEstimates", "StandardError");
    for (std::size_t k = 0; k < 4; ++k) EXPECT_NEAR(other[k], hand[k], 1e-6 * errors[k]) << k;
    const auto fit = run->column("FitStatistics", "Value"), truth = by_hand.column("FitStatistics", "Value");
    for (std::size_t k = 0; k < truth.size(); ++k) EXPECT_NEAR(fit[k], truth[k], 1e-9 * std::fabs(truth[k])) << k;
  }
}

TEST(Events, BadRecordsAreNamed)
{
  struct Case {
    const char *row, *words;
  };
  const Case cases[] = {
      {"1,0.5,0,0,0,0,0,0,0", "Time falls"},          {"1,3,-5,1,0,0,0,0,0", "negative"},
      {"1,3,0,1,0,10,0,0,0", "no duration"},          {"1,3,10,1,4,0,0,0,0", "CMT names a compartment"},
      {"1,3,10,1,0,0,0,2,0", "II is not above 0"},    {"1,3,10,1,0,0,0,0,1", "II is not above 0"},
      {"1,3,10,1,0,-1,0,0,0", "has no RATE="},        {"1,3,10,1,0,-3,0,0,0", "RATE must be above 0"},
      {"1,3,10,7,0,0,0,0,0", "EVID must be"},         {"1,.,10,1,0,0,0,0,0", "time of the event record is missing"},
      {"1,3,10,1,0,0,6,0,5", "SS must be 0, 1 or 2"}, {"1,3,10,1,0,0,6,1.5,0", "ADDL must be a whole number"},
  };
  for (const Case& c : cases) {
    const TemporaryFile data("bad.csv", std::string("id,time,amt,evid,cmt,rate,ii,addl,ss,y\n1,0,10,1,0,0,0,0,0,1\n"
                                                    "1,1,0,0,0,0,0,0,0,1\n") +
                                            c.row + ",1\n2,0,10,1,0,0,0,0,0,1\n2,1,0,0,0,0,0,0,0,2\n");
    const auto run =
        run_text("TORVALE DATA=d TECHNIQUE=NONE; PARMS s2=1; CMPTMODEL EVENTS NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 "
                 "PCONC=c KE=0.3; MODEL y ~ NORMAL(c + b, s2); RANDOM b ~ NORMAL(0, 1) SUBJECT=id; RUN;",
                 "/tmp", 0, {{"d", data.path()}});
    EXPECT_TRUE(run.said(503, 9201)) << c.row << run.log;
    std::string words; // the log breaks its lines
    for (const auto& part : split(run.log, '\n'))
      words += part.substr(std::min(part.size(), part.find_first_not_of(' '))) + " ";
    EXPECT_NE(words.find(c.words), std::string::npos) << c.row << run.log;
    EXPECT_NE(words.find("observation 3"), std::string::npos) << run.log;
  }
  const TemporaryFile crowd("crowd.csv", "id,time,amt,evid,rate,y\n1,0,10,1,1,.\n1,1,10,1,1,.\n1,2,0,0,0,1\n");
  const auto crowded =
      run_text("TORVALE DATA=d TECHNIQUE=NONE; PARMS s2=1; CMPTMODEL EVENTS(PLACES=1) NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 "
               "PCONC=c KE=0.3; MODEL y ~ NORMAL(c + b, s2); RANDOM b ~ NORMAL(0, 1) SUBJECT=id; RUN;",
               "/tmp", 0, {{"d", crowd.path()}});
  EXPECT_TRUE(crowded.said(503, 9201)) << crowded.log;
  EXPECT_NE(crowded.log.find("PLACES="), std::string::npos) << crowded.log;
  std::string rows = "id,time,amt,evid,rate,y\n";
  for (int id = 1; id <= 60; ++id) rows += std::to_string(id) + ",0,10,1,1,.\n";
  const TemporaryFile mixed("mixed.csv", rows);
  EXPECT_TRUE(run_text("TORVALE DATA=d; PARMS s2=1; CMPTMODEL EVENTS NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c KE=0.3;"
                       "MODEL y ~ NORMAL(c, s2); RUN;",
                       "/tmp", 0, {{"d", mixed.path()}})
                  .said(503, 9476));
  const TemporaryFile data("few.csv", "id,time,y\n1,0,1\n");
  EXPECT_TRUE(run_text("TORVALE DATA=d; PARMS s2=1; CMPTMODEL EVENTS NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c KE=0.3;"
                       "MODEL y ~ NORMAL(c, s2); RUN;",
                       "/tmp", 0, {{"d", data.path()}})
                  .said(503, 9475));
}

// Amounts begin anew in each innermost subject; what would act beyond it is refused.
TEST(Events, NestedLevelsBeginAnew)
{
  const auto records = [](const char* further) {
    std::string text = "id,occ,time,t,dose,amt,ii,addl,evid,y\n";
    for (int id = 1; id <= 4; ++id)
      for (int occ = 1; occ <= 2; ++occ) {
        const std::string head = std::to_string(id) + "," + std::to_string(occ) + ",";
        const int begin = 24 * (occ - 1);
        text += head + std::to_string(begin) + ",0,100,100," + further + ",1,.\n";
        for (const int t : {1, 3, 6})
          text += head + std::to_string(begin + t) + "," + std::to_string(t) + ",100,0,0,0,0," +
                  std::to_string(12.0 * std::exp(-(0.2 + 0.02 * id - 0.01 * occ) * t) + 0.1 * ((id + t) % 3)) + "\n";
      }
    return text;
  };
  const auto fit = [](const std::string& csv, const std::string& model) {
    const TemporaryFile data("nested.csv", csv);
    return run_text("TORVALE DATA=d TECHNIQUE=NONE QPOINTS=3; PARMS lk=-1.5 s2=0.1 v=0.1 w=0.05; k = exp(lk + b + o);" +
                        model +
                        "MODEL y ~ NORMAL(c, s2); RANDOM b ~ NORMAL(0, v) SUBJECT=id; RANDOM o ~ NORMAL(0, w) "
                        "SUBJECT=occ(id); RUN;",
                    "/tmp", 0, {{"d", data.path()}});
  };
  const std::string statement = "CMPTMODEL NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c KE=k SCALE1=8 EVENTS;";
  const auto events = fit(records("0,0"), statement), hand = fit(records("0,0"), "c = dose/8*exp(-k*t);");
  const auto value = events.column("FitStatistics", "Value"), truth = hand.column("FitStatistics", "Value");
  ASSERT_EQ(value.size(), truth.size()) << events.log;
  ASSERT_FALSE(truth.empty()) << hand.log;
  EXPECT_NEAR(value[0], truth[0], 1e-10 * std::fabs(truth[0]));
  EXPECT_FALSE(fit(records("6,2"), statement).said(503, 9477)); // the last additional dose comes at 12
  const auto crossing = fit(records("12,2"), statement);
  EXPECT_TRUE(crossing.said(503, 9477)) << crossing.log;
}

// Without a RANDOM statement all records are one subject's, but for resets and BY groups.
TEST(Events, WithoutSubjectsTimeMustNotFall)
{
  const auto fit = [](const std::string& second, const std::string& by) {
    const TemporaryFile data("plain.csv", "id,time,amt,evid,y\n1,0,100,1,.\n1,2,0,0,60\n1,5,0,0,40\n" + second +
                                              "\n2,2,0,0,50\n2,6,0,0,30\n");
    return run_text("TORVALE DATA=d; " + by +
                        " PARMS ke=0.1 s2=9; CMPTMODEL NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 EVENTS PCONC=c KE=ke;"
                        "MODEL y ~ NORMAL(c, s2); RUN;",
                    "/tmp", 0, {{"d", data.path()}});
  };
  const auto falling = fit("2,0,100,1,.", "");
  EXPECT_EQ(falling.outcome.exit_code, 3);
  EXPECT_TRUE(falling.said(503, 9446)) << falling.log;
  EXPECT_FALSE(fit("2,0,100,4,.", "").said(503, 9446));
  const auto groups = fit("2,0,100,1,.", "BY id;");
  EXPECT_EQ(groups.outcome.exit_code, 0) << groups.log;
}

// Each statement keeps amounts of its own, and each model of dose records has its own arrays.
TEST(Events, TwoModelsDoNotMeet)
{
  std::string text = "id,time,amt,evid,y,_CMPT_TYPE_,_CMPT_DOSE_CNT_,_CMPT_DOSE1,_CMPT_DTIME1\n";
  for (int id = 1; id <= 3; ++id) {
    text += std::to_string(id) + ",0,100,1,.,MCB,1,100,0\n";
    for (const int t : {1, 2, 5})
      text += std::to_string(id) + "," + std::to_string(t) + ",0,0,7,MCB,1,100," + std::to_string(t) + "\n";
  }
  const TemporaryFile data("two.csv", text);
  for (const std::string events : {" EVENTS", ""}) {
    const TemporaryFile slow("slow.csv", ""), fast("fast.csv", "");
    const std::string head = "CMPTMODEL NCOMPS=1 ADMTYPE=IVB PARMTYPE=1" + events;
    const auto run =
        run_text("TORVALE DATA=d TECHNIQUE=NONE; PARMS s2=1;" + head + " PCONC=c KE=0.2;" + head +
                     " PCONC=e KE=0.7; MODEL y ~ NORMAL(c + e + b, s2); RANDOM b ~ NORMAL(0, 1) SUBJECT=id;"
                     "PREDICT c OUT='" +
                     slow.path() + "'; PREDICT e OUT='" + fast.path() + "'; RUN;",
                 "/tmp", 0, {{"d", data.path()}});
    EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
    for (const auto& [path, rate] : {std::pair{slow.path(), 0.2}, {fast.path(), 0.7}}) {
      const auto rows = split(read_text(path), '\n');
      ASSERT_EQ(rows.size(), 13u) << run.log;
      for (std::size_t row = 1; row < rows.size(); ++row) {
        const auto cells = split(rows[row], ',');
        EXPECT_NEAR(std::stod(cells[9]), 100 * std::exp(-rate * std::stod(cells[1])), 1e-12) << events << rows[row];
      }
    }
  }
}

} // namespace

} // namespace torvale::tests
