#include "modes/nest_search.h"

#include "evaluation/record_sums.h"
#include "modes/nest_elimination.h"
#include "modes/search_rules.h"

#include <algorithm>
#include <cmath>

namespace torvale::modes {

using model::BatchWork;
using model::ModeSearch;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

constexpr double largest = std::numeric_limits<double>::max();
constexpr int all_levels = -1;
constexpr int most_rounds = 1000; // of EBITER$
constexpr int most_columns = 256; // of one run over the leaves

// What the search keeps to: fixed for the joint search, the options of one level when the levels take turns.
struct Rules {
  int steps = 50, substeps = 20;
  double keep = 0.8, rise = 1e-8, step = 1.110223024625157e-12;
};

class NestSearch {
public:
  NestSearch(const NX& n, TVLThreadCtx& ctx) : n_(n), ctx_(ctx), b_(ctx.batch), w_(ctx.nests)
  {
    if (n.ebiter) rules_ = {n.ebstep, n.ebsubstep, n.ebssfrac, n.ebsstol, n.ebtol};
  }

  int run()
  {
    for (int nest = 0; nest < w_.nests; ++nest) start(nest);
    return n_.ebiter ? take_turns() : search_jointly(all_levels);
  }

private:
  ModeSearch& search(int nest) { return w_.search[static_cast<std::size_t>(nest)]; }

  // Calls f(level, its number, node) for the nodes of a nest, leaves first.
  template <class F> void for_nodes(int nest, F&& f)
  {
    for (std::size_t k = 0; k < w_.level.size(); ++k) {
      NestLevel& l = w_.level[k];
      const auto first = l.nodes->first[static_cast<std::size_t>(nest)],
                 last = l.nodes->first[static_cast<std::size_t>(nest) + 1];
      for (int v = first; v < last; ++v) f(l, static_cast<int>(k), v);
    }
  }

  // --- start ---

  void start(int nest)
  {
    ModeSearch& s = search(nest);
    s = ModeSearch{};
    s.bound = s.previous = largest;
    const bool good = w_.failure[static_cast<std::size_t>(nest)] == 0;
    w_.active[static_cast<std::size_t>(nest)] = good ? 1 : 0;
    if (!good) {
      s.state = ModeSearch::failed;
      return;
    }
    const auto subject = static_cast<std::size_t>(b_.nest[static_cast<std::size_t>(nest)]);
    if (n_.ebzstart || n_.ebes_known[subject] == 0) return start_from_mean(nest);
    for_nodes(nest, [&](NestLevel& l, int level, int v) { place_start(l, level, v); });
  }

  // z = L^-1 (u - m) of the accepted mode; a direction without variance stays at its mean.
  void place_start(NestLevel& l, int level, int v)
  {
    const auto& reff = n_.reff[static_cast<std::size_t>(level)];
    const long subject = l.nodes->subject[static_cast<std::size_t>(v)];
    const double* const u = n_.ebes.data() + reff.mode_first + subject * l.own;
    const double* const m = l.mean.data() + static_cast<long>(l.prior_of(v)) * l.own;
    const double* row = factor_of(l, v);
    double* const to = l.z.data() + static_cast<long>(v) * l.own;
    for (int i = 0; i < l.own; ++i) {
      double d = u[i] - m[i];
      for (int k = 0; k < i; ++k) d -= row[k] * to[k];
      to[i] = row[i] > 0.0 ? d / row[i] : 0.0;
      row += i + 1;
    }
  }

  void start_from_mean(int nest)
  {
    ModeSearch& s = search(nest);
    s = ModeSearch{};
    s.from_mean = true;
    s.bound = s.previous = largest;
    for_nodes(nest,
              [](NestLevel& l, int, int v) { std::fill_n(l.z.begin() + static_cast<long>(v) * l.own, l.own, 0.0); });
  }

  void give_up(int nest, SearchEnd why = SearchEnd::steps)
  {
    ModeSearch& s = search(nest);
    if (!s.from_mean && !turns_) return start_from_mean(nest);
    s.state = ModeSearch::failed;
    s.failure = failure_of(why, n_.outer().sub_character);
    w_.failure[static_cast<std::size_t>(nest)] = s.failure;
  }

  // --- the search ---

  int search_jointly(int level)
  {
    level_ = level;
    while (const int count = list_columns()) {
      if (const int rc = evaluate(count); rc != 0) return rc;
      for (int nest = 0; nest < w_.nests; ++nest) {
        if (w_.active[static_cast<std::size_t>(nest)] == 0) continue;
        advance(nest);
        if (search(nest).state != ModeSearch::searching) w_.active[static_cast<std::size_t>(nest)] = 0;
      }
    }
    return 0;
  }

  // Slots whose nest is searched.
  int list_columns()
  {
    int count = 0;
    for (int slot = 0; slot < b_.slots; ++slot) {
      const int leaf = w_.leaf_of_slot[static_cast<std::size_t>(slot)];
      if (w_.active[static_cast<std::size_t>(w_.nest_of_leaf[static_cast<std::size_t>(leaf)])] == 0) continue;
      w_.columns[static_cast<std::size_t>(count++)] = slot;
    }
    return count;
  }

  // The log likelihood of every leaf with its derivatives at the trial point.
  int evaluate(int count)
  {
    for (int nest = 0; nest < w_.nests; ++nest)
      if (w_.active[static_cast<std::size_t>(nest)] != 0) place_effects(w_, nest);
    const model::ModelProgram& program = n_.programs.mode;
    if (const int rc = run_leaves(n_, ctx_, program, count, b_.mode_sums.data(), b_.mode_stride); rc != 0) return rc;
    for (int a = 0; a < count; ++a) {
      double* const to = w_.leaf.data() + static_cast<long>(w_.columns[static_cast<std::size_t>(a)]) * program.places;
      for (const int place : program.outputs)
        to[place] = b_.mode_sums[static_cast<std::size_t>(place * b_.mode_stride + a)];
    }
    return 0;
  }

  double value(int nest)
  {
    double f = 0.0;
    bool good = true;
    for_nodes(nest, [&](const NestLevel& l, int level, int v) {
      if (level == 0) {
        const long slot = l.nodes->slot[static_cast<std::size_t>(v)];
        const double ll = w_.leaf[static_cast<std::size_t>(slot * n_.programs.mode.places)];
        good = good && ll > model::impossible_loglik && std::isfinite(ll);
        f -= ll;
      }
      const double* const z = l.z.data() + static_cast<long>(v) * l.own;
      for (int i = 0; i < l.own; ++i) f += 0.5 * z[i] * z[i];
    });
    return good ? f : model::failure_objective;
  }

  // One decision of the search of a nest.
  void advance(int nest)
  {
    ModeSearch& s = search(nest);
    const double f = value(nest);
    if (rules_.substeps > 0) {
      const bool trial = s.substep > 0;
      if (trial ? !(f < s.bound) : !(f <= s.bound)) return shrink(nest);
      if (!(f < model::failure_objective)) return give_up(nest); // the start itself cannot be evaluated
      s.substep = 0;
      s.bound = allowed_value(f, rules_.rise);
      for_nodes(nest, [](NestLevel& l, int, int v) {
        std::copy_n(l.z.begin() + static_cast<long>(v) * l.own, l.own, l.zold.begin() + static_cast<long>(v) * l.own);
      });
    } else if (!(f < model::failure_objective)) {
      return give_up(nest);
    }
    newton(nest);
  }

  // The value rose: a shorter step, first by EBSSFRAC, then by halves.
  void shrink(int nest)
  {
    ModeSearch& s = search(nest);
    if (s.substep >= rules_.substeps + halvings) return give_up(nest, SearchEnd::shorter_steps);
    const double keep = s.substep < rules_.substeps ? rules_.keep : 0.5;
    ++s.substep;
    for_nodes(nest, [&](NestLevel& l, int, int v) {
      for (int k = v * l.own; k < (v + 1) * l.own; ++k) {
        const auto i = static_cast<std::size_t>(k);
        l.z[i] = keep * l.z[i] + (1.0 - keep) * l.zold[i];
      }
    });
  }

  void newton(int nest)
  {
    ModeSearch& s = search(nest);
    if (level_ == all_levels ? joint_step(nest) != 0 : own_step(nest) != 0) return give_up(nest);
    double step_u = 0.0, step_sd = 0.0;
    for_nodes(nest, [&](const NestLevel& l, int level, int v) {
      if (level_ == all_levels || level == level_) measure(l, v, step_u, step_sd);
    });
    if (!(step_sd < largest)) return give_up(nest);
    if (step_u < rules_.step || (step_sd < noise_floor && step_sd > noise_ratio * s.previous)) {
      s.state = ModeSearch::found;
      add_determinants(nest);
      return;
    }
    s.previous = step_sd;
    if (++s.step >= rules_.steps) return give_up(nest);
    for_nodes(nest, [&](NestLevel& l, int level, int v) {
      if (level_ != all_levels && level != level_) return;
      for (int k = v * l.own; k < (v + 1) * l.own; ++k)
        l.z[static_cast<std::size_t>(k)] -= l.step[static_cast<std::size_t>(k)];
    });
  }

  void add_determinants(int nest)
  {
    ModeSearch& s = search(nest);
    s.logdet = 0.0;
    for_nodes(nest, [&](const NestLevel& l, int level, int v) {
      if (level_ == all_levels || level == level_) s.logdet += log_determinant_of(l, v);
    });
  }

  // Newton's step of the whole nest: leaves are eliminated first, then the steps are found from the top down.
  int joint_step(int nest)
  {
    clear_fronts(w_, nest);
    int rc = 0;
    for_nodes(nest, [&](NestLevel&, int level, int v) {
      if (rc != 0) return;
      if (level == 0) leaf_front(n_, w_, v);
      rc = eliminate(n_, w_, level, v, ctx_.block);
    });
    if (rc != 0) return rc;
    for (std::size_t k = w_.level.size() - 1; k-- > 0;) {
      NestLevel& l = w_.level[k];
      for (int v = l.nodes->first[static_cast<std::size_t>(nest)];
           v < l.nodes->first[static_cast<std::size_t>(nest) + 1]; ++v) {
        double* const step = l.step.data() + static_cast<long>(v) * l.own;
        const double* const b = l.regression.data() + static_cast<long>(v) * (l.own * l.above);
        int node = v;
        for (std::size_t up = k + 1; up < w_.level.size(); ++up) {
          node = w_.level[up - 1].nodes->parent[static_cast<std::size_t>(node)];
          const NestLevel& a = w_.level[up];
          const double* const from = a.step.data() + static_cast<long>(node) * a.own;
          for (int i = 0; i < l.own; ++i)
            for (int j = 0; j < a.own; ++j) step[i] += b[i * l.above + a.place + j] * from[j];
        }
      }
    }
    return 0;
  }

  // The steps of one level's subjects with all others held: the blocks on the diagonal of the arrow.
  int own_step(int nest)
  {
    clear_fronts(w_, nest);
    int rc = 0;
    for_nodes(nest, [&](NestLevel& l, int level, int v) {
      if (rc != 0 || level > level_) return;
      if (level == 0) leaf_front(n_, w_, v);
      if (level == level_)
        rc = eliminate(n_, w_, level, v, ctx_.block);
      else
        pass_up(l, level, v);
    });
    return rc;
  }

  void pass_up(NestLevel& l, int level, int v)
  {
    NestLevel& p = w_.level[static_cast<std::size_t>(level) + 1];
    const long parent = l.nodes->parent[static_cast<std::size_t>(v)];
    const int chain = l.chain(), above = l.above, triangle = above * (above + 1) / 2;
    for (int k = 0; k < triangle; ++k)
      p.front[static_cast<std::size_t>(parent * triangle + k)] +=
          l.front[static_cast<std::size_t>(v * (chain * (chain + 1) / 2) + k)];
    for (int k = 0; k < above; ++k)
      p.right[static_cast<std::size_t>(parent * above + k)] += l.right[static_cast<std::size_t>(v * chain + k)];
  }

  // Largest component of a node's step in u, and its largest square in variances given the ancestors.
  static void measure(const NestLevel& l, int v, double& step_u, double& step_sd)
  {
    const double* const step = l.step.data() + static_cast<long>(v) * l.own;
    const double* const inverse = l.inverse.data() + static_cast<long>(v) * l.triangle();
    const double* row = factor_of(l, v);
    for (int i = 0; i < l.own; ++i) {
      double du = 0.0;
      for (int k = 0; k <= i; ++k) du += row[k] * step[k];
      row += i + 1;
      if (!(std::abs(du) <= step_u)) step_u = std::abs(du);
      const double sd = step[i] * step[i] / std::abs(inverse[packed(i, i)]);
      if (!(sd <= step_sd)) step_sd = sd;
    }
  }

  // --- EBITER$ ---

  // The levels take turns, each to the end of its search, until no effect moves by more than EBMTOL$.
  int take_turns()
  {
    std::copy(w_.active.begin(), w_.active.end(), w_.turn.begin());
    turns_ = true;
    for (int round = 0; round < most_rounds && any_turn(); ++round) {
      keep_round_start();
      for (int level = 0; level < static_cast<int>(w_.level.size()); ++level) {
        for (int nest = 0; nest < w_.nests; ++nest) restart(nest);
        if (const int rc = search_jointly(level); rc != 0) return rc;
      }
      for (int nest = 0; nest < w_.nests; ++nest) end_round(nest, round);
    }
    for (int nest = 0; nest < w_.nests; ++nest)
      if (w_.turn[static_cast<std::size_t>(nest)] != 0) give_up(nest); // has not settled
    return close_turns();
  }

  bool any_turn() const
  {
    return std::any_of(w_.turn.begin(), w_.turn.begin() + w_.nests, [](char t) { return t != 0; });
  }

  void keep_round_start()
  {
    for (int nest = 0; nest < w_.nests; ++nest)
      if (w_.turn[static_cast<std::size_t>(nest)] != 0) {
        place_effects(w_, nest);
        for_nodes(nest, [](NestLevel& l, int, int v) {
          std::copy_n(l.u.begin() + static_cast<long>(v) * l.own, l.own,
                      l.round_start.begin() + static_cast<long>(v) * l.own);
        });
      }
  }

  void restart(int nest)
  {
    const bool goes_on =
        w_.turn[static_cast<std::size_t>(nest)] != 0 && w_.failure[static_cast<std::size_t>(nest)] == 0;
    w_.active[static_cast<std::size_t>(nest)] = goes_on ? 1 : 0;
    if (!goes_on) return;
    ModeSearch& s = search(nest);
    s = ModeSearch{};
    s.bound = s.previous = largest;
  }

  void end_round(int nest, int round)
  {
    char& turn = w_.turn[static_cast<std::size_t>(nest)];
    if (turn == 0) return;
    if (w_.failure[static_cast<std::size_t>(nest)] != 0) {
      turn = 0;
      return;
    }
    place_effects(w_, nest);
    double change = 0.0;
    for_nodes(nest, [&](const NestLevel& l, int, int v) {
      for (int k = v * l.own; k < (v + 1) * l.own; ++k)
        change =
            std::max(change, std::abs(l.u[static_cast<std::size_t>(k)] - l.round_start[static_cast<std::size_t>(k)]));
    });
    if (!(change > n_.ebmtol)) turn = 0;
    if (w_.rounds != nullptr)
      for_nodes(nest, [&](const NestLevel& l, int level, int v) {
        for (int i = 0; i < l.own; ++i)
          w_.rounds->push_back({round, level, l.nodes->subject[static_cast<std::size_t>(v)], i,
                                l.u[static_cast<std::size_t>(v * l.own + i)]});
      });
  }

  // The rounds end within EBMTOL$, a length in the unit of the effects. From there Newton steps of the whole nest take
  // the modes to where the joint search ends, in whatever unit, with the curvature there.
  int close_turns()
  {
    turns_ = false;
    rules_ = Rules{};
    for (int nest = 0; nest < w_.nests; ++nest) {
      w_.active[static_cast<std::size_t>(nest)] = w_.failure[static_cast<std::size_t>(nest)] == 0 ? 1 : 0;
      if (w_.active[static_cast<std::size_t>(nest)] == 0) continue;
      ModeSearch& s = search(nest);
      s = ModeSearch{};
      s.bound = s.previous = largest;
    }
    return search_jointly(all_levels);
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  NestWork& w_;
  Rules rules_;
  int level_ = all_levels; // whose subjects move
  bool turns_ = false;
};

} // namespace

int nest_search(const NX& n, TVLThreadCtx& ctx)
{
  return NestSearch(n, ctx).run();
}

void place_effects(NestWork& w, int nest)
{
  for (NestLevel& l : w.level) {
    const int first = l.nodes->first[static_cast<std::size_t>(nest)],
              last = l.nodes->first[static_cast<std::size_t>(nest) + 1];
    for (int v = first; v < last; ++v) {
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
  }
}

int run_leaves(const NX& n, TVLThreadCtx& ctx, const model::ModelProgram& program, int count, double* sums, long stride)
{
  BatchWork& b = ctx.batch;
  const NestWork& w = ctx.nests;
  for (int first = 0; first < count; first += most_columns) {
    const int part = std::min(most_columns, count - first);
    for (int a = 0; a < part; ++a) {
      const int slot = w.columns[static_cast<std::size_t>(first + a)];
      b.column[static_cast<std::size_t>(slot)] = first + a;
      int node = w.leaf_of_slot[static_cast<std::size_t>(slot)];
      for (const NestLevel& l : w.level) {
        for (int i = 0; i < l.own; ++i)
          b.ran[static_cast<std::size_t>((l.place + i) * b.pair_stride + a)] =
              l.u[static_cast<std::size_t>(node * l.own + i)];
        node = l.nodes->parent[static_cast<std::size_t>(node)];
      }
    }
    ctx.frame->set_points(b.ran.data(), part, static_cast<int>(b.pair_stride));
    const int rc = evaluation::tvllogl(n, ctx, {w.columns.data() + first, part, 1}, {program, sums + first, stride});
    if (rc != 0) return rc;
  }
  return 0;
}

} // namespace torvale::modes
