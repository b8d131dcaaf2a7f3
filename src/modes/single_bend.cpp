#include "modes/single_bend.h"

#include "evaluation/slot_group.h"
#include "modes/packed.h"
#include "modes/search_rules.h"

#include <algorithm>

namespace torvale::modes {

using evaluation::Four;
using evaluation::SlotGroup;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

// f''' = -ll_uuu along the chains of the leaves; products with H^-1 go through the eliminated arrow.
template <class T> class SingleBends {
public:
  SingleBends(const NX& n, TVLThreadCtx& ctx) : n_(n), w_(ctx.nests), levels_(static_cast<int>(w_.level.size())) {}

  void find()
  {
    const std::size_t top = w_.level.size() - 1;
    for (std::size_t k = 1; k <= top; ++k) std::fill(w_.level[k].bent.begin(), w_.level[k].bent.end(), 0.0);
    for_nodes(0, [&](const SlotGroup<T>& leaves) { pull_of_leaves(leaves); });
    for (std::size_t k = 1; k < top; ++k)
      for_nodes(k, [&](const SlotGroup<T>& nodes) {
        const T y = nodes.from_row(w_.level[k].bent.data());
        for_ancestors(k, nodes, [&](NestLevel& a, const SlotGroup<T>& up) {
          up.add_in_order(regression(k, nodes, a) * y, a.bent.data(), 1);
        });
      });
    for (std::size_t k = top + 1; k-- > 0;) for_nodes(k, [&](const SlotGroup<T>& nodes) { solve(k, nodes); });
  }

private:
  static constexpr int longest = most_bent_effects; // chain

  template <class F> void for_nodes(std::size_t level, F&& f) { evaluation::for_groups<T>(w_.level[level].listed, f); }

  template <class F> void for_ancestors(std::size_t level, const SlotGroup<T>& nodes, F&& f)
  {
    SlotGroup<T> up = nodes;
    for (std::size_t k = level + 1; k < w_.level.size(); ++k) {
      up = up.through(w_.level[k - 1].nodes->parent.data());
      f(w_.level[k], up);
    }
  }

  T regression(std::size_t level, const SlotGroup<T>& nodes, const NestLevel& on) const
  {
    const NestLevel& l = w_.level[level];
    return nodes.gather(l.regression.data() + on.place, l.above);
  }

  // -1/2 L' f'''[L s, L s] of the leaves, and what it and their elimination give to their ancestors.
  void pull_of_leaves(const SlotGroup<T>& leaves)
  {
    NestLevel& leaf = w_.level.front();
    SlotGroup<T> chain[longest];
    T factor[longest], move[longest], pull[longest] = {};
    NestLevel* level[longest];
    const auto take = [&](NestLevel& l, const SlotGroup<T>& nodes) {
      level[l.place] = &l;
      chain[l.place] = nodes;
      factor[l.place] = nodes.from_row_or_share(l.varies, l.factor.data());
      move[l.place] = factor[l.place] * nodes.from_row(l.step.data());
    };
    take(leaf, leaves);
    for_ancestors(0, leaves, take);
    const auto subjects = leaves.through(leaf.nodes->subject.data());
    const int length = tetrahedron(levels_);
    const float* third = n_.ebes_bend.data();
    for (int i = 0; i < levels_; ++i)
      for (int j = 0; j <= i; ++j)
        for (int k = 0; k <= j; ++k, ++third) {
          // Each of the places that the element has.
          const T t = subjects.gather(third, length);
          pull[i] += t * (move[j] * move[k] * (j == k ? 1.0 : 2.0));
          if (j != i) pull[j] += t * (move[i] * move[k] * (i == k ? 1.0 : 2.0));
          if (k != j) pull[k] += t * (move[i] * move[j] * (i == j ? 1.0 : 2.0));
        }
    T y = -0.5 * (factor[leaf.place] * pull[leaf.place]);
    leaves.into_row(y, leaf.bent.data());
    for (int i = 0; i < leaf.place; ++i)
      chain[i].add_in_order(regression(0, leaves, *level[i]) * y - 0.5 * (factor[i] * pull[i]), level[i]->bent.data(),
                            1);
  }

  void solve(std::size_t level, const SlotGroup<T>& nodes)
  {
    NestLevel& l = w_.level[level];
    const T inverse = nodes.from_row(l.inverse.data());
    T bent = inverse * nodes.from_row(l.bent.data());
    for_ancestors(level, nodes, [&](const NestLevel& a, const SlotGroup<T>& up) {
      bent += regression(level, nodes, a) * up.from_row(a.bent.data());
    });
    nodes.into_row(bent, l.bent.data());
    nodes.into_row(bent * bent / evaluation::absolute(inverse), l.part.data());
  }

  const NX& n_;
  NestWork& w_;
  const int levels_;
};

template <class T> void find(const NX& n, TVLThreadCtx& ctx)
{
  SingleBends<T>(n, ctx).find();
}
TORVALE_AVX2_BUILD void find_avx2(const NX& n, TVLThreadCtx& ctx)
{
  find<Four>(n, ctx);
}

} // namespace

void find_bends(const NX& n, TVLThreadCtx& ctx)
{
  static const auto build = evaluation::build_for_machine(find<Four>, find_avx2);
  build(n, ctx);
}

} // namespace torvale::modes
