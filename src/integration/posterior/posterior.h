#pragma once
// The random effects at the estimates: their values, how well the data determine them, and how they follow the
// parameters.

#include "model/run_record.h"

namespace torvale::integration {

// Posterior: one entry per subject of the deepest level, in the order of its index. Its random effects are those of its
// chain: of the subjects around it, the outermost first, then its own (with one level simply its own); nr in all.
struct Posterior {
  int nr = 0;
  std::vector<double> estimate;   // nr each: mode of the joint density
  std::vector<double> covariance; // nr (nr + 1) / 2 each, packed: inverse Hessian of the negative log joint density, at
                                  // fixed parameters
  std::vector<double> derivative; // nr x np each: of the estimate by the parameters, the mean's part included
  std::vector<double> mean;       // nr each: of the prior
  std::vector<double> mean_by;    // nr x np each: its derivatives by the parameters
  std::vector<double> prior;      // nr (nr + 1) / 2 each, packed: covariance of the prior
  // Of a discrete distribution: the estimate is the posterior mean, the covariance the posterior one, and for each of
  // its `points` the posterior probability and its derivatives by the parameters.
  int points = 0;
  std::vector<double> probability;    // points each
  std::vector<double> probability_by; // points x np each
  std::vector<char> known; // 0: the subject has no usable record, or its search failed; its numbers are missing
};

// find_posterior: the modes at n.parm, searched anew from the accepted ones, with n.programs.cross (built when
// n.wants_effects is set). With D the derivative, G the covariance of the effects, V = (G^-1 - ll_uu)^-1 and all at the
// mode,
//     D_j = w + V (ll_uu w + ll_u,j),   w = dm/dtheta_j + dG/dtheta_j ll_u,
// from differentiating u - m = G ll_u(u, theta); it holds for a singular G too, since V = (I - G ll_uu)^-1 G.
// Returns 0 or the engine's code above 2. All threads; what a subject gets does not depend on the others.
int find_posterior(model::NX& n, Posterior& out);

// find_rounds: where the rounds of EBITER$ at n.parm lead, from the means on: by round, level (the outermost first),
// subject and effect. Nothing without EBITER$ or with one level. Returns 0 or the engine's code above 2.
int find_rounds(model::NX& n, std::vector<model::RoundEffect>& rounds);

// known_leaf: a subject of the deepest level that is nested in one of n.reff[level] (or is it) and has an entry: its
// chain holds the effects of that subject from first_effect on. -1: there is none.
int known_leaf(const model::ModelLists& n, const Posterior& posterior, std::size_t level, int subject);

// linear_posteriors: the same for the batch in hand of a context, first order around the mean of the effects: their
// mean and covariance given the data in the linear model.
int linear_posteriors(const model::NX& n, model::TVLThreadCtx& ctx, Posterior& out);

// support_posteriors: the same for the batch in hand of a context, with a discrete distribution. support_size: its
// points.
int support_posteriors(const model::NX& n, model::TVLThreadCtx& ctx, Posterior& out);
int support_size(const model::REFFECT& reff);

} // namespace torvale::integration
