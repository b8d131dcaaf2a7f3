// OUTFIT=: fitted values and residuals against plain calculations.

#include "system/data_files.h"
#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>

namespace torvale::tests {

namespace {

double normal_probability(double x)
{
  return 0.5 * std::erfc(-x / std::sqrt(2.0));
}

// L^-1 e with V = L L'.
std::vector<double> decorrelated(std::vector<double> e, std::vector<std::vector<double>> v)
{
  const std::size_t n = e.size();
  for (std::size_t j = 0; j < n; ++j) {
    for (std::size_t k = 0; k < j; ++k) v[j][j] -= v[j][k] * v[j][k];
    v[j][j] = std::sqrt(v[j][j]);
    for (std::size_t i = j + 1; i < n; ++i) {
      for (std::size_t k = 0; k < j; ++k) v[i][j] -= v[i][k] * v[j][k];
      v[i][j] /= v[j][j];
    }
    for (std::size_t k = 0; k < j; ++k) e[j] -= v[j][k] * e[k];
    e[j] /= v[j][j];
  }
  return e;
}

} // namespace

// In a linear model nothing is approximate: residuals at the population mean, decorrelated by the marginal covariance.
// Wards are nested in clinics, and their records alternate in the file.
TEST(FittedRecords, OfANestedLinearModel)
{
  std::string csv = "clinic,ward,week,score\n";
  std::vector<std::pair<int, int>> unit;
  std::vector<double> week, score;
  for (int record = 0; record < 60; ++record) {
    const int clinic = record % 5, ward = record / 5 % 3;
    unit.emplace_back(clinic, ward);
    week.push_back(record % 7);
    score.push_back(48 + 2 * week.back() + std::sin(3.0 * record) * 3 + clinic + ward);
    csv += std::to_string(clinic) + "," + std::to_string(ward) + "," + std::to_string(record % 7) + "," +
           std::to_string(score.back()) + "\n";
    score.back() = std::stod(std::to_string(score.back()));
  }
  const Folder folder;
  const TemporaryFile data("alternating.csv", csv);
  const auto run = run_text("TORVALE DATA='" + data.path() + "' OUTFIT='" + folder.file("fit.csv") +
                            "' COV; PARMS b0=48 b1=2; mu = b0 + u0 + w + (b1 + u1)*week; MODEL score ~ NORMAL(mu, 2.5);"
                            "RANDOM u0 u1 ~ NORMAL([0,0],[9,0.5,1.2]) SUBJECT=clinic;"
                            "RANDOM w ~ NORMAL(0, 4) SUBJECT=ward(clinic); PREDICT mu OUT='" +
                            folder.file("mu.csv") + "'; RUN;");
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const auto fit = read_csv_file(folder.file("fit.csv")), mu = read_csv_file(folder.file("mu.csv"));
  ASSERT_EQ(fit.rows.size(), week.size());
  const double b0 = run.number("ParameterEstimates", "b0", "Estimate"),
               b1 = run.number("ParameterEstimates", "b1", "Estimate");
  const auto c0 = run.column("CovMatParmEst", "b0"), c1 = run.column("CovMatParmEst", "b1");
  const auto population = fit.numbers("PredPop"), error = fit.numbers("StdErrPop"), own = fit.numbers("PredInd"),
             own_error = fit.numbers("StdErrInd"), pearson = fit.numbers("Pearson"), quantile = fit.numbers("Quantile"),
             conditional = fit.numbers("CondWtRes"), predicted = mu.numbers("Pred"),
             predicted_error = mu.numbers("StdErrPred");
  for (std::size_t row = 0; row < week.size(); ++row) {
    EXPECT_NEAR(population[row], b0 + b1 * week[row], 1e-10);
    EXPECT_NEAR(error[row] * error[row], c0[0] + 2 * week[row] * c0[1] + week[row] * week[row] * c1[1], 1e-10);
    EXPECT_EQ(own[row], predicted[row]);
    EXPECT_NEAR(own_error[row], predicted_error[row], 1e-12);
    EXPECT_NEAR(pearson[row], (score[row] - own[row]) / std::sqrt(2.5), 1e-12);
    EXPECT_NEAR(quantile[row], pearson[row], 1e-12);
  }
  for (int clinic = 0; clinic < 5; ++clinic) {
    std::vector<std::size_t> rows;
    for (std::size_t row = 0; row < week.size(); ++row)
      if (unit[row].first == clinic) rows.push_back(row);
    std::vector<double> e;
    std::vector<std::vector<double>> v;
    for (const std::size_t i : rows) {
      e.push_back(score[i] - population[i]);
      v.emplace_back();
      for (const std::size_t j : rows)
        v.back().push_back(9 + 0.5 * (week[i] + week[j]) + 1.2 * week[i] * week[j] +
                           (unit[i].second == unit[j].second ? 4.0 : 0.0) + (i == j ? 2.5 : 0.0));
    }
    const auto expected = decorrelated(e, v);
    for (std::size_t k = 0; k < rows.size(); ++k) EXPECT_NEAR(conditional[rows[k]], expected[k], 1e-9) << rows[k];
  }
}

// Quantile residuals lie on the jump of the distribution function, are the same for the same seed, and are not made
// where nothing is known of the distribution.
TEST(FittedRecords, QuantilesOfCounts)
{
  const Folder folder;
  const auto run_with = [&](const std::string& model, const std::string& name, const std::string& seed) {
    const auto run = run_text("TORVALE DATA=warpbreaks OUTFIT='" + folder.file(name) + "' SEED=" + seed +
                              "; PARMS b0=3.4 b1=-0.2; mu = exp(b0 + b1*(wool='B')); " + model + " RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
    return read_csv_file(folder.file(name));
  };
  const auto counts = run_with("MODEL breaks ~ POISSON(mu);", "a.csv", "5"),
             again = run_with("MODEL breaks ~ POISSON(mu);", "b.csv", "5"),
             other = run_with("MODEL breaks ~ POISSON(mu);", "c.csv", "6"),
             general = run_with("MODEL breaks ~ GENERAL(breaks*log(mu) - mu);", "d.csv", "5");
  const auto y = counts.numbers("Response"), m = counts.numbers("PredPop"), q = counts.numbers("Quantile"),
             pearson = counts.numbers("Pearson");
  for (std::size_t row = 0; row < y.size(); ++row) {
    double below = 0.0, term = std::exp(-m[row]);
    for (int k = 0; k < static_cast<int>(y[row]); ++k) below += term, term *= m[row] / (k + 1);
    EXPECT_GT(normal_probability(q[row]), below) << row;
    EXPECT_LT(normal_probability(q[row]), below + term) << row;
    EXPECT_NEAR(pearson[row], (y[row] - m[row]) / std::sqrt(m[row]), 1e-12);
  }
  EXPECT_EQ(counts.column("Quantile"), again.column("Quantile"));
  EXPECT_NE(counts.column("Quantile"), other.column("Quantile"));
  EXPECT_EQ(general.column("Quantile"), std::vector<std::string>(y.size(), ""));
  EXPECT_EQ(general.column("Response"), counts.column("Response"));
}

// A BY group has the residuals that its rows have alone.
TEST(FittedRecords, QuantilesOfAGroupAreItsOwn)
{
  const Folder folder;
  const auto quantiles = [&](const std::string& data, const std::string& by) {
    const auto run = run_text("TORVALE DATA=" + data + " SEED=5 OUTFIT='" + folder.file("fit.csv") + "'; " + by +
                              " PARMS b=3; MODEL breaks ~ POISSON(exp(b)); RUN;");
    EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
    return read_csv_file(folder.file("fit.csv")).column("Quantile");
  };
  const auto all = quantiles("warpbreaks", "BY wool;"), second = quantiles("warpbreaks(WHERE=(wool = 'B'))", "");
  ASSERT_EQ(all.size(), 2 * second.size());
  EXPECT_EQ(std::vector<std::string>(all.end() - static_cast<std::ptrdiff_t>(second.size()), all.end()), second);
}

} // namespace torvale::tests
