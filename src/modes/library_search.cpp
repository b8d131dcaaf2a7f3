#include "modes/joint_density.h"
#include "modes/hessian_at_mode.h"
#include "optimizer/optimizer.h"

namespace torvale::modes {

using model::BatchWork;
using model::ModeSearch;
using model::NX;
using model::TVLThreadCtx;
using optimizer::MINSTR;

namespace {

// What the callbacks of the inner optimizer work on.
struct Subject {
  const NX* n;
  TVLThreadCtx* ctx;
  int slot;
};

// Value, gradient and Hessian come from one pass, so the gradient and Hessian callbacks only count.
int function(MINSTR* str)
{
  ++str->nfct;
  const Subject& s = *static_cast<Subject*>(str->comstr);
  BatchWork& b = s.ctx->batch;
  const int nr = s.n->leaf().nr;
  std::copy_n(str->x, nr, b.z.data() + static_cast<long>(s.slot) * nr);
  b.active[0] = s.slot;
  if (EBFunc<0>(*s.n, *s.ctx, 1) != 0) return 1;
  JointDensity<0> at(nr);
  at.read(b.mode_sums.data(), b.mode_stride, str->x, b.factor.data() + static_cast<long>(prior_of(*s.n, s.slot)) * (nr * (nr + 1) / 2));
  str->crit = at.f;
  std::copy_n(at.gradient, nr, str->grad);
  std::copy_n(at.hessian, nr * (nr + 1) / 2, str->hess);
  return 0;
}

int EBGrad(MINSTR* str)
{
  ++str->ngrd;
  return function(str);
}

int EBHess(MINSTR* str)
{
  ++str->nhes;
  return function(str);
}

// The inner optimizer of this context: made once, used for every subject.
MINSTR* inner_optimizer(const NX& n, TVLThreadCtx& ctx)
{
  if (ctx.streb != nullptr && ctx.streb->nvar == n.leaf().nr) return ctx.streb.get();
  auto str = std::make_unique<MINSTR>();
  optimizer::tvlopti(str.get());
  str->nvar = n.leaf().nr;
  str->tech = optimizer::NRRIDG;
  str->hesc = 2;
  str->nfuv = 1;
  str->fail = model::failure_objective;
  str->agtl = str->gtol = n.ebtol;
  str->usfct = function;
  str->usgrd = EBGrad;
  str->ushes = EBHess;
  if (optimizer::tvlopta(str.get()) != 0 || optimizer::tvloptc(str.get()) != 0) return nullptr;
  ctx.streb = std::move(str);
  return ctx.streb.get();
}

} // namespace

bool library_search(const NX& n, TVLThreadCtx& ctx, int slot)
{
  MINSTR* const str = inner_optimizer(n, ctx);
  if (str == nullptr) return false;
  Subject subject{&n, &ctx, slot};
  BatchWork& b = ctx.batch;
  const int nr = n.leaf().nr;
  double* const z = b.z.data() + static_cast<long>(slot) * nr;
  str->comstr = &subject;
  str->nfct = str->ngrd = str->nhes = 0;
  std::fill_n(str->x, nr, 0.0); // from the mean: the last point of a failed search is no better
  if (optimizer::znlpdrv(str, 1, 0, 0, 0) != 0 || optimizer::znlpdrv(str, 2, 0, 0, 0) < 0) return false;

  std::copy_n(str->x, nr, z);
  b.active[0] = slot;
  if (EBFunc<0>(n, ctx, 1) != 0) return false;
  JointDensity<0> at(nr);
  at.read(b.mode_sums.data(), b.mode_stride, z, b.factor.data() + static_cast<long>(prior_of(n, slot)) * (nr * (nr + 1) / 2));
  if (!(at.f < model::failure_objective)) return false;
  double pivots[most_effects];
  if (InvertHessian<0>(n, nr, at.hessian, at.gradient, pivots, ctx.block) != 0) return false;
  ModeSearch& s = b.search[static_cast<std::size_t>(slot)];
  s.state = ModeSearch::found;
  s.logdet = log_determinant(nr, pivots);
  s.failure = 0;
  keep_curvature<0>(b, nr, slot, b.mode_sums.data(), at.hessian);
  return true;
}

} // namespace torvale::modes
