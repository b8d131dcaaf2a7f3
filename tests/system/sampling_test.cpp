// Posterior sampling through whole programs, against posteriors that are known.

#include "system/session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <filesystem>
#include <unistd.h>

namespace torvale::tests {

namespace {

const std::string mixed_head =
    "TORVALE DATA=sleepstudy SEED=20; PARMS b0=250 b1=10; mu = b0 + u0 + (b1 + u1)*days;"
    "MODEL reaction ~ NORMAL(mu, 655); RANDOM u0 u1 ~ NORMAL([0,0],[565,11,32]) SUBJECT=subject; MCMC ";

std::string draws_file()
{
  return (std::filesystem::temp_directory_path() / ("draws-" + std::to_string(getpid()) + ".csv")).string();
}

// The posterior means and standard deviations of b0 and b1 within 5 Monte Carlo errors (of the mean: MCSE; of the
// deviation: by the tail's effective draws).
void expect_mixed_posterior(const std::string& options)
{
  const auto run = run_text(mixed_head + options + "; RUN;");
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const std::pair<const char*, std::pair<double, double>> known[] = {{"b0", {251.40510484848485, 6.6302033120859845}},
                                                                     {"b1", {10.46728595959596, 1.489582229638639}}};
  for (const auto& [name, moments] : known) {
    const double mean = run.number("MCMCDiagnostics", name, "Mean"), mcse = run.number("MCMCDiagnostics", name, "MCSE");
    const double sd = run.number("MCMCDiagnostics", name, "StdDev"),
                 draws = run.number("MCMCDiagnostics", name, "ESSTail");
    EXPECT_NEAR(mean, moments.first, 5 * mcse) << options << " " << name;
    EXPECT_NEAR(sd / moments.second, 1.0, 5 / std::sqrt(2 * draws)) << options << " " << name;
  }
}

} // namespace

TEST(Sampling, KnownPosteriorOfAMixedModel)
{
  expect_mixed_posterior("SAMPLER=NUTS SAMPLES=1000 BURN=500");
  expect_mixed_posterior("SAMPLES=4000 BURN=500 ADJSCALE=400 NOINTEGRATE");
  expect_mixed_posterior("SAMPLES=20000 BURN=2000 ADJSCALE=1500 CHAINS=2");
}

// Flat prior on mean and variance of 25 normal observations: t and inverse gamma.
TEST(Sampling, KnownPosteriorOfANormalSample)
{
  for (const std::string options : {"SAMPLER=NUTS SAMPLES=3000", "SAMPLES=15000 BURN=1000 ADJSCALE=900",
                                    "SAMPLES=10000 BURN=1000 ADJSCALE=900 SINGLE"}) {
    const auto run = run_text(
        "TORVALE DATA=posterior_normal SEED=3; PARMS m=10 s2=8; BOUNDS s2 > 0; MODEL y ~ NORMAL(m, s2); MCMC " +
            options + "; RUN;",
        "tests/data/programs");
    ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
    EXPECT_NEAR(run.number("MCMCDiagnostics", "m", "Mean"), 10.9884, 5 * run.number("MCMCDiagnostics", "m", "MCSE"))
        << options;
    EXPECT_NEAR(run.number("MCMCDiagnostics", "s2", "Mean"), 7.2914968, 5 * run.number("MCMCDiagnostics", "s2", "MCSE"))
        << options;
    EXPECT_NEAR(run.number("MCMCDiagnostics", "m", "StdDev"), std::sqrt(0.291659872), 0.04) << options;
  }
}

// A prior adds to the sampler and leaves the fit alone; two of them add up: a normal mean with known variance.
TEST(Sampling, PriorsAddUp)
{
  const std::string head = "TORVALE DATA=posterior_normal SEED=5; PARMS m=10; MODEL y ~ NORMAL(m, 5);";
  const auto run = run_text(head + "PRIOR LOGPDF('NORMAL', m, 9, SQRT(2)); PRIOR LOGPDF('NORMAL', m, 8, SQRT(2));"
                                   "MCMC SAMPLER=NUTS SAMPLES=3000; RUN;",
                            "tests/data/programs");
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_NEAR(run.number("ParameterEstimates", "m", "Estimate"), 10.9884, 1e-6);
  EXPECT_NEAR(run.number("MCMCDiagnostics", "m", "Mean"), (25 * 10.9884 / 5 + 9 / 2.0 + 8 / 2.0) / (25 / 5.0 + 1.0),
              5 * run.number("MCMCDiagnostics", "m", "MCSE"));
  EXPECT_TRUE(run_text(head + "PRIOR LOGPDF('NORMAL', y, 9, 1); MCMC; RUN;", "tests/data/programs").said(503, 38));
  EXPECT_NE(run_text(head + "PRIOR LOG(m - 100); MCMC; RUN;", "tests/data/programs").log.find("PRIOR has none"),
            std::string::npos);
}

// The draws do not depend on the number of threads; chains do differ.
TEST(Sampling, SameDrawsForAnyNumberOfThreads)
{
  const std::string file = draws_file();
  std::string first;
  for (const int threads : {0, 2, 3}) {
    ASSERT_EQ(
        run_text(mixed_head + "OUT='" + file + "' SAMPLES=60 BURN=20 ADJSCALE=15 ADJINCR=5; RUN;", "examples", threads)
            .outcome.exit_code,
        0);
    const std::string text = read_text(file);
    if (first.empty()) first = text;
    EXPECT_EQ(text, first) << threads;
  }
  std::filesystem::remove(file);
  EXPECT_EQ(first.substr(0, first.find('\n')).rfind("b0,b1,u0_1,u1_1,", 0), 0u);
  EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 1 + 4 * 60);
}

// Two groups with the same rows have the same posterior and draws that have nothing to do with each other; a group has
// the draws that it has without the other.
TEST(Sampling, GroupsDrawNumbersOfTheirOwn)
{
  std::string rows = "g,y\n";
  for (const char* const group : {"1", "2"})
    for (const char* const y : {"0.3", "1.1", "-0.4", "2.0"}) rows += std::string(group) + "," + y + "\n";
  const TemporaryFile data("groups.csv", rows), out("draws.csv", "");
  const auto draws = [&](const std::string& where, const std::string& sampler) {
    const auto run = run_text("TORVALE DATA='" + data.path() + "'" + where +
                              " SEED=5; PARMS m=0; MODEL y ~ NORMAL(m, 1); BY g; MCMC " + sampler + " OUT='" +
                              out.path() + "'; RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
    std::map<std::string, std::vector<double>> by_group;
    for (const std::string& line : split(read_text(out.path()), '\n'))
      if (const auto cells = split(line, ','); cells.size() > 1 && cells[0] != "g")
        by_group[cells[0]].push_back(std::stod(cells[1]));
    return by_group;
  };
  for (const std::string sampler : {"SAMPLER=WALK SAMPLES=4000", "SAMPLER=NUTS SAMPLES=500 BURN=200"}) {
    auto both = draws("", sampler);
    EXPECT_EQ(draws("(WHERE=(g = 2))", sampler)["2"], both["2"]) << sampler;
    const std::vector<double>&a = both["1"], &b = both["2"];
    ASSERT_EQ(a.size(), b.size());
    double aa = 0.0, bb = 0.0, ab = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k) {
      const double x = a[k] - 0.75, y = b[k] - 0.75;
      aa += x * x;
      bb += y * y;
      ab += x * y;
    }
    EXPECT_LT(std::abs(ab / std::sqrt(aa * bb)), 0.2) << sampler;
  }
}

// A start at a variance of 0, a parameter held by its bounds, NOOPTIMIZE, bounds that are hit, a covariance from a data
// set.
TEST(Sampling, StartsAndBounds)
{
  const std::string model =
      "mu = b0 + u + b1*days; MODEL reaction ~ NORMAL(mu, s2); RANDOM u ~ NORMAL(0, v) SUBJECT=subject;";
  const auto zero =
      run_text("TORVALE DATA=sleepstudy SEED=1; PARMS b0=250 b1=10 v=0 s2=950; BOUNDS 0 <= v, s2 > 0, 10 <= b1 <= 10;" +
               model + "MCMC NOOPTIMIZE SAMPLES=200 BURN=200 ADJSCALE=150; RUN;");
  EXPECT_EQ(zero.outcome.exit_code, 0) << zero.log;
  EXPECT_EQ(zero.number("MCMCDiagnostics", "b1", "StdDev"), 0.0);
  EXPECT_GT(zero.number("MCMCDiagnostics", "v", "StdDev"), 0.0);
  EXPECT_EQ(zero.table("IterHistory"), nullptr);
  const auto stuck =
      run_text("TORVALE DATA=sleepstudy SEED=1; PARMS b0=250 b1=10 s2=2000; BOUNDS 2000 <= s2 <= 2000.001;"
               "MODEL reaction ~ NORMAL(b0 + b1*days, s2); MCMC MAXBVIOL=20 SAMPLES=2000; RUN;");
  EXPECT_TRUE(stuck.said(503, 310)) << stuck.log;
  EXPECT_NE(stuck.outcome.exit_code, 0);
  const TemporaryFile covariance("cov.csv", "Parameter,b0,b1\nb0,44,-1\nb1,-1,2.2\n"),
      lacking("cov2.csv", "b0\n44\n0\n");
  EXPECT_EQ(run_text(mixed_head + "COVDATA='" + covariance.path() + "' SAMPLES=100; RUN;").outcome.exit_code, 0);
  EXPECT_TRUE(run_text(mixed_head + "COVDATA='" + lacking.path() + "' SAMPLES=100; RUN;").said(503, 314));
  EXPECT_TRUE(run_text(mixed_head + "SAMPLES=30; RUN;").said(503, 9581)); // too few draws to trust
}

// Nothing to sample: the data set of the draws has its columns and no rows, and what was said is all there is to say.
// COVDATA= is a covariance matrix, in full or by either triangle; anything else is refused, or told.
TEST(Sampling, ProposalsComeFromACovariance)
{
  const auto draws = [](const std::string& rows) {
    const TemporaryFile covariance("scale.csv", "Parameter,m,s2\n" + rows), out("draws.csv", "");
    const auto run =
        run_text("TORVALE DATA=stackloss SEED=4; PARMS m=17 s2=100; BOUNDS s2 > 0; MODEL loss ~ NORMAL(m, s2);"
                 "MCMC OUT='" +
                 out.path() + "' SAMPLES=500 CHAINS=1 COVDATA='" + covariance.path() + "'; RUN;");
    return std::pair(run, read_text(out.path()));
  };
  const auto lower = draws("m,4,\ns2,3,900\n"), upper = draws("m,4,3\ns2,,900\n"), full = draws("s2,3,900\nm,4,3\n");
  EXPECT_EQ(lower.second, upper.second);
  EXPECT_EQ(lower.second, full.second);
  EXPECT_FALSE(lower.first.said(503, 9445));
  EXPECT_TRUE(draws("m,4,\ns2,70,900\n").first.said(503, 9445));
  for (const auto& [rows, number] : {std::pair{"m,-4,\ns2,3,900\n", 9443}, {"m,4,5\ns2,3,900\n", 9444}}) {
    const auto wrong = draws(rows);
    EXPECT_EQ(wrong.first.outcome.exit_code, 3);
    EXPECT_TRUE(wrong.first.said(503, number)) << wrong.first.log;
  }
}

TEST(Sampling, NoGroupToSample)
{
  const TemporaryFile data("none.csv", "y\n.\n.\n");
  const auto run =
      run_text("TORVALE DATA='" + data.path() + "' SEED=1; PARMS m=0; MODEL y ~ NORMAL(m, 1); MCMC OUT=draws; RUN;");
  EXPECT_EQ(run.outcome.exit_code, 4) << run.log;
  EXPECT_FALSE(run.said(503, 9029)) << run.log;
}

} // namespace torvale::tests
