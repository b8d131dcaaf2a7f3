#include "modes/single_steps.h"

#include "modes/hessian_at_mode.h"
#include "modes/nest_elimination.h"
#include "modes/single_tree.h"

#include <limits>

namespace torvale::modes {

using evaluation::Four;
using model::NestLevel;
using model::NX;
using model::TVLThreadCtx;

namespace {

template <class T, int Levels> class SingleNests : SingleTree<T, Levels> {
  using Tree = SingleTree<T, Levels>;
  using Tree::above, Tree::b_, Tree::factor, Tree::for_ancestors, Tree::for_nodes, Tree::level, Tree::levels,
      Tree::mean, Tree::n_, Tree::w_;
  using typename Tree::Chain, typename Tree::Group;

public:
  SingleNests(const NX& n, TVLThreadCtx& ctx, const double* sums) : Tree(n, ctx), sums_(sums) {}

  void starts(bool predicts)
  {
    for (int k = 0; k < levels(); ++k) for_nodes(k, [&](const Group& nodes) { start(k, nodes, predicts); });
  }

  void effects()
  {
    for (int k = 0; k < levels(); ++k)
      for_nodes(k, [&](const Group& nodes) {
        nodes.into_row(mean(k, nodes) + factor(k, nodes) * nodes.from_row(level(k).z.data()), level(k).u.data());
      });
  }

  void values()
  {
    for (int k = 0; k < levels(); ++k)
      for_nodes(k, [&](const Group& nodes) {
        const T z = nodes.from_row(level(k).z.data());
        T part = 0.5 * z * z;
        if (k == 0) {
          const T ll = columns(nodes).from_row(sums_), failed = T{} + model::failure_objective;
          part = ll > model::impossible_loglik ? part - ll : failed;
          part = ll <= std::numeric_limits<double>::max() ? part : failed;
        }
        nodes.into_row(part, level(k).part.data());
      });
  }

  void steps()
  {
    for_nodes(0, [&](const Group& leaves) { reduce_leaves(leaves); });
    for (int k = 1; k < levels(); ++k) for_nodes(k, [&](const Group& nodes) { reduce(k, nodes); });
    for (int k = levels(); k-- > 0;) for_nodes(k, [&](const Group& nodes) { finish(k, nodes); });
  }

private:
  Group columns(const Group& leaves) const { return Tree::columns_of(Tree::slots_of(leaves)); }

  void start(int k, const Group& nodes, bool predicts)
  {
    NestLevel& l = level(k);
    const model::REFFECT& reff = n_.reff[static_cast<std::size_t>(k)];
    const auto subjects = nodes.through(l.nodes->subject.data());
    const T centre = mean(k, nodes), scale = factor(k, nodes), none = {};
    T u = subjects.from_row(n_.ebes.data() + reff.mode_first);
    const auto standard = [&] { return scale > 0.0 ? (u - centre) / scale : none; };
    const T at = standard();
    nodes.into_row(at, l.z.data());
    if (!predicts) return;
    const float* const by = n_.ebes_by.data() + reff.mode_first * n_.nparm;
    for (int j = 0; j < n_.nparm; ++j)
      u += subjects.gather(by + j, n_.nparm) * b_.parameter_step[static_cast<std::size_t>(j)];
    const T ahead = standard();
    nodes.into_row(at, l.zold.data());
    nodes.into_row(ahead, l.z.data());
    nodes.into_row(evaluation::absolute(ahead - at), l.part.data());
  }

  // Front and gradient of leaves from their records: -L' ll_uu L and -L' ll_u along the chain, with their own prior.
  void reduce_leaves(const Group& leaves)
  {
    const auto at = columns(leaves);
    Chain chain;
    Tree::take_chain(chain, leaves);
    const T* const scale = chain.factor;
    T front[Tree::triangle], right[Tree::longest];
    const model::ModelPrograms& p = n_.programs;
    for (int r = 0, k = 0; r < levels(); ++r) {
      right[r] = 0.0 - scale[r] * at.from_row(sums_ + p.slope(r) * b_.mode_stride);
      for (int c = 0; c <= r; ++c, ++k)
        front[k] = 0.0 - scale[r] * (at.from_row(sums_ + p.curve(k) * b_.mode_stride) * scale[c]);
    }
    front[packed(above(0), above(0))] += 1.0;
    right[above(0)] += leaves.from_row(level(0).z.data());
    eliminate_group(0, leaves, front, right);
  }

  void reduce(int k, const Group& nodes)
  {
    const NestLevel& l = level(k);
    const int length = above(k) + 1, elements = length * (length + 1) / 2;
    T front[Tree::triangle], right[Tree::longest];
    for (int e = 0; e < elements; ++e) front[e] = nodes.gather(l.front.data() + e, elements);
    for (int e = 0; e < length; ++e) right[e] = nodes.gather(l.right.data() + e, length);
    eliminate_group(k, nodes, front, right);
  }

  // What `eliminate` does for a node; those with a pivot that needs care are left to it.
  void eliminate_group(int level_number, const Group& nodes, T* front, T* right)
  {
    NestLevel& l = level(level_number);
    const int ancestors = above(level_number), kept = ancestors * (ancestors + 1) / 2;
    const T* const row = front + kept;
    const T pivot = row[ancestors], pull = right[ancestors], one = T{} + 1.0, none = {};
    const T inverse = 1.0 / pivot;
    double fits[Group::width];
    Group::store((pivot > pivot_floor) & (pivot < 1.0 / pivot_floor) ? one : none, fits);
    for (int i = 0; i < nodes.used; ++i)
      if (fits[i] == 0.0) keep_front(l, nodes.slot[i], front, right, i);
    nodes.into_row(inverse, l.inverse.data());
    nodes.into_row(pull * inverse, l.step.data());
    T b[Tree::longest];
    for (int a = 0; a < ancestors; ++a) {
      b[a] = 0.0 - inverse * row[a];
      nodes.scatter(b[a], l.regression.data() + a, ancestors);
    }
    for (int a = 0, k = 0; a < ancestors; ++a) {
      for (int c = 0; c <= a; ++c, ++k) front[k] += row[a] * b[c];
      right[a] += b[a] * pull;
    }
    for (int i = 0; i < nodes.used; ++i) {
      if (fits[i] == 0.0) {
        if (eliminate(n_, w_, level_number, nodes.slot[i], Tree::ctx_.block) != 0) note_failure(l, nodes.slot[i]);
        continue;
      }
      if (ancestors == 0) continue;
      NestLevel& p = level(level_number + 1);
      const long parent = l.nodes->parent[static_cast<std::size_t>(nodes.slot[i])];
      double* const to = p.front.data() + parent * kept;
      double* const to_right = p.right.data() + parent * ancestors;
      for (int k = 0; k < kept; ++k) to[k] += Group::of(front[k], i);
      for (int a = 0; a < ancestors; ++a) to_right[a] += Group::of(right[a], i);
    }
  }

  static void keep_front(NestLevel& l, int node, const T* front, const T* right, int i)
  {
    const int length = l.chain(), elements = length * (length + 1) / 2;
    for (int k = 0; k < elements; ++k) l.front[static_cast<std::size_t>(node * elements + k)] = Group::of(front[k], i);
    for (int k = 0; k < length; ++k) l.right[static_cast<std::size_t>(node * length + k)] = Group::of(right[k], i);
  }

  void note_failure(const NestLevel& l, int node)
  {
    const auto leaf = static_cast<std::size_t>(
        w_.leaf_of_slot[static_cast<std::size_t>(l.nodes->slot[static_cast<std::size_t>(node)])]);
    w_.square[static_cast<std::size_t>(w_.nest_of_leaf[leaf])] = std::numeric_limits<double>::infinity();
  }

  // The step follows those of the ancestors; its lengths.
  void finish(int k, const Group& nodes)
  {
    NestLevel& l = level(k);
    T step = nodes.from_row(l.step.data());
    for_ancestors(k, nodes, [&](int a, const Group& up) {
      step += Tree::regression(k, nodes, above(a)) * up.from_row(level(a).step.data());
    });
    nodes.into_row(step, l.step.data());
    nodes.into_row(evaluation::absolute(factor(k, nodes) * step), l.part.data());
    nodes.into_row(step * step / evaluation::absolute(nodes.from_row(l.inverse.data())), l.square.data());
  }

  const double* const sums_;
};

template <class T, int Levels> void work(const NX& n, TVLThreadCtx& ctx, const double* sums, NestTask task)
{
  SingleNests<T, Levels> nests(n, ctx, sums);
  switch (task) {
  case NestTask::starts:
    return nests.starts(false);
  case NestTask::starts_ahead:
    return nests.starts(true);
  case NestTask::effects:
    return nests.effects();
  case NestTask::values:
    return nests.values();
  case NestTask::steps:
    return nests.steps();
  }
}

template <int Levels>
TORVALE_AVX2_BUILD void work_avx2(const NX& n, TVLThreadCtx& ctx, const double* sums, NestTask task)
{
  work<Four, Levels>(n, ctx, sums, task);
}

} // namespace

void work_on_singles(const NX& n, TVLThreadCtx& ctx, const double* sums, NestTask task)
{
  by_levels(ctx.nests, [&](auto levels) {
    static const auto build = evaluation::build_for_machine(work<Four, levels()>, work_avx2<levels()>);
    build(n, ctx, sums, task);
  });
}

} // namespace torvale::modes
