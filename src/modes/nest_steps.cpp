#include "modes/nest_steps.h"

#include "evaluation/slot_group.h"
#include "modes/hessian_at_mode.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/search_rules.h"

#include <algorithm>
#include <cmath>
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

template <class T> T absolute(T t)
{
  return t < 0.0 ? -t : t;
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
    nodes.into_row(absolute(ahead - at), l.part.data());
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
      for (int k = 0; k < kept; ++k) to[k] += element(front[k], i);
      for (int a = 0; a < above; ++a) to_right[a] += element(right[a], i);
    }
  }

  static double element(const T& t, int i) { return reinterpret_cast<const double*>(&t)[i]; }

  static void keep_front(NestLevel& l, int node, const T* front, const T* right, int i)
  {
    const int length = l.chain(), elements = length * (length + 1) / 2;
    for (int k = 0; k < elements; ++k) l.front[static_cast<std::size_t>(node * elements + k)] = element(front[k], i);
    for (int k = 0; k < length; ++k) l.right[static_cast<std::size_t>(node * length + k)] = element(right[k], i);
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
    nodes.into_row(absolute(factor_of_single(l, nodes) * step), l.part.data());
    nodes.into_row(step * step / absolute(nodes.from_row(l.inverse.data())), l.square.data());
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  const BatchWork& b_;
  NestWork& w_;
  const double* const sums_;
};

enum class Task { starts, starts_ahead, effects, values, steps };

template <class T> void work_on(const NX& n, TVLThreadCtx& ctx, const double* sums, Task task)
{
  SingleNests<T> nests(n, ctx, sums);
  switch (task) {
  case Task::starts:
    return nests.starts(false);
  case Task::starts_ahead:
    return nests.starts(true);
  case Task::effects:
    return nests.effects();
  case Task::values:
    return nests.values();
  case Task::steps:
    return nests.steps();
  }
}

TORVALE_AVX2_BUILD void work_avx2(const NX& n, TVLThreadCtx& ctx, const double* sums, Task task)
{
  work_on<Four>(n, ctx, sums, task);
}

void work_on_singles(const NX& n, TVLThreadCtx& ctx, const double* sums, Task task)
{
  static const auto build = evaluation::build_for_machine(work_on<Four>, work_avx2);
  build(n, ctx, sums, task);
}

// Calls f(node, its first effect) for the listed nodes of a level.
template <class F> void for_listed(const NestLevel& l, F&& f)
{
  for (const int v : l.listed) f(v, static_cast<long>(v) * l.own);
}

// Calls f(level, node) for the nodes of a nest.
template <class F> void for_nodes(NestWork& w, int nest, F&& f)
{
  for (NestLevel& l : w.level)
    for (int v = l.nodes->first[static_cast<std::size_t>(nest)]; v < l.nodes->first[static_cast<std::size_t>(nest) + 1];
         ++v)
      f(l, v);
}

template <class F> void for_active(const NestWork& w, F&& f)
{
  for (int nest = 0; nest < w.nests; ++nest)
    if (w.active[static_cast<std::size_t>(nest)] != 0) f(nest);
}

// --- any number of effects, node by node ---

// z = L^-1 (u - m); a direction without variance stays at its mean.
void standardize(const NestLevel& l, int v, const double* u, double* to)
{
  const double* const m = l.mean.data() + static_cast<long>(l.prior_of(v)) * l.own;
  const double* row = factor_of(l, v);
  for (int i = 0; i < l.own; ++i) {
    double d = u[i] - m[i];
    for (int k = 0; k < i; ++k) d -= row[k] * to[k];
    to[i] = row[i] > 0.0 ? d / row[i] : 0.0;
    row += i + 1;
  }
}

void start_node(const NX& n, const BatchWork& b, NestLevel& l, const model::REFFECT& reff, int v, bool predicts)
{
  const long from = reff.mode_first + l.nodes->subject[static_cast<std::size_t>(v)] * static_cast<long>(l.own);
  const double* const u = n.ebes.data() + from;
  double* const z = l.z.data() + static_cast<long>(v) * l.own;
  standardize(l, v, u, z);
  if (!predicts) return;
  double* const at = l.zold.data() + static_cast<long>(v) * l.own;
  std::copy_n(z, l.own, at);
  double moved[most_effects] = {};
  const float* by = n.ebes_by.data() + from * n.nparm;
  for (int i = 0; i < l.own; ++i) {
    moved[i] = u[i];
    for (int j = 0; j < n.nparm; ++j)
      moved[i] += static_cast<double>(*by++) * b.parameter_step[static_cast<std::size_t>(j)];
  }
  standardize(l, v, moved, z);
  double& farthest_move = l.part[static_cast<std::size_t>(v)];
  farthest_move = 0.0;
  for (int i = 0; i < l.own; ++i) {
    const double move = std::abs(z[i] - at[i]);
    if (!(move <= farthest_move)) farthest_move = move;
  }
}

void effects_of_node(NestLevel& l, int v)
{
  const double* const m = l.mean.data() + static_cast<long>(l.prior_of(v)) * l.own;
  const double* row = factor_of(l, v);
  const double* const z = l.z.data() + static_cast<long>(v) * l.own;
  double* const u = l.u.data() + static_cast<long>(v) * l.own;
  for (int i = 0; i < l.own; ++i) {
    u[i] = m[i];
    for (int k = 0; k <= i; ++k) u[i] += row[k] * z[k];
    row += i + 1;
  }
}

const double* column_of(const TVLThreadCtx& ctx, const double* sums, int leaf)
{
  const auto slot = static_cast<std::size_t>(ctx.nests.level.front().nodes->slot[static_cast<std::size_t>(leaf)]);
  return sums + ctx.batch.column[slot];
}

// Largest component of a node's step in u, and its largest square in variances given the ancestors.
void measure(NestLevel& l, int v)
{
  const double* const step = l.step.data() + static_cast<long>(v) * l.own;
  const double* const inverse = l.inverse.data() + static_cast<long>(v) * l.triangle();
  const double* row = factor_of(l, v);
  double length = 0.0, square = 0.0;
  for (int i = 0; i < l.own; ++i) {
    double du = 0.0;
    for (int k = 0; k <= i; ++k) du += row[k] * step[k];
    row += i + 1;
    if (!(std::abs(du) <= length)) length = std::abs(du);
    const double sd = step[i] * step[i] / std::abs(inverse[packed(i, i)]);
    if (!(sd <= square)) square = sd;
  }
  l.part[static_cast<std::size_t>(v)] = length;
  l.square[static_cast<std::size_t>(v)] = square;
}

// Newton's step of a whole nest: leaves are eliminated first, then the steps are found from the top down.
bool joint_step(const NX& n, TVLThreadCtx& ctx, const double* sums, int nest)
{
  NestWork& w = ctx.nests;
  const auto k = static_cast<std::size_t>(nest);
  for (std::size_t level = 0; level < w.level.size(); ++level) {
    const NestLevel& l = w.level[level];
    for (int v = l.nodes->first[k]; v < l.nodes->first[k + 1]; ++v) {
      if (level == 0) leaf_front(n, w, v, column_of(ctx, sums, v), ctx.batch.mode_stride);
      if (eliminate(n, w, static_cast<int>(level), v, ctx.block) != 0) return false;
    }
  }
  for (std::size_t level = w.level.size(); level-- > 0;) {
    NestLevel& l = w.level[level];
    for (int v = l.nodes->first[k]; v < l.nodes->first[k + 1]; ++v) {
      double* const step = l.step.data() + static_cast<long>(v) * l.own;
      const double* const b = l.regression.data() + static_cast<long>(v) * (l.own * l.above);
      int node = v;
      for (std::size_t up = level + 1; up < w.level.size(); ++up) {
        node = w.level[up - 1].nodes->parent[static_cast<std::size_t>(node)];
        const NestLevel& a = w.level[up];
        const double* const from = a.step.data() + static_cast<long>(node) * a.own;
        for (int i = 0; i < l.own; ++i)
          for (int j = 0; j < a.own; ++j) step[i] += b[i * l.above + a.place + j] * from[j];
      }
      measure(l, v);
    }
  }
  return true;
}

void pass_up(NestWork& w, std::size_t level, int v)
{
  const NestLevel& l = w.level[level];
  NestLevel& p = w.level[level + 1];
  const long parent = l.nodes->parent[static_cast<std::size_t>(v)];
  const int chain = l.chain(), above = l.above, triangle = above * (above + 1) / 2;
  for (int k = 0; k < triangle; ++k)
    p.front[static_cast<std::size_t>(parent * triangle + k)] +=
        l.front[static_cast<std::size_t>(v * (chain * (chain + 1) / 2) + k)];
  for (int k = 0; k < above; ++k)
    p.right[static_cast<std::size_t>(parent * above + k)] += l.right[static_cast<std::size_t>(v * chain + k)];
}

bool own_step(const NX& n, TVLThreadCtx& ctx, const double* sums, int nest, std::size_t last)
{
  NestWork& w = ctx.nests;
  const auto k = static_cast<std::size_t>(nest);
  for (std::size_t level = 0; level <= last; ++level) {
    NestLevel& l = w.level[level];
    for (int v = l.nodes->first[k]; v < l.nodes->first[k + 1]; ++v) {
      if (level == 0) leaf_front(n, w, v, column_of(ctx, sums, v), ctx.batch.mode_stride);
      if (level < last) {
        pass_up(w, level, v);
        continue;
      }
      if (eliminate(n, w, static_cast<int>(level), v, ctx.block) != 0) return false;
      measure(l, v);
    }
  }
  return true;
}

// The lengths of the nests' steps from those of their nodes; of one level, or below 0 of all.
void sum_up_lengths(NestWork& w, int level)
{
  for_active(w, [&](int nest) {
    double& length = w.length[static_cast<std::size_t>(nest)];
    double& square = w.square[static_cast<std::size_t>(nest)];
    for_nodes(w, nest, [&](const NestLevel& l, int v) {
      if (level >= 0 && &l != &w.level[static_cast<std::size_t>(level)]) return;
      const double part = l.part[static_cast<std::size_t>(v)], part_square = l.square[static_cast<std::size_t>(v)];
      if (!(part <= length) && length == length) length = part; // what is not a number stays
      if (!(part_square <= square) && square == square) square = part_square;
    });
  });
}

void clear_lengths(NestWork& w)
{
  for_active(w, [&](int nest) {
    w.length[static_cast<std::size_t>(nest)] = w.square[static_cast<std::size_t>(nest)] = 0.0;
    clear_fronts(w, nest);
  });
}

} // namespace

bool single_effects(const NestWork& w)
{
  return w.level.size() <= most_single_levels &&
         std::all_of(w.level.begin(), w.level.end(), [](const NestLevel& l) { return l.own == 1; });
}

void list_nodes(NestWork& w)
{
  for (NestLevel& l : w.level) l.listed.clear();
  for_active(w, [&](int nest) { for_nodes(w, nest, [](NestLevel& l, int v) { l.listed.push_back(v); }); });
}

void list_good_nests(NestWork& w)
{
  for (int nest = 0; nest < w.nests; ++nest)
    w.active[static_cast<std::size_t>(nest)] = w.failure[static_cast<std::size_t>(nest)] == 0 ? 1 : 0;
  list_nodes(w);
}

void place_starts(const NX& n, TVLThreadCtx& ctx, bool predicts)
{
  NestWork& w = ctx.nests;
  if (single_effects(w))
    work_on_singles(n, ctx, nullptr, predicts ? Task::starts_ahead : Task::starts);
  else
    for (std::size_t k = 0; k < w.level.size(); ++k)
      for (const int v : w.level[k].listed) start_node(n, ctx.batch, w.level[k], n.reff[k], v, predicts);
  if (!predicts) return;
  for_active(w, [&](int nest) {
    bool near = true;
    for_nodes(w, nest,
              [&](const NestLevel& l, int v) { near = near && l.part[static_cast<std::size_t>(v)] < farthest; });
    if (near) return;
    for_nodes(w, nest, [](NestLevel& l, int v) {
      std::copy_n(l.zold.begin() + static_cast<long>(v) * l.own, l.own, l.z.begin() + static_cast<long>(v) * l.own);
    });
  });
}

void place_effects(const NX& n, TVLThreadCtx& ctx)
{
  if (single_effects(ctx.nests)) return work_on_singles(n, ctx, nullptr, Task::effects);
  for (NestLevel& l : ctx.nests.level)
    for (const int v : l.listed) effects_of_node(l, v);
}

void find_values(const NX& n, TVLThreadCtx& ctx, const double* sums)
{
  NestWork& w = ctx.nests;
  if (single_effects(w))
    work_on_singles(n, ctx, sums, Task::values);
  else
    for (NestLevel& l : w.level)
      for_listed(l, [&](int v, long first) {
        double part = 0.0;
        for (int i = 0; i < l.own; ++i)
          part += 0.5 * l.z[static_cast<std::size_t>(first + i)] * l.z[static_cast<std::size_t>(first + i)];
        if (&l == &w.level.front()) {
          const double ll = *column_of(ctx, sums, v);
          part = ll > model::impossible_loglik && std::isfinite(ll) ? part - ll : model::failure_objective;
        }
        l.part[static_cast<std::size_t>(v)] = part;
      });
  for_active(w, [&](int nest) {
    double& f = w.value[static_cast<std::size_t>(nest)];
    f = 0.0;
    for_nodes(w, nest, [&](const NestLevel& l, int v) { f += l.part[static_cast<std::size_t>(v)]; });
  });
}

void find_steps(const NX& n, TVLThreadCtx& ctx, const double* sums)
{
  NestWork& w = ctx.nests;
  clear_lengths(w);
  if (single_effects(w))
    work_on_singles(n, ctx, sums, Task::steps);
  else
    for_active(w, [&](int nest) {
      if (!joint_step(n, ctx, sums, nest))
        w.square[static_cast<std::size_t>(nest)] = std::numeric_limits<double>::infinity();
    });
  sum_up_lengths(w, -1);
}

void find_own_steps(const NX& n, TVLThreadCtx& ctx, const double* sums, int level)
{
  NestWork& w = ctx.nests;
  clear_lengths(w);
  for_active(w, [&](int nest) {
    if (!own_step(n, ctx, sums, nest, static_cast<std::size_t>(level)))
      w.square[static_cast<std::size_t>(nest)] = std::numeric_limits<double>::infinity();
  });
  sum_up_lengths(w, level);
}

} // namespace torvale::modes
