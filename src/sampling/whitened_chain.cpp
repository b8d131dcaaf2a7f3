// The no-U-turn sampler over parameters and random effects in coordinates that the fit has whitened.

#include "matrix/packed.h"
#include "sampling/chain.h"
#include "sampling/no_u_turn.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::sampling {

using matrix::packed_diagonal;
using matrix::packed_index;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// One parameter and its unbounded coordinate x, with d theta / d x and the log of it by x.
struct Bounds {
  double lower, upper;
  double inverse(double theta) const
  {
    const bool low = std::isfinite(lower), high = std::isfinite(upper);
    if (low && high) return std::log((theta - lower) / (upper - theta));
    if (low) return std::log(theta - lower);
    if (high) return -std::log(upper - theta);
    return theta;
  }
  double value(double x, double& slope, double& log_slope, double& log_slope_by_x) const
  {
    const bool low = std::isfinite(lower), high = std::isfinite(upper);
    if (low && high) {
      const double p = x >= 0 ? 1.0 / (1.0 + std::exp(-x)) : std::exp(x) / (1.0 + std::exp(x));
      const double q = x >= 0 ? std::exp(-x) / (1.0 + std::exp(-x)) : 1.0 / (1.0 + std::exp(x));
      slope = (upper - lower) * p * q;
      log_slope = std::log(upper - lower) - std::abs(x) - 2.0 * std::log1p(std::exp(-std::abs(x)));
      log_slope_by_x = q - p;
      return p < 0.5 ? lower + (upper - lower) * p : upper - (upper - lower) * q;
    }
    if (low || high) {
      slope = std::exp(low ? x : -x);
      log_slope = low ? x : -x;
      log_slope_by_x = low ? 1.0 : -1.0;
      return low ? lower + slope : upper - slope;
    }
    slope = 1.0;
    log_slope = log_slope_by_x = 0.0;
    return x;
  }
};

// Coordinates (a, w): x = x0 + F a with theta_j = theta_j(x_j) inside its bounds; effects u = mode + D (theta - centre)
// + S w, or z = w. The log posterior of (theta, u) plus the log determinant of the map: the posterior of the user's
// scale, whatever the map.
class WhitenedDensity final : public Density {
public:
  WhitenedDensity(const Posterior& posterior, const WhiteningMap& map)
      : p_(posterior), map_(map), np_(posterior.n->nparm), nr_(p_.joint != nullptr ? p_.joint->effects() : 0),
        subjects_(p_.joint != nullptr ? p_.joint->subjects() : 0)
  {
    for (int j = 0; j < np_; ++j)
      if (p_.fixed[static_cast<std::size_t>(j)] == 0) free_.push_back(j);
    const auto np = static_cast<std::size_t>(np_);
    theta = map.centre;
    slope_.assign(np, 0.0);
    log_slope_by_x_.assign(np, 0.0);
    by_theta_.resize(np);
    effects.assign(static_cast<std::size_t>(subjects_ * nr_), 0.0);
    by_effects_.resize(effects.size());
    scale_factor();
  }

  int dimension() const override { return static_cast<int>(free_.size() + effects.size()); }

  double gradient(const double* q, double* g) override
  {
    const double jacobian = place(q);
    double logp = 0.0;
    if (p_.joint != nullptr)
      logp = p_.joint->gradient(context, theta.data(), effects.data(), by_theta_.data(), by_effects_.data());
    else
      logp = p_.integrated(theta.data(), by_theta_.data());
    if (!(logp > impossible)) return none(g);
    log_posterior = logp;
    if (p_.prior) log_posterior += p_.prior(context, theta.data(), by_theta_.data());
    if (!std::isfinite(log_posterior)) return none(g);
    chain_rule(g);
    return log_posterior + jacobian;
  }

  // The coordinates of a state.
  std::vector<double> coordinates(const ChainStart& start) const
  {
    std::vector<double> q(static_cast<std::size_t>(dimension()), 0.0);
    const auto nf = static_cast<int>(free_.size());
    for (int i = 0; i < nf; ++i) {
      const int j = free_[static_cast<std::size_t>(i)];
      double d = bounds(j).inverse(start.theta[static_cast<std::size_t>(j)]) - x0_[static_cast<std::size_t>(i)];
      for (int k = 0; k < i; ++k)
        d -= factor_[static_cast<std::size_t>(packed_index(i, k))] * q[static_cast<std::size_t>(k)];
      q[static_cast<std::size_t>(i)] = d / factor_[static_cast<std::size_t>(packed_diagonal(i))];
    }
    if (map_.mode.empty()) std::copy(start.effects.begin(), start.effects.end(), q.begin() + nf); // z
    return q; // else the modes, moved by D: w = 0
  }

  // What chains keep.
  std::vector<double> theta, effects;
  double log_posterior = impossible;
  int context = 0;

private:
  Bounds bounds(int j) const { return {p_.lower[static_cast<std::size_t>(j)], p_.upper[static_cast<std::size_t>(j)]}; }

  double none(double* g) const
  {
    std::fill_n(g, dimension(), 0.0);
    return -infinity;
  }

  // The factor of the covariance of x: that of theta divided by the slopes at the centre.
  void scale_factor()
  {
    const auto nf = static_cast<int>(free_.size());
    factor_.resize(static_cast<std::size_t>(matrix::packed_size(nf)));
    for (int i = 0; i < nf; ++i) {
      const int j = free_[static_cast<std::size_t>(i)];
      const double x = bounds(j).inverse(map_.centre[static_cast<std::size_t>(j)]);
      double slope = 1.0, unused = 0.0, also = 0.0;
      bounds(j).value(x, slope, unused, also);
      x0_.push_back(x);
      for (int k = 0; k <= i; ++k)
        factor_[static_cast<std::size_t>(packed_index(i, k))] =
            map_.factor[static_cast<std::size_t>(packed_index(j, free_[static_cast<std::size_t>(k)]))] / slope;
    }
  }

public:
  // theta and effects of a point; the log determinant of the map, but for its constants.
  double place(const double* q)
  {
    double jacobian = 0.0;
    const auto nf = static_cast<int>(free_.size());
    for (int i = 0; i < nf; ++i) {
      const auto j = static_cast<std::size_t>(free_[static_cast<std::size_t>(i)]);
      double x = x0_[static_cast<std::size_t>(i)], log_slope = 0.0;
      for (int k = 0; k <= i; ++k) x += factor_[static_cast<std::size_t>(packed_index(i, k))] * q[k];
      theta[j] = bounds(static_cast<int>(j)).value(x, slope_[j], log_slope, log_slope_by_x_[j]);
      jacobian += log_slope;
    }
    const double* const w = q + nf;
    if (map_.mode.empty()) {
      std::copy_n(w, effects.size(), effects.begin());
      return jacobian;
    }
    const auto np = static_cast<std::size_t>(np_), nr = static_cast<std::size_t>(nr_), nrs = nr * (nr + 1) / 2;
    for (std::size_t s = 0; s < static_cast<std::size_t>(subjects_); ++s)
      for (std::size_t i = 0; i < nr; ++i) {
        double u = map_.mode[s * nr + i];
        for (std::size_t j = 0; j < np; ++j) u += map_.derivative[(s * nr + i) * np + j] * (theta[j] - map_.centre[j]);
        for (std::size_t k = 0; k <= i; ++k) u += map_.spread[s * nrs + i * (i + 1) / 2 + k] * w[s * nr + k];
        effects[s * nr + i] = u;
      }
    return jacobian;
  }

private:
  void chain_rule(double* g)
  {
    const auto nf = static_cast<int>(free_.size());
    const auto np = static_cast<std::size_t>(np_), nr = static_cast<std::size_t>(nr_), nrs = nr * (nr + 1) / 2;
    double* const gw = g + nf;
    if (map_.mode.empty()) {
      std::copy(by_effects_.begin(), by_effects_.end(), gw);
    } else {
      for (std::size_t s = 0; s < static_cast<std::size_t>(subjects_); ++s)
        for (std::size_t i = 0; i < nr; ++i) {
          const double slope = by_effects_[s * nr + i];
          for (std::size_t j = 0; j < np; ++j) by_theta_[j] += map_.derivative[(s * nr + i) * np + j] * slope;
          double t = 0.0;
          for (std::size_t k = i; k < nr; ++k)
            t += map_.spread[s * nrs + k * (k + 1) / 2 + i] * by_effects_[s * nr + k];
          gw[s * nr + i] = t;
        }
    }
    std::fill_n(g, nf, 0.0);
    for (int i = 0; i < nf; ++i) {
      const auto j = static_cast<std::size_t>(free_[static_cast<std::size_t>(i)]);
      const double by_x = by_theta_[j] * slope_[j] + log_slope_by_x_[j];
      for (int k = 0; k <= i; ++k) g[k] += factor_[static_cast<std::size_t>(packed_index(i, k))] * by_x;
    }
  }

  const Posterior& p_;
  const WhiteningMap& map_;
  const int np_, nr_, subjects_;
  std::vector<int> free_;
  std::vector<double> x0_, factor_, slope_, log_slope_by_x_, by_theta_, by_effects_;
};

class NoUTurnChain final : public Chain {
public:
  NoUTurnChain(const Posterior& posterior, const ChainOptions& options, int number, const ChainStart& start,
               const WhiteningMap& map)
      : p_(posterior), o_(options), number_(number), start_(start), density_(posterior, map)
  {
    const auto np = static_cast<std::size_t>(posterior.n->nparm);
    for (auto* v : {&counts.proposed, &counts.accepted, &counts.outside}) v->assign(np, 0);
  }

  int advance(int context, long iterations) override
  {
    density_.context = context;
    if (sampler_ == nullptr) {
      sampler_ = std::make_unique<NoUTurn>(density_, density_.coordinates(start_), o_.burn);
      if (!sampler_->possible()) {
        failure = Failure::no_start;
        return 1;
      }
    }
    for (long k = 0; k < iterations && done < o_.burn + o_.sample; ++k) {
      ++done;
      RandomStream random(o_.seed, number_, done, 0);
      const std::vector<double> before = sampler_->position();
      sampler_->advance(done, random);
      for (long& c : counts.proposed) ++c;
      if (before != sampler_->position())
        for (long& c : counts.accepted) ++c;
      if (done <= o_.burn) continue;
      if (sampler_->diverged()) ++counts.divergent;
      keep(context);
    }
    return 0;
  }

private:
  void keep(int context)
  {
    // On the user's scale: without the determinant of the map.
    const double jacobian = density_.place(sampler_->position().data());
    density_.log_posterior = sampler_->log_density() - jacobian;
    draws.theta.insert(draws.theta.end(), density_.theta.begin(), density_.theta.end());
    draws.logpost.push_back(density_.log_posterior);
    if (!o_.keep_effects || p_.joint == nullptr) return;
    const std::size_t at = draws.effects.size();
    draws.effects.resize(at + density_.effects.size());
    p_.joint->plain_effects(context, density_.theta.data(), density_.effects.data(), draws.effects.data() + at);
  }

  const Posterior& p_;
  const ChainOptions o_;
  const int number_;
  const ChainStart start_;
  WhitenedDensity density_;
  std::unique_ptr<NoUTurn> sampler_;
};

} // namespace

std::unique_ptr<Chain> make_no_u_turn(const Posterior& posterior, const ChainOptions& options, int number,
                                      const ChainStart& start, const WhiteningMap& map)
{
  return std::make_unique<NoUTurnChain>(posterior, options, number, start, map);
}

} // namespace torvale::sampling
