#include "integration/subjects/evaluation_parts.h"

#include "evaluation/record_sums.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"

#include <algorithm>

namespace torvale::integration {

using model::BatchWork;
using model::BlockWork;
using model::ModelLists;
using model::NX;
using model::REFFECT;

void size_block(const ModelLists& n, BlockWork& block)
{
  long nr = 0;
  for (const REFFECT& reff : n.reff) nr = std::max<long>(nr, reff.nr);
  const long nrs = nr * (nr + 1) / 2, bordered = (nr + 1) * (nr + 2) / 2;
  size(block.gi, nrs);
  size(block.gic, nrs);
  size(block.singGr, nr);
  size(block.hessumat, bordered);
  size(block.hessumat0, bordered);
  size(block.dfr, nr + 1);
  size(block.work1, std::max(nrs, nr + 1));
  size(block.work2, 5 * nr);
  size(block.work3, nrs + 3 * nr);
}

void size_subject_work(const NX& n, model::TVLThreadCtx& ctx)
{
  const REFFECT& reff = n.leaf();
  BatchWork& b = ctx.batch;
  const long slots = static_cast<long>(b.subject.size()), nr = reff.nr, nrs = reff.nrs;
  const long priors = reff.setup_varies ? slots : 1;
  size_block(n, ctx.block);
  constexpr long spare = 16; // for modes that a batch's evaluation of everything at the modes has just missed
  b.mode_stride = (slots + 7) / 8 * 8 + spare;
  b.pair_stride = evaluation::most_pairs + 8; // rows a power of two apart would share the lines of the caches
  room(b.ran, nr * b.pair_stride);
  size(b.search, slots);
  size(b.parameter_step, n.nparm);
  size(b.mean, priors * nr);
  size(b.factor, priors * nrs);
  size(b.arguments, priors * reff.setup.places);
  size(b.outputs, reff.setup.places);
  size(b.null_scale, nr);
  for (std::vector<double>* v : {&b.z, &b.zold, &b.slope}) size(*v, slots * nr);
  for (std::vector<double>* v : {&b.curve, &b.covariance, &b.spread}) size(*v, slots * nrs);
  constexpr long behind = 8; // read with the last columns by those who take several at once
  room(b.mode_sums, n.programs.mode.places * b.mode_stride + behind);
  const model::ModelPrograms& p = n.programs;
  room(b.curvature_sums,
       (p.closing ? p.closing_gradient(p.gradient.places) : p.curvature.places) * b.mode_stride + behind);
}

} // namespace torvale::integration
