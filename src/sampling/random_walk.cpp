// The random-walk Metropolis sampler: parameters in one block or one at a time, then every subject's random effects.

#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "sampling/chain.h"
#include "sampling/random_stream.h"

#include <algorithm>
#include <cmath>

namespace torvale::sampling {

using matrix::packed_index;

namespace {

// How a scale answers to the share of accepted proposals: 1 at a quarter.
double adaptation(double share)
{
  return share > 0.25 ? 12.0 * share - 2.0 : 3.6 * share + 0.1;
}

// x := x + L z for a packed factor.
void step_along(const double* factor, int order, const double* z, double scale, double* x)
{
  for (int i = 0; i < order; ++i) {
    double t = 0.0;
    for (int k = 0; k <= i; ++k) t += factor[packed_index(i, k)] * z[k];
    x[i] += scale * t;
  }
}

class RandomWalk final : public Chain {
public:
  RandomWalk(const Posterior& posterior, const ChainOptions& options, int number, const ChainStart& start,
             const WalkProposal& proposal)
      : p_(posterior), o_(options), number_(number), np_(posterior.n->nparm), parm_(start.theta),
        effects_(start.effects), factor_(proposal.factor), effect_factor_(proposal.effects)
  {
    const auto np = static_cast<std::size_t>(np_);
    for (auto* v : {&counts.proposed, &counts.accepted, &counts.outside}) v->assign(np, 0);
    window_accepted_.assign(o_.single ? np : 1, 0);
    scale_.assign(o_.single ? np : 1, 1.0);
    for (int j = 0; o_.single && j < np_; ++j) // each parameter's own spread
      for (int k = 0; k <= j; ++k)
        own_.resize(np),
            own_[static_cast<std::size_t>(j)] += square(factor_[static_cast<std::size_t>(packed_index(j, k))]);
    for (double& v : own_) v = std::sqrt(v);
    sum_.assign(np, 0.0);
    products_.assign(np * (np + 1) / 2, 0.0);
    trial_.resize(np);
    if (p_.joint == nullptr) return;
    value_.resize(static_cast<std::size_t>(p_.joint->subjects()));
    for (auto* v : {&counts.subject_proposed, &counts.subject_accepted}) v->assign(value_.size(), 0);
    trial_value_ = value_;
    trial_effects_ = effects_;
  }

  int advance(int context, long iterations) override
  {
    if (done == 0 && begin(context) != 0) return 1;
    for (long k = 0; k < iterations && done < o_.burn + o_.sample; ++k) {
      ++done;
      adapt();
      if (o_.single ? one_by_one(context) : block(context)) return 1;
      note_point();
      if (p_.joint != nullptr) move_effects(context);
      if (done > o_.burn && draws.kept() < o_.sample) keep(context);
    }
    return 0;
  }

private:
  static double square(double x) { return x * x; }
  RandomStream stream(std::int64_t subject) const { return {o_.seed, number_, done, subject}; }

  // The start is the first sample when nothing is burnt.
  int begin(int context)
  {
    objfun_ = evaluate(context, parm_.data(), value_.data());
    if (!(objfun_ > impossible)) {
      failure = Failure::no_start;
      return 1;
    }
    if (o_.burn == 0 && o_.sample > 0) keep(context);
    return 0;
  }

  double evaluate(int context, const double* theta, double* value)
  {
    const double ll =
        p_.joint != nullptr ? p_.joint->values(context, theta, effects_.data(), value) : p_.integrated(theta, nullptr);
    if (!(ll > impossible)) return impossible;
    const double sum = ll + p_.log_prior(context, theta);
    return std::isfinite(sum) ? sum : impossible;
  }

  bool block(int context)
  {
    RandomStream random = stream(0);
    std::vector<double>& z = normals_;
    z.resize(static_cast<std::size_t>(np_));
    for (double& v : z) v = random.normal();
    trial_ = parm_;
    step_along(factor_.data(), np_, z.data(), 1.0, trial_.data());
    for (int j = 0; j < np_; ++j) {
      if (p_.fixed[static_cast<std::size_t>(j)] != 0)
        trial_[static_cast<std::size_t>(j)] = parm_[static_cast<std::size_t>(j)];
      ++counts.proposed[static_cast<std::size_t>(j)];
    }
    const Outcome outcome = try_point(context, random);
    if (outcome == Outcome::accepted) {
      ++window_accepted_[0];
      for (long& c : counts.accepted) ++c;
    }
    if (outcome == Outcome::outside)
      for (long& c : counts.outside) ++c;
    return failure != Failure::none;
  }

  bool one_by_one(int context)
  {
    RandomStream random = stream(0);
    for (std::size_t j = 0; j < parm_.size(); ++j) {
      if (p_.fixed[j] != 0) continue;
      trial_ = parm_;
      trial_[j] += scale_[j] * own_[j] * random.normal();
      ++counts.proposed[j];
      const Outcome outcome = try_point(context, random);
      if (outcome == Outcome::accepted) ++counts.accepted[j], ++window_accepted_[j];
      if (outcome == Outcome::outside) ++counts.outside[j];
      if (failure != Failure::none) return true;
    }
    return false;
  }

  enum class Outcome { accepted, rejected, outside };

  Outcome try_point(int context, RandomStream& random)
  {
    if (!p_.inside(trial_.data())) {
      if (++violations_ > o_.maxbviol) failure = Failure::out_of_bounds;
      return Outcome::outside;
    }
    violations_ = 0;
    const double value = evaluate(context, trial_.data(), trial_value_.data());
    if (!(value > impossible)) return Outcome::rejected;
    const double d = value - objfun_;
    if (d < 0.0 && d < std::log(random.uniform())) return Outcome::rejected;
    parm_ = trial_;
    objfun_ = value;
    value_.swap(trial_value_);
    return Outcome::accepted;
  }

  // Every subject proposes for itself; all are evaluated in one pass.
  void move_effects(int context)
  {
    const int nr = p_.joint->effects();
    const auto& subjects = p_.n->leaf().SubInfo;
    trial_effects_ = effects_;
    thresholds_.resize(value_.size());
    normals_.resize(static_cast<std::size_t>(nr));
    for (std::size_t s = 0; s < subjects.size(); ++s) {
      if (subjects[s].badsub) continue;
      RandomStream random = stream(static_cast<std::int64_t>(s) + 1);
      for (double& v : normals_) v = random.normal();
      step_along(effect_factor_.data() + s * static_cast<std::size_t>(nr * (nr + 1) / 2), nr, normals_.data(), 1.0,
                 trial_effects_.data() + s * static_cast<std::size_t>(nr));
      thresholds_[s] = std::log(random.uniform());
    }
    p_.joint->values(context, parm_.data(), trial_effects_.data(), trial_value_.data());
    for (std::size_t s = 0; s < subjects.size(); ++s) {
      if (subjects[s].badsub) continue;
      ++counts.subject_proposed[s];
      if (!(trial_value_[s] > impossible)) continue;
      const double d = trial_value_[s] - value_[s];
      if (d < 0.0 && d < thresholds_[s]) continue;
      std::copy_n(trial_effects_.begin() + static_cast<std::ptrdiff_t>(s) * nr, nr,
                  effects_.begin() + static_cast<std::ptrdiff_t>(s) * nr);
      objfun_ += d;
      value_[s] = trial_value_[s];
      ++counts.subject_accepted[s];
    }
  }

  // Sums of the window that the block's covariance is rebuilt from.
  void note_point()
  {
    if (done >= o_.adjscale) return;
    ++window_;
    for (int i = 0; i < np_; ++i) {
      const double x = parm_[static_cast<std::size_t>(i)] - origin(i);
      sum_[static_cast<std::size_t>(i)] += x;
      for (int j = 0; j <= i; ++j)
        products_[static_cast<std::size_t>(packed_index(i, j))] += x * (parm_[static_cast<std::size_t>(j)] - origin(j));
    }
  }

  // Sums are about the window's first point: no digits are lost to the size of a parameter.
  double origin(int i)
  {
    if (window_ == 1 && i == 0) origin_ = parm_;
    return origin_[static_cast<std::size_t>(i)];
  }

  void adapt()
  {
    if (done >= o_.adjscale || window_ < o_.adjincr) return;
    const auto count = static_cast<double>(window_);
    for (std::size_t k = 0; k < scale_.size(); ++k)
      scale_[k] *= std::sqrt(adaptation(static_cast<double>(window_accepted_[k]) / count));
    if (!o_.single) rebuild_factor(count);
    window_ = 0;
    std::fill(window_accepted_.begin(), window_accepted_.end(), 0L);
    std::fill(sum_.begin(), sum_.end(), 0.0);
    std::fill(products_.begin(), products_.end(), 0.0);
  }

  // The covariance of the window's points, with the scale found so far; a window without full rank keeps the factor's
  // shape.
  void rebuild_factor(double count)
  {
    std::vector<double> covariance(products_.size());
    bool full = true;
    for (int i = 0; i < np_; ++i)
      for (int j = 0; j <= i; ++j)
        covariance[static_cast<std::size_t>(packed_index(i, j))] =
            (products_[static_cast<std::size_t>(packed_index(i, j))] -
             sum_[static_cast<std::size_t>(i)] * sum_[static_cast<std::size_t>(j)] / count) /
            count;
    for (int i = 0; i < np_; ++i) {
      double& own = covariance[static_cast<std::size_t>(packed_index(i, i))];
      if (p_.fixed[static_cast<std::size_t>(i)] != 0) own = 1.0; // never moved: any spread will do
      const double before = own;
      matrix::zchol(i, covariance.data(), p_.n->singchol * before);
      full = full && own > 0.0;
    }
    const double change = scale_[0] / applied_;
    if (full) {
      factor_ = std::move(covariance);
      for (double& v : factor_) v *= scale_[0];
    } else {
      for (double& v : factor_) v *= change;
    }
    applied_ = scale_[0];
  }

  void keep(int context)
  {
    draws.theta.insert(draws.theta.end(), parm_.begin(), parm_.end());
    draws.logpost.push_back(objfun_);
    if (!o_.keep_effects || p_.joint == nullptr) return;
    const std::size_t at = draws.effects.size();
    draws.effects.resize(at + effects_.size());
    p_.joint->plain_effects(context, parm_.data(), effects_.data(), draws.effects.data() + at);
  }

  const Posterior& p_;
  const ChainOptions o_;
  const int number_, np_;
  std::vector<double> parm_, effects_; // where the chain stands
  double objfun_ = impossible;         // its log posterior
  std::vector<double> value_;          // and that of each subject
  std::vector<double> factor_, effect_factor_;
  std::vector<double> scale_, own_;   // adapted scales (one, or one a parameter); spread of each parameter alone
  double applied_ = 1.0;              // the scale that factor_ holds
  std::vector<long> window_accepted_; // since the last adaptation
  long window_ = 0, violations_ = 0;
  std::vector<double> sum_, products_, origin_;
  std::vector<double> trial_, trial_value_, trial_effects_, thresholds_, normals_;
};

} // namespace

bool Posterior::inside(const double* theta) const
{
  for (std::size_t j = 0; j < lower.size(); ++j)
    if (!(theta[j] >= lower[j] && theta[j] <= upper[j])) return false;
  return true;
}

std::unique_ptr<Chain> make_random_walk(const Posterior& posterior, const ChainOptions& options, int number,
                                        const ChainStart& start, const WalkProposal& proposal)
{
  return std::make_unique<RandomWalk>(posterior, options, number, start, proposal);
}

} // namespace torvale::sampling
