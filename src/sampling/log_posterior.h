#pragma once
// The log posterior density of parameters and random effects under flat priors (or the program's PRIOR), with its
// gradient.

#include "model/run_record.h"

#include <vector>

namespace torvale::sampling {

// A value at or below it is no density: the point is impossible.
inline constexpr double impossible = model::impossible_loglik;

// How the random effects of a state are written: as they are, or as z with u = m + L z, L L' = G. Where G has no
// inverse u has no density, but z has: its density is the standard normal's.
enum class EffectForm { plain, standard };

// LogPosterior: evaluations on the run's contexts, for models with one block of random effects. A state is a parameter
// vector and nr effects per subject of the index (those of unusable subjects are ignored).
class LogPosterior {
public:
  LogPosterior(model::NX& n, EffectForm form);

  int subjects() const { return subjects_; }
  int effects() const { return nr_; }

  // LogPost: one pass over all subjects on a context: value[s] is subject s's log likelihood and log prior density of
  // its effects, or `impossible`. Returns the sum in subject order, `impossible` when a subject has no value. (Log
  // posterior.)
  double values(int context, const double* theta, const double* effects, double* value);

  // With the derivatives by the parameters (np) and by the effects (nr a subject).
  double gradient(int context, const double* theta, const double* effects, double* by_theta, double* by_effects);

  // The random effects as they are, of a state at theta.
  int plain_effects(int context, const double* theta, const double* effects, double* u);

private:
  struct Work {
    std::vector<double> sums;     // rows of the gradient program, pair_stride columns
    std::vector<double> value;    // per subject
    std::vector<double> by_theta; // subjects x np: summed in subject order
    std::vector<double> small;    // matrices of one subject
  };
  template <class Visit> int each_batch(int context, const double* theta, bool derivatives, Visit visit);
  int run_batch(model::TVLThreadCtx& ctx, Work& w, const double* effects, bool derivatives);
  bool prior_terms(const model::TVLThreadCtx& ctx, int slot, const double* state, double& logp) const;
  void chain_rule(const model::TVLThreadCtx& ctx, Work& w, int slot, int column, const double* state, double* by_theta,
                  double* by_effects) const;

  model::NX& n_;
  const EffectForm form_;
  const int subjects_, nr_, nrs_, np_;
  std::vector<Work> work_; // per context
};

} // namespace torvale::sampling
