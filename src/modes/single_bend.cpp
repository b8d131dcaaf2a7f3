#include "modes/single_bend.h"

#include "modes/single_tree.h"

#include <algorithm>

namespace torvale::modes {

using evaluation::Four;
using model::NestLevel;
using model::NX;
using model::TVLThreadCtx;

namespace {

// f''' = -ll_uuu along the chains of the leaves; products with H^-1 go through the eliminated arrow.
template <class T, int Levels> class SingleBends : SingleTree<T, Levels> {
  using Tree = SingleTree<T, Levels>;
  using Tree::above, Tree::for_ancestors, Tree::for_nodes, Tree::level, Tree::levels, Tree::regression;
  using typename Tree::Chain, typename Tree::Group;

public:
  SingleBends(const NX& n, TVLThreadCtx& ctx) : Tree(n, ctx) {}

  void find()
  {
    const int top = levels() - 1;
    for (int k = 1; k <= top; ++k) std::fill(level(k).bent.begin(), level(k).bent.end(), 0.0);
    for_nodes(0, [&](const Group& leaves) { pull_of_leaves(leaves); });
    for (int k = 1; k < top; ++k)
      for_nodes(k, [&](const Group& nodes) {
        const T y = nodes.from_row(level(k).bent.data());
        for_ancestors(k, nodes, [&](int a, const Group& up) {
          up.add_in_order(regression(k, nodes, above(a)) * y, level(a).bent.data(), 1);
        });
      });
    for (int k = top; k >= 0; --k) for_nodes(k, [&](const Group& nodes) { solve(k, nodes); });
  }

private:
  // -1/2 L' f'''[L s, L s] of the leaves, and what it and their elimination give to their ancestors.
  void pull_of_leaves(const Group& leaves)
  {
    Chain chain;
    Tree::take_chain(chain, leaves);
    T move[Tree::longest], pull[Tree::longest];
    for (int i = 0; i < levels(); ++i) {
      move[i] = chain.factor[i] * chain.node[i].from_row(Tree::level_at(i).step.data());
      pull[i] = T{};
    }
    const auto subjects = leaves.through(level(0).nodes->subject.data());
    const int length = tetrahedron(levels());
    const float* third = Tree::n_.ebes_bend.data();
    for (int i = 0; i < levels(); ++i)
      for (int j = 0; j <= i; ++j)
        for (int k = 0; k <= j; ++k, ++third) { // in all the places that the element has
          const T t = subjects.gather(third, length);
          pull[i] += t * (move[j] * move[k] * (j == k ? 1.0 : 2.0));
          if (j != i) pull[j] += t * (move[i] * move[k] * (i == k ? 1.0 : 2.0));
          if (k != j) pull[k] += t * (move[i] * move[j] * (i == j ? 1.0 : 2.0));
        }
    const int own = above(0);
    const T y = -0.5 * (chain.factor[own] * pull[own]);
    leaves.into_row(y, level(0).bent.data());
    for (int i = 0; i < own; ++i)
      chain.node[i].add_in_order(regression(0, leaves, i) * y - 0.5 * (chain.factor[i] * pull[i]),
                                 Tree::level_at(i).bent.data(), 1);
  }

  void solve(int k, const Group& nodes)
  {
    NestLevel& l = level(k);
    const T inverse = nodes.from_row(l.inverse.data());
    T bent = inverse * nodes.from_row(l.bent.data());
    for_ancestors(k, nodes, [&](int a, const Group& up) {
      bent += regression(k, nodes, above(a)) * up.from_row(level(a).bent.data());
    });
    nodes.into_row(bent, l.bent.data());
    nodes.into_row(bent * bent / evaluation::absolute(inverse), l.part.data());
  }
};

template <int Levels> void find(const NX& n, TVLThreadCtx& ctx)
{
  SingleBends<Four, Levels>(n, ctx).find();
}
template <int Levels> TORVALE_AVX2_BUILD void find_avx2(const NX& n, TVLThreadCtx& ctx)
{
  SingleBends<Four, Levels>(n, ctx).find();
}

} // namespace

void find_bends(const NX& n, TVLThreadCtx& ctx)
{
  by_levels(ctx.nests, [&](auto levels) {
    static const auto build = evaluation::build_for_machine(find<levels()>, find_avx2<levels()>);
    build(n, ctx);
  });
}

} // namespace torvale::modes
