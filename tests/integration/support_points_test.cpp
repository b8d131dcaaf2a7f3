// Random effects with finitely many values, on random mixtures: against plain loops over subjects, points and records,
// and derivatives against differences.

#include "integration/objective.h"
#include "integration/posterior/posterior.h"
#include "integration/small_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace torvale::tests {

namespace {

constexpr double log_two_pi = 1.8378770664093456;

// y ~ normal(b0 + u + (b1 + v) x, s2), or Poisson with the exponential of that mean. With `by_group` the first
// probability and coordinate move with a value of the subject, g.
struct Mixture {
  int effects = 1, points = 2; // points: those that the statement gives
  bool poisson = false, by_group = false;
  struct Record {
    double x, y;
  };
  std::vector<std::vector<Record>> subjects;
  std::vector<double> group, weight;
  std::vector<double> theta; // b0, b1, s2, then rows of coordinates and a probability
};

Mixture draw(unsigned seed)
{
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  const auto pick = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
  Mixture m;
  m.effects = pick(1, 2);
  m.points = pick(1, 3);
  m.poisson = pick(0, 1) == 1;
  m.by_group = pick(0, 2) == 0;
  const bool weighted = pick(0, 3) == 0;
  const int subjects = pick(1, seed % 5 == 0 ? 90 : 12);
  for (int s = 0; s < subjects; ++s) {
    const double class_mean = pick(0, m.points) - 0.5 * m.points;
    m.group.push_back(normal(random));
    if (weighted) m.weight.push_back(pick(1, 3));
    auto& records = m.subjects.emplace_back();
    for (int k = pick(1, 7); k > 0; --k) {
      const double x = normal(random), mean = 0.3 + class_mean + 0.2 * x;
      records.push_back(
          {x, m.poisson ? std::poisson_distribution<int>(std::exp(0.5 * mean))(random) : mean + 0.8 * normal(random)});
    }
  }
  m.theta = {0.3 + 0.1 * normal(random), 0.2, 0.7};
  for (int t = 0; t < m.points; ++t) {
    for (int k = 0; k < m.effects; ++k) m.theta.push_back(t - 1.0 + 0.3 * normal(random));
    m.theta.push_back((0.4 + 0.5 * std::uniform_real_distribution<double>()(random)) / (m.points + 1));
  }
  return m;
}

ModelText text_of(const Mixture& m)
{
  ModelText text;
  text.parameters = {"b0", "b1", "s2"};
  text.effects = {"u"};
  Term slope = "b1";
  if (m.effects == 2) {
    text.effects.push_back("v");
    slope = slope + "v";
  }
  for (int t = 0; t < m.points; ++t)
    for (int k = 0; k <= m.effects; ++k) {
      text.parameters.push_back("a" + std::to_string(t) + std::to_string(k));
      Term argument = text.parameters.back().c_str();
      if (m.by_group && t == 0) argument = argument * exp(Term(0.1) * "g");
      text.prior.push_back(argument);
    }
  const Term eta = Term("b0") + "u" + slope * "x", y = "y", s2 = "s2", e = Term("y") - "eta";
  const Term normal = Term(-0.5) * (Term(log_two_pi) + e * e / s2 + log(s2)),
             poisson = y * "eta" - exp("eta") - lgamma(Term(1.0) + y);
  text.assignments = {{"eta", eta}, {"_ll", m.poisson ? poisson : normal}};
  text.columns = {{"subject", {}}, {"x", {}}, {"y", {}}, {"g", {}}};
  for (std::size_t s = 0; s < m.subjects.size(); ++s)
    for (const auto& record : m.subjects[s]) {
      const double values[] = {100.0 + static_cast<double>(s), record.x, record.y, m.group[s]};
      for (std::size_t c = 0; c < 4; ++c) text.columns[c].second.push_back(values[c]);
      if (!m.weight.empty()) text.weights.push_back(m.weight[s]);
    }
  return text;
}

using Point = std::vector<long double>;

// Terms p_t exp(l_t) of a subject, the derived point last.
std::vector<long double> terms(const Mixture& m, const Point& theta, std::size_t subject)
{
  const int width = m.effects + 1;
  std::vector<long double> rows, last(static_cast<std::size_t>(width), 0.0L);
  last.back() = 1.0L;
  for (int t = 0; t < m.points; ++t)
    for (int k = 0; k < width; ++k)
      rows.push_back(theta[static_cast<std::size_t>(3 + t * width + k)] *
                     (m.by_group && t == 0 ? std::exp(0.1L * m.group[subject]) : 1.0L));
  for (int t = 0; t < m.points; ++t) {
    const long double p = rows[static_cast<std::size_t>(t * width + m.effects)];
    last.back() -= p;
    for (int k = 0; k < m.effects; ++k)
      last[static_cast<std::size_t>(k)] -= p * rows[static_cast<std::size_t>(t * width + k)];
  }
  for (int k = 0; k < m.effects; ++k) last[static_cast<std::size_t>(k)] /= last.back();
  rows.insert(rows.end(), last.begin(), last.end());
  std::vector<long double> result;
  for (int t = 0; t <= m.points; ++t) {
    const long double* const row = rows.data() + t * width;
    long double ll = 0.0L;
    for (const auto& [x, y] : m.subjects[subject]) {
      const long double eta = theta[0] + row[0] + (theta[1] + (m.effects == 2 ? row[1] : 0.0L)) * x;
      ll += m.poisson ? y * eta - std::exp(eta) - std::lgamma(1.0L + y)
                      : -0.5L * (log_two_pi + (y - eta) * (y - eta) / theta[2] + std::log(theta[2]));
    }
    result.push_back(row[m.effects] * std::exp(ll));
  }
  return result;
}

long double plain_objective(const Mixture& m, const Point& theta)
{
  long double sum = 0.0L;
  for (std::size_t s = 0; s < m.subjects.size(); ++s) {
    long double integral = 0.0L;
    for (const long double term : terms(m, theta, s)) integral += term;
    sum -= (m.weight.empty() ? 1.0 : m.weight[s]) * std::log(integral);
  }
  return sum;
}

Point point_of(const std::vector<double>& theta)
{
  return {theta.begin(), theta.end()};
}

// Central differences, extrapolated, of any number of values.
template <class Values> std::vector<double> differences(Values values, const Point& theta, std::size_t j)
{
  const auto moved = [&](long double step) {
    auto at = theta;
    at[j] += step;
    return values(at);
  };
  constexpr long double h = 1e-4L;
  const auto up = moved(h), down = moved(-h), up2 = moved(2 * h), down2 = moved(-2 * h);
  std::vector<double> result;
  for (std::size_t k = 0; k < up.size(); ++k)
    result.push_back(static_cast<double>((8.0L * (up[k] - down[k]) - (up2[k] - down2[k])) / (12.0L * h)));
  return result;
}

constexpr Rule discrete{.adaptive = false, .adscale = false, .points = 0, .method = 4};

TEST(SupportPoints, AgreeWithPlainSumsAndDifferences)
{
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(seed);
    const Mixture m = draw(seed);
    const auto n = make_run(text_of(m), discrete);
    const double value = objective(*n, m.theta, true);
    const auto plain = static_cast<double>(plain_objective(m, point_of(m.theta)));
    EXPECT_NEAR(value, plain, 1e-12 * (1.0 + std::abs(plain)));
    for (std::size_t j = 0; j < m.theta.size(); ++j) {
      const auto d = differences([&](const auto& at) { return std::vector<long double>{plain_objective(m, at)}; },
                                 point_of(m.theta), j);
      EXPECT_NEAR(n->objgrad[j], d[0], 1e-7 * (1.0 + std::abs(d[0]))) << j;
    }
  }
}

TEST(SupportPoints, PosteriorProbabilitiesAndTheirDerivatives)
{
  for (unsigned seed = 301; seed <= 340; ++seed) {
    SCOPED_TRACE(seed);
    const Mixture m = draw(seed);
    Rule rule = discrete;
    rule.effects_wanted = true;
    const auto n = make_run(text_of(m), rule);
    objective(*n, m.theta);
    integration::Posterior p;
    ASSERT_EQ(integration::find_posterior(*n, p), 0);
    ASSERT_EQ(p.points, m.points + 1);
    const auto points = static_cast<std::size_t>(p.points), np = m.theta.size();
    for (std::size_t s = 0; s < m.subjects.size(); ++s) {
      const auto probabilities = [&](const Point& theta) {
        auto w = terms(m, theta, s);
        long double sum = 0.0L;
        for (const long double term : w) sum += term;
        for (long double& term : w) term /= sum;
        return w;
      };
      const auto plain = probabilities(point_of(m.theta));
      for (std::size_t t = 0; t < points; ++t)
        EXPECT_NEAR(p.probability[s * points + t], static_cast<double>(plain[t]), 1e-13);
      for (std::size_t j = 0; j < np; ++j) {
        const auto d = differences(probabilities, point_of(m.theta), j);
        for (std::size_t t = 0; t < points; ++t)
          EXPECT_NEAR(p.probability_by[(s * points + t) * np + j], d[t], 1e-8) << j << " " << t;
      }
    }
  }
}

// A point whose probability is 0 is not in the sum, but its derivative is that of a probability that rises; below 0
// there is no likelihood.
TEST(SupportPoints, ProbabilitiesAtTheirBounds)
{
  for (unsigned seed = 401; seed <= 420; ++seed) {
    SCOPED_TRACE(seed);
    Mixture m = draw(seed);
    if (m.points < 2) continue; // the last point would be certain
    const std::size_t p = 3 + static_cast<std::size_t>(m.effects);
    m.theta[p] = 0.0;
    const auto n = make_run(text_of(m), discrete);
    const double value = objective(*n, m.theta, true);
    const double slope = n->objgrad[p];
    EXPECT_NEAR(value, static_cast<double>(plain_objective(m, point_of(m.theta))), 1e-12 * std::abs(value));
    const auto above = [&](double h) {
      Point at = point_of(m.theta);
      at[p] = h;
      return static_cast<double>((plain_objective(m, at) - plain_objective(m, point_of(m.theta))) / h);
    };
    const double h = 1e-9;
    EXPECT_NEAR(slope, (8.0 * above(h / 4) - 6.0 * above(h / 2) + above(h)) / 3.0, 1e-5 * (1.0 + std::abs(slope)));
    auto outside = m.theta;
    outside[p] = -1e-9;
    EXPECT_EQ(objective(*n, outside), model::failure_objective);
    EXPECT_EQ(n->slot_status[0], 131);
    outside[p] = 5.0; // nothing is left for the last point
    EXPECT_EQ(objective(*n, outside), model::failure_objective);
  }
}

TEST(SupportPoints, ThreadCountsGiveEqualBits)
{
  Mixture m = draw(5);
  const std::size_t drawn = m.subjects.size();
  while (m.subjects.size() < 400) {
    const std::size_t s = m.subjects.size() % drawn;
    m.subjects.push_back(m.subjects[s]);
    m.group.push_back(m.group[s]);
    if (!m.weight.empty()) m.weight.push_back(1.0);
  }
  const auto text = text_of(m);
  const auto one = make_run(text, discrete);
  const double expected = objective(*one, m.theta, true);
  for (const int threads : {2, 3, 7}) {
    Rule rule = discrete;
    rule.threads = threads;
    const auto n = make_run(text, rule);
    EXPECT_EQ(objective(*n, m.theta, true), expected);
    EXPECT_EQ(n->objgrad, one->objgrad);
  }
}

} // namespace

} // namespace torvale::tests
