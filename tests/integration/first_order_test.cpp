// The mean taken as linear in the random effects: on random models against a dense normal density, and derivatives
// against differences.

#include "engine/stages/native_stage.h"
#include "integration/objective.h"
#include "integration/posterior/posterior.h"
#include "integration/small_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace torvale::tests::first_order {

namespace {

constexpr double log_two_pi = 1.8378770664093456;

// y ~ normal(exp(b0 + u + (b1 + v) x) + w x + q x^2, s2 exp(rise x)), with as many of the effects u, v, w, q as asked.
// Their means are a, 0, 0.2 a, 0; their covariance has variances g and c off the diagonal, all times the subject's size
// with `varies`.
struct Draw {
  int effects = 1;
  bool varies = false, weighted = false;
  double rise = 0.3; // of the log variance; 0: records have it in common
  struct Record {
    double x, y;
  };
  std::vector<std::vector<Record>> subjects;
  std::vector<double> size, theta; // b0, b1, s2, a, c, then g per effect
};

Draw draw(unsigned seed)
{
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  const auto pick = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
  Draw d;
  d.effects = pick(1, 4);
  d.varies = pick(0, 2) == 0;
  d.weighted = pick(0, 3) == 0;
  const int subjects = pick(1, 9);
  for (int s = 0; s < subjects; ++s) {
    const double u = 0.4 * normal(random), v = 0.3 * normal(random);
    d.size.push_back(pick(1, 3));
    auto& records = d.subjects.emplace_back();
    for (int k = pick(1, 8); k > 0; --k) {
      const double x = uniform(random);
      records.push_back({x, std::exp(0.4 + u + (0.3 + v) * x) + 0.4 * normal(random)});
    }
  }
  d.theta = {0.3 + 0.2 * uniform(random), 0.3, 0.2 + 0.2 * uniform(random), 0.1, 0.02};
  for (int e = 0; e < d.effects; ++e) d.theta.push_back(0.1 + 0.3 * uniform(random));
  if (pick(0, 1) == 0) d.rise = 0.0;
  return d;
}

ModelText text_of(const Draw& d)
{
  const char* const names[] = {"u", "v", "w", "q"};
  const char* const variances[] = {"g0", "g1", "g2", "g3"};
  ModelText text;
  text.parameters = {"b0", "b1", "s2", "a", "c"};
  for (int e = 0; e < d.effects; ++e) {
    text.effects.emplace_back(names[e]);
    text.parameters.emplace_back(variances[e]);
  }
  text.prior = {Term("a")};
  if (d.effects > 1) text.prior.emplace_back(0.0);
  if (d.effects > 2) text.prior.push_back(Term(0.2) * "a");
  if (d.effects > 3) text.prior.emplace_back(0.0);
  for (int i = 0; i < d.effects; ++i)
    for (int j = 0; j <= i; ++j) {
      const Term element = i == j ? variances[i] : "c";
      text.prior.push_back(d.varies ? element * "size" : element);
    }
  Term mean = exp(Term("b0") + "u" + (d.effects > 1 ? Term("b1") + "v" : Term("b1")) * "x");
  if (d.effects > 2) mean = mean + Term("w") * "x";
  if (d.effects > 3) mean = mean + Term("q") * "x" * "x";
  const Term e = Term("y") - "eta";
  text.assignments = {{"eta", mean},
                      {"var", d.rise == 0.0 ? Term("s2") : Term("s2") * exp(Term(d.rise) * "x")},
                      {"_ll", Term(-0.5) * (Term(log_two_pi) + e * e / "var" + log("var"))}};
  text.columns = {{"subject", {}}, {"x", {}}, {"y", {}}, {"size", {}}};
  for (std::size_t s = 0; s < d.subjects.size(); ++s)
    for (const auto& record : d.subjects[s]) {
      const double values[] = {100.0 + static_cast<double>(s), record.x, record.y, d.size[s]};
      for (std::size_t c = 0; c < 4; ++c) text.columns[c].second.push_back(values[c]);
      if (d.weighted) text.weights.push_back(1.0 + static_cast<double>(s % 3));
    }
  return text;
}

// Half of log |V| + e'V^-1 e + k log 2 pi, by Cholesky's factorization of the covariance of all records of a subject.
double dense_objective(std::vector<std::vector<long double>> v, std::vector<long double> e)
{
  long double sum = 0.0L;
  for (std::size_t i = 0; i < e.size(); ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      for (std::size_t k = 0; k < j; ++k) v[i][j] -= v[i][k] * v[j][k];
      v[i][j] = i == j ? std::sqrt(v[i][i]) : v[i][j] / v[j][j];
    }
    for (std::size_t k = 0; k < i; ++k) e[i] -= v[i][k] * e[k];
    e[i] /= v[i][i];
    sum += 0.5L * (log_two_pi + e[i] * e[i]) + std::log(v[i][i]);
  }
  return static_cast<double>(sum);
}

// `expansion`: per subject the effects that the mean is expanded around; empty: their means.
double plain_objective(const Draw& d, const std::vector<double>& theta, const std::vector<double>& expansion)
{
  const auto nr = static_cast<std::size_t>(d.effects);
  double sum = 0.0;
  for (std::size_t s = 0; s < d.subjects.size(); ++s) {
    const double means[] = {theta[3], 0.0, 0.2 * theta[3], 0.0};
    std::vector<double> u(means, means + nr);
    if (!expansion.empty()) std::copy_n(expansion.begin() + static_cast<long>(s * nr), nr, u.begin());
    const std::size_t count = d.subjects[s].size();
    std::vector<std::vector<long double>> z(count), v(count, std::vector<long double>(count));
    std::vector<long double> e(count);
    for (std::size_t i = 0; i < count; ++i) {
      const auto [x, y] = d.subjects[s][i];
      const long double curve = std::exp(theta[0] + u[0] + (theta[1] + (nr > 1 ? u[1] : 0.0)) * x);
      z[i] = {curve, curve * x, x, x * x};
      e[i] = y - curve - (nr > 2 ? u[2] * x : 0.0) - (nr > 3 ? u[3] * x * x : 0.0);
      for (std::size_t k = 0; k < nr; ++k) e[i] += z[i][k] * (u[k] - means[k]);
      for (std::size_t j = 0; j <= i; ++j)
        for (std::size_t k = 0; k < nr; ++k)
          for (std::size_t l = 0; l < nr; ++l)
            v[i][j] += z[i][k] * z[j][l] * (k == l ? theta[5 + k] : theta[4]) * (d.varies ? d.size[s] : 1.0);
      v[i][i] += theta[2] * std::exp(d.rise * x);
    }
    sum += (d.weighted ? 1.0 + static_cast<double>(s % 3) : 1.0) * dense_objective(v, e);
  }
  return sum;
}

Rule first_order(bool at_modes)
{
  return {.adaptive = at_modes, .adscale = false, .points = 0, .method = 1};
}

void expect_gradient(model::NX& n, const std::vector<double>& theta, const std::vector<double>& gradient)
{
  for (std::size_t j = 0; j < theta.size(); ++j) {
    const auto central = [&](double h) {
      auto up = theta, down = theta;
      up[j] += h;
      down[j] -= h;
      return (objective(n, up) - objective(n, down)) / (2.0 * h);
    };
    constexpr double h = 1e-3;
    const double wide = (4.0 * central(h) - central(2 * h)) / 3.0, narrow = (4.0 * central(h / 2) - central(h)) / 3.0;
    const double difference = (16.0 * narrow - wide) / 15.0;
    EXPECT_NEAR(gradient[j], difference, 2e-8 * (1.0 + std::abs(difference))) << j;
  }
}

TEST(FirstOrder, IsTheDenseNormalDensity)
{
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    const Draw d = draw(seed);
    const auto n = make_run(text_of(d), first_order(seed % 2 == 0));
    const double value = objective(*n, d.theta, true);
    ASSERT_LT(value, model::failure_objective);
    const double plain = plain_objective(d, d.theta, n->lb ? n->ebtrial : std::vector<double>{});
    EXPECT_NEAR(value, plain, 1e-11 * (1.0 + std::abs(plain)));
    const auto gradient = n->objgrad;
    integration::accept_modes(*n);
    expect_gradient(*n, d.theta, gradient);
  }
}

// A covariance matrix without inverse: the density stays the normal one, and a variance of 0 has the gradient of one
// that rises.
TEST(FirstOrder, SingularCovariance)
{
  for (unsigned seed = 201; seed <= 230; ++seed) {
    SCOPED_TRACE(seed);
    Draw d = draw(seed);
    for (std::size_t e = 0; e < static_cast<std::size_t>(d.effects); ++e) d.theta[5 + e] = e == 0 ? 0.0 : 0.2;
    d.theta[4] = 0.0;
    const auto n = make_run(text_of(d), first_order(seed % 2 == 0));
    const double value = objective(*n, d.theta, true);
    EXPECT_NEAR(value, plain_objective(d, d.theta, n->lb ? n->ebtrial : std::vector<double>{}),
                1e-11 * (1.0 + std::abs(value)));
    const double slope = n->objgrad[5];
    const auto forward = [&](double h) {
      auto at = d.theta;
      at[5] = h;
      return (objective(*n, at) - value) / h;
    };
    const double h = 1e-4;
    const double difference = (8.0 * forward(h / 4) - 6.0 * forward(h / 2) + forward(h)) / 3.0;
    EXPECT_NEAR(slope, difference, 1e-5 * (1.0 + std::abs(slope)));
  }
}

// Given the linear model the effects have a mean and a covariance, and the mean follows the parameters.
TEST(FirstOrder, EffectsGivenTheData)
{
  for (unsigned seed = 301; seed <= 330; ++seed) {
    SCOPED_TRACE(seed);
    const Draw d = draw(seed);
    Rule rule = first_order(false);
    rule.effects_wanted = true;
    rule.fd = seed % 2 == 0 ? 1 : 0;
    const auto n = make_run(text_of(d), rule);
    const auto posterior = [&](const std::vector<double>& theta) {
      objective(*n, theta);
      integration::Posterior p;
      EXPECT_EQ(integration::find_posterior(*n, p), 0);
      return p;
    };
    const auto p = posterior(d.theta);
    const auto nr = static_cast<std::size_t>(d.effects), np = d.theta.size();
    // One effect: the posterior of a normal mean.
    for (std::size_t s = 0; nr == 1 && s < d.subjects.size(); ++s) {
      double precision = 1.0 / (d.theta[5] * (d.varies ? d.size[s] : 1.0)), pull = 0.0;
      for (const auto& [x, y] : d.subjects[s]) {
        const double z = std::exp(d.theta[0] + d.theta[3] + d.theta[1] * x), r = d.theta[2] * std::exp(d.rise * x);
        precision += z * z / r;
        pull += z * (y - z) / r;
      }
      EXPECT_NEAR(p.covariance[s], 1.0 / precision, 1e-12);
      EXPECT_NEAR(p.estimate[s], d.theta[3] + pull / precision, 1e-12);
    }
    for (std::size_t j = 0; j < np; ++j) {
      const auto moved = [&](double h) {
        auto at = d.theta;
        at[j] += h;
        return posterior(at).estimate;
      };
      constexpr double h = 1e-3;
      const auto up = moved(h), down = moved(-h), up2 = moved(2 * h), down2 = moved(-2 * h);
      for (std::size_t k = 0; k < up.size(); ++k)
        EXPECT_NEAR(p.derivative[k / nr * nr * np + k % nr * np + j],
                    (8.0 * (up[k] - down[k]) - (up2[k] - down2[k])) / (12.0 * h), 1e-7)
            << k << " " << j;
    }
  }
}

// Sums made of sums of terms too, and values without a gradient.
TEST(FirstOrder, ThreadsAndMachineCodeGiveEqualBits)
{
  Draw d = draw(8);
  const std::size_t drawn = d.subjects.size();
  while (d.subjects.size() < 500) {
    d.subjects.push_back(d.subjects[d.subjects.size() % drawn]);
    d.size.push_back(1.0 + static_cast<double>(d.subjects.size() % 3));
  }
  for (const double rise : {0.0, 0.3})
    for (const bool at_modes : {false, true}) {
      d.rise = rise;
      const auto one = make_run(text_of(d), first_order(at_modes));
      const double expected = objective(*one, d.theta, true);
      EXPECT_NE(one->programs.linear_gradient.terms, nullptr);
      const auto evaluate = [&](int threads, bool gradient) {
        Rule rule = first_order(at_modes);
        rule.threads = threads;
        const auto n = make_run(text_of(d), rule);
        EXPECT_EQ(objective(*n, d.theta, gradient), expected);
        EXPECT_TRUE(!gradient || n->objgrad == one->objgrad);
      };
      for (const int threads : {2, 3, 7}) evaluate(threads, true);
      engine::set_native(false);
      evaluate(1, true);
      engine::set_native(true);
      evaluate(1, false);
    }
}

} // namespace

} // namespace torvale::tests::first_order
