#include "engine/stages/step_registers.h"

#include <algorithm>

namespace torvale::engine {

namespace {

class Sharing {
public:
  Sharing(StageCode& code, const std::unordered_map<NodeId, NodeId>& alias) : code_(code), alias_(alias)
  {
    NodeId lowest = 0, highest = 0;
    const auto see = [&](NodeId id) {
      lowest = std::min(lowest, id);
      highest = std::max(highest, id);
    };
    for (const Fixed& f : code_.fixed) see(f.reg);
    for (Step& s : code_.steps) {
      if (writes(s)) see(s.out);
      for (std::int32_t& in : code_.operands(s)) {
        in = real(in);
        see(in);
      }
    }
    lowest_ = lowest;
    values_.resize(static_cast<std::size_t>(highest - lowest) + 1);
  }

  void run()
  {
    for (Fixed& f : code_.fixed) f.reg = value(f.reg).reg = count_++;
    // What depends on the point alone keeps its register too: as long as the lanes stand for the same points, it is not
    // fetched again.
    for (const Step& s : code_.steps)
      if (s.kind == Step::Kind::load && code_.inputs[static_cast<std::size_t>(s.index)].by_point())
        value(s.out).reg = count_++;
    find_lives();
    give_out();
    code_.registers = count_;
  }

private:
  struct Value {
    int reg = -1;
    int first = -1, last = -1; // steps: the one that writes it, the last that reads it
    NodeId next_ending = no_value;
  };
  static constexpr NodeId no_value = INT32_MIN;

  Value& value(NodeId id) { return values_[static_cast<std::size_t>(id - lowest_)]; }
  NodeId real(NodeId id) const
  {
    if (alias_.empty()) return id;
    const auto it = alias_.find(id);
    return it == alias_.end() ? id : it->second;
  }
  static bool writes(const Step& s)
  {
    return s.kind != Step::Kind::keep && s.kind != Step::Kind::output && s.kind != Step::Kind::loop_begin &&
           s.kind != Step::Kind::loop_end;
  }

  // What a loop reads from outside, and its carries, live until it ends.
  void find_lives()
  {
    const int steps = static_cast<int>(code_.steps.size());
    std::vector<std::pair<int, int>> loops; // as intervals of steps
    for (int k = 0; k < steps; ++k)
      if (const Step& s = code_.steps[static_cast<std::size_t>(k)]; s.kind == Step::Kind::loop_begin)
        loops.emplace_back(k, s.index - 1);
    const auto lives = [&](Value& v, int k) {
      int until = k;
      for (const auto& [begin, end] : loops)
        if (begin <= k && k <= end && v.first >= 0 && v.first < begin) until = std::max(until, end);
      v.last = std::max(v.last, until);
    };
    for (int k = 0; k < steps; ++k) {
      Step& s = code_.steps[static_cast<std::size_t>(k)];
      for (const std::int32_t in : code_.operands(s)) lives(value(in), k);
      if (!writes(s)) continue;
      Value& out = value(s.out);
      if (out.first < 0) out.first = k;
      lives(out, k); // a carry is written at the end of a pass and read by the next one
    }
  }

  // Operands that end at a step give their registers to its result: steps may write over what they read.
  void give_out()
  {
    const std::size_t steps = code_.steps.size();
    std::vector<NodeId> ending(steps + 1, no_value); // per step the values that end there, as a list
    std::vector<int> free;
    for (std::size_t k = 0; k < steps; ++k) {
      Step& s = code_.steps[k];
      for (std::int32_t& in : code_.operands(s)) in = value(in).reg;
      for (NodeId id = ending[k]; id != no_value; id = value(id).next_ending) free.push_back(value(id).reg);
      if (!writes(s)) continue;
      Value& out = value(s.out);
      if (out.reg < 0) {
        out.reg = free.empty() ? count_++ : free.back();
        if (!free.empty()) free.pop_back();
        NodeId& list = ending[std::max(static_cast<std::size_t>(out.last), k + 1)];
        out.next_ending = list;
        list = s.out;
      }
      s.out = out.reg;
    }
  }

  StageCode& code_;
  const std::unordered_map<NodeId, NodeId>& alias_;
  NodeId lowest_ = 0;
  std::vector<Value> values_;
  int count_ = 0;
};

} // namespace

void share_registers(StageCode& code, const std::unordered_map<NodeId, NodeId>& alias)
{
  Sharing(code, alias).run();
}

} // namespace torvale::engine
