// How the values of nests move with their modes and the scale of their points, where every level has one effect
// (nest_gradient.cpp has the formulas). Four nodes stand side by side; what goes to ancestors and nests is added node
// by node, in their order.

#include "evaluation/slot_group.h"
#include "integration/nests/nest_gradient.h"
#include "modes/nest_steps.h"
#include "modes/packed.h"

namespace torvale::integration {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;
using modes::packed;

namespace {

constexpr int longest = modes::most_single_levels; // chain
constexpr int triangle = longest * (longest + 1) / 2;

template <class T> class SingleModes {
public:
  SingleModes(const NX& n, TVLThreadCtx& ctx)
      : n_(n), b_(ctx.batch), w_(ctx.nests), np_(n.nparm), levels_(static_cast<int>(ctx.nests.level.size()))
  {
  }

  void curvature()
  {
    for (std::size_t k = w_.level.size(); k-- > 1;)
      for_nodes(k, [&](const SlotGroup<T>& nodes) {
        T bar[triangle];
        const int elements = w_.level[k].chain() * (w_.level[k].chain() + 1) / 2;
        front_adjoint(k, nodes, bar);
        for (int e = 0; e < elements; ++e) nodes.scatter(bar[e], w_.level[k].front_bar.data() + e, elements);
      });
    for_nodes(0, [&](const SlotGroup<T>& leaves) { through_curvature(leaves); });
  }

  void through_modes()
  {
    for (std::size_t k = 0; k + 1 < w_.level.size(); ++k)
      for_nodes(k, [&](const SlotGroup<T>& nodes) { pull_ancestors(k, nodes); });
    for (std::size_t k = w_.level.size(); k-- > 0;)
      for_nodes(k, [&](const SlotGroup<T>& nodes) {
        follow_ancestors(k, nodes);
        if (k == 0) through_leaf_modes(nodes);
      });
  }

private:
  // A leaf and its ancestors, the outermost first; factors of G.
  struct Chain {
    SlotGroup<T> node[longest];
    T factor[longest];
  };

  template <class F> void for_nodes(std::size_t level, F&& f) { evaluation::for_groups<T>(w_.level[level].listed, f); }

  // Calls f(level, nodes) for the ancestors, the nearest first.
  template <class F> void for_ancestors(std::size_t level, const SlotGroup<T>& nodes, F&& f)
  {
    SlotGroup<T> up = nodes;
    for (std::size_t k = level + 1; k < w_.level.size(); ++k) {
      up = up.through(w_.level[k - 1].nodes->parent.data());
      f(w_.level[k], up);
    }
  }

  NestLevel& level_of(int place) { return w_.level[static_cast<std::size_t>(levels_ - 1 - place)]; }

  void take_chain(Chain& chain, const SlotGroup<T>& leaves)
  {
    const auto take = [&](NestLevel& l, const SlotGroup<T>& nodes) {
      chain.node[l.place] = nodes;
      chain.factor[l.place] = nodes.from_row_or_share(l.varies, l.factor.data());
    };
    take(w_.level.front(), leaves);
    for_ancestors(0, leaves, take);
  }

  // The adjoint of a node's front from that of its parent's.
  void front_adjoint(std::size_t level, const SlotGroup<T>& nodes, T* bar)
  {
    const NestLevel& l = w_.level[level];
    const int above = l.above, kept = above * (above + 1) / 2;
    const T inverse = nodes.from_row(l.inverse.data()), c = nodes.from_row(l.spread.data());
    T own = {};
    if (above > 0) {
      const auto parents = nodes.through(l.nodes->parent.data());
      for (int e = 0; e < kept; ++e) bar[e] = parents.gather(w_.level[level + 1].front_bar.data() + e, kept);
      T b[longest];
      for (int a = 0; a < above; ++a) b[a] = nodes.gather(l.regression.data() + a, above);
      for (int a = 0; a < above; ++a) {
        T bk = {};
        for (int k = 0; k < above; ++k) bk += b[k] * bar[packed(k, a)];
        const T y = inverse * nodes.gather(l.regression_bar.data() + a, above);
        bar[packed(above, a)] = bk - 0.5 * y; // each of the two places of an element
        own += (bk - y) * b[a];
      }
    }
    const T p = 0.5 * (c * nodes.from_row(l.spread_bar.data())) + 0.5;
    bar[packed(above, above)] = own - c * p * c;
  }

  // Along the chain of a leaf: L Z, then Zu, which is kept, and what the third derivatives make of it.
  void through_curvature(const SlotGroup<T>& leaves)
  {
    NestLevel& leaf = w_.level.front();
    T bar[triangle], lz[longest * longest], zu[triangle];
    Chain chain;
    take_chain(chain, leaves);
    const auto slots = leaves.through(leaf.nodes->slot.data()), columns = slots.through(b_.column.data());
    front_adjoint(0, leaves, bar);
    const int elements = levels_ * (levels_ + 1) / 2;
    for (int i = 0; i < levels_; ++i)
      for (int j = 0; j < levels_; ++j) lz[i * longest + j] = 0.0 - chain.factor[i] * bar[packed(i, j)];
    for (int i = 0; i < levels_; ++i)
      for (int j = 0; j <= i; ++j) {
        const T t = lz[i * longest + j] * chain.factor[j];
        zu[packed(i, j)] = i == j ? t : 2.0 * t;
      }
    for (int e = 0; e < elements; ++e) leaves.scatter(zu[e], leaf.front_bar.data() + e, elements);
    for (int i = 0; i < levels_; ++i) {
      NestLevel& l = level_of(i);
      const SlotGroup<T>& nodes = chain.node[i];
      const T tau = through_third(np_ + i, zu, columns);
      T t = {}; // (ll_uu L Z)(i, i)
      for (int k = 0; k < levels_; ++k) t += curve(i, k, slots) * lz[k * longest + i];
      nodes.add_in_order(tau, l.mean_bar.data(), 1);
      nodes.add_in_order(chain.factor[i] * tau, l.mode_bar.data(), 1);
      nodes.add_in_order(tau * nodes.from_row(l.z.data()) + 2.0 * t, l.factor_bar.data(), 1);
    }
  }

  T through_third(int w, const T* zu, const SlotGroup<T>& columns) const
  {
    T t = {};
    for (int e = 0; e < levels_ * (levels_ + 1) / 2; ++e)
      t += zu[e] * columns.from_row(b_.curvature_sums.data() + n_.programs.third_place(w, e) * b_.mode_stride);
    return t;
  }

  T curve(int i, int k, const SlotGroup<T>& slots) const
  {
    return slots.from_row(w_.leaf.data() + n_.programs.curve(packed(i, k)) * b_.mode_stride);
  }

  // The equations of the modes, solved as in modes::solve: what a node hands to its ancestors, and what it gets.
  void pull_ancestors(std::size_t level, const SlotGroup<T>& nodes)
  {
    const NestLevel& l = w_.level[level];
    const T y = nodes.from_row(l.mode_bar.data());
    for_ancestors(level, nodes, [&](NestLevel& a, const SlotGroup<T>& up) {
      up.add_in_order(nodes.gather(l.regression.data() + a.place, l.above) * y, a.mode_bar.data(), 1);
    });
  }

  void follow_ancestors(std::size_t level, const SlotGroup<T>& nodes)
  {
    NestLevel& l = w_.level[level];
    T x = nodes.from_row(l.inverse.data()) * nodes.from_row(l.mode_bar.data());
    for_ancestors(level, nodes, [&](const NestLevel& a, const SlotGroup<T>& up) {
      x += nodes.gather(l.regression.data() + a.place, l.above) * up.from_row(a.mode_bar.data());
    });
    nodes.into_row(x, l.mode_bar.data());
  }

  // mode_bar holds lambda: how the value moves with the modes, through a leaf's records.
  void through_leaf_modes(const SlotGroup<T>& leaves)
  {
    NestLevel& leaf = w_.level.front();
    const model::ModelPrograms& program = n_.programs;
    const auto slots = leaves.through(leaf.nodes->slot.data()), columns = slots.through(b_.column.data());
    const auto nests = leaves.through(w_.nest_of_leaf.data());
    Chain chain;
    take_chain(chain, leaves);
    T lambda[longest], lu[longest], zu[triangle];
    for (int i = 0; i < levels_; ++i) {
      lambda[i] = chain.node[i].from_row(level_of(i).mode_bar.data());
      lu[i] = chain.factor[i] * lambda[i];
    }
    for (int i = 0; i < levels_; ++i) {
      NestLevel& l = level_of(i);
      const SlotGroup<T>& nodes = chain.node[i];
      T pull = {}; // ll_uu lu
      for (int k = 0; k < levels_; ++k) pull += curve(i, k, slots) * lu[k];
      const T slope = slots.from_row(w_.leaf.data() + program.slope(i) * b_.mode_stride);
      nodes.add_in_order(pull, l.mean_bar.data(), 1);
      nodes.add_in_order(pull * nodes.from_row(l.z.data()) + slope * lambda[i], l.factor_bar.data(), 1);
    }
    const int elements = levels_ * (levels_ + 1) / 2;
    for (int e = 0; n_.adscale && e < elements; ++e) zu[e] = leaves.gather(leaf.front_bar.data() + e, elements);
    for (int j = 0; j < np_; ++j) {
      T t = {};
      for (int k = 0; k < levels_; ++k)
        t += lu[k] * columns.from_row(b_.curvature_sums.data() + program.cross_place(k, j) * b_.mode_stride);
      if (n_.adscale) t += through_third(j, zu, columns);
      nests.add_in_order(0.0 - t, w_.gradient.data() + j, np_);
    }
  }

  const NX& n_;
  const BatchWork& b_;
  NestWork& w_;
  const int np_, levels_;
};

enum class Part { curvature, modes };

template <class T> void run_part(const NX& n, TVLThreadCtx& ctx, Part part)
{
  SingleModes<T> single(n, ctx);
  return part == Part::curvature ? single.curvature() : single.through_modes();
}
TORVALE_AVX2_BUILD void run_part_avx2(const NX& n, TVLThreadCtx& ctx, Part part)
{
  run_part<Four>(n, ctx, part);
}

void run(const NX& n, TVLThreadCtx& ctx, Part part)
{
  modes::list_good_nests(ctx.nests);
  static const auto build = evaluation::build_for_machine(run_part<Four>, run_part_avx2);
  build(n, ctx, part);
}

} // namespace

void through_single_curvature(const NX& n, TVLThreadCtx& ctx)
{
  run(n, ctx, Part::curvature);
}

void through_single_modes(const NX& n, TVLThreadCtx& ctx)
{
  run(n, ctx, Part::modes);
}

} // namespace torvale::integration
