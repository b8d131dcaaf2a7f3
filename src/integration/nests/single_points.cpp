// The points of nests in which every level has one effect (nest_quadrature.cpp has the formulas): those of the levels
// above the leaves are placed, closed and summed up for four nodes side by side. What goes to their parents is added
// node by node, in their order; with more than two levels only nodes of one nest stand together, as several points of a
// node then meet at one of an ancestor.

#include "evaluation/lane_loops.h"
#include "integration/nests/nest_gradient.h"
#include "integration/nests/nest_points.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/single_tree.h"

#include <algorithm>

namespace torvale::integration {

using evaluation::Four;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

template <class T, int Levels> class SinglePoints : modes::SingleTree<T, Levels> {
  using Tree = modes::SingleTree<T, Levels>;
  using Tree::above, Tree::for_ancestors, Tree::for_nodes, Tree::level, Tree::levels, Tree::n_;
  using typename Tree::Group;

public:
  SinglePoints(const NX& n, TVLThreadCtx& ctx) : Tree(n, ctx), scale_(n.qscale * root_two) {}

  void place()
  {
    for (int k = levels(); k-- > 0;)
      for_nodes(k, [&](const Group& nodes) {
        spread(k, nodes);
        if (k > 0) place(k, nodes);
      });
  }

  // Log integrands become logs of integrals, and weights given the ancestors' points.
  void close()
  {
    for (int k = 1; k < levels(); ++k) {
      NestLevel& l = level(k);
      for_nodes(k, [&](const Group& nodes) { take_peaks(k, nodes); });
      const auto last = static_cast<long>(l.nodes->subject.size()) * l.joint();
      evaluation::exponentials_of_nonpositive(l.weight.data(), static_cast<int>(last));
      for_nodes(k, [&](const Group& nodes) { close(k, nodes); });
    }
  }

  void sum()
  {
    for (int k = 1; k < levels(); ++k) for_nodes(k, [&](const Group& nodes) { sum(k, nodes); });
  }

private:
  // Number `at` of each node's row of `length`.
  static T number(const std::vector<double>& rows, const Group& nodes, long at, long length)
  {
    return nodes.gather(rows.data() + at, length);
  }

  void spread(int k, const Group& nodes)
  {
    NestLevel& l = level(k);
    if (!n_.adaptive) nodes.into_row(T{}, l.z.data());
    const T none = {}, inverse = nodes.from_row(l.inverse.data()), size = evaluation::absolute(inverse);
    const bool scaled = n_.adscale;
    if (scaled) {
      const T least = size == 0.0 ? T{} + n_.singchol : n_.singchol * size;
      nodes.into_row(inverse > least ? Group::root(inverse > least ? inverse : none) : none, l.spread.data());
    } else {
      nodes.into_row(T{} + 1.0, l.spread.data());
    }
    for (int a = 0; a < above(k); ++a)
      nodes.scatter(scaled ? Tree::regression(k, nodes, a) : none, l.tilt.data() + a, above(k));
  }

  void place(int k, const Group& nodes)
  {
    NestLevel& l = level(k);
    const model::REFFECT& reff = n_.reff[static_cast<std::size_t>(k)];
    const long joint = l.joint();
    const T c = scale_ * nodes.from_row(l.spread.data()), mode = nodes.from_row(l.z.data()),
            factor = Tree::factor(k, nodes), mean = Tree::mean(k, nodes);
    for (long p = 0; p < l.outer; ++p) {
      T centre = {};
      for_ancestors(k, nodes, [&](int a, const Group& up) {
        const NestLevel& on = level(a);
        centre += number(l.tilt, nodes, above(a), above(k)) * number(on.deviation, up, p % on.joint(), on.joint());
      });
      for (long q = 0; q < l.points; ++q) {
        const long at = q * l.outer + p;
        const T d = centre + c * reff.points[static_cast<std::size_t>(q)], z = mode + d;
        nodes.scatter(d, l.deviation.data() + at, joint);
        nodes.scatter(mean + factor * z, l.effects.data() + at, joint);
        nodes.scatter(reff.logw[static_cast<std::size_t>(q)] - 0.5 * z * z, l.weight.data() + at, joint);
      }
    }
  }

  // The largest log integrand of each joint point of the ancestors goes where its integral will be, and out of them.
  void take_peaks(int k, const Group& nodes)
  {
    NestLevel& l = level(k);
    const long joint = l.joint();
    for (long p = 0; p < l.outer; ++p) {
      T peak = T{} + model::failed_point;
      for (long q = 0; q < l.points; ++q) {
        const T e = number(l.weight, nodes, q * l.outer + p, joint);
        peak = e > peak ? e : peak;
      }
      for (long q = 0; q < l.points; ++q) {
        const long at = q * l.outer + p;
        nodes.scatter(number(l.weight, nodes, at, joint) - peak, l.weight.data() + at, joint);
      }
      nodes.scatter(peak, l.integral.data() + p, l.outer);
    }
  }

  void close(int k, const Group& nodes)
  {
    NestLevel& l = level(k);
    const long joint = l.joint();
    const T none = {}, failed = T{} + model::failed_point;
    for (long p = 0; p < l.outer; ++p) {
      const T peak = number(l.integral, nodes, p, l.outer);
      T total = {};
      for (long q = 0; q < l.points; ++q) total += number(l.weight, nodes, q * l.outer + p, joint);
      total = peak > model::failed_point ? total : none;
      const T one = total > 0.0 ? total : T{} + 1.0;
      for (long q = 0; q < l.points; ++q) {
        const long at = q * l.outer + p;
        const T share = number(l.weight, nodes, at, joint) / one;
        nodes.scatter(total > 0.0 ? share : none, l.weight.data() + at, joint);
      }
      const T integral = total > 0.0 ? Group::logarithm(one) + peak : failed;
      nodes.scatter(integral, l.integral.data() + p, l.outer);
      if (k + 1 == levels()) continue;
      NestLevel& parents = level(k + 1);
      for (int i = 0; i < nodes.used; ++i) {
        const long parent = l.nodes->parent[static_cast<std::size_t>(nodes.slot[i])];
        add_log(parents.weight[static_cast<std::size_t>(parent * parents.joint() + p)], Group::of(integral, i));
      }
    }
  }

  // What the points come to (NestGradient::node_sums).
  void sum(int k, const Group& nodes)
  {
    NestLevel& l = level(k);
    const model::REFFECT& reff = n_.reff[static_cast<std::size_t>(k)];
    const long joint = l.joint();
    const T factor = Tree::factor(k, nodes), mode = nodes.from_row(l.z.data()), none = {};
    T mean_bar = nodes.from_row(l.mean_bar.data()), mode_bar = nodes.from_row(l.mode_bar.data()),
      factor_bar = nodes.from_row(l.factor_bar.data()), spread_bar = nodes.from_row(l.spread_bar.data());
    for (long p = 0; p < l.outer; ++p) {
      T given = {}; // pull at the deviation, summed over the own points
      for (long q = 0; q < l.points; ++q) {
        const long at = q * l.outer + p;
        const T weight = number(l.weight, nodes, at, joint);
        const T z = mode + number(l.deviation, nodes, at, joint);
        const T slope = weight > 0.0 ? number(l.slopes, nodes, at, joint) : none;
        const T plain = weight > 0.0 ? factor * slope - weight * z : none;
        const T pull = weight > 0.0 ? plain + number(l.pulls, nodes, at, joint) : none;
        mean_bar += slope;
        factor_bar += weight > 0.0 ? slope * z : none;
        mode_bar += plain;
        given += pull;
        spread_bar += scale_ * pull * reff.points[static_cast<std::size_t>(q)];
      }
      if (n_.adscale && above(k) > 0) pull_ancestors(k, nodes, p, given);
    }
    nodes.into_row(mean_bar, l.mean_bar.data());
    nodes.into_row(mode_bar, l.mode_bar.data());
    nodes.into_row(factor_bar, l.factor_bar.data());
    nodes.into_row(spread_bar, l.spread_bar.data());
  }

  void pull_ancestors(int k, const Group& nodes, long p, const T& pull)
  {
    NestLevel& l = level(k);
    for_ancestors(k, nodes, [&](int a, const Group& up) {
      NestLevel& on = level(a);
      const long joint = on.joint(), at = p % joint;
      double* const bar = l.regression_bar.data() + above(a);
      nodes.scatter(nodes.gather(bar, above(k)) + pull * number(on.deviation, up, at, joint), bar, above(k));
      up.add_in_order(number(l.tilt, nodes, above(a), above(k)) * pull, on.pulls.data() + at, joint);
    });
  }

  const double scale_;
};

enum class Task { place, close, sum };

template <class T, int Levels> void work(const NX& n, TVLThreadCtx& ctx, Task task)
{
  SinglePoints<T, Levels> points(n, ctx);
  switch (task) {
  case Task::place:
    return points.place();
  case Task::close:
    return points.close();
  case Task::sum:
    return points.sum();
  }
}
template <int Levels> TORVALE_AVX2_BUILD void work_avx2(const NX& n, TVLThreadCtx& ctx, Task task)
{
  work<Four, Levels>(n, ctx, task);
}

void run(const NX& n, TVLThreadCtx& ctx, Task task)
{
  modes::by_levels(ctx.nests, [&](auto levels) {
    static const auto build = evaluation::build_for_machine(work<Four, levels()>, work_avx2<levels()>);
    build(n, ctx, task);
  });
}

} // namespace

void place_single_points(const NX& n, TVLThreadCtx& ctx)
{
  modes::list_good_nests(ctx.nests);
  run(n, ctx, Task::place);
}

void close_single_levels(const NX& n, TVLThreadCtx& ctx)
{
  modes::list_good_nests(ctx.nests);
  run(n, ctx, Task::close);
}

void sum_single_points(const NX& n, TVLThreadCtx& ctx)
{
  NestWork& w = ctx.nests;
  if (w.level.size() < 3) {
    modes::list_good_nests(w);
    return run(n, ctx, Task::sum);
  }
  std::fill_n(w.active.begin(), w.nests, static_cast<char>(0));
  for (int nest = 0; nest < w.nests; ++nest) {
    if (w.failure[static_cast<std::size_t>(nest)] != 0) continue;
    w.active[static_cast<std::size_t>(nest)] = 1;
    modes::list_nodes(w);
    run(n, ctx, Task::sum);
    w.active[static_cast<std::size_t>(nest)] = 0;
  }
}

} // namespace torvale::integration
