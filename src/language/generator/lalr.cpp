// LALR(1) tables by DeRemer and Pennello, "Efficient computation of LALR(1) look-ahead sets", ACM TOPLAS 4 (1982).
#include "language/generator/grammar.h"

#include <algorithm>
#include <functional>
#include <map>

namespace torvale::generator {

namespace {

using Bits = std::vector<unsigned long long>; // a set of terminals

void unite(Bits& to, const Bits& from)
{
  for (std::size_t i = 0; i < to.size(); ++i) to[i] |= from[i];
}
void put(Bits& set, int member)
{
  set[static_cast<std::size_t>(member) / 64] |= 1ull << (member % 64);
}
bool has(const Bits& set, int member)
{
  return (set[static_cast<std::size_t>(member) / 64] >> (member % 64)) & 1;
}

class Automaton {
public:
  explicit Automaton(const Grammar& g) : g_(g), words_(static_cast<std::size_t>(g.terminals) / 64 + 1)
  {
    by_left_.resize(g.names.size());
    for (std::size_t p = 0; p < g.productions.size(); ++p)
      by_left_[static_cast<std::size_t>(g.productions[p].left)].push_back(static_cast<int>(p));
    find_nullable();
    build_states();
    find_lookaheads();
  }
  Tables tables();

private:
  using Item = std::pair<int, int>; // production, place of the dot
  struct State {
    std::vector<Item> kernel;
    std::vector<int> reductions;
    std::map<int, int> next; // symbol -> state
  };
  struct Transition {
    int state;
    int symbol;
  }; // on a nonterminal

  const Production& production(int p) const { return g_.productions[static_cast<std::size_t>(p)]; }
  bool nullable(int s) const { return nullable_[static_cast<std::size_t>(s)] != 0; }

  void find_nullable()
  {
    nullable_.assign(g_.names.size(), 0);
    for (bool changed = true; changed;) {
      changed = false;
      for (const Production& p : g_.productions) {
        if (nullable(p.left)) continue;
        if (!std::all_of(p.right.begin(), p.right.end(), [this](int s) { return nullable(s); })) continue;
        nullable_[static_cast<std::size_t>(p.left)] = 1;
        changed = true;
      }
    }
  }

  std::vector<Item> closure(const std::vector<Item>& kernel) const
  {
    std::vector<Item> items = kernel;
    std::vector<char> added(g_.names.size(), 0);
    for (std::size_t i = 0; i < items.size(); ++i) {
      const auto [p, dot] = items[i];
      const auto& right = production(p).right;
      if (static_cast<std::size_t>(dot) >= right.size()) continue;
      const int s = right[static_cast<std::size_t>(dot)];
      if (g_.terminal(s) || added[static_cast<std::size_t>(s)]) continue;
      added[static_cast<std::size_t>(s)] = 1;
      for (int q : by_left_[static_cast<std::size_t>(s)]) items.push_back({q, 0});
    }
    return items;
  }

  void build_states()
  {
    std::map<std::vector<Item>, int> known;
    const auto state_of = [&](std::vector<Item> kernel) {
      std::sort(kernel.begin(), kernel.end());
      const auto [it, fresh] = known.try_emplace(kernel, static_cast<int>(states_.size()));
      if (fresh) {
        State s;
        s.kernel = kernel;
        states_.push_back(std::move(s));
      }
      return it->second;
    };
    state_of({{0, 0}});
    for (std::size_t n = 0; n < states_.size(); ++n) {
      std::map<int, std::vector<Item>> moves;
      for (const auto& [p, dot] : closure(states_[n].kernel)) {
        const auto& right = production(p).right;
        if (static_cast<std::size_t>(dot) == right.size())
          states_[n].reductions.push_back(p);
        else
          moves[right[static_cast<std::size_t>(dot)]].push_back({p, dot + 1});
      }
      for (auto& [symbol, kernel] : moves) {
        const int to = state_of(std::move(kernel));
        states_[n].next[symbol] = to;
      }
    }
  }

  // Sets of `count` members closed over relation `of`: the digraph algorithm of the paper.
  void digraph(const std::vector<std::vector<int>>& of, std::vector<Bits>& sets) const
  {
    const std::size_t count = of.size();
    std::vector<int> depth(count, 0), stack;
    std::function<void(int)> visit = [&](int x) {
      const auto ix = static_cast<std::size_t>(x);
      stack.push_back(x);
      const int d = static_cast<int>(stack.size());
      depth[ix] = d;
      for (int y : of[ix]) {
        const auto iy = static_cast<std::size_t>(y);
        if (depth[iy] == 0) visit(y);
        depth[ix] = std::min(depth[ix], depth[iy]);
        unite(sets[ix], sets[iy]);
      }
      if (depth[ix] != d) return;
      for (;;) {
        const int top = stack.back();
        stack.pop_back();
        depth[static_cast<std::size_t>(top)] = 1 << 30;
        if (top == x) break;
        sets[static_cast<std::size_t>(top)] = sets[ix];
      }
    };
    for (std::size_t x = 0; x < count; ++x)
      if (depth[x] == 0) visit(static_cast<int>(x));
  }

  int transition(int state, int symbol) const { return transition_index_.at({state, symbol}); }
  int go(int state, int symbol) const { return states_[static_cast<std::size_t>(state)].next.at(symbol); }

  void find_lookaheads()
  {
    for (std::size_t n = 0; n < states_.size(); ++n)
      for (const auto& [symbol, to] : states_[n].next) {
        if (g_.terminal(symbol)) continue;
        transition_index_[{static_cast<int>(n), symbol}] = static_cast<int>(transitions_.size());
        transitions_.push_back({static_cast<int>(n), symbol});
      }
    const std::size_t count = transitions_.size();
    // follow starts as the terminals that can be shifted next (DR); reads and includes are the relations of the paper.
    std::vector<Bits> follow(count, Bits(words_, 0));
    std::vector<std::vector<int>> reads(count), includes(count);
    std::map<std::pair<int, int>, std::vector<int>> lookback; // (state, production) -> transitions
    for (std::size_t t = 0; t < count; ++t) {
      const int to = go(transitions_[t].state, transitions_[t].symbol);
      for (const auto& [symbol, next] : states_[static_cast<std::size_t>(to)].next) {
        if (g_.terminal(symbol))
          put(follow[t], symbol);
        else if (nullable(symbol))
          reads[t].push_back(transition(to, symbol));
      }
      if (transitions_[t].symbol == g_.goal && transitions_[t].state != 0) put(follow[t], g_.terminals);
    }
    for (std::size_t t = 0; t < count; ++t)
      for (int p : by_left_[static_cast<std::size_t>(transitions_[t].symbol)]) {
        const auto& right = production(p).right;
        int state = transitions_[t].state;
        for (std::size_t i = 0; i < right.size(); ++i) {
          if (!g_.terminal(right[i]) && std::all_of(right.begin() + static_cast<std::ptrdiff_t>(i) + 1, right.end(),
                                                    [this](int s) { return nullable(s); }))
            includes[static_cast<std::size_t>(transition(state, right[i]))].push_back(static_cast<int>(t));
          state = go(state, right[i]);
        }
        lookback[{state, p}].push_back(static_cast<int>(t));
      }
    digraph(reads, follow);
    digraph(includes, follow);
    for (const auto& [where, from] : lookback) {
      Bits set(words_, 0);
      for (int t : from) unite(set, follow[static_cast<std::size_t>(t)]);
      lookahead_[where] = std::move(set);
    }
  }

  std::string describe(const Production& p) const
  {
    std::string text = g_.names[static_cast<std::size_t>(p.left)] + " :";
    for (int s : p.right) text += " " + g_.names[static_cast<std::size_t>(s)];
    return text + " (line " + std::to_string(p.line) + ")";
  }

  const Grammar& g_;
  std::size_t words_;
  std::vector<std::vector<int>> by_left_;
  std::vector<char> nullable_;
  std::vector<State> states_;
  std::vector<Transition> transitions_;
  std::map<std::pair<int, int>, int> transition_index_;
  std::map<std::pair<int, int>, Bits> lookahead_;
};

Tables Automaton::tables()
{
  Tables result;
  for (std::size_t n = 0; n < states_.size(); ++n) {
    const State& state = states_[n];
    std::map<int, int> row(state.next.begin(), state.next.end());
    if (state.next.empty() && state.reductions.size() == 1) {
      row[0] = -state.reductions[0];
      result.rows.push_back({row.begin(), row.end()});
      continue;
    }
    for (int p : state.reductions) {
      const Bits& set = lookahead_.at({static_cast<int>(n), p});
      for (int t = 1; t <= g_.terminals; ++t) {
        if (!has(set, t)) continue;
        const auto found = row.find(t);
        if (found == row.end()) {
          row[t] = -p;
          continue;
        }
        if (found->second > 0 && g_.prefer_shift[static_cast<std::size_t>(t)]) continue;
        result.conflicts.push_back("state " + std::to_string(n) + " on " + g_.names[static_cast<std::size_t>(t)] +
                                   ": " + (found->second > 0 ? "shift" : describe(production(-found->second))) +
                                   " or " + describe(production(p)));
      }
    }
    result.rows.push_back({row.begin(), row.end()});
  }
  return result;
}

} // namespace

Tables make_tables(const Grammar& grammar)
{
  return Automaton(grammar).tables();
}

} // namespace torvale::generator
