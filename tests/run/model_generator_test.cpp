// The densities that MODEL generates, against closed forms in long double, through whole evaluations at given
// parameters.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

namespace torvale::tests {

namespace {

struct Density {
  const char* name;
  const char* model; // distribution with the parameters a, b, c
  std::vector<double> responses;
  long double (*log_density)(long double y, long double a, long double b, long double c);
};

constexpr double a = 0.7, b = 1.3, c = 4.5;

long double lg(long double x)
{
  return std::lgamma(x);
}

const std::vector<Density>& densities()
{
  static const long double pi = std::acos(-1.0L);
  static const std::vector<Density> all = {
      {"Normal",
       "NORMAL(a, b)",
       {-2, 0.25, 3},
       [](long double y, long double p, long double q, long double) {
         return -0.5L * (std::log(2 * pi * q) + (y - p) * (y - p) / q);
       }},
      {"T",
       "T(a, b, c)",
       {-2, 0.25, 30},
       [](long double y, long double p, long double q, long double df) {
         return lg((df + 1) / 2) - lg(df / 2) - std::log(pi * df) / 2 - std::log(q) / 2 -
                (df + 1) / 2 * std::log1p((y - p) * (y - p) / (q * df));
       }},
      {"Binary",
       "BINARY(a)",
       {0, 1},
       [](long double y, long double p, long double, long double) {
         return y * std::log(p) + (1 - y) * std::log(1 - p);
       }},
      {"Binomial",
       "BINOMIAL(7, a)",
       {0, 3, 7},
       [](long double y, long double p, long double, long double) {
         return lg(8) - lg(y + 1) - lg(8 - y) + y * std::log(p) + (7 - y) * std::log(1 - p);
       }},
      {"Poisson",
       "POISSON(b)",
       {0, 1, 12},
       [](long double y, long double, long double q, long double) { return -q - lg(1 + y) + y * std::log(q); }},
      {"NegativeBinomial",
       "NEGBIN(c, a)",
       {0, 1, 25},
       [](long double y, long double p, long double, long double n) {
         return lg(n + y) - lg(n) - lg(1 + y) + n * std::log(p) + y * std::log(1 - p);
       }},
      {"Gamma",
       "GAMMA(c, b)",
       {0.01, 1, 40},
       [](long double y, long double, long double scale, long double shape) {
         return -shape * std::log(scale) - lg(shape) + (shape - 1) * std::log(y) - y / scale;
       }},
      // A compound argument keeps its meaning: y - (a + b), not y - a + b.
      {"CompoundArgument",
       "NORMAL(a + b, b)",
       {-2, 3},
       [](long double y, long double p, long double q, long double) {
         return -0.5L * (std::log(2 * pi * q) + (y - p - q) * (y - p - q) / q);
       }},
  };
  return all;
}

class GeneratedDensity : public testing::TestWithParam<std::size_t> {};

TEST_P(GeneratedDensity, IsTheClosedForm)
{
  const Density& d = densities()[GetParam()];
  for (const double y : d.responses) {
    std::ostringstream csv;
    csv.precision(17);
    csv << "y\n" << y << "\n";
    const TemporaryFile data("density.csv", csv.str());
    const auto run =
        run_text("TORVALE DATA=d TECHNIQUE=NONE;\nPARMS a=0.7 b=1.3 c=4.5;\nunused = a + b + c;\nMODEL y ~ " +
                     std::string(d.model) + ";\nRUN;",
                 "examples", 0, {{"d", data.path()}});
    const auto objective = run.column("Parameters", "NegLogLike");
    ASSERT_EQ(objective.size(), 1u) << run.log;
    const double expected = static_cast<double>(-d.log_density(y, a, b, c));
    EXPECT_NEAR(objective[0], expected, 1e-13 * std::max(1.0, std::abs(expected))) << d.name << " at " << y;
  }
}

INSTANTIATE_TEST_SUITE_P(All, GeneratedDensity, testing::Range<std::size_t>(0, densities().size()),
                         [](const auto& tested) { return std::string(densities()[tested.param].name); });

// A missing response is no observation, not an impossible one; an impossible one makes the evaluation fail.
TEST(GeneratedGuards, TellMissingFromImpossible)
{
  const TemporaryFile data("guards.csv", "y,m\n1,1\n.,1\n2,.A\n3,1\n");
  const auto run = run_text("TORVALE DATA=d TECHNIQUE=NONE;\nPARMS a=0.7;\nMODEL y ~ POISSON(a*m);\nRUN;", "examples",
                            0, {{"d", data.path()}});
  EXPECT_EQ(run.column("Dimensions", "Value")[0], 2) << run.log;
  const TemporaryFile negative("negative.csv", "y\n1\n-1\n");
  const auto impossible =
      run_text("TORVALE DATA=d;\nPARMS a=0.7;\nMODEL y ~ POISSON(a);\nRUN;", "examples", 0, {{"d", negative.path()}});
  EXPECT_EQ(impossible.outcome.exit_code, 7) << impossible.log;
  EXPECT_TRUE(impossible.said(503, 9552)) << impossible.log;
}

} // namespace

} // namespace torvale::tests
