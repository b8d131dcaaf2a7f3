// How the values of nests move with their modes and the scale of their points, where every level has one effect
// (nest_gradient.cpp has the formulas). Four nodes stand side by side; what goes to ancestors and nests is added node
// by node, in their order.

#include "integration/nests/nest_gradient.h"
#include "modes/single_tree.h"

namespace torvale::integration {

using evaluation::Four;
using model::NestLevel;
using model::NX;
using model::TVLThreadCtx;
using modes::packed;

namespace {

template <class T, int Levels> class SingleModes : modes::SingleTree<T, Levels> {
  using Tree = modes::SingleTree<T, Levels>;
  using Tree::above, Tree::closing, Tree::curve, Tree::elements, Tree::for_ancestors, Tree::for_nodes, Tree::level,
      Tree::levels, Tree::level_at, Tree::n_, Tree::regression;
  using typename Tree::Chain, typename Tree::Group;
  static constexpr int longest = Tree::longest, triangle = Tree::triangle;

public:
  SingleModes(const NX& n, TVLThreadCtx& ctx) : Tree(n, ctx), np_(n.nparm) {}

  void curvature()
  {
    for (int k = levels(); k-- > 1;)
      for_nodes(k, [&](const Group& nodes) {
        T bar[triangle] = {};
        const int count = (above(k) + 1) * (above(k) + 2) / 2;
        front_adjoint(k, nodes, bar);
        for (int e = 0; e < count; ++e) nodes.scatter(bar[e], level(k).front_bar.data() + e, count);
      });
    for_nodes(0, [&](const Group& leaves) { through_curvature(leaves); });
  }

  void through_modes()
  {
    for (int k = 0; k + 1 < levels(); ++k) for_nodes(k, [&](const Group& nodes) { pull_ancestors(k, nodes); });
    for (int k = levels(); k-- > 0;)
      for_nodes(k, [&](const Group& nodes) {
        follow_ancestors(k, nodes);
        if (k == 0) through_leaf_modes(nodes);
      });
  }

private:
  // The adjoint of a node's front from that of its parent's.
  void front_adjoint(int k, const Group& nodes, T* bar)
  {
    const NestLevel& l = level(k);
    const int ancestors = above(k), kept = ancestors * (ancestors + 1) / 2;
    const T inverse = nodes.from_row(l.inverse.data()), c = nodes.from_row(l.spread.data());
    T own = {};
    if (ancestors > 0) {
      const auto parents = nodes.through(l.nodes->parent.data());
      for (int e = 0; e < kept; ++e) bar[e] = parents.gather(level(k + 1).front_bar.data() + e, kept);
      T b[longest];
      for (int a = 0; a < ancestors; ++a) b[a] = regression(k, nodes, a);
      for (int a = 0; a < ancestors; ++a) {
        T bk = {};
        for (int i = 0; i < ancestors; ++i) bk += b[i] * bar[packed(i, a)];
        const T y = inverse * nodes.gather(l.regression_bar.data() + a, ancestors);
        bar[packed(ancestors, a)] = bk - 0.5 * y; // each of the two places of an element
        own += (bk - y) * b[a];
      }
    }
    const T p = 0.5 * (c * nodes.from_row(l.spread_bar.data())) + 0.5;
    bar[packed(ancestors, ancestors)] = own - c * p * c;
  }

  // Along the chain of a leaf: L Z, then Zu, which is kept, and what the third derivatives make of it.
  void through_curvature(const Group& leaves)
  {
    T bar[triangle] = {}, lz[longest * longest], zu[triangle];
    Chain chain;
    Tree::take_chain(chain, leaves);
    const auto slots = Tree::slots_of(leaves), columns = Tree::columns_of(slots);
    front_adjoint(0, leaves, bar);
    for (int i = 0; i < levels(); ++i)
      for (int j = 0; j < levels(); ++j) lz[i * longest + j] = 0.0 - chain.factor[i] * bar[packed(i, j)];
    for (int i = 0; i < levels(); ++i)
      for (int j = 0; j <= i; ++j) {
        const T t = lz[i * longest + j] * chain.factor[j];
        zu[packed(i, j)] = i == j ? t : 2.0 * t;
      }
    for (int e = 0; e < elements(); ++e) leaves.scatter(zu[e], level(0).front_bar.data() + e, elements());
    for (int i = 0; i < levels(); ++i) {
      NestLevel& l = level_at(i);
      const Group& nodes = chain.node[i];
      const T tau = through_third(np_ + i, zu, columns);
      T t = {}; // (ll_uu L Z)(i, i)
      for (int k = 0; k < levels(); ++k) t += curve(i, k, slots) * lz[k * longest + i];
      add(i, nodes, tau, l.mean_bar);
      add(i, nodes, chain.factor[i] * tau, l.mode_bar);
      add(i, nodes, tau * nodes.from_row(l.z.data()) + 2.0 * t, l.factor_bar);
    }
  }

  // To a row of the level of a place; leaves stand there once.
  void add(int place, const Group& nodes, const T& t, std::vector<double>& row) const
  {
    if (place == above(0))
      nodes.into_row(nodes.from_row(row.data()) + t, row.data());
    else
      nodes.add_in_order(t, row.data(), 1);
  }

  T through_third(int w, const T* zu, const Group& columns) const
  {
    T t = {};
    for (int e = 0; e < elements(); ++e) t += zu[e] * closing(n_.programs.third_place(w, e), columns);
    return t;
  }

  // The equations of the modes, solved as in modes::solve: what a node hands to its ancestors, and what it gets.
  void pull_ancestors(int k, const Group& nodes)
  {
    const T y = nodes.from_row(level(k).mode_bar.data());
    for_ancestors(k, nodes, [&](int a, const Group& up) {
      up.add_in_order(regression(k, nodes, above(a)) * y, level(a).mode_bar.data(), 1);
    });
  }

  void follow_ancestors(int k, const Group& nodes)
  {
    NestLevel& l = level(k);
    T x = nodes.from_row(l.inverse.data()) * nodes.from_row(l.mode_bar.data());
    for_ancestors(k, nodes, [&](int a, const Group& up) {
      x += regression(k, nodes, above(a)) * up.from_row(level(a).mode_bar.data());
    });
    nodes.into_row(x, l.mode_bar.data());
  }

  // mode_bar holds lambda: how the value moves with the modes, through a leaf's records.
  void through_leaf_modes(const Group& leaves)
  {
    const model::ModelPrograms& program = n_.programs;
    const auto slots = Tree::slots_of(leaves), columns = Tree::columns_of(slots);
    const auto nests = leaves.through(Tree::w_.nest_of_leaf.data());
    Chain chain;
    Tree::take_chain(chain, leaves);
    T lambda[longest], lu[longest], zu[triangle];
    for (int i = 0; i < levels(); ++i) {
      lambda[i] = chain.node[i].from_row(level_at(i).mode_bar.data());
      lu[i] = chain.factor[i] * lambda[i];
    }
    for (int i = 0; i < levels(); ++i) {
      NestLevel& l = level_at(i);
      const Group& nodes = chain.node[i];
      T pull = {}; // ll_uu lu
      for (int k = 0; k < levels(); ++k) pull += curve(i, k, slots) * lu[k];
      const T slope = Tree::at_mode(program.slope(i), slots);
      add(i, nodes, pull, l.mean_bar);
      add(i, nodes, pull * nodes.from_row(l.z.data()) + slope * lambda[i], l.factor_bar);
    }
    for (int e = 0; n_.adscale && e < elements(); ++e) zu[e] = leaves.gather(level(0).front_bar.data() + e, elements());
    for (int j = 0; j < np_; ++j) {
      T t = {};
      for (int k = 0; k < levels(); ++k) t += lu[k] * closing(program.cross_place(k, j), columns);
      if (n_.adscale) t += through_third(j, zu, columns);
      nests.add_in_order(0.0 - t, Tree::w_.gradient.data() + j, np_);
    }
  }

  const int np_;
};

enum class Part { curvature, modes };

template <class T, int Levels> void run_part(const NX& n, TVLThreadCtx& ctx, Part part)
{
  SingleModes<T, Levels> single(n, ctx);
  return part == Part::curvature ? single.curvature() : single.through_modes();
}
template <int Levels> TORVALE_AVX2_BUILD void run_part_avx2(const NX& n, TVLThreadCtx& ctx, Part part)
{
  run_part<Four, Levels>(n, ctx, part);
}

void run(const NX& n, TVLThreadCtx& ctx, Part part)
{
  modes::list_good_nests(ctx.nests);
  modes::by_levels(ctx.nests, [&](auto levels) {
    static const auto build = evaluation::build_for_machine(run_part<Four, levels()>, run_part_avx2<levels()>);
    build(n, ctx, part);
  });
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
