// Event records: random dosing histories against an independent simulation, and what the data may not say.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <sstream>

namespace torvale::tests {

namespace {

std::vector<std::string> split(const std::string& line, char at)
{
  std::vector<std::string> parts;
  std::stringstream rest(line);
  for (std::string part; std::getline(rest, part, at);) parts.push_back(part);
  return parts;
}

// 200 histories: doses, infusions by rate, RATE= and DURN=, additional doses, both kinds of steady state, lags,
// bioavailability, resets, parameters that change between records; one to three compartments, with and without depot.
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
      {"1,3,10,1,0,0,6,0,5", "SS must be 0, 1 or 2"},
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
  const TemporaryFile data("few.csv", "id,time,y\n1,0,1\n");
  EXPECT_TRUE(run_text("TORVALE DATA=d; PARMS s2=1; CMPTMODEL EVENTS NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c KE=0.3;"
                       "MODEL y ~ NORMAL(c, s2); RUN;",
                       "/tmp", 0, {{"d", data.path()}})
                  .said(503, 9475));
}

} // namespace

} // namespace torvale::tests
