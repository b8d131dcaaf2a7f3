// What must not matter: the order of the rows, the number of threads, counts instead of repeated subjects, units.

#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>

namespace torvale::tests {

namespace {

std::vector<std::string> lines_of(const std::string& text)
{
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string joined(const std::vector<std::string>& lines)
{
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  return text;
}

TEST(Invariance, ShuffledRowsGiveTheSameFit)
{
  for (const char* name : {"theoph", "cbpp", "sleepstudy"}) {
    auto lines = lines_of(read_text(source_file(std::string("examples/") + name + ".csv")));
    std::mt19937 random(7);
    std::shuffle(lines.begin() + 1, lines.end(), random);
    const TemporaryFile shuffled(std::string(name) + ".csv", joined(lines));
    const std::string program = example(name, "QPOINTS=5 GCONV=1e-14 FCONV=0 ABSGCONV=0");
    const auto sorted = run_text(program);
    const auto mixed = run_text(program, "examples", 0, {{name, shuffled.path()}});
    ASSERT_EQ(sorted.outcome.exit_code, 0) << sorted.log;
    ASSERT_EQ(mixed.outcome.exit_code, 0) << mixed.log;
    EXPECT_TRUE(mixed.said(503, 753));
    EXPECT_FALSE(sorted.said(503, 753));
    EXPECT_NEAR(sorted.column("FitStatistics", "Value")[0], mixed.column("FitStatistics", "Value")[0], 1e-9);
    const auto a = sorted.column("ParameterEstimates", "Estimate"), b = mixed.column("ParameterEstimates", "Estimate");
    const auto error = sorted.column("ParameterEstimates", "StandardError");
    for (std::size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], 1e-5 * error[i]) << name << " " << i;
  }
}

// Where effects are 1e4 standard deviations and more from 0 the rounding of a mode is longer than the steps that end a
// search, and the search ends all the same, with the curvature of its own place.
TEST(Invariance, EffectsFarFromZeroGiveTheSameFit)
{
  const auto fit = [](const std::string& far, const std::string& options, int threads) {
    return run_text("TORVALE DATA=cbpp QPOINTS=3 " + options +
                        "; PARMS b0=-1 s2=0.3; BOUNDS s2 > 0;"
                        "MODEL incidence ~ BINOMIAL(size, 1/(1 + exp(-(b0 + u - " +
                        far + ")))); RANDOM u ~ NORMAL(" + far + ", s2) SUBJECT=herd; RUN;",
                    "examples", threads);
  };
  for (const std::string options : {"", "TECHNIQUE=NONE"})
    for (const std::string far : {"20000", "1000000"})
      for (const int threads : {0, 2}) {
        const auto near = fit("0", options, threads), away = fit(far, options, threads);
        EXPECT_EQ(away.outcome.exit_code, 0) << far << away.log;
        ASSERT_NE(away.table("FitStatistics"), nullptr) << far << away.log;
        EXPECT_NEAR(near.column("FitStatistics", "Value")[0], away.column("FitStatistics", "Value")[0], 1e-7) << far;
        const auto expected = near.column("ParameterEstimates", "StandardError");
        const auto got = away.column("ParameterEstimates", "StandardError");
        for (std::size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i] / expected[i], 1.0, 1e-4) << far << i;
      }
}

TEST(Invariance, ThreadsGiveTheSameBytes)
{
  for (const char* name : {"epil", "theoph", "fixed_negbin"}) {
    const std::string program = example(name, "QPOINTS=5 COV");
    const std::string serial = host::results_json(run_text(program).outcome.results);
    for (const int threads : {2, 3, 5})
      EXPECT_EQ(serial, host::results_json(run_text(program, "examples", threads).outcome.results))
          << name << " " << threads;
  }
}

// Samples too, with so many subjects of different sizes that they are dealt to batches differently.
TEST(Invariance, ThreadsGiveTheSameSamples)
{
  std::string csv = "id,y\n";
  for (int subject = 0; subject < 600; ++subject)
    for (int k = 0; k <= subject * 7 % 5; ++k)
      csv += std::to_string(subject) + (subject * 31 % 17 + 5 * k > 12 ? ",1\n" : ",0\n");
  const TemporaryFile data("batches.csv", csv);
  const std::string program = "TORVALE DATA='" + data.path() +
                              "' METHOD=ISAMP SEED=1 QPOINTS=50 TECHNIQUE=NONE; PARMS b=0.1 s2=1;"
                              "MODEL y ~ BINARY(1/(1 + exp(-(b + u)))); RANDOM u ~ NORMAL(0, s2) SUBJECT=id; RUN;";
  const std::string serial = host::results_json(run_text(program).outcome.results);
  for (const int threads : {2, 3})
    EXPECT_EQ(serial, host::results_json(run_text(program, "", threads).outcome.results));
}

// Nothing of a BY group's run is left for the next one.
TEST(Invariance, GroupsAreFittedAsIfAlone)
{
  for (const std::string options : {"", "FD", "INSTEP=1e-3", "TECHNIQUE=DBLDOG INSTEP=1e-3", "FD=8"}) {
    const std::string model = "PARMS m=1 k=1; MODEL breaks ~ NEGBIN(exp(k), exp(k)/(exp(k) + exp(m)));";
    const auto groups = run_text("TORVALE DATA=warpbreaks " + options + "; BY wool; " + model + " RUN;");
    const char* names[] = {"A", "B"};
    for (std::size_t g = 0; g < 2; ++g) {
      const std::string where = "TORVALE DATA=warpbreaks(WHERE=(wool='" + std::string(names[g]) + "')) ";
      const auto alone = run_text(where + options + "; " + model + " RUN;");
      for (const char* column : {"Calls", "NegLogLike", "MaxGrad"})
        EXPECT_EQ(groups.column("IterHistory", column, g), alone.column("IterHistory", column)) << options << names[g];
      for (const char* column : {"Estimate", "StandardError", "Gradient"})
        EXPECT_EQ(groups.column("ParameterEstimates", column, g), alone.column("ParameterEstimates", column))
            << options << names[g];
    }
  }
}

// A subject that stands for two is the same as two copies of it.
TEST(Invariance, ReplicateCountsSubjects)
{
  const auto lines = lines_of(read_text(source_file("examples/cbpp.csv")));
  std::string counted = lines[0] + ",copies\n", repeated = lines[0] + "\n";
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const int herd = std::stoi(lines[i]);
    const int copies = 1 + herd % 3;
    counted += lines[i] + "," + std::to_string(copies) + "\n";
    for (int c = 0; c < copies; ++c)
      repeated += std::to_string(herd + 100 * c) + lines[i].substr(lines[i].find(',')) + "\n";
  }
  ASSERT_TRUE(lines[0].starts_with("herd"));
  const TemporaryFile a("counted.csv", counted), b("repeated.csv", repeated);
  const std::string program = example("cbpp", "QPOINTS=5 GCONV=1e-13 FCONV=0 ABSGCONV=0 EMPIRICAL COV");
  std::string with_counts = program;
  with_counts.insert(with_counts.find("RANDOM"), "REPLICATE copies;\n");
  const auto counts = run_text(with_counts, "examples", 0, {{"cbpp", a.path()}});
  const auto copies = run_text(program, "examples", 0, {{"cbpp", b.path()}});
  ASSERT_EQ(counts.outcome.exit_code, 0) << counts.log;
  ASSERT_EQ(copies.outcome.exit_code, 0) << copies.log;
  EXPECT_NEAR(counts.column("FitStatistics", "Value")[0], copies.column("FitStatistics", "Value")[0], 1e-8);
  const auto ea = counts.column("ParameterEstimates", "Estimate"), eb = copies.column("ParameterEstimates", "Estimate");
  const auto sa = counts.column("ParameterEstimates", "StandardError"),
             sb = copies.column("ParameterEstimates", "StandardError");
  for (std::size_t i = 0; i < ea.size(); ++i) {
    EXPECT_NEAR(ea[i], eb[i], 1e-5 * sb[i]);
    EXPECT_NEAR(sa[i], sb[i], 1e-4 * sb[i]); // EMPIRICAL: a subject's outer product counts once per copy
  }
}

// Millimetres, or hundredths of them: the mode search works at any scale.
TEST(Invariance, UnitsOfTheResponseShiftTheLogLikelihoodOnly)
{
  const auto plain = run_text(example("orange", "QPOINTS=1"));
  ASSERT_EQ(plain.outcome.exit_code, 0) << plain.log;
  std::string scaled = "TORVALE DATA=orange QPOINTS=1;\n"
                       "PARMS b1=19000 b2=700 b3=350 s2u=1e7 s2e=6e5;\nBOUNDS s2u > 0, s2e > 0;\n"
                       "big = 100*circumference; num = b1 + u1; ex = exp(-(day - b2)/b3);\n"
                       "MODEL big ~ NORMAL(num/(1+ex), s2e);\nRANDOM u1 ~ NORMAL(0, s2u) SUBJECT=tree;\nRUN;\n";
  const auto hundredths = run_text(scaled);
  ASSERT_EQ(hundredths.outcome.exit_code, 0) << hundredths.log;
  EXPECT_NEAR(hundredths.column("FitStatistics", "Value")[0],
              plain.column("FitStatistics", "Value")[0] + 2 * 35 * std::log(100.0), 2e-5);
}

} // namespace

} // namespace torvale::tests
