#pragma once
// Means and covariance G of the random effects of the subjects in hand.

#include "model/run_record.h"

namespace torvale::evaluation {

// tvlgetg: factors G of one subject (tvl procedure, get, g the matrix G). In block: gi (packed) in; gi with a diagonal
// below singvar set to 0, gic, singGr, badG, negG, singG, logdetgi out. A column of L without a pivot above singchol
// times its diagonal is zero: its random effect then follows from the others. Returns 0; 1 with badG when an element is
// missing. negG: G is not positive semidefinite.
int tvlgetg(const model::NX& n, int nr, model::BlockWork& block);

// PriorEntries: subjects of one level whose priors are wanted, and where they go.
struct PriorEntries {
  const model::REFFECT& reff;
  model::Priors& priors;
  const int*
      slot; // per entry: a slot of the batch whose first used record is the subject's; null: the slots themselves
  int count;
  int* failure; // per entry: out
};

// load_priors: the same for the entries, from the frame of a batch in hand.
int load_priors(const model::NX& n, model::TVLThreadCtx& ctx, const PriorEntries& entries, bool with_derivatives);

// load_priors: runs the distribution arguments for the batch's slots and fills mean, factor, arguments of ctx.batch:
// one entry when they do not vary (then only for the first batch after a change of parameters), else one per slot. Of a
// discrete distribution only arguments. A slot that fails gets its message number: 135 an argument is missing, 132 G is
// not positive semidefinite, 131 an argument of a discrete distribution is missing. with_derivatives: arguments also
// holds the derivatives by parameters. Returns 0 or the engine's code above 2.
int load_priors(const model::NX& n, model::TVLThreadCtx& ctx, bool with_derivatives);

} // namespace torvale::evaluation
