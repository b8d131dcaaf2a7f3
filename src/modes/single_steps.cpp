#include "modes/single_steps.h"

#include "evaluation/slot_group.h"
#include "modes/hessian_at_mode.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/nest_steps.h"

#include <limits>

namespace torvale::modes {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

template <class T> T factor_of_single(const NestLevel& l, const SlotGroup<T>& nodes)
{
  return nodes.from_row_or_share(l.varies, l.factor.data());
}

template <class T> T mean_of_single(const NestLevel& l, const SlotGroup<T>& nodes)
{
  return nodes.from_row_or_share(l.varies, l.mean.data());
}

// One effect at every level; T: double or Four.
template <class T> class SingleNests {
public:
  SingleNests(const NX& n, TVLThreadCtx& ctx, const double* sums)
      : n_(n), ctx_(ctx), b_(ctx.batch), w_(ctx.nests), sums_(sums)
  {
  }

  void starts(bool predicts)
  {
    for (std::size_t k = 0; k < w_.level.size(); ++k)
      evaluation::for_groups<T>(w_.level[k].listed,
                                [&](const SlotGroup<T>& nodes) { start(w_.level[k], n_.reff[k], nodes, predicts); });
  }

  void effects()
  {
    for (NestLevel& l : w_.level)
      evaluation::for_groups<T>(l.listed, [&](const SlotGroup<T>& nodes) {
        nodes.into_row(mean_of_single(l, nodes) + factor_of_single(l, nodes) * nodes.from_row(l.z.data()), l.u.data());
      });
  }

  void values()
  {
    for (NestLevel& l : w_.level)
      evaluation::for_groups<T>(l.listed, [&](const SlotGroup<T>& nodes) {
        const T z = nodes.from_row(l.z.data());
        T part = 0.5 * z * z;
        if (&l == &w_.level.front()) {
          const T ll = columns(nodes).from_row(sums_), failed = T{} + model::failure_objective;
          part = ll > model::impossible_loglik ? part - ll : failed;
          part = ll <= std::numeric_limits<double>::max() ? part : failed;
        }
        nodes.into_row(part, l.part.data());
      });
  }

  void steps()
  {
    for (std::size_t k = 0; k < w_.level.size(); ++k)
      evaluation::for_groups<T>(w_.level[k].listed,
                                [&](const SlotGroup<T>& nodes) { k == 0 ? reduce_leaves(nodes) : reduce(k, nodes); });
    for (std::size_t k = w_.level.size(); k-- > 0;)
      evaluation::for_groups<T>(w_.level[k].listed, [&](const SlotGroup<T>& nodes) { finish(k, nodes); });
  }

private:
  static constexpr int chain = most_single_levels, triangle = chain * (chain + 1) / 2;

  SlotGroup<T> columns(const SlotGroup<T>& leaves) const
  {
    return leaves.through(w_.level.front().nodes->slot.data()).through(b_.column.data());
  }

  void start(NestLevel& l, const model::REFFECT& reff, const SlotGroup<T>& nodes, bool predicts)
  {
    const auto subjects = nodes.through(l.nodes->subject.data());
    const T mean = mean_of_single(l, nodes), factor = factor_of_single(l, nodes), none = {};
    T u = subjects.from_row(n_.ebes.data() + reff.mode_first);
    const auto standard = [&] { return factor > 0.0 ? (u - mean) / factor : none; };
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
  void reduce_leaves(const SlotGroup<T>& leaves)
  {
    const auto at = columns(leaves);
    const int levels = static_cast<int>(w_.level.size());
    T factor[chain], front[triangle], right[chain];
    SlotGroup<T> up = leaves;
    for (std::size_t k = 0; k < w_.level.size(); ++k) {
      if (k > 0) up = up.through(w_.level[k - 1].nodes->parent.data());
      factor[levels - 1 - static_cast<int>(k)] = factor_of_single(w_.level[k], up);
    }
    const model::ModelPrograms& p = n_.programs;
    for (int r = 0, k = 0; r < levels; ++r) {
      right[r] = 0.0 - factor[r] * at.from_row(sums_ + p.slope(r) * b_.mode_stride);
      for (int c = 0; c <= r; ++c, ++k)
        front[k] = 0.0 - factor[r] * (at.from_row(sums_ + p.curve(k) * b_.mode_stride) * factor[c]);
    }
    front[packed(levels - 1, levels - 1)] += 1.0;
    right[levels - 1] += leaves.from_row(w_.level.front().z.data());
    eliminate_group(0, leaves, front, right);
  }

  void reduce(std::size_t level, const SlotGroup<T>& nodes)
  {
    const NestLevel& l = w_.level[level];
    const int length = l.chain(), elements = length * (length + 1) / 2;
    T front[triangle], right[chain];
    for (int k = 0; k < elements; ++k) front[k] = nodes.gather(l.front.data() + k, elements);
    for (int k = 0; k < length; ++k) right[k] = nodes.gather(l.right.data() + k, length);
    eliminate_group(level, nodes, front, right);
  }

  // What `eliminate` does for a node; those with a pivot that needs care are left to it.
  void eliminate_group(std::size_t level, const SlotGroup<T>& nodes, T* front, T* right)
  {
    NestLevel& l = w_.level[level];
    const int above = l.above, kept = above * (above + 1) / 2;
    const T* const row = front + kept;
    const T pivot = row[above], pull = right[above], one = T{} + 1.0, none = {};
    const T inverse = 1.0 / pivot;
    double fits[SlotGroup<T>::width];
    SlotGroup<T>::store((pivot > pivot_floor) & (pivot < 1.0 / pivot_floor) ? one : none, fits);
    for (int i = 0; i < nodes.used; ++i)
      if (fits[i] == 0.0) keep_front(l, nodes.slot[i], front, right, i);
    nodes.into_row(inverse, l.inverse.data());
    nodes.into_row(pull * inverse, l.step.data());
    T b[chain];
    for (int a = 0; a < above; ++a) {
      b[a] = 0.0 - inverse * row[a];
      nodes.scatter(b[a], l.regression.data() + a, above);
    }
    for (int a = 0, k = 0; a < above; ++a) {
      for (int c = 0; c <= a; ++c, ++k) front[k] += row[a] * b[c];
      right[a] += b[a] * pull;
    }
    for (int i = 0; i < nodes.used; ++i) {
      if (fits[i] == 0.0) {
        if (eliminate(n_, w_, static_cast<int>(level), nodes.slot[i], ctx_.block) != 0) note_failure(l, nodes.slot[i]);
        continue;
      }
      if (above == 0) continue;
      NestLevel& p = w_.level[level + 1];
      const long parent = l.nodes->parent[static_cast<std::size_t>(nodes.slot[i])];
      double* const to = p.front.data() + parent * kept;
      double* const to_right = p.right.data() + parent * above;
      for (int k = 0; k < kept; ++k) to[k] += SlotGroup<T>::of(front[k], i);
      for (int a = 0; a < above; ++a) to_right[a] += SlotGroup<T>::of(right[a], i);
    }
  }

  static void keep_front(NestLevel& l, int node, const T* front, const T* right, int i)
  {
    const int length = l.chain(), elements = length * (length + 1) / 2;
    for (int k = 0; k < elements; ++k)
      l.front[static_cast<std::size_t>(node * elements + k)] = SlotGroup<T>::of(front[k], i);
    for (int k = 0; k < length; ++k)
      l.right[static_cast<std::size_t>(node * length + k)] = SlotGroup<T>::of(right[k], i);
  }

  void note_failure(const NestLevel& l, int node)
  {
    const auto leaf = static_cast<std::size_t>(
        w_.leaf_of_slot[static_cast<std::size_t>(l.nodes->slot[static_cast<std::size_t>(node)])]);
    w_.square[static_cast<std::size_t>(w_.nest_of_leaf[leaf])] = std::numeric_limits<double>::infinity();
  }

  // The step follows those of the ancestors; its lengths.
  void finish(std::size_t level, const SlotGroup<T>& nodes)
  {
    NestLevel& l = w_.level[level];
    T step = nodes.from_row(l.step.data());
    SlotGroup<T> up = nodes;
    for (std::size_t k = level + 1; k < w_.level.size(); ++k) {
      up = up.through(w_.level[k - 1].nodes->parent.data());
      step += nodes.gather(l.regression.data() + w_.level[k].place, l.above) * up.from_row(w_.level[k].step.data());
    }
    nodes.into_row(step, l.step.data());
    nodes.into_row(evaluation::absolute(factor_of_single(l, nodes) * step), l.part.data());
    nodes.into_row(step * step / evaluation::absolute(nodes.from_row(l.inverse.data())), l.square.data());
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  const BatchWork& b_;
  NestWork& w_;
  const double* const sums_;
};

template <class T> void work_on(const NX& n, TVLThreadCtx& ctx, const double* sums, NestTask task)
{
  SingleNests<T> nests(n, ctx, sums);
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

TORVALE_AVX2_BUILD void work_avx2(const NX& n, TVLThreadCtx& ctx, const double* sums, NestTask task)
{
  work_on<Four>(n, ctx, sums, task);
}

} // namespace

void work_on_singles(const NX& n, TVLThreadCtx& ctx, const double* sums, NestTask task)
{
  static const auto build = evaluation::build_for_machine(work_on<Four>, work_avx2);
  build(n, ctx, sums, task);
}

} // namespace torvale::modes
