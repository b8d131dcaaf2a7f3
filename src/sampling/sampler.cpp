#include "sampling/sampler.h"

#include "host/messages/names/methods.h"
#include "host/messages/names/statements.h"
#include "integration/objective.h"
#include "integration/posterior/posterior.h"
#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "parallel/worker_pool.h"
#include "sampling/random_stream.h"
#include "sampling/sample_output.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::sampling {

using matrix::packed_diagonal;
using matrix::packed_index;
using model::NX;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr int most_start_draws = 1000;

std::string by_text_of(const NX& n)
{
  return n.bylist.empty() ? std::string() : host::by_text(n.by_groups->values(n.by_groups->current_number()));
}

class SamplerRun {
public:
  SamplerRun(NX& n, const SamplerOptions& options)
      : n_(n), o_(options), np_(n.nparm), seed_(group_seed(options.chain.seed, by_text_of(n))), saved_parm_(n.parm),
        saved_dograd_(n.dograd)
  {
  }

  ~SamplerRun()
  {
    n_.parm = saved_parm_;
    n_.dograd = saved_dograd_;
    n_.parmlast.clear(); // the contexts stood elsewhere since
  }

  int run()
  {
    if (np_ == 0 && n_.nreff() == 0) return 1;
    set_bounds();
    move_inside();
    form_factor();
    if (const int rc = place_effects(); rc != 0) return rc;
    make_chains();
    advance();
    std::vector<const Chain*> chains;
    for (const auto& c : chains_) chains.push_back(c.get());
    write_sample(n_, o_, chains);
    write_tables(n_, o_, target_, chains);
    keep_draws(n_, o_, target_, chains);
    return report_failures();
  }

private:
  void set_bounds()
  {
    target_.n = &n_;
    target_.prior = o_.prior;
    for (const auto& p : n_.parmstr) {
      target_.lower.push_back(p.applyl ? p.lowbound : -infinity);
      target_.upper.push_back(p.applyh ? p.highbound : infinity);
      target_.fixed.push_back(target_.lower.back() == target_.upper.back() ? 1 : 0);
    }
    theta_ = n_.parm;
  }

  void move_inside()
  {
    for (std::size_t j = 0; j < theta_.size(); ++j) {
      const double l = target_.lower[j], u = target_.upper[j], before = theta_[j];
      if (theta_[j] < l) theta_[j] = std::isfinite(u) ? 0.9 * l + 0.1 * u : l + 1.0;
      if (theta_[j] > u) theta_[j] = std::isfinite(l) ? 0.9 * u + 0.1 * l : u - 1.0;
      if (theta_[j] != before) n_.host->log().xpmlog(message::sampler_start_moved{.name = n_.parmstr[j].parmname});
    }
  }

  double own_scale(std::size_t j) const { return 0.1 * std::max(std::abs(theta_[j]), 1.0); }

  // The covariance that proposals begin with. A parameter without one (at a bound, not identified, not in COVDATA=)
  // moves alone.
  void form_factor()
  {
    const auto size = static_cast<std::size_t>(matrix::packed_size(np_));
    factor_ = !o_.covariance.empty() ? o_.covariance : n_.covmat;
    if (factor_.size() != size) factor_.assign(size, 0.0);
    std::vector<char> alone(static_cast<std::size_t>(np_), 0);
    for (int j = 0; j < np_; ++j) {
      const double own = factor_[static_cast<std::size_t>(packed_diagonal(j))];
      const auto& verdict = n_.verdict.identified;
      alone[static_cast<std::size_t>(j)] = !(own > 0.0 && std::isfinite(own)) ||
                                           (o_.covariance.empty() && verdict.size() == static_cast<std::size_t>(np_) &&
                                            verdict[static_cast<std::size_t>(j)] == 0);
    }
    for (int i = 0; i < np_; ++i)
      for (int j = 0; j <= i; ++j) {
        double& element = factor_[static_cast<std::size_t>(packed_index(i, j))];
        const bool apart = alone[static_cast<std::size_t>(i)] != 0 || alone[static_cast<std::size_t>(j)] != 0;
        if (apart || std::isnan(element))
          element = i == j ? own_scale(static_cast<std::size_t>(i)) * own_scale(static_cast<std::size_t>(i)) : 0.0;
      }
    for (int i = 0; i < np_; ++i) {
      const double before = factor_[static_cast<std::size_t>(packed_diagonal(i))];
      matrix::zchol(i, factor_.data(), n_.singchol * before);
      double& pivot = factor_[static_cast<std::size_t>(packed_diagonal(i))];
      if (pivot > 0.0) continue;
      for (int k = 0; k < i; ++k) factor_[static_cast<std::size_t>(packed_index(i, k))] = 0.0;
      pivot = std::sqrt(before);
    }
  }

  // The random effects at the start: modes with the inverse Hessian there; means, with standard normal steps, where G
  // is singular.
  int place_effects()
  {
    if (o_.nointegrate || n_.nreff() == 0) return 0;
    n_.parm = theta_;
    if (const int rc = integration::find_posterior(n_, modes_); rc > 2) return fail();
    joint_ = std::make_unique<LogPosterior>(n_, EffectForm::plain);
    std::vector<double> value(static_cast<std::size_t>(joint_->subjects()));
    effects_ = modes_.estimate;
    for (double& u : effects_)
      if (std::isnan(u)) u = 0.0;
    if (!(joint_->values(0, theta_.data(), effects_.data(), value.data()) > impossible)) {
      joint_ = std::make_unique<LogPosterior>(n_, EffectForm::standard);
      standard_ = true;
      std::fill(effects_.begin(), effects_.end(), 0.0);
      if (!(joint_->values(0, theta_.data(), effects_.data(), value.data()) > impossible)) return fail();
    }
    target_.joint = joint_.get();
    form_effect_factors();
    return 0;
  }

  void form_effect_factors()
  {
    const int nr = joint_->effects();
    const auto nrs = static_cast<std::size_t>(matrix::packed_size(nr));
    proposal_.effects.assign(static_cast<std::size_t>(joint_->subjects()) * nrs, 0.0);
    for (std::size_t s = 0; s < static_cast<std::size_t>(joint_->subjects()); ++s) {
      double* const factor = proposal_.effects.data() + s * nrs;
      if (!standard_ && modes_.known[s] != 0)
        std::copy_n(modes_.covariance.begin() + static_cast<std::ptrdiff_t>(s * nrs), nrs, factor);
      for (int i = 0; i < nr; ++i) {
        double& own = factor[packed_diagonal(i)];
        if (!(own > 0.0)) own = 1.0;
        const double before = own;
        matrix::zchol(i, factor, n_.singchol * before);
        if (!(own > 0.0)) own = std::sqrt(before);
      }
    }
  }

  int fail()
  {
    n_.host->log().xpmlog(message::no_posterior_at_start{.part = lacking_part()});
    n_.raise(1012);
    return 1;
  }

  // Which part of the posterior has no value where the first chain starts. Nothing where there is but one.
  std::string lacking_part() const
  {
    if (!target_.prior) return "";
    return target_.log_prior(0, theta_.data()) > impossible ? "the likelihood" : "PRIOR";
  }

  // Chain 0 starts at the point itself, the others from a normal around it with four times the covariance, inside the
  // bounds.
  ChainStart start_of(int number) const
  {
    ChainStart start{theta_, effects_};
    if (o_.no_u_turn)
      for (std::size_t j = 0; j < theta_.size(); ++j) leave_bound(j, start.theta[j]);
    if (number == 0) return start;
    RandomStream random(seed_, number, 0, 0);
    std::vector<double> z(theta_.size());
    for (int draw = 0; draw < most_start_draws; ++draw) {
      for (double& v : z) v = random.normal();
      std::vector<double> at = start.theta;
      for (int i = 0; i < np_; ++i) {
        if (target_.fixed[static_cast<std::size_t>(i)] != 0) continue;
        for (int k = 0; k <= i; ++k)
          at[static_cast<std::size_t>(i)] +=
              2.0 * factor_[static_cast<std::size_t>(packed_index(i, k))] * z[static_cast<std::size_t>(k)];
      }
      if (!target_.inside(at.data())) continue;
      ChainStart trial{at, effects_};
      move_modes(trial);
      if (possible(trial)) return trial;
    }
    return start;
  }

  // The modes follow the parameters.
  void move_modes(ChainStart& start) const
  {
    if (target_.joint == nullptr || standard_) return;
    const auto np = static_cast<std::size_t>(np_);
    for (std::size_t k = 0; k < start.effects.size(); ++k)
      for (std::size_t j = 0; j < np; ++j) {
        const double d = modes_.derivative[k * np + j] * (start.theta[j] - theta_[j]);
        if (std::isfinite(d)) start.effects[k] += d;
      }
  }

  bool possible(const ChainStart& start) const
  {
    if (target_.joint == nullptr) return target_.integrated(start.theta.data(), nullptr) > impossible;
    std::vector<double> value(static_cast<std::size_t>(joint_->subjects()));
    return joint_->values(0, start.theta.data(), start.effects.data(), value.data()) > impossible;
  }

  // A point on a bound has no unbounded coordinate: half a standard deviation inside.
  void leave_bound(std::size_t j, double& x) const
  {
    const double l = target_.lower[j], u = target_.upper[j];
    if (target_.fixed[j] != 0) return;
    double spread = 0.0;
    for (std::size_t k = 0; k <= j; ++k) spread += factor_[j * (j + 1) / 2 + k] * factor_[j * (j + 1) / 2 + k];
    double step = 0.5 * std::sqrt(spread);
    if (std::isfinite(l) && std::isfinite(u)) step = std::min(step, 0.25 * (u - l));
    const double near = 1e-6 * std::max(1.0, std::abs(x));
    if (std::isfinite(l) && x - l < near) x = l + step;
    if (std::isfinite(u) && u - x < near) x = u - step;
  }

  void make_chains()
  {
    proposal_.factor = factor_;
    if (o_.no_u_turn) {
      map_.centre = start_of(0).theta;
      map_.factor = factor_;
      if (target_.joint != nullptr && !standard_) {
        map_.mode = effects_;
        map_.derivative = modes_.derivative;
        for (double& d : map_.derivative)
          if (!std::isfinite(d)) d = 0.0;
        map_.spread = proposal_.effects;
      }
    }
    for (int c = 0; c < o_.chains; ++c) {
      ChainOptions chain = o_.chain;
      chain.seed = seed_;
      chain.keep_effects = o_.out != nullptr && target_.joint != nullptr;
      chains_.push_back(o_.no_u_turn ? make_no_u_turn(target_, chain, c, start_of(c), map_)
                                     : make_random_walk(target_, chain, c, start_of(c), proposal_));
    }
  }

  // All chains side by side, in strides after which the log and a user who wants to stop are heard. Chains of
  // integrated effects run one after the other: each of their evaluations uses all workers.
  void advance()
  {
    const long total = o_.chain.burn + o_.chain.sample;
    long stride = std::max(1L, std::min(total / 50, 1000L)), next_note = o_.lognote;
    if (o_.lognote > 0) stride = std::min(stride, o_.lognote);
    n_.host->progress({.stage = "sampling"});
    for (long done = 0; done < total && !n_.host->interrupted(); done += stride) {
      n_.host->progress({.stage = {}, .share = static_cast<double>(done) / static_cast<double>(total)});
      auto item = [&](int context, long c) {
        Chain& chain = *chains_[static_cast<std::size_t>(c)];
        if (chain.failure == Chain::Failure::none) chain.advance(context, std::min(stride, total - done));
      };
      const auto count = static_cast<long>(chains_.size());
      if (target_.joint != nullptr && n_.workers != nullptr)
        n_.workers->run(count, item);
      else
        for (long c = 0; c < count; ++c) item(0, c);
      if (o_.lognote > 0 && done + stride >= next_note) {
        next_note += o_.lognote;
        note(std::min(done + stride, total));
      }
      if (std::all_of(chains_.begin(), chains_.end(), [](const auto& c) { return c->failure != Chain::Failure::none; }))
        break;
    }
  }

  void note(long done)
  {
    if (done > o_.chain.burn)
      n_.host->log().xpmlog(message::samples_drawn{.count = done - o_.chain.burn});
    else
      n_.host->log().xpmlog(message::samples_drawn{.burn = done});
  }

  int report_failures()
  {
    for (const auto& chain : chains_) {
      if (chain->failure == Chain::Failure::none) continue;
      if (chain->failure == Chain::Failure::out_of_bounds)
        n_.host->log().xpmlog(message::sampler_out_of_bounds{.count = o_.chain.maxbviol});
      else
        n_.host->log().xpmlog(message::no_posterior_at_start{.part = lacking_part()});
      n_.raise(1012);
      return 1;
    }
    return 0;
  }

  NX& n_;
  const SamplerOptions& o_;
  const int np_;
  const std::int64_t seed_; // of this BY group
  const std::vector<double> saved_parm_;
  const bool saved_dograd_;
  Posterior target_;
  std::unique_ptr<LogPosterior> joint_;
  bool standard_ = false;
  integration::Posterior modes_;
  std::vector<double> theta_, effects_; // where chain 0 starts
  std::vector<double> factor_;          // packed Cholesky factor of the first proposals
  WalkProposal proposal_;
  WhiteningMap map_;
  std::vector<std::unique_ptr<Chain>> chains_;
};

} // namespace

double Posterior::integrated(const double* theta, double* gradient) const
{
  NX& run = *n;
  run.parm.assign(theta, theta + run.nparm);
  run.dograd = gradient != nullptr;
  integration::tvllike(run);
  if (run.failed) return impossible;
  for (int j = 0; gradient != nullptr && j < run.nparm; ++j) gradient[j] = -run.objgrad[static_cast<std::size_t>(j)];
  return -run.objfun > impossible ? -run.objfun : impossible;
}

int tvlmcmc(NX& n, const SamplerOptions& options)
{
  return SamplerRun(n, options).run();
}

} // namespace torvale::sampling
