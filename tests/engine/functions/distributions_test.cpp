#include "engine/functions/distributions.h"
#include "engine/functions/plain_graph.h"
#include "host/values/missing.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>

namespace torvale::engine {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// A function of a distribution on numbers; NaN where it is missing.
double ask(DistributionQuestion q, const std::string& distribution, const std::vector<double>& arguments)
{
  GraphBuilder g;
  std::vector<NodeId> symbols; // inputs, not constants: nothing is folded
  for (std::size_t k = 0; k < arguments.size(); ++k) symbols.push_back(g.symbol(static_cast<std::int32_t>(k)));
  std::string error;
  const NodeId value = expand_distribution(g, q, distribution, symbols, &error);
  EXPECT_NE(value, no_node) << error;
  return value == no_node ? std::nan("") : evaluate(g, value, arguments);
}

struct Row {
  std::string distribution;
  std::vector<double> arguments; // x and the parameters
  double pdf, cdf, sdf;
};

// tests/data/special/make_distributions.py: quadrature and sums at 40 digits.
std::vector<Row> reference_rows()
{
  std::ifstream file(TORVALE_SOURCE_DIR "/tests/data/special/distributions.csv");
  std::vector<Row> rows;
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::istringstream split(line);
    std::vector<std::string> f;
    for (std::string field; std::getline(split, field, ',');) f.push_back(field);
    Row row{f[0], {}, std::stod(f[4]), std::stod(f[5]), std::stod(f[6])};
    for (std::size_t k = 1; k <= 3; ++k)
      if (f[k] != "-" && f[k] != "None") row.arguments.push_back(std::stod(f[k]));
    rows.push_back(row);
  }
  return rows;
}

void expect_close(double got, double truth, const Row& row, const char* what)
{
  EXPECT_NEAR(got, truth, 2e-13 * std::fabs(truth) + 1e-15 * (truth == 0.0))
      << what << " of " << row.distribution << " at " << row.arguments[0];
}

TEST(Distributions, AgreeWithQuadratureAndSums)
{
  const auto rows = reference_rows();
  ASSERT_GT(rows.size(), 25u);
  for (const Row& row : rows) {
    expect_close(ask(DistributionQuestion::pdf, row.distribution, row.arguments), row.pdf, row, "density");
    expect_close(ask(DistributionQuestion::cdf, row.distribution, row.arguments), row.cdf, row, "lower tail");
    expect_close(ask(DistributionQuestion::sdf, row.distribution, row.arguments), row.sdf, row, "upper tail");
    const auto log_close = [&](DistributionQuestion q, double truth, double other, const char* what) {
      // A log tail near 0 is the log of 1 minus the other tail, and keeps its digits.
      const double expected = truth > 0.5 ? std::log1p(-other) : std::log(truth);
      const double got = ask(q, row.distribution, row.arguments);
      if (truth == 0.0) {
        EXPECT_EQ(got, -infinity) << what;
      } else {
        EXPECT_NEAR(got, expected, 1e-13 * std::fabs(expected) + 1e-15)
            << what << " of " << row.distribution << " at " << row.arguments[0];
      }
    };
    expect_close(ask(DistributionQuestion::logpdf, row.distribution, row.arguments), std::log(row.pdf), row,
                 "log density");
    log_close(DistributionQuestion::logcdf, row.cdf, row.sdf, "log lower tail");
    log_close(DistributionQuestion::logsdf, row.sdf, row.cdf, "log upper tail");
  }
}

TEST(Distributions, QuantilesUndoTheDistributionFunction)
{
  for (const Row& row : reference_rows()) {
    if (row.cdf == 1.0 || row.cdf > 1.0 - 1e-6) continue; // the probability does not hold the digits
    std::vector<double> arguments = row.arguments;
    arguments[0] = row.cdf;
    const double x = ask(DistributionQuestion::quantile, row.distribution, arguments);
    EXPECT_NEAR(x, row.arguments[0], 1e-11 * (1 + std::fabs(row.arguments[0]))) << row.distribution;
  }
}

TEST(Distributions, OutsideTheSupportTheDensityIsZeroWithoutAFault)
{
  const struct {
    const char* name;
    std::vector<double> arguments;
  } cases[] = {
      {"gamma", {-1, 2, 3}},     {"exponential", {-1, 2}}, {"weibull", {-1, 2, 3}}, {"lognormal", {-1, 0, 1}},
      {"lognormal", {0, 0, 1}},  {"beta", {-0.1, 2, 3}},   {"beta", {1.1, 2, 3}},   {"uniform", {3, 0, 2}},
      {"f", {-1, 2, 3}},         {"chisquare", {-1, 2}},   {"poisson", {-1, 2}},    {"poisson", {1.5, 2}},
      {"binomial", {5, 4, 0.5}}, {"geometric", {-1, 0.5}}, {"bernoulli", {2, 0.5}}, {"negbinomial", {-1, 2, 0.5}},
      {"gamma", {0, 2, 3}},      {"beta", {1, 2, 3}},      {"binomial", {1, 4, 0}}, {"poisson", {1, 0}}};
  for (const auto& c : cases) {
    EXPECT_EQ(ask(DistributionQuestion::logpdf, c.name, c.arguments), -infinity) << c.name << " " << c.arguments[0];
    EXPECT_EQ(ask(DistributionQuestion::pdf, c.name, c.arguments), 0.0) << c.name << " " << c.arguments[0];
  }
  for (const char* name : {"gamma", "weibull", "f", "lognormal", "beta"}) {
    EXPECT_EQ(ask(DistributionQuestion::cdf, name, {-1, 2, 3}), 0.0) << name;
    EXPECT_EQ(ask(DistributionQuestion::sdf, name, {-1, 2, 3}), 1.0) << name;
  }
  EXPECT_EQ(ask(DistributionQuestion::cdf, "beta", {2, 2, 3}), 1.0);
  EXPECT_EQ(ask(DistributionQuestion::cdf, "poisson", {-0.5, 3}), 0.0);
  EXPECT_EQ(ask(DistributionQuestion::cdf, "uniform", {9, 2, 3}), 1.0);
  // Densities that are finite at the end of the support.
  EXPECT_NEAR(ask(DistributionQuestion::pdf, "exponential", {0, 2}), 0.5, 1e-15);
  EXPECT_NEAR(ask(DistributionQuestion::pdf, "gamma", {0, 1, 2}), 0.5, 1e-15);
  EXPECT_NEAR(ask(DistributionQuestion::pdf, "beta", {0, 1, 3}), 3.0, 1e-14);
  EXPECT_EQ(ask(DistributionQuestion::pdf, "binomial", {0, 4, 0}), 1.0);
}

constexpr DistributionQuestion questions[] = {DistributionQuestion::pdf,     DistributionQuestion::logpdf,
                                              DistributionQuestion::cdf,     DistributionQuestion::logcdf,
                                              DistributionQuestion::sdf,     DistributionQuestion::logsdf,
                                              DistributionQuestion::quantile};

std::vector<double> good_parameters(const Distribution& d)
{
  std::vector<double> v(static_cast<std::size_t>(d.most), 0.5);
  if (d.name == "UNIFORM") v[1] = 0.75;
  if (d.name == "BINOMIAL") v[0] = 2.0;
  return v;
}

std::vector<double> wrong_values(Domain domain)
{
  switch (domain) {
  case Domain::positive:
    return {host::missing, 0.0, -1.0};
  case Domain::nonnegative:
    return {host::missing, -1.0};
  case Domain::probability:
    return {host::missing, -0.1, 1.1};
  case Domain::above_the_one_before:
    return {host::missing, 0.5, -3.0};
  case Domain::any:
    break;
  }
  return {host::missing};
}

// Wherever x lies: beyond the ends of the support, at them, inside.
TEST(Distributions, MissingValuesAndWrongParametersGiveMissing)
{
  for (const Distribution& d : distributions())
    for (const auto q : questions) {
      std::vector<double> arguments = good_parameters(d);
      arguments.insert(arguments.begin(), host::missing);
      EXPECT_TRUE(std::isnan(ask(q, std::string(d.name), arguments))) << d.name << " " << static_cast<int>(q);
      for (std::size_t k = 1; k < arguments.size(); ++k)
        for (const double wrong : wrong_values(d.domain[k - 1]))
          for (const double x : {-infinity, -1.0, 0.0, 0.5, 1.0, 2.0, 1e9, infinity}) {
            std::vector<double> changed = arguments;
            changed[0] = x;
            changed[k] = wrong;
            EXPECT_TRUE(std::isnan(ask(q, std::string(d.name), changed)))
                << d.name << " operand " << k << " = " << wrong << ", x = " << x << ", question "
                << static_cast<int>(q);
          }
    }
  EXPECT_TRUE(std::isnan(ask(DistributionQuestion::quantile, "normal", {1.0, 0, 1})));
}

TEST(Distributions, InfiniteValuesGiveTheLimits)
{
  for (const Distribution& d : distributions())
    for (const double x : {-infinity, infinity}) {
      std::vector<double> arguments = good_parameters(d);
      if (d.name == "F" || d.name == "WEIBULL" || d.name == "GAMMA") arguments[0] = 3.0; // powers of x on their way
      arguments.insert(arguments.begin(), x);
      const std::string name(d.name);
      const double lower = x < 0 ? 0.0 : 1.0;
      EXPECT_EQ(ask(DistributionQuestion::pdf, name, arguments), 0.0) << name << " " << x;
      EXPECT_EQ(ask(DistributionQuestion::logpdf, name, arguments), -infinity) << name << " " << x;
      EXPECT_EQ(ask(DistributionQuestion::cdf, name, arguments), lower) << name << " " << x;
      EXPECT_EQ(ask(DistributionQuestion::sdf, name, arguments), 1.0 - lower) << name << " " << x;
      EXPECT_EQ(ask(DistributionQuestion::logcdf, name, arguments), std::log(lower)) << name << " " << x;
      EXPECT_EQ(ask(DistributionQuestion::logsdf, name, arguments), std::log(1.0 - lower)) << name << " " << x;
    }
}

// Truth: 60 digits.
TEST(Distributions, LogDensitiesKeepTheirDigitsForLargeParameters)
{
  const struct {
    const char* name;
    std::vector<double> arguments;
    double truth;
  } cases[] = {
      {"gamma", {10000100000.0, 10000000000.0, 1}, -12.931870664824901},
      {"gamma", {3000000000000.0, 1000000000000.0, 3}, -15.83306137983714},
      {"gamma", {2.5, 1000, 0.0025}, 1.6185650410816852},
      {"gamma", {0.001, 0.3, 2}, 3.5311865463014369},
      {"chisquare", {2000100000.0, 2000000000.0}, -13.223726965966969},
      {"beta", {0.30001, 3000000000.0, 7000000000.0}, 8.9933696112703818},
      {"beta", {1e-09, 2.5, 1000000000.0}, 19.438582968848492},
      {"beta", {0.5, 1000000000000.0, 1000000000000.0}, 13.936292795599394},
      {"f", {1.00002, 2000000000.0, 3000000000.0}, 9.0672638134436322},
      {"poisson", {10000100000, 10000000000.0}, -12.931867331499901},
      {"poisson", {0, 2.5}, -2.5},
      {"binomial", {300010000, 1000000000.0, 0.3}, -10.738350827753022},
      {"binomial", {3, 10, 0.25}, -1.3851658477400924},
      {"negbinomial", {1000010000, 1000000000.0, 0.5}, -11.65215241705233},
      {"negbinomial", {4, 0.7, 0.2}, -2.7216966745247548},
  };
  for (const auto& c : cases)
    EXPECT_NEAR(ask(DistributionQuestion::logpdf, c.name, c.arguments), c.truth, 1e-11)
        << c.name << " at " << c.arguments[0];
}

TEST(Distributions, MistakesAreNamed)
{
  GraphBuilder g;
  const NodeId x[] = {g.symbol(0), g.symbol(1)};
  std::string error;
  EXPECT_EQ(expand_distribution(g, DistributionQuestion::pdf, "poison", x, &error), no_node);
  EXPECT_EQ(error, "There is no distribution named 'poison'. Did you mean 'POISSON'?");
  EXPECT_EQ(expand_distribution(g, DistributionQuestion::pdf, "beta", x, &error), no_node);
  EXPECT_EQ(error, "The distribution BETA takes a value and the parameters (a, b), but 1 parameter is given.");
}

} // namespace
} // namespace torvale::engine
