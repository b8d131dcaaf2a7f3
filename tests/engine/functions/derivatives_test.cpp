#include "engine/functions/plain_graph.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

// Every smooth function: its derivatives by each argument, alone and mixed, to third order, against differences of the
// derivative one order lower (of the function itself for the first order).

namespace torvale::engine {
namespace {

struct Case {
  const char* function;     // a function of the language; or of a distribution
  const char* distribution; // name, or null
  std::vector<std::vector<double>> points;
  int fixed = 0; // leading arguments that are data (whole numbers): not differentiated by
};

// A table, by function.
// clang-format off
const Case smooth_functions[] = {
    {"ABS", nullptr, {{-2.0}, {3.0}}},
    {"MOD", nullptr, {{7.3, 2.1}}},
    {"SECOND", nullptr, {{7.3}}},
    {"TIMEPART", nullptr, {{7.3}}},
    {"HMS", nullptr, {{1.5, 2.0, 3.0}}},
    {"DHMS", nullptr, {{1.5, 2.0, 3.0, 4.0}}},
    {"SQRT", nullptr, {{2.0}}},
    {"EXP", nullptr, {{0.7}}},
    {"EXPM1", nullptr, {{1e-3}}},
    {"EXPMEAN", nullptr, {{-3.0, 0.4}, {1e-4, 0.0}, {0.9, 0.8}, {4.0, 9.0}}},
    {"LOG", nullptr, {{0.3}}},
    {"LOG1P", nullptr, {{0.3}}},
    {"LOG2", nullptr, {{3.0}}},
    {"LOG10", nullptr, {{3.0}}},
    {"LOGISTIC", nullptr, {{-2.0}, {0.4}, {5.0}}},
    {"SOFTPLUS", nullptr, {{-2.0}, {0.4}, {5.0}}},
    {"LOGIT", nullptr, {{0.2}, {0.7}}},
    {"LOGSUMEXP", nullptr, {{0.3, -0.8, 1.1}}},
    {"SIN", nullptr, {{0.6}}},
    {"COS", nullptr, {{0.6}}},
    {"TAN", nullptr, {{0.6}}},
    {"ASIN", nullptr, {{0.4}}},
    {"ACOS", nullptr, {{0.4}}},
    {"ATAN", nullptr, {{0.4}}},
    {"ATAN2", nullptr, {{0.4, -0.7}}},
    {"SINH", nullptr, {{0.6}}},
    {"COSH", nullptr, {{0.6}}},
    {"TANH", nullptr, {{0.6}, {-3.0}}},
    {"ASINH", nullptr, {{0.6}}},
    {"ACOSH", nullptr, {{1.6}}},
    {"ATANH", nullptr, {{0.6}}},
    {"ERF", nullptr, {{0.6}}},
    {"ERFC", nullptr, {{1.6}}},
    {"GAMMA", nullptr, {{2.3}, {-1.4}}},
    {"LGAMMA", nullptr, {{2.3}, {-1.4}, {40.0}}},
    {"LGAMMARATIO", nullptr, {{2.3, 1.6}, {40.0, 0.5}}},
    {"DIGAMMA", nullptr, {{2.3}, {-1.4}}},
    {"TRIGAMMA", nullptr, {{2.3}, {0.4}}},
    {"BETA", nullptr, {{1.3, 2.4}}},
    {"LBETA", nullptr, {{1.3, 2.4}, {30.0, 0.5}}},
    {"COMB", nullptr, {{7.3, 2.2}}},
    {"LCOMB", nullptr, {{7.3, 2.2}}},
    {"FACT", nullptr, {{2.6}}},
    {"LFACT", nullptr, {{2.6}}},
    {"PHI", nullptr, {{-1.3}}},
    {"PROBIT", nullptr, {{0.2}, {0.75}}},
    {"MIN", nullptr, {{1.0, 2.0, 0.5}}},
    {"MAX", nullptr, {{1.0, 2.0, 0.5}}},
    {"SUM", nullptr, {{1.0, 2.0, 0.5}}},
    {"MEAN", nullptr, {{1.0, 2.0, 0.5}}},
    {"VAR", nullptr, {{1.0, 2.0, 0.5}}},
    {"STD", nullptr, {{1.0, 2.0, 0.5}}},
    {"LOGPDF", "normal", {{0.4, 0.1, 1.3}}},
    {"PDF", "normal", {{0.4, 0.1, 1.3}}},
    {"CDF", "normal", {{0.4, 0.1, 1.3}}},
    {"SDF", "normal", {{0.4, 0.1, 1.3}}},
    {"LOGCDF", "normal", {{-3.0, 0.1, 1.3}, {0.4, 0.1, 1.3}}},
    {"LOGSDF", "normal", {{3.0, 0.1, 1.3}}},
    {"QUANTILE", "normal", {{0.3, 0.1, 1.3}}},
    {"LOGPDF", "t", {{0.4, 5.0}, {-2.0, 1.5}}},
    {"CDF", "t", {{-1.4, 5.0}, {0.8, 2.5}}},
    {"LOGCDF", "t", {{-1.4, 5.0}, {0.8, 2.5}}},
    {"LOGSDF", "t", {{1.4, 5.0}}},
    {"QUANTILE", "t", {{0.2, 5.0}, {0.7, 2.5}}},
    {"LOGPDF", "chisquare", {{3.4, 5.0}}},
    {"CDF", "chisquare", {{3.4, 5.0}}},
    {"LOGSDF", "chisquare", {{8.4, 5.0}}},
    {"QUANTILE", "chisquare", {{0.4, 5.0}}},
    {"LOGPDF", "f", {{1.4, 5.0, 7.0}, {0.2, 5.0, 7.0}}},
    {"CDF", "f", {{1.4, 5.0, 7.0}, {0.2, 5.0, 7.0}}},
    {"LOGSDF", "f", {{1.4, 5.0, 7.0}}},
    {"QUANTILE", "f", {{0.4, 5.0, 7.0}}},
    {"LOGPDF", "beta", {{0.3, 2.0, 3.5}}},
    {"CDF", "beta", {{0.3, 2.0, 3.5}, {0.8, 0.7, 1.4}}},
    {"LOGCDF", "beta", {{0.3, 2.0, 3.5}}},
    {"SDF", "beta", {{0.3, 2.0, 3.5}}},
    {"LOGSDF", "beta", {{0.3, 2.0, 3.5}}},
    {"QUANTILE", "beta", {{0.6, 2.0, 3.5}}},
    {"LOGPDF", "gamma", {{1.7, 2.2, 0.8}}},
    {"CDF", "gamma", {{1.7, 2.2, 0.8}, {6.0, 2.2, 0.8}}},
    {"LOGCDF", "gamma", {{1.7, 2.2, 0.8}, {6.0, 2.2, 0.8}}},
    {"SDF", "gamma", {{1.7, 2.2, 0.8}}},
    {"LOGSDF", "gamma", {{1.7, 2.2, 0.8}, {6.0, 2.2, 0.8}}},
    {"QUANTILE", "gamma", {{0.6, 2.2, 0.8}}},
    {"LOGPDF", "exponential", {{1.7, 0.8}}},
    {"LOGCDF", "exponential", {{0.2, 0.8}, {3.7, 0.8}}},
    {"LOGPDF", "weibull", {{1.7, 2.2, 0.8}}},
    {"CDF", "weibull", {{1.7, 2.2, 1.8}}},
    {"LOGCDF", "weibull", {{1.7, 2.2, 1.8}}},
    {"LOGSDF", "weibull", {{1.7, 2.2, 1.8}}},
    {"QUANTILE", "weibull", {{0.3, 2.2, 1.8}}},
    {"LOGPDF", "lognormal", {{1.7, 0.2, 0.8}}},
    {"LOGCDF", "lognormal", {{1.7, 0.2, 0.8}}},
    {"SDF", "lognormal", {{1.7, 0.2, 0.8}}},
    {"QUANTILE", "lognormal", {{0.3, 0.2, 0.8}}},
    {"LOGPDF", "logistic", {{1.7, 0.2, 0.8}, {-1.7, 0.2, 0.8}}},
    {"CDF", "logistic", {{1.7, 0.2, 0.8}}},
    {"LOGCDF", "logistic", {{1.7, 0.2, 0.8}}},
    {"LOGSDF", "logistic", {{1.7, 0.2, 0.8}}},
    {"QUANTILE", "logistic", {{0.3, 0.2, 0.8}}},
    {"LOGPDF", "uniform", {{0.7, 0.2, 1.8}}},
    {"CDF", "uniform", {{0.7, 0.2, 1.8}}},
    {"LOGSDF", "uniform", {{0.7, 0.2, 1.8}}},
    {"QUANTILE", "uniform", {{0.3, 0.2, 1.8}}},
    {"LOGPDF", "binomial", {{3, 10, 0.4}, {0, 10, 0.4}, {10, 10, 0.4}}, 2},
    {"CDF", "binomial", {{3, 10, 0.4}}, 2},
    {"LOGSDF", "binomial", {{3, 10, 0.4}}, 2},
    {"LOGPDF", "poisson", {{3, 2.4}, {0, 2.4}}, 1},
    {"CDF", "poisson", {{3, 2.4}}, 1},
    {"LOGCDF", "poisson", {{3, 2.4}}, 1},
    {"LOGSDF", "poisson", {{3, 2.4}}, 1},
    {"LOGPDF", "negbinomial", {{3, 2.4, 0.4}, {0, 2.4, 0.4}, {7, 300.0, 0.5}}, 1},
    {"CDF", "negbinomial", {{3, 2.4, 0.4}}, 1},
    {"LOGCDF", "negbinomial", {{3, 2.4, 0.4}}, 1},
    {"LOGSDF", "negbinomial", {{3, 2.4, 0.4}}, 1},
    {"LOGPDF", "geometric", {{3, 0.4}}, 1},
    {"CDF", "geometric", {{3, 0.4}}, 1},
    {"LOGCDF", "geometric", {{3, 0.4}}, 1},
    {"LOGSDF", "geometric", {{3, 0.4}}, 1},
    {"LOGPDF", "bernoulli", {{1, 0.4}, {0, 0.4}}, 1},
    {"LOGCDF", "bernoulli", {{0, 0.4}}, 1},
};
// clang-format on

// Derivative by a difference of sixth order with steps h.
double difference(const std::function<double(double)>& f, double h)
{
  return (45 * (f(h) - f(-h)) - 9 * (f(2 * h) - f(-2 * h)) + (f(3 * h) - f(-3 * h))) / (60 * h);
}

class DerivativesOf : public testing::TestWithParam<Case> {};

TEST_P(DerivativesOf, AgreeWithDifferencesToThirdOrder)
{
  const Case& c = GetParam();
  GraphBuilder g;
  const std::size_t count = c.points[0].size();
  std::vector<NodeId> symbols;
  for (std::size_t k = 0; k < count; ++k) symbols.push_back(g.symbol(static_cast<std::int32_t>(k)));
  const LanguageFunction* f = find_function(c.function);
  ASSERT_NE(f, nullptr);
  std::string error;
  const NodeId value = c.distribution == nullptr ? expand_function(g, *f, symbols, &error)
                                                 : expand_distribution(g, f->question, c.distribution, symbols, &error);
  ASSERT_NE(value, no_node) << error;

  const GraphBuilder::Derivative mode(g);
  std::vector<Differentiator> by;
  for (const NodeId s : symbols) by.emplace_back(g, s);
  // Mixed derivatives with ascending variables: each is checked against a difference of the one before it.
  const std::function<void(NodeId, std::size_t, int, const std::string&)> check =
      [&](NodeId node, std::size_t first, int order, const std::string& path) {
        for (std::size_t k = first; k < count; ++k) {
          if (static_cast<int>(k) < c.fixed) continue;
          const NodeId d = by[k](node);
          const std::string name = path + "/" + std::to_string(k);
          ASSERT_NE(d, no_node) << "no rule for " << name;
          for (const std::vector<double>& at : c.points) {
            const double step = 2e-3 * std::fmin(1.0, std::fmax(std::fabs(at[k]), 0.05));
            const double truth = difference(
                [&](double h) {
                  std::vector<double> moved = at;
                  moved[k] += h;
                  return evaluate(g, node, moved);
                },
                step);
            const double scale = std::fabs(evaluate(g, node, at)) + std::fabs(truth);
            EXPECT_NEAR(evaluate(g, d, at), truth, 3e-9 * scale + 1e-10) << name << " at " << at[0];
          }
          if (order < 3) check(d, k, order + 1, name);
        }
      };
  check(value, 0, 1, "d");
}

INSTANTIATE_TEST_SUITE_P(Functions, DerivativesOf, testing::ValuesIn(smooth_functions), [](const auto& test) {
  return std::string(test.param.function) +
         (test.param.distribution == nullptr ? "" : std::string("_") + test.param.distribution);
});

// No smooth function is left out of the table above.
TEST(Derivatives, EverySmoothFunctionIsChecked)
{
  const std::vector<std::string> not_smooth = {"SIGN",  "INT",     "FLOOR",    "CEIL",      "ROUND",  "N",
                                               "NMISS", "MISSING", "COALESCE", "CUBICROOT", "YEAR",   "MONTH",
                                               "DAY",   "WEEKDAY", "MDY",      "HOUR",      "MINUTE", "DATEPART"};
  for (const LanguageFunction& f : language_functions()) {
    if (f.name.front() == '_') continue; // of generated statements: checked as part of them
    if (f.expand == nullptr || std::find(not_smooth.begin(), not_smooth.end(), f.name) != not_smooth.end()) continue;
    const bool checked = std::any_of(std::begin(smooth_functions), std::end(smooth_functions),
                                     [&](const Case& c) { return f.name == c.function; });
    EXPECT_TRUE(checked) << f.name;
  }
}

double derivative_at(NodeId (*make)(GraphBuilder&, NodeId, NodeId), int by, double a, double b)
{
  GraphBuilder g;
  const NodeId x = g.symbol(0), y = g.symbol(1), value = make(g, x, y);
  const GraphBuilder::Derivative mode(g);
  return evaluate(g, Differentiator(g, by == 0 ? x : y)(value), {a, b});
}

// Where the formula divides by zero or takes its logarithm the derivative is a fixed finite value.
TEST(Derivatives, RemovablePointsGiveFiniteValues)
{
  const auto power = [](GraphBuilder& g, NodeId x, NodeId y) { return g.power(x, y); };
  EXPECT_EQ(derivative_at(power, 1, 0.0, 0.7), 0.0); // 0 ** b is constant in b > 0
  EXPECT_EQ(derivative_at(power, 0, 0.0, 2.5), 0.0);
  EXPECT_EQ(derivative_at(power, 0, 0.0, 1.0), 1.0);
  EXPECT_EQ(derivative_at([](GraphBuilder& g, NodeId x, NodeId) { return g.power(x, g.constant(2)); }, 0, 0.0, 0.0),
            0.0);
  EXPECT_EQ(derivative_at([](GraphBuilder& g, NodeId x, NodeId) { return g.call(Kernel::sqrt, x); }, 0, 0.0, 0.0), 0.0);
  EXPECT_EQ(derivative_at([](GraphBuilder& g, NodeId x, NodeId) { return g.call(Kernel::absolute, x); }, 0, 0.0, 0.0),
            1.0);
  EXPECT_EQ(derivative_at(least_of, 0, 2.0, 2.0) + derivative_at(least_of, 1, 2.0, 2.0), 1.0); // a tie: one side
  EXPECT_EQ(derivative_at(greatest_of, 0, 2.0, 2.0) + derivative_at(greatest_of, 1, 2.0, 2.0), 1.0);
}

// Far out the distribution of F goes by the distance of n x / (n x + d) from 1.
TEST(Derivatives, OfFKeepTheirDigitsFarOut)
{
  for (const char* const question : {"LOGPDF", "CDF", "LOGSDF"})
    for (std::size_t by = 0; by < 2; ++by) {
      GraphBuilder g;
      const NodeId arguments[] = {g.constant(1e12), g.symbol(0), g.symbol(1)};
      std::string error;
      const NodeId value = expand_distribution(g, find_function(question)->question, "f", arguments, &error);
      const GraphBuilder::Derivative mode(g);
      const NodeId slope = Differentiator(g, arguments[1 + by])(value);
      const std::vector<double> at = {55.4, 0.65};
      const double truth = difference(
          [&](double h) {
            std::vector<double> moved = at;
            moved[by] += h;
            return evaluate(g, value, moved);
          },
          0.01 * at[by]);
      EXPECT_NEAR(evaluate(g, slope, at), truth, 1e-5 * std::fabs(truth) + 1e-12) << question << " by " << by;
    }
}

// The operand that is not taken may have no derivative at all.
TEST(Derivatives, TheOperandNotTakenHasNoInfluence)
{
  const auto clipped = [](GraphBuilder& g, NodeId x, NodeId y) { // MIN(y, log x)
    std::string error;
    const NodeId arguments[] = {y, g.call(Kernel::log, x)};
    return expand_function(g, *find_function("MIN"), arguments, &error);
  };
  EXPECT_EQ(derivative_at(clipped, 1, -1.0, 3.0), 1.0); // log(-1) is missing and passed over
}

} // namespace
} // namespace torvale::engine
