#include "integration/model_family.h"

#include "integration/objective.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

namespace torvale::tests {

namespace {

constexpr double log_two_pi = 1.8378770664093456, pi = 3.141592653589793;

Term square(const Term& t) { return t * t; }

// Log density of y given eta; s2 is the extra parameter of a scale or shape.
Term log_density(Response response)
{
  const Term y = "y", eta = "eta", s2 = "s2";
  const Term p = Term(1.0) / (Term(1.0) + exp(-eta)), mu = exp(eta);
  switch (response) {
    case Response::normal: return Term(-0.5) * (Term(log_two_pi) + square(y - eta) / s2 + log(s2));
    case Response::t: {
      const Term df = Term(4.0), half = Term(2.5);
      return lgamma(half) - lgamma(Term(2.0)) - log(Term(pi) * df) / 2.0 - half * log(Term(1.0) + square(y - eta) / (s2 * df)) -
             log(s2) / 2.0;
    }
    case Response::binary: return y * log(p) + (Term(1.0) - y) * log(Term(1.0) - p);
    case Response::binomial: {
      const Term m = Term("size") - y;
      return lgamma(Term(1.0) + "size") - lgamma(Term(1.0) + y) - lgamma(Term(1.0) + m) + y * log(p) + m * log(Term(1.0) - p);
    }
    case Response::poisson: return -mu - lgamma(Term(1.0) + y) + y * eta;
    case Response::negbin: {
      const Term size = Term(1.0) / s2, q = Term(1.0) / (Term(1.0) + s2 * mu);
      return lgamma(size + y) - lgamma(size) - lgamma(Term(1.0) + y) + size * log(q) + y * log(Term(1.0) - q);
    }
    case Response::gamma: {
      const Term shape = Term(1.0) / s2, scale = mu * s2;
      return -shape * log(scale) - lgamma(shape) + (shape - 1.0) * log(y) - y / scale;
    }
    default: // an exponential time, censored when size is above 10
      return Term::call("min", {Term(0.0), Term(10.0) - "size"}) / Term(1e9) + eta - mu * y;
  }
}

double draw(Response response, double eta, double size, std::mt19937& random)
{
  std::normal_distribution<double> normal;
  const double p = 1.0 / (1.0 + std::exp(-eta)), mu = std::exp(eta);
  switch (response) {
    case Response::normal:
    case Response::t: return eta + 0.7 * normal(random);
    case Response::binary: return std::bernoulli_distribution(p)(random) ? 1.0 : 0.0;
    case Response::binomial: return std::binomial_distribution<int>(static_cast<int>(size), p)(random);
    case Response::poisson:
    case Response::negbin: return std::poisson_distribution<int>(mu)(random);
    case Response::gamma: return std::gamma_distribution<double>(2.0, mu / 2.0)(random);
    default: return std::exponential_distribution<double>(mu)(random);
  }
}

} // namespace

const char* name_of(Response response)
{
  constexpr const char* names[] = {"normal", "t", "binary", "binomial", "poisson", "negbin", "gamma", "general"};
  return names[static_cast<int>(response)];
}

ModelText regression(Response response, int effects, int subjects, bool shuffle)
{
  ModelText m;
  m.parameters = {"b0", "b1", "s2", "mu0", "g11"};
  m.effects = {"u0"};
  Term eta = Term("b0") + "u0";
  m.prior = {Term("mu0"), Term("g11")};
  if (effects > 1) {
    m.parameters.insert(m.parameters.end(), {"g21", "g22"});
    m.effects.push_back("u1");
    m.prior = {Term("mu0"), Term(0.0), Term("g11"), Term("g21"), Term("g22")};
  }
  eta = effects > 1 ? eta + (Term("b1") + "u1") * "x" : eta + Term("b1") * "x";
  if (effects > 2) {
    m.parameters.push_back("g33");
    m.effects.push_back("u2");
    m.prior = {Term("mu0"), Term(0.0), Term("b1") * 0.1, Term("g11"), Term("g21"), Term("g22"), Term(0.0), Term("g21") * 0.5, Term("g33")};
    eta = eta + Term("u2") * "w";
  }
  m.assignments = {{"eta", eta}, {"_ll", log_density(response)}};

  std::mt19937 random(static_cast<unsigned>(17 + 3 * effects + static_cast<int>(response)));
  std::normal_distribution<double> normal;
  std::vector<std::vector<double>> rows; // subject, y, x, w, size
  for (int s = 0; s < subjects; ++s) {
    const double u0 = 0.6 * normal(random), u1 = 0.5 * normal(random), u2 = 0.4 * normal(random);
    for (int i = 0; i < 3 + s % 4; ++i) {
      const double x = normal(random), w = normal(random), size = 4 + i;
      const double value = 0.2 + u0 + (0.3 + u1) * x + (effects > 2 ? u2 * w : 0.0);
      rows.push_back({100.0 + s, draw(response, value, size, random), x, w, size});
    }
  }
  if (shuffle) std::shuffle(rows.begin(), rows.end(), random);
  const char* const names[] = {"subject", "y", "x", "w", "size"};
  for (std::size_t c = 0; c < 5; ++c) {
    std::vector<double> column;
    for (const auto& row : rows) column.push_back(row[c]);
    m.columns.emplace_back(names[c], column);
  }
  return m;
}

ModelText nested(Response response, int depth, int subjects, bool shuffle)
{
  ModelText m;
  m.parameters = {"b0", "b1", "s2", "mu0", "g11", "g21", "g22", "g33"};
  m.levels = {{"subject", {"u0", "u1"}, {Term("mu0"), Term(0.0), Term("g11"), Term("g21"), Term("g22")}},
              {"inner", {"v0"}, {Term("b1") * 0.2, Term("g33")}}};
  Term eta = Term("b0") + "u0" + (Term("b1") + "u1") * "x" + "v0";
  if (depth > 2) {
    m.parameters.push_back("g44");
    m.levels.push_back({"leaf", {"w0"}, {Term(0.0), Term("g44")}});
    eta = eta + "w0";
  }
  m.assignments = {{"eta", eta}, {"_ll", log_density(response)}};

  std::mt19937 random(static_cast<unsigned>(29 + depth + 5 * static_cast<int>(response)));
  std::normal_distribution<double> normal;
  std::vector<std::vector<double>> rows; // subject, inner, leaf, y, x, size
  for (int s = 0; s < subjects; ++s) {
    const double u0 = 0.6 * normal(random), u1 = 0.4 * normal(random);
    for (int i = 0; i < 2 + s % 3; ++i) {
      const double v0 = 0.4 * normal(random);
      for (int l = 0; l < depth - 1; ++l) {
        const double w0 = depth > 2 ? 0.3 * normal(random) : 0.0;
        for (int k = 0; k < 2 + (s + i + l) % 3; ++k) {
          const double x = normal(random), size = 4 + k, value = 0.2 + u0 + v0 + w0 + (0.3 + u1) * x;
          rows.push_back({100.0 + s, 1.0 + i, 1.0 + l, draw(response, value, size, random), x, size});
        }
      }
    }
  }
  if (shuffle) std::shuffle(rows.begin(), rows.end(), random);
  const char* const names[] = {"subject", "inner", "leaf", "y", "x", "size"};
  for (std::size_t c = 0; c < 6; ++c) {
    std::vector<double> column;
    for (const auto& row : rows) column.push_back(row[c]);
    m.columns.emplace_back(names[c], column);
  }
  return m;
}

std::vector<double> parameters(const ModelText& text, unsigned seed)
{
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> move(-0.2, 0.2);
  std::vector<double> theta;
  for (const auto& name : text.parameters) {
    const double centre = name == "s2" ? 0.6 : name == "g11" ? 0.5 : name == "g22" ? 0.4 : name == "g33" ? 0.3 : name == "mu0" ? 0.1 : 0.15;
    theta.push_back(centre + (name == "s2" || name[0] == 'g' ? 0.5 : 1.0) * move(random));
  }
  return theta;
}

// The derivative of mode k by parameter j.
static double mode_by(const model::NX& n, std::size_t k, std::size_t j)
{
  const auto np = n.parm.size(), nr = static_cast<std::size_t>(n.leaf().nr);
  if (n.nreff() > 1) return n.ebes_by[k * np + j];
  return n.ebes_by[(k % nr * np + j) * n.leaf().SubInfo.size() + k / nr];
}

void expect_moving_modes(const ModelText& text, const std::vector<double>& theta)
{
  const auto n = make_run(text, {true, true, 1}), fresh = make_run(text, {true, true, 1});
  objective(*n, theta, true);
  integration::accept_modes(*n);
  ASSERT_EQ(n->ebes_point, theta);
  for (std::size_t j = 0; j < theta.size(); ++j) {
    const double h = 1e-4 * (1.0 + std::abs(theta[j]));
    auto up = theta, down = theta;
    up[j] += h;
    down[j] -= h;
    const double from_prediction = objective(*n, up, true);
    const auto modes_up = n->ebtrial;
    objective(*n, down, true);
    for (std::size_t k = 0; k < modes_up.size(); ++k) {
      const double difference = (modes_up[k] - n->ebtrial[k]) / (2.0 * h);
      EXPECT_NEAR(mode_by(*n, k, j), difference, 1e-5 * (1.0 + std::abs(difference)))
          << text.assignments.size() << " assignments, mode " << k << ", parameter " << j;
    }
    integration::forget_modes(*fresh);
    EXPECT_NEAR(from_prediction, objective(*fresh, up, true), 1e-11 * std::abs(from_prediction));
    for (std::size_t k = 0; k < modes_up.size(); ++k) EXPECT_NEAR(modes_up[k], fresh->ebtrial[k], 1e-10);
  }
}

} // namespace torvale::tests
