#include "modes/nest_steps.h"

#include "modes/hessian_at_mode.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/search_rules.h"
#include "modes/single_steps.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::modes {

using model::BatchWork;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

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

// The lengths of the nests' steps from those of their nodes; of one level, or below 0 of all. What is not finite gives
// infinity.
void sum_up_lengths(NestWork& w, int level)
{
  constexpr double infinite = std::numeric_limits<double>::infinity();
  for_active(w, [&](int nest) {
    const auto at = static_cast<std::size_t>(nest);
    double length = 0.0, square = w.square[at];
    bool finite = true;
    for (std::size_t k = 0; k < w.level.size(); ++k) {
      const NestLevel& l = w.level[k];
      if (level >= 0 && static_cast<int>(k) != level) continue;
      for (auto v = static_cast<std::size_t>(l.nodes->first[at]); v < static_cast<std::size_t>(l.nodes->first[at + 1]);
           ++v) {
        const double part = l.part[v], part_square = l.square[v];
        finite = finite && part_square < infinite;
        length = part > length ? part : length;
        square = part_square > square ? part_square : square;
      }
    }
    w.length[at] = length;
    w.square[at] = finite ? square : infinite;
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
  const bool all = std::all_of(w.active.begin(), w.active.begin() + w.nests, [](char active) { return active != 0; });
  if (all && std::all_of(w.level.begin(), w.level.end(),
                         [](const NestLevel& l) { return l.listed.size() == l.nodes->subject.size(); }))
    return; // they are listed already
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
    work_on_singles(n, ctx, nullptr, predicts ? NestTask::starts_ahead : NestTask::starts);
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
  if (single_effects(ctx.nests)) return work_on_singles(n, ctx, nullptr, NestTask::effects);
  for (NestLevel& l : ctx.nests.level)
    for (const int v : l.listed) effects_of_node(l, v);
}

void find_values(const NX& n, TVLThreadCtx& ctx, const double* sums)
{
  NestWork& w = ctx.nests;
  if (single_effects(w))
    work_on_singles(n, ctx, sums, NestTask::values);
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
    double sum = 0.0;
    for_nodes(w, nest, [&](const NestLevel& l, int v) { sum += l.part[static_cast<std::size_t>(v)]; });
    f = sum;
  });
}

void find_steps(const NX& n, TVLThreadCtx& ctx, const double* sums)
{
  NestWork& w = ctx.nests;
  clear_lengths(w);
  if (single_effects(w))
    work_on_singles(n, ctx, sums, NestTask::steps);
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
