// Random models on random data, evaluated a second time in the plainest way: one subject, one point, one record at a time,
// with a damped Newton search and a Gauss-Hermite rule of its own. What it must find: sums that lose records, points or
// subjects for some layout of the data.

#include "integration/small_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <random>

namespace torvale::tests {

namespace {

constexpr double log_two_pi = 1.8378770664093454836;

enum class Family { poisson, normal, binary };

struct Record {
  double x, w, y;
};

struct Draw {
  Family family = Family::poisson;
  int effects = 1;
  std::vector<std::vector<Record>> subjects;
  std::vector<double> theta; // b0, b1, then G by rows; s2 last for normal responses
  Rule rule;
  ModelText text;
};

std::vector<int> subject_sizes(std::mt19937& random)
{
  const int subjects = static_cast<int>(std::exp(std::uniform_real_distribution<double>(0, std::log(300))(random)));
  const int shape = std::uniform_int_distribution<int>(0, 3)(random);
  std::uniform_int_distribution<int> few(1, 4), many(1, 30), equal(1, 9);
  std::geometric_distribution<int> skewed(0.35);
  const int same = equal(random);
  std::vector<int> sizes;
  for (int s = 0; s < subjects; ++s)
    sizes.push_back(shape == 0 ? few(random) : shape == 1 ? std::min(many(random), 3000 / subjects + 1) : shape == 2 ? 1 + skewed(random) : same);
  return sizes;
}

double draw_response(Family family, double eta, std::mt19937& random)
{
  switch (family) {
  case Family::poisson:
    return std::poisson_distribution<int>(std::exp(std::min(eta, 5.0)))(random);
  case Family::binary:
    return std::bernoulli_distribution(1 / (1 + std::exp(-eta)))(random) ? 1.0 : 0.0;
  case Family::normal:
    break;
  }
  return eta + std::normal_distribution<double>(0, 0.8)(random);
}

Term log_likelihood(Family family)
{
  switch (family) {
  case Family::poisson:
    return Term("y") * "eta" - exp(Term("eta")) - lgamma(Term("y") + 1.0);
  case Family::binary:
    return Term("y") * "eta" - log(Term(1.0) + exp(Term("eta")));
  case Family::normal:
    break;
  }
  return Term(-0.5) * (Term(log_two_pi) + log(Term("s2")) + (Term("y") - "eta") * (Term("y") - "eta") / "s2");
}

Draw draw_case(std::mt19937& random)
{
  Draw d;
  std::normal_distribution<double> normal;
  d.family = static_cast<Family>(std::uniform_int_distribution<int>(0, 2)(random));
  d.effects = std::uniform_int_distribution<int>(1, 2)(random);
  d.theta = {0.3 * normal(random), 0.3 * normal(random), std::exp(0.7 * normal(random) - 1)};
  if (d.effects == 2) {
    d.theta.push_back(0.3 * std::sqrt(d.theta[2]) * std::tanh(normal(random)));
    d.theta.push_back(0.3 + std::exp(normal(random) - 1.5));
  }
  if (d.family == Family::normal) d.theta.push_back(0.3 + std::exp(normal(random)));

  std::vector<std::array<double, 4>> rows; // subject, x, w, y
  const auto sizes = subject_sizes(random);
  for (std::size_t s = 0; s < sizes.size(); ++s) {
    const double u = 0.6 * normal(random), v = 0.4 * normal(random);
    for (int k = 0; k < sizes[s]; ++k) {
      const double x = normal(random), w = normal(random);
      rows.push_back({static_cast<double>(3 * s + 1), x, w,
                      draw_response(d.family, d.theta[0] + d.theta[1] * x + u + (d.effects == 2 ? v * w : 0), random)});
    }
  }
  if (std::bernoulli_distribution(0.6)(random)) std::shuffle(rows.begin(), rows.end(), random);
  d.subjects.resize(sizes.size());
  std::vector<double> id, x, w, y;
  for (const auto& r : rows) {
    d.subjects[static_cast<std::size_t>(r[0]) / 3].push_back({r[1], r[2], r[3]});
    id.push_back(r[0]), x.push_back(r[1]), w.push_back(r[2]), y.push_back(r[3]);
  }
  d.text.columns = {{"subject", id}, {"x", x}, {"w", w}, {"y", y}};
  d.text.parameters = {"b0", "b1", "g11"};
  d.text.effects = {"u0"};
  d.text.prior = {Term(0.0), Term("g11")};
  Term eta = Term("b0") + Term("b1") * "x" + "u0";
  if (d.effects == 2) {
    d.text.parameters.insert(d.text.parameters.end(), {"g21", "g22"});
    d.text.effects.push_back("u1");
    d.text.prior = {Term(0.0), Term(0.0), Term("g11"), Term("g21"), Term("g22")};
    eta = eta + Term("u1") * "w";
  }
  if (d.family == Family::normal) d.text.parameters.push_back("s2");
  d.text.assignments = {{"eta", eta}, {"_ll", log_likelihood(d.family)}};
  const int centred = std::uniform_int_distribution<int>(0, 5)(random);
  static constexpr int counts[] = {1, 2, 3, 5, 7, 9, 12, 20};
  d.rule = {centred > 0, centred > 1, counts[std::uniform_int_distribution<int>(0, d.effects == 2 ? 6 : 7)(random)]};
  d.rule.threads = std::bernoulli_distribution(0.2)(random) ? 3 : 1;
  return d;
}

// --- the plain evaluation ----------------------------------------------------------------------------------------------

struct Point {
  double x, log_weight; // weight of exp(-x^2)
};

// Zeros of the Hermite polynomials by Newton steps from their asymptotic places, on orthonormal polynomials.
std::vector<Point> hermite_rule(int n)
{
  std::vector<Point> rule;
  for (int k = 0; k < n; ++k) {
    double low = -std::sqrt(2.0 * n + 2), high = -low, slope = 0;
    const auto value = [&](double x, int& below) { // number of sign changes: zeros above x
      double p = std::pow(std::acos(-1.0), -0.25), before = 0;
      below = 0;
      for (int j = 0; j < n; ++j) {
        const double next = x * std::sqrt(2.0 / (j + 1)) * p - std::sqrt(j / (j + 1.0)) * before;
        below += (next < 0) != (p < 0);
        before = p;
        p = next;
      }
      slope = std::sqrt(2.0 * n) * before;
      return p;
    };
    for (int step = 0; step < 200; ++step) { // bisection on the count of zeros
      int zeros = 0;
      const double middle = 0.5 * (low + high);
      value(middle, zeros);
      (zeros > k ? low : high) = middle;
    }
    int zeros = 0;
    double x = 0.5 * (low + high);
    x -= value(x, zeros) / slope;
    value(x, zeros);
    rule.push_back({x, std::log(2.0) - 2 * std::log(std::abs(slope))});
  }
  return rule;
}

struct Subject {
  const Draw& d;
  const std::vector<Record>& records;

  // log likelihood, and its derivatives by eta summed onto the effects
  double loglik(const double* u, double* g, double* h) const
  {
    double sum = 0;
    for (const Record& r : records) {
      const double z[2] = {1, r.w};
      double eta = d.theta[0] + d.theta[1] * r.x, d1 = 0, d2 = 0;
      for (int i = 0; i < d.effects; ++i) eta += u[i] * z[i];
      if (d.family == Family::poisson) {
        sum += r.y * eta - std::exp(eta) - std::lgamma(r.y + 1);
        d1 = r.y - std::exp(eta), d2 = std::exp(eta);
      } else if (d.family == Family::binary) {
        const double p = 1 / (1 + std::exp(-eta));
        sum += r.y * eta - std::log(1 + std::exp(eta));
        d1 = r.y - p, d2 = p * (1 - p);
      } else {
        const double s2 = d.theta.back();
        sum += -0.5 * (log_two_pi + std::log(s2) + (r.y - eta) * (r.y - eta) / s2);
        d1 = (r.y - eta) / s2, d2 = 1 / s2;
      }
      for (int i = 0; i < d.effects && g != nullptr; ++i) {
        g[i] += d1 * z[i];
        for (int j = 0; j < d.effects; ++j) h[2 * i + j] += d2 * z[i] * z[j];
      }
    }
    return sum;
  }
};

// A symmetric 1 x 1 or 2 x 2 matrix: inverse, and log determinant.
double invert(int n, double* a)
{
  if (n == 1) {
    const double d = a[0];
    a[0] = 1 / d;
    return std::log(d);
  }
  const double det = a[0] * a[3] - a[1] * a[2];
  std::swap(a[0], a[3]);
  a[1] = a[2] = -a[1];
  for (int k = 0; k < 4; ++k) a[k] /= det;
  return std::log(det);
}

void lower_factor(int n, double* a)
{
  a[0] = std::sqrt(a[0]);
  if (n == 1) return;
  a[2] /= a[0];
  a[3] = std::sqrt(a[3] - a[2] * a[2]);
  a[1] = 0;
}

double plain_subject(const Draw& d, const std::vector<Record>& records, const std::vector<Point>& rule)
{
  const Subject s{d, records};
  const int n = d.effects;
  double g[4] = {d.theta[2], 0, 0, 0};
  if (n == 2) g[1] = g[2] = d.theta[3], g[3] = d.theta[4];
  double precision[4];
  std::copy(g, g + 4, precision);
  const double log_det_g = invert(n, precision);
  const auto log_prior = [&](const double* u) {
    double q = 0;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) q += u[i] * precision[2 * i + j] * u[j];
    return -0.5 * (q + log_det_g + n * log_two_pi);
  };
  double u[2] = {0, 0}, scale[4];
  std::copy(g, g + 4, scale);
  for (int step = 0; d.rule.adaptive && step < 100; ++step) {
    double slope[2] = {0, 0}, h[4] = {0, 0, 0, 0};
    const double now = s.loglik(u, slope, h) + log_prior(u);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        h[2 * i + j] += precision[2 * i + j];
        slope[i] -= precision[2 * i + j] * u[j];
      }
    invert(n, h);
    if (d.rule.adscale) std::copy(h, h + 4, scale);
    double move[2] = {0, 0}, largest = 0;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) move[i] += h[2 * i + j] * slope[j];
    for (double share = 1; share > 1e-8; share /= 2) {
      const double next[2] = {u[0] + share * move[0], u[1] + share * move[1]};
      if (s.loglik(next, nullptr, nullptr) + log_prior(next) < now - 1e-9) continue;
      for (int i = 0; i < n; ++i) {
        u[i] = next[i];
        largest = std::max(largest, std::abs(share * move[i]));
      }
      break;
    }
    if (largest < 1e-13) break;
  }
  lower_factor(n, scale);
  const double log_scale = n * 0.5 * std::log(2.0) + std::log(scale[0]) + (n == 2 ? std::log(scale[3]) : 0);
  std::vector<double> terms;
  for (const Point& p : rule)
    for (const Point& q : n == 2 ? rule : std::vector<Point>{{0, 0}}) {
      const double root = std::sqrt(2.0);
      const double at[2] = {u[0] + root * scale[0] * p.x, u[1] + root * (scale[2] * p.x + scale[3] * q.x)};
      terms.push_back(p.log_weight + p.x * p.x + (n == 2 ? q.log_weight + q.x * q.x : 0) +
                      s.loglik(at, nullptr, nullptr) + log_prior(at));
    }
  const double peak = *std::max_element(terms.begin(), terms.end());
  double sum = 0;
  for (const double t : terms) sum += std::exp(t - peak);
  return -(peak + std::log(sum) + log_scale);
}

} // namespace

TEST(PlainEvaluation, RandomModelsAgree)
{
  std::mt19937 random(5);
  for (int k = 0; k < 300; ++k) {
    const Draw d = draw_case(random);
    const auto rule = hermite_rule(d.rule.points);
    double expected = 0;
    for (const auto& records : d.subjects) expected += plain_subject(d, records, rule);
    const auto run = make_run(d.text, d.rule);
    const double found = objective(*run, d.theta, k % 2 == 0);
    EXPECT_NEAR(found, expected, 1e-9 * std::max(1.0, std::abs(expected)))
        << "case " << k << ": " << d.subjects.size() << " subjects, " << d.effects << " effects, family "
        << static_cast<int>(d.family) << ", " << d.rule.points << " points, adaptive " << d.rule.adaptive << d.rule.adscale;
  }
}

} // namespace torvale::tests
