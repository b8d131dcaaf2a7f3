#include "modes/nest_search.h"

#include "modes/nest_elimination.h"
#include "modes/nest_leaves.h"
#include "modes/nest_steps.h"
#include "modes/search_rules.h"
#include "modes/single_bend.h"

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
// As `remainder`, where nothing is made up for.
constexpr double small_remainder = 1e-16;

// What a search may leave to an evaluation at the modes. An integral over several points hardly moves with where these
// are placed, nor does its gradient; that over few sees the first power of what is left, and this is a square.
double left_over(const NestWork& w)
{
  constexpr long several = 3;
  const bool enough =
      std::all_of(w.level.begin(), w.level.end(), [](const NestLevel& l) { return l.points >= several; });
  return enough ? remainder : small_remainder;
}

// What the search keeps to: fixed for the joint search, the options of one level when the levels take turns.
struct Rules {
  int steps = 50, substeps = 20;
  double keep = 0.8, rise = 1e-8, step = 1.110223024625157e-12;
};

class NestSearch {
public:
  NestSearch(const NX& n, TVLThreadCtx& ctx, bool closes)
      : n_(n), ctx_(ctx), b_(ctx.batch), w_(ctx.nests), left_over_(left_over(ctx.nests)), closes_(closes),
        predicts_(!n.ebes_point.empty() && n.ebes_point != n.parm),
        starts_near_(closes && !n.ebes_point.empty() && (n.prediction_stands || !predicts_)),
        bends_(!n.ebes_bend.empty() && !n.ebes_point.empty())
  {
    if (n.ebiter) rules_ = {n.ebstep, n.ebsubstep, n.ebssfrac, n.ebsstol, n.ebtol};
    for (std::size_t j = 0; predicts_ && j < n.parm.size(); ++j) b_.parameter_step[j] = n.parm[j] - n.ebes_point[j];
  }

  int run()
  {
    start_all();
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

  // The same with all nodes of a level at once, or all that the search moves: f(level, first effect, past the last).
  template <class F> void for_effects(int nest, F&& f, int only = all_levels)
  {
    for (std::size_t k = 0; k < w_.level.size(); ++k) {
      NestLevel& l = w_.level[k];
      const auto first = static_cast<long>(l.nodes->first[static_cast<std::size_t>(nest)]),
                 last = static_cast<long>(l.nodes->first[static_cast<std::size_t>(nest) + 1]);
      if (only == all_levels || only == static_cast<int>(k))
        f(l, static_cast<std::size_t>(first * l.own), static_cast<std::size_t>(last * l.own));
    }
  }

  // --- start ---

  void start_all()
  {
    for (int nest = 0; nest < w_.nests; ++nest) start(nest);
    list_nodes(w_);
    place_starts(n_, ctx_, predicts_);
    for (int nest = 0; nest < w_.nests; ++nest) {
      ModeSearch& s = search(nest);
      if (s.state != ModeSearch::failed && s.from_mean) start_from_mean(nest);
      if (starts_near_ && s.state != ModeSearch::failed && !s.from_mean) s.state = ModeSearch::near;
    }
    note_active();
  }

  // Active are nests that start from stored modes.
  void start(int nest)
  {
    ModeSearch& s = search(nest);
    s = ModeSearch{};
    s.bound = s.previous = largest;
    if (w_.failure[static_cast<std::size_t>(nest)] != 0) s.state = ModeSearch::failed;
    const auto subject = static_cast<std::size_t>(b_.nest[static_cast<std::size_t>(nest)]);
    s.from_mean = n_.ebzstart || n_.ebes_known[subject] == 0;
    w_.active[static_cast<std::size_t>(nest)] = s.state != ModeSearch::failed && !s.from_mean ? 1 : 0;
    w_.closed[static_cast<std::size_t>(nest)] = 0;
  }

  void start_from_mean(int nest)
  {
    ModeSearch& s = search(nest);
    s = ModeSearch{};
    s.from_mean = true;
    s.bound = s.previous = largest;
    for_effects(nest, [](NestLevel& l, std::size_t first, std::size_t last) {
      for (std::size_t i = first; i < last; ++i) l.z[i] = 0.0;
    });
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
    do {
      while (const int count = list_columns()) {
        if (const int rc = evaluate(n_.programs.mode, count, b_.mode_sums.data(), 0); rc != 0) return rc;
        advance_all(b_.mode_sums.data());
      }
      if (!closes()) return 0;
      if (const int rc = close(); rc != 0) return rc;
    } while (unfinished());
    return 0;
  }

  bool closes() const { return closes_ && level_ == all_levels; }

  bool unfinished()
  {
    return std::any_of(w_.search.begin(), w_.search.begin() + w_.nests, [](const ModeSearch& s) {
      return s.state == ModeSearch::searching || s.state == ModeSearch::near;
    });
  }

  // The evaluation at the modes, of nests that are near and of those that are found; again of those alone that it was
  // not for, as long as there are columns.
  int close()
  {
    int count = list_unclosed();
    if (closed_ + count > b_.mode_stride) {
      std::fill_n(w_.closed.begin(), w_.nests, static_cast<char>(0));
      closed_ = 0;
      count = list_unclosed();
    }
    if (count == 0) return 0;
    if (const int rc = evaluate(n_.programs.closing, count, b_.curvature_sums.data(), closed_); rc != 0) return rc;
    closed_ += count;
    closing_ = true;
    advance_all(b_.curvature_sums.data() + n_.programs.closing_mode(0) * b_.mode_stride);
    closing_ = false;
    for (int nest = 0; nest < w_.nests; ++nest)
      w_.closed[static_cast<std::size_t>(nest)] = search(nest).state == ModeSearch::found ? 1 : 0;
    return 0;
  }

  int list_unclosed()
  {
    for (int nest = 0; nest < w_.nests; ++nest)
      w_.active[static_cast<std::size_t>(nest)] =
          search(nest).state != ModeSearch::failed && w_.closed[static_cast<std::size_t>(nest)] == 0 ? 1 : 0;
    return list_columns();
  }

  // Slots whose nest is active.
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

  // The log likelihood of every leaf with its derivatives at the trial point, from this column of the sums on.
  int evaluate(const model::ModelProgram& program, int count, double* sums, int column)
  {
    run_ = count;
    list_nodes(w_);
    place_effects(n_, ctx_);
    return run_leaves(n_, ctx_, program, count, sums, column);
  }

  // One decision for every active nest, which has just been evaluated: these are its results of programs.mode.
  void advance_all(const double* sums)
  {
    bool all = true;
    find_values(n_, ctx_, sums);
    for (int nest = 0; nest < w_.nests; ++nest) {
      char& active = w_.active[static_cast<std::size_t>(nest)];
      if (active == 0) continue;
      active = search(nest).state != ModeSearch::found && accept(nest) ? 1 : 0;
      all = all && active != 0;
    }
    if (!all) list_nodes(w_);
    if (level_ == all_levels)
      find_steps(n_, ctx_, sums);
    else
      find_own_steps(n_, ctx_, sums, level_);
    bend_first_steps();
    for (int nest = 0; nest < w_.nests; ++nest) {
      if (w_.active[static_cast<std::size_t>(nest)] == 0) continue;
      newton(nest);
    }
    keep_leaf_sums(n_, ctx_, run_, sums);
    note_active();
  }

  // First steps of searches that begin near accepted modes.
  bool bends(int nest)
  {
    const ModeSearch& s = search(nest);
    return bends_ && s.step == 0 && !s.from_mean && w_.active[static_cast<std::size_t>(nest)] != 0;
  }

  void bend_first_steps()
  {
    bool any = false;
    for (int nest = 0; nest < w_.nests; ++nest) any = any || bends(nest);
    if (!any) return;
    find_bends(n_, ctx_);
    for (int nest = 0; nest < w_.nests; ++nest)
      if (bends(nest)) bend(nest);
  }

  // Not where what is added is no small part of the step, or not a number.
  void bend(int nest)
  {
    const double square = w_.square[static_cast<std::size_t>(nest)];
    double& bent = w_.bent[static_cast<std::size_t>(nest)];
    bool fits = true;
    bent = 0.0;
    for_effects(nest, [&](const NestLevel& l, std::size_t first, std::size_t last) {
      for (std::size_t v = first; v < last; ++v) {
        fits = fits && l.part[v] <= largest_bend * square;
        bent = std::max(bent, l.part[v]);
      }
    });
    if (!fits) bent = square;
    for_effects(nest, [&](NestLevel& l, std::size_t first, std::size_t last) {
      for (std::size_t v = first; v < last && fits; ++v) l.step[v] += l.bent[v];
    });
  }

  void note_active()
  {
    for (int nest = 0; nest < w_.nests; ++nest)
      w_.active[static_cast<std::size_t>(nest)] = search(nest).state == ModeSearch::searching ? 1 : 0;
  }

  // Whether the value at the trial point will do, so that a Newton step may follow.
  bool accept(int nest)
  {
    ModeSearch& s = search(nest);
    const double f = w_.value[static_cast<std::size_t>(nest)];
    const bool rises = s.substep > 0 ? !(f < s.bound) : !(f <= s.bound);
    if (rules_.substeps > 0 && rises) {
      shrink(nest);
      return false;
    }
    if (!(f < model::failure_objective)) { // the start itself cannot be evaluated
      give_up(nest);
      return false;
    }
    if (rules_.substeps <= 0) return true;
    s.substep = 0;
    s.bound = allowed_value(f, rules_.rise);
    for_effects(nest, [](NestLevel& l, std::size_t first, std::size_t last) {
      for (std::size_t i = first; i < last; ++i) l.zold[i] = l.z[i];
    });
    return true;
  }

  // The value rose: a shorter step, first by EBSSFRAC, then by halves.
  void shrink(int nest)
  {
    ModeSearch& s = search(nest);
    if (s.substep >= rules_.substeps + halvings) return give_up(nest, SearchEnd::shorter_steps);
    const double keep = s.substep < rules_.substeps ? rules_.keep : 0.5;
    ++s.substep;
    s.state = ModeSearch::searching;
    for_effects(nest, [&](NestLevel& l, std::size_t first, std::size_t last) {
      for (std::size_t i = first; i < last; ++i) l.z[i] = keep * l.z[i] + (1.0 - keep) * l.zold[i];
    });
  }

  void newton(int nest)
  {
    ModeSearch& s = search(nest);
    const double step_u = w_.length[static_cast<std::size_t>(nest)],
                 step_sd = w_.square[static_cast<std::size_t>(nest)];
    if (!(step_sd < largest)) return give_up(nest);
    const bool noise = step_sd < noise_floor && step_sd > noise_ratio * s.previous;
    const bool predicted =
        n_.prediction_stands && starts_near_ && s.step == 0 && !s.from_mean && step_sd < good_prediction;
    const bool made_up_for = closing_ && step_sd < left_over_;
    if (short_enough(step_u, step_sd, rules_.step, small_remainder) || noise || step_sd < negligible || predicted ||
        made_up_for) {
      s.state = ModeSearch::found;
      s.logdet = log_determinant(w_, nest, level_ == all_levels ? -1 : level_);
      return;
    }
    const double next = bends(nest) ? step_after_bent(w_.bent[static_cast<std::size_t>(nest)], step_sd)
                                    : next_step(step_sd, s.previous);
    s.state = closes() && next < left_over_ ? ModeSearch::near : ModeSearch::searching;
    s.previous = step_sd;
    if (++s.step >= rules_.steps) return give_up(nest);
    for_effects(
        nest,
        [](NestLevel& l, std::size_t first, std::size_t last) {
          for (std::size_t i = first; i < last; ++i) l.z[i] -= l.step[i];
        },
        level_);
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
      place_turns();
      for (int nest = 0; nest < w_.nests; ++nest) end_round(nest, round);
    }
    for (int nest = 0; nest < w_.nests; ++nest)
      if (w_.turn[static_cast<std::size_t>(nest)] != 0) give_up(nest); // has not settled
    return close_turns();
  }

  // The effects of nests whose rounds go on.
  void place_turns()
  {
    std::copy_n(w_.turn.begin(), w_.nests, w_.active.begin());
    list_nodes(w_);
    place_effects(n_, ctx_);
  }

  bool any_turn() const
  {
    return std::any_of(w_.turn.begin(), w_.turn.begin() + w_.nests, [](char t) { return t != 0; });
  }

  void keep_round_start()
  {
    place_turns();
    for (int nest = 0; nest < w_.nests; ++nest)
      if (w_.turn[static_cast<std::size_t>(nest)] != 0)
        for_nodes(nest, [](NestLevel& l, int, int v) {
          std::copy_n(l.u.begin() + static_cast<long>(v) * l.own, l.own,
                      l.round_start.begin() + static_cast<long>(v) * l.own);
        });
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
  const double left_over_;
  const bool closes_;      // the last evaluation is one of everything that is wanted at the modes
  const bool predicts_;    // starts follow the parameters from the accepted modes
  const bool starts_near_; // stored modes are those of this point, or have to do
  const bool bends_;       // what bends a first step is known
  bool closing_ = false;   // the sums in hand are those of the evaluation at the modes
  int closed_ = 0;         // columns of curvature_sums in use
  int run_ = 0;            // leaves of the last run: entries of w_.columns
  int level_ = all_levels; // whose subjects move
  bool turns_ = false;
};

} // namespace

int nest_search(const NX& n, TVLThreadCtx& ctx, bool closes)
{
  return NestSearch(n, ctx, closes).run();
}

} // namespace torvale::modes
