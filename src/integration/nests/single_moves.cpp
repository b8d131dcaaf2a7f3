// How the modes of nests move with the parameters (nest_moves.cpp), where every level has one effect.

#include "integration/nests/nest_moves.h"
#include "modes/single_tree.h"

#include <algorithm>

namespace torvale::integration {

using evaluation::Four;
using model::NestLevel;
using model::NX;
using model::TVLThreadCtx;

namespace {

template <class T, int Levels> class SingleMoves : modes::SingleTree<T, Levels> {
  using Tree = modes::SingleTree<T, Levels>;
  using Tree::above, Tree::for_ancestors, Tree::for_nodes, Tree::level, Tree::levels, Tree::level_at, Tree::n_;
  using typename Tree::Chain, typename Tree::Group;

public:
  SingleMoves(const NX& n, TVLThreadCtx& ctx, const double* cross) : Tree(n, ctx), cross_(cross) {}

  void find()
  {
    const int top = levels() - 1;
    for (int k = 1; k <= top; ++k) {
      std::fill(level(k).slope.begin(), level(k).slope.end(), 0.0);
      std::fill(level(k).move.begin(), level(k).move.end(), 0.0);
    }
    for_nodes(0, [&](const Group& leaves) { add_slopes(leaves); });
    for_nodes(0, [&](const Group& leaves) { add_pulls(leaves); });
    for (int k = 1; k < top; ++k)
      for_nodes(k, [&](const Group& nodes) {
        for_ancestors(k, nodes, [&](int a, const Group& up) {
          const T b = Tree::regression(k, nodes, above(a));
          for (int j = 0; j < n_.nparm; ++j) up.add_in_order(b * nodes.from_row(moves(k, j)), moves(a, j), 1);
        });
      });
    for (int k = top; k >= 0; --k) for_nodes(k, [&](const Group& nodes) { solve(k, nodes); });
    for (int k = 0; k <= top; ++k) for_nodes(k, [&](const Group& nodes) { add_leads(k, nodes); });
  }

private:
  double* moves(int k, int j) const { return level(k).move.data() + move_place(level(k), 0, 0, j, n_.nparm); }

  T lead(int k, const Group& nodes, int j) const
  {
    const NestLevel& l = level(k);
    const model::REFFECT& reff = n_.reff[static_cast<std::size_t>(k)];
    T t = {};
    for_moved(reff, j, [&](int a, int place) {
      const T by = nodes.gather_or_share(l.varies, l.arguments.data() + place, reff.setup.places);
      t += a == 0 ? by : by * nodes.from_row(l.slope.data());
    });
    return t;
  }

  void add_slopes(const Group& leaves)
  {
    const auto slots = Tree::slots_of(leaves);
    leaves.into_row(Tree::at_mode(n_.programs.slope(above(0)), slots), level(0).slope.data());
    for_ancestors(0, leaves, [&](int k, const Group& up) {
      up.add_in_order(Tree::at_mode(n_.programs.slope(above(k)), slots), level(k).slope.data(), 1);
    });
  }

  // L' (ll_uu lead + ll_u.) of a leaf, and what it and its elimination give to those of its ancestors.
  void add_pulls(const Group& leaves)
  {
    const auto slots = Tree::slots_of(leaves), columns = Tree::columns_of(slots);
    const int own = above(0);
    Chain chain;
    Tree::take_chain(chain, leaves);
    T curve[Tree::triangle], b[Tree::longest];
    for (int e = 0; e < Tree::elements(); ++e) curve[e] = Tree::at_mode(n_.programs.curve(e), slots);
    for (int a = 0; a < own; ++a) b[a] = Tree::regression(0, leaves, a);
    for (int j = 0; j < n_.nparm; ++j) {
      T by[Tree::longest], y = {};
      for (int i = 0; i < levels(); ++i) by[i] = lead(above(i), chain.node[i], j);
      for (int i = own; i >= 0; --i) {
        T pull = columns.from_row(cross_ + n_.programs.cross_place(i, j) * Tree::b_.mode_stride);
        for (int k = 0; k < levels(); ++k) pull += curve[modes::packed(i, k)] * by[k];
        pull *= chain.factor[i];
        if (i == own) {
          y = pull;
          leaves.into_row(y, moves(0, j));
        } else {
          chain.node[i].add_in_order(pull + b[i] * y, moves(above(i), j), 1);
        }
      }
    }
  }

  void solve(int k, const Group& nodes)
  {
    const T inverse = nodes.from_row(level(k).inverse.data());
    for (int j = 0; j < n_.nparm; ++j) nodes.into_row(inverse * nodes.from_row(moves(k, j)), moves(k, j));
    for_ancestors(k, nodes, [&](int a, const Group& up) {
      const T b = Tree::regression(k, nodes, above(a));
      for (int j = 0; j < n_.nparm; ++j)
        nodes.into_row(nodes.from_row(moves(k, j)) + b * up.from_row(moves(a, j)), moves(k, j));
    });
  }

  void add_leads(int k, const Group& nodes)
  {
    const T factor = Tree::factor(k, nodes);
    for (int j = 0; j < n_.nparm; ++j)
      nodes.into_row(lead(k, nodes, j) + factor * nodes.from_row(moves(k, j)), moves(k, j));
  }

  const double* const cross_;
};

template <int Levels> void find(const NX& n, TVLThreadCtx& ctx, const double* cross)
{
  SingleMoves<Four, Levels>(n, ctx, cross).find();
}
template <int Levels> TORVALE_AVX2_BUILD void find_avx2(const NX& n, TVLThreadCtx& ctx, const double* cross)
{
  SingleMoves<Four, Levels>(n, ctx, cross).find();
}

} // namespace

void find_single_moves(const NX& n, TVLThreadCtx& ctx, const double* cross)
{
  modes::list_good_nests(ctx.nests);
  modes::by_levels(ctx.nests, [&](auto levels) {
    static const auto build = evaluation::build_for_machine(find<levels()>, find_avx2<levels()>);
    build(n, ctx, cross);
  });
}

} // namespace torvale::integration
