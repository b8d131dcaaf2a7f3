// Hardy integration: against a fine trapezoidal rule of its own in long doubles, for effects of any unit and subjects
// of any length; derivatives against differences; what an evaluation costs.

#include "integration/objective.h"
#include "integration/small_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace torvale::tests::trapezoid {

namespace {

enum class Family { binary, poisson, normal };

// eta = b0 + b1 x + u / unit, u of mean mu unit and variance g unit^2.
struct Draw {
  Family family = Family::binary;
  double unit = 1.0;
  struct Record {
    double x, y;
  };
  std::vector<std::vector<Record>> subjects;
  std::vector<double> weights; // per subject; empty: none
  std::vector<double> theta;   // b0, b1, mu, g
};

Draw draw(unsigned seed, int subjects, int most_records)
{
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  const auto pick = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
  Draw d;
  d.family = static_cast<Family>(pick(0, 2));
  for (int s = 0; s < subjects; ++s) {
    const double u = 0.8 * normal(random);
    auto& records = d.subjects.emplace_back();
    for (int k = pick(1, most_records); k > 0; --k) {
      const double x = normal(random), eta = 0.2 + u + 0.3 * x;
      records.push_back({x, d.family == Family::normal   ? eta + 0.7 * normal(random)
                            : d.family == Family::binary ? std::bernoulli_distribution(1 / (1 + std::exp(-eta)))(random)
                                                         : std::poisson_distribution<int>(std::exp(eta))(random)});
    }
    if (seed % 3 == 0) d.weights.push_back(pick(1, 3));
  }
  d.theta = {0.2, 0.3, 0.3 * normal(random), std::exp(normal(random))};
  return d;
}

ModelText text_of(const Draw& d)
{
  ModelText text;
  text.parameters = {"b0", "b1", "mu", "g"};
  text.effects = {"u"};
  text.prior = {Term("mu") * d.unit, Term("g") * (d.unit * d.unit)};
  const Term eta = "eta", y = "y", e = Term("y") - "eta";
  const Term ll = d.family == Family::normal   ? Term(-1.0) * e * e
                  : d.family == Family::binary ? y * eta - log(Term(1.0) + exp(eta))
                                               : y * eta - exp(eta) - lgamma(Term(1.0) + y);
  text.assignments = {{"eta", Term("b0") + Term("b1") * "x" + Term("u") / d.unit}, {"_ll", ll}};
  text.columns = {{"subject", {}}, {"x", {}}, {"y", {}}};
  for (std::size_t s = 0; s < d.subjects.size(); ++s)
    for (const auto& [x, y_value] : d.subjects[s]) {
      const double values[] = {1.0 + static_cast<double>(s), x, y_value};
      for (std::size_t c = 0; c < 3; ++c) text.columns[c].second.push_back(values[c]);
      if (!d.weights.empty()) text.weights.push_back(d.weights[s]);
    }
  return text;
}

long double log_density(Family family, long double eta, long double y)
{
  switch (family) {
  case Family::normal:
    return -(y - eta) * (y - eta);
  case Family::binary:
    return y * eta - std::log1p(std::exp(eta));
  default:
    return y * eta - std::exp(eta) - std::lgamma(1.0L + y);
  }
}

// By 3,000 points over 30 standard deviations a priori.
double plain_subject(const Draw& d, std::size_t s, const std::vector<double>& theta)
{
  const auto f = [&](long double z) {
    long double sum = -0.5L * z * z;
    for (const auto& [x, y] : d.subjects[s])
      sum += log_density(d.family,
                         theta[0] + theta[1] * x + theta[2] + std::sqrt(static_cast<long double>(theta[3])) * z, y);
    return sum;
  };
  long double centre = 0.0L, top = f(0.0L);
  for (long double step = 1.0L; step > 1e-4L; step *= 0.7L)
    for (const long double z : {centre - step, centre + step})
      if (const long double value = f(z); value > top) {
        top = value;
        centre = z;
      }
  constexpr long double h = 0.01L;
  long double sum = 0.0L;
  for (int k = -1500; k <= 1500; ++k) sum += std::exp(f(centre + h * k) - top);
  return static_cast<double>(-(std::log(sum * h) + top) + 0.91893853320467274178L);
}

constexpr Rule hardy{.adaptive = true, .adscale = false, .points = 0, .method = 2};

TEST(Trapezoid, IsTheIntegralInEveryUnit)
{
  for (unsigned seed = 1; seed <= 24; ++seed) {
    Draw d = draw(seed, 4, seed % 8 == 0 ? 60 : 9);
    double plain = 0.0;
    for (std::size_t s = 0; s < d.subjects.size(); ++s)
      plain += (d.weights.empty() ? 1.0 : d.weights[s]) * plain_subject(d, s, d.theta);
    for (const double unit : {1e-3, 1.0, 1e4}) {
      SCOPED_TRACE(testing::Message() << seed << " " << unit);
      d.unit = unit;
      const auto n = make_run(text_of(d), hardy);
      n->qtol = 1e-8;
      EXPECT_NEAR(objective(*n, d.theta), plain, 1e-9 * std::abs(plain));
    }
  }
}

TEST(Trapezoid, LongSubjects)
{
  Draw d = draw(2, 1, 1);
  d.subjects[0].assign(600, {0.5, 1.0});
  const auto n = make_run(text_of(d), hardy);
  const double plain = plain_subject(d, 0, d.theta);
  EXPECT_NEAR(objective(*n, d.theta), plain, 1e-9 * std::abs(plain));
}

// The default QTOL takes at most 100 evaluations of a subject, the search for its mode included.
TEST(Trapezoid, Cost)
{
  for (unsigned seed = 1; seed <= 12; ++seed) {
    const Draw d = draw(seed, 40, 9);
    const auto n = make_run(text_of(d), hardy);
    n->ncmprun = 0;
    objective(*n, d.theta);
    EXPECT_LT(static_cast<double>(n->ncmprun) / static_cast<double>(n->store->nobs), 100.0) << seed;
  }
}

TEST(Trapezoid, GradientAgreesWithDifferences)
{
  for (unsigned seed = 101; seed <= 130; ++seed) {
    SCOPED_TRACE(seed);
    Draw d = draw(seed, 5, 6);
    d.unit = seed % 2 == 0 ? 100.0 : 1.0;
    const auto n = make_run(text_of(d), hardy);
    objective(*n, d.theta, true);
    const auto gradient = n->objgrad;
    n->qtol = 1e-10;
    for (std::size_t j = 0; j < d.theta.size(); ++j) {
      const auto central = [&](double h) {
        auto up = d.theta, down = d.theta;
        up[j] += h;
        down[j] -= h;
        return (objective(*n, up) - objective(*n, down)) / (2.0 * h);
      };
      const double h = 1e-2 * d.theta[3];
      const double wide = (4.0 * central(h) - central(2 * h)) / 3.0, narrow = (4.0 * central(h / 2) - central(h)) / 3.0;
      EXPECT_NEAR(gradient[j], (16.0 * narrow - wide) / 15.0, 1e-6 * (1.0 + std::abs(gradient[j]))) << j;
    }
  }
}

// At a variance of 0 the derivative is that of a variance that rises.
TEST(Trapezoid, VarianceOfZero)
{
  for (unsigned seed = 201; seed <= 210; ++seed) {
    SCOPED_TRACE(seed);
    Draw d = draw(seed, 5, 6);
    d.theta[3] = 0.0;
    const auto n = make_run(text_of(d), hardy);
    n->qtol = 1e-10;
    const double value = objective(*n, d.theta, true), slope = n->objgrad[3];
    const auto forward = [&](double h) {
      auto at = d.theta;
      at[3] = h;
      return (objective(*n, at) - value) / h;
    };
    const double h = 1e-3;
    EXPECT_NEAR(slope, (8.0 * forward(h / 4) - 6.0 * forward(h / 2) + forward(h)) / 3.0,
                1e-4 * (1.0 + std::abs(slope)));
  }
}

TEST(Trapezoid, ThreadCountsAndCompanyGiveEqualBits)
{
  const Draw d = draw(7, 300, 7);
  const auto one = make_run(text_of(d), hardy);
  const double expected = objective(*one, d.theta, true);
  for (const int threads : {2, 3, 7}) {
    Rule rule = hardy;
    rule.threads = threads;
    const auto n = make_run(text_of(d), rule);
    EXPECT_EQ(objective(*n, d.theta, true), expected);
    EXPECT_EQ(n->objgrad, one->objgrad);
  }
  Draw alone = d;
  alone.subjects = {d.subjects[123]};
  if (!d.weights.empty()) alone.weights = {1.0};
  EXPECT_EQ(objective(*make_run(text_of(alone), hardy), d.theta), one->slot_value[123]);
}

} // namespace

} // namespace torvale::tests::trapezoid
