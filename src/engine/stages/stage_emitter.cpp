// The steps of one stage of a program: what its results need, in order, loops
// as closed groups, over few registers.

#include "engine/stages/stage_emitter.h"

#include "engine/stages/shared_forms.h"

#include <algorithm>
#include <map>
#include <set>

namespace torvale::engine {

namespace {

// One stage: from the results that it must give to steps over registers.
class Emitter {
public:
  Emitter(Specialiser& all, Stage stage) : all_(all), graph_(all.graph_), stage_(stage), code_(all.program_.code(stage))
  {
  }

  void run()
  {
    // Next values of kept values are results too; asking for them may need more
    // kept values.
    auto& kept = stage_ == Stage::data ? all_.program_.data_kept : all_.program_.kept;
    for (const NodeId id : code_.results) need(id);
    work_off();
    share_forms();
    invert_divisors();
    first_next_ = code_.results.size();
    if (stage_ == Stage::data || stage_ == Stage::lane)
      for (const std::int32_t carry : kept) code_.results.push_back(graph_.carry_at(carry).next);
    count_uses();
    choose_fusions();
    gather_loop_operands();
    for (std::size_t k = 0; k < code_.results.size(); ++k)
      keeps_[code_.results[k]].push_back(static_cast<std::int32_t>(k));
    region(0, code_.results);
    finish_keeps();
    allocate();
  }

private:
  struct Shape { // a node as it will be computed: perhaps two operations in one
    Kernel kernel;
    std::vector<NodeId> operands;
  };

  // --- what is needed ---
  bool is_leaf(NodeId id)
  {
    const Node& n = graph_.node(id);
    if (n.kind == NodeKind::constant || n.kind == NodeKind::symbol || n.kind == NodeKind::row) return true;
    if (n.kind == NodeKind::carry) return true;
    return all_.loops_.loop_of(id) == 0 && all_.stage_of(id, stage_) != stage_;
  }

  void need(NodeId id)
  {
    if (id != no_node && needed_.insert(id).second) open_.push_back(id);
  }

  void work_off()
  {
    while (!open_.empty()) {
      const NodeId id = open_.back();
      open_.pop_back();
      const Node n = graph_.node(id);
      if (n.kind == NodeKind::carry) {
        const Carry c = graph_.carry_at(n.index);
        if (c.loop != 0)
          need_carry(n.index);
        else if (all_.stage_of(id, stage_) == stage_)
          keep_state(n.index);
        continue;
      }
      if (is_leaf(id)) continue;
      if (n.kind == NodeKind::result) need_carry(n.index);
      for (const NodeId operand : shape(id).operands) need(operand);
    }
  }

  void need_carry(std::int32_t carry)
  {
    const Carry c = graph_.carry_at(carry);
    if (!carries_[c.loop].insert(carry).second) return;
    need(c.entry);
    need(c.initial);
    need(c.next);
    need(graph_.loop_at(c.loop).condition);
  }

  void keep_state(std::int32_t carry)
  {
    auto& kept = stage_ == Stage::data ? all_.program_.data_kept : all_.program_.kept;
    need(graph_.carry_at(carry).next);
    if (std::find(kept.begin(), kept.end(), carry) == kept.end()) kept.push_back(carry);
  }

  void invert_divisors()
  {
    std::vector<NodeId> divisions;
    for (const NodeId id : needed_)
      if (!is_leaf(id) && all_.gcmp_.dependence.divides_by_inverse(id)) divisions.push_back(id);
    for (const NodeId id : divisions) {
      const NodeId inverse = graph_.reciprocal(graph_.operand(id, 1));
      shape_[id] = {Kernel::multiply, {graph_.operand(id, 0), inverse}};
      need(inverse);
    }
    work_off();
  }

  // Logistic functions and softplus, of x and of -x, from one exponential;
  // exponentials of sums from their factors.
  void share_forms()
  {
    std::vector<NodeId> found;
    for (const NodeId id : needed_) {
      const Node& n = graph_.node(id);
      if (!is_leaf(id) &&
          (is_kernel(n, Kernel::logistic) || is_kernel(n, Kernel::softplus) || is_kernel(n, Kernel::exp)))
        found.push_back(id);
    }
    const GraphBuilder::Derivative plain(graph_);
    SharedForms forms(
        graph_, [&](NodeId id) { return needed_.count(id) > 0; }, [&](NodeId id) { return all_.stage_of(id, stage_); });
    for (const NodeId id : found) {
      StepForm form;
      if (!is_kernel(graph_.node(id), Kernel::exp))
        form = forms.logistic(id);
      else if (!forms.exponential(id, form))
        continue;
      shape_[id] = {form.kernel, form.operands};
    }
    needed_.clear();
    carries_.clear();
    for (const NodeId id : code_.results) need(id);
    work_off();
  }

  void count_uses()
  {
    for (const NodeId id : needed_) {
      if (is_leaf(id)) continue;
      for (const NodeId operand : shape(id).operands) ++uses_[operand];
    }
    for (const auto& [loop, carries] : carries_)
      for (const std::int32_t c : carries) {
        uses_[graph_.carry_at(c).initial] += 2;
        uses_[graph_.carry_at(c).next] += 2;
      }
    for (const NodeId id : code_.results) uses_[id] += 2;
  }

  // --- two operations in one ---
  void choose_fusions()
  {
    for (const NodeId id : needed_) {
      if (is_leaf(id)) continue;
      const Node n = graph_.node(id);
      if (n.kind != NodeKind::kernel) continue;
      const auto private_product = [&](NodeId m) {
        const Node& x = graph_.node(m);
        return x.kind == NodeKind::kernel && x.kernel == Kernel::multiply && uses_[m] == 1 && !is_leaf(m) &&
               all_.loops_.loop_of(m) == all_.loops_.loop_of(id);
      };
      const NodeId a = n.operand[0], b = n.operand[1];
      const auto fuse = [&](Kernel k, NodeId product, NodeId other) {
        shape_[id] = {k, {graph_.operand(product, 0), graph_.operand(product, 1), other}};
        swallowed_.insert(product);
      };
      if (n.kernel == Kernel::add && private_product(a))
        fuse(Kernel::multiply_add, a, b);
      else if (n.kernel == Kernel::add && private_product(b))
        fuse(Kernel::multiply_add, b, a);
      else if (n.kernel == Kernel::subtract && private_product(a))
        fuse(Kernel::multiply_subtract, a, b);
      else if (n.kernel == Kernel::subtract && private_product(b))
        fuse(Kernel::subtract_product, b, a);
      else if (n.kernel == Kernel::negate && private_product(a))
        fuse(Kernel::subtract_product, a, graph_.zero());
      else if (n.kernel == Kernel::select && graph_.is_constant(n.operand[2], 0.0))
        shape_[id] = {Kernel::select_or_zero, {a, b}};
      else if (n.kernel == Kernel::and_ && private_negation(b, id))
        shape_[id] = {Kernel::and_not, {a, graph_.operand(b, 0)}};
      else if (n.kernel == Kernel::and_ && private_negation(a, id))
        shape_[id] = {Kernel::and_not, {b, graph_.operand(a, 0)}};
    }
  }

  bool private_negation(NodeId m, NodeId user)
  {
    const Node& x = graph_.node(m);
    return x.kind == NodeKind::kernel && x.kernel == Kernel::not_ && !is_leaf(m) &&
           all_.loops_.loop_of(m) == all_.loops_.loop_of(user);
  }

  Shape shape(NodeId id)
  {
    if (const auto it = shape_.find(id); it != shape_.end()) return it->second;
    const Node& n = graph_.node(id);
    return {n.kernel, std::vector<NodeId>(n.operand.begin(), n.operand.begin() + n.operands)};
  }

  // --- order ---
  // What a loop reads from outside must be ready before it begins.
  void gather_loop_operands()
  {
    const auto outside = [&](NodeId from, std::int32_t loop) {
      for (; loop != 0 && !all_.loops_.within(all_.loops_.loop_of(from), loop); loop = graph_.loop_at(loop).parent)
        outer_[loop].push_back(from);
    };
    for (const NodeId id : needed_) {
      const std::int32_t loop = all_.loops_.loop_of(id);
      if (loop == 0 || is_leaf(id) || swallowed_.count(id) > 0) continue;
      for (const NodeId operand : shape(id).operands) outside(operand, loop);
    }
    for (const auto& [loop, carries] : carries_)
      for (const std::int32_t c : carries) {
        outside(graph_.carry_at(c).initial, loop);
        outside(graph_.carry_at(c).next, loop);
      }
  }

  std::vector<NodeId> before(NodeId id)
  {
    if (is_leaf(id)) return {};
    const Node& n = graph_.node(id);
    if (n.kind == NodeKind::result) return outer_[graph_.carry_at(n.index).loop];
    return shape(id).operands;
  }

  // The nodes of one loop's pass (or of none) in an order in which operands
  // come first.
  void region(std::int32_t loop, const std::vector<NodeId>& roots)
  {
    struct Visit {
      NodeId id;
      std::vector<NodeId> operands;
      std::size_t next = 0;
    };
    std::vector<Visit> path;
    for (const NodeId root : roots) {
      if (done_.count(root) == 0) path.push_back({root, before(root), 0});
      while (!path.empty()) {
        Visit& v = path.back();
        if (v.next < v.operands.size()) {
          const NodeId operand = v.operands[v.next++];
          if (done_.count(operand) == 0) path.push_back({operand, before(operand), 0});
          continue;
        }
        const NodeId id = v.id;
        path.pop_back();
        if (done_.insert(id).second) emit(id, loop);
      }
    }
  }

  void emit(NodeId id, std::int32_t loop)
  {
    const Node n = graph_.node(id);
    if (n.kind == NodeKind::carry && graph_.carry_at(n.index).loop != 0) return; // its register is set by the loop
    if (n.kind == NodeKind::constant || (is_leaf(id) && n.kind != NodeKind::carry &&
                                         all_.stage_of(id, stage_) == Stage::parameter && stage_ != Stage::parameter)) {
      Fixed f;
      f.constant = n.kind == NodeKind::constant;
      f.value = n.value;
      if (!f.constant) f.index = all_.ask(Stage::parameter, id);
      f.reg = id;
      code_.fixed.push_back(f);
    } else if (is_leaf(id)) {
      Step s;
      s.kind = Step::Kind::load;
      s.out = id;
      s.node = id;
      s.index = static_cast<std::int32_t>(code_.inputs.size());
      code_.inputs.push_back(input(id));
      code_.steps.push_back(s);
    } else if (n.kind == NodeKind::result) {
      emit_loop(graph_.carry_at(n.index).loop);
      alias_[id] = graph_.carry_at(n.index).entry;
    } else {
      Step s;
      s.kind = n.kind == NodeKind::text ? Step::Kind::text : Step::Kind::kernel;
      const Shape as = shape(id);
      s.kernel = as.kernel;
      s.index = n.index;
      s.out = id;
      s.node = id;
      for (const NodeId operand : as.operands) s.in[static_cast<std::size_t>(s.operands++)] = operand;
      code_.steps.push_back(s);
      ++code_.operations;
    }
    if (loop == 0) keep_now(id);
  }

  Input input(NodeId id)
  {
    const Node& n = graph_.node(id);
    using From = Input::From;
    if (n.kind == NodeKind::row) return {From::row_number, 0};
    if (n.kind == NodeKind::carry && all_.stage_of(id, stage_) == stage_) {
      const auto& kept = stage_ == Stage::data ? all_.program_.data_kept : all_.program_.kept;
      return {From::state, static_cast<std::int32_t>(std::find(kept.begin(), kept.end(), n.index) - kept.begin())};
    }
    if (n.kind == NodeKind::symbol) {
      const CMPSYM& s = all_.gcmp_.at(n.index);
      if (s.parameter >= 0) return {From::parameter_value, s.parameter};
      if (s.random_effect >= 0) return {From::random_effect, s.random_effect};
      if (s.dsvarno > 0 && s.type != 'c') return {From::column, all_.column(id)};
      return {From::missing, 0};
    }
    switch (all_.stage_of(id, stage_)) {
    case Stage::data:
      return {From::column, all_.column(id)};
    case Stage::distinct:
      return {From::distinct, all_.ask(Stage::distinct, id)};
    case Stage::observation:
      return {From::observation, all_.ask(Stage::observation, id)};
    case Stage::point:
      return {From::point, all_.ask(Stage::point, id)};
    default:
      return {From::missing, 0};
    }
  }

  void emit_loop(std::int32_t loop)
  {
    if (!emitted_loops_.insert(loop).second) return;
    const std::set<std::int32_t> carries = carries_[loop];
    const auto copy = [&](NodeId to, NodeId from) {
      Step s;
      s.out = to;
      s.in[0] = from;
      s.operands = 1;
      s.node = to;
      code_.steps.push_back(s);
    };
    std::vector<NodeId> next;
    for (const std::int32_t c : carries) {
      copy(graph_.carry_at(c).entry, graph_.carry_at(c).initial);
      done_.insert(graph_.carry_at(c).entry);
      next.push_back(graph_.carry_at(c).next);
    }
    Step begin;
    begin.kind = Step::Kind::loop_begin;
    begin.in[0] = graph_.loop_at(loop).condition;
    begin.operands = 1;
    const std::size_t begin_at = code_.steps.size();
    code_.steps.push_back(begin);
    region(loop, next);
    // All next values are read before any carry is overwritten.
    std::map<std::int32_t, NodeId> staged;
    for (const std::int32_t c : carries) {
      const NodeId from = real(graph_.carry_at(c).next);
      staged[c] = from;
      const Node& n = graph_.node(from);
      if (n.kind == NodeKind::carry && n.index != c && carries.count(n.index) > 0) {
        staged[c] = --temporaries_;
        copy(staged[c], from);
      }
    }
    for (const std::int32_t c : carries)
      if (staged[c] != graph_.carry_at(c).entry) copy(graph_.carry_at(c).entry, staged[c]);
    Step end;
    end.kind = Step::Kind::loop_end;
    end.index = static_cast<std::int32_t>(begin_at);
    end.out = -1;
    end.node = graph_.carry_at(*carries.begin()).entry;
    code_.steps[begin_at].index = static_cast<std::int32_t>(code_.steps.size()) + 1;
    code_.steps.push_back(end);
  }

  // --- results ---
  void keep_step(std::int32_t result, NodeId id)
  {
    Step s;
    s.kind = Step::Kind::keep;
    s.in[0] = id;
    s.operands = 1;
    s.index = result;
    s.node = id;
    if (stage_ == Stage::lane && result < all_.program_.outputs) s.kind = Step::Kind::output;
    code_.steps.push_back(s);
  }

  // Results are stored as soon as they exist, so that their registers are free
  // again; next values at the end, when the values they replace have been read.
  void keep_now(NodeId id)
  {
    const auto it = keeps_.find(id);
    if (it == keeps_.end()) return;
    for (const std::int32_t result : it->second)
      if (static_cast<std::size_t>(result) < first_next_) keep_step(result, id);
  }

  void finish_keeps()
  {
    for (std::size_t k = first_next_; k < code_.results.size(); ++k)
      keep_step(static_cast<std::int32_t>(k), code_.results[k]);
  }

  // --- registers ---
  NodeId real(NodeId id)
  {
    const auto it = alias_.find(id);
    return it == alias_.end() ? id : it->second;
  }

  // All register fields that a step reads.
  template <class F> void for_operands(Step& s, F f)
  {
    for (int j = 0; j < s.operands; ++j) f(s.in[static_cast<std::size_t>(j)]);
  }
  static bool writes(const Step& s)
  {
    return s.kind != Step::Kind::keep && s.kind != Step::Kind::output && s.kind != Step::Kind::loop_begin &&
           s.kind != Step::Kind::loop_end;
  }

  void allocate()
  {
    const int steps = static_cast<int>(code_.steps.size());
    std::unordered_map<NodeId, int> reg, last, first;
    int count = 0;
    for (Fixed& f : code_.fixed) {
      reg[f.reg] = count;
      f.reg = count++;
    }
    // What depends on the point alone keeps its register too: as long as the
    // lanes stand for the same points, it is not fetched again.
    for (const Step& s : code_.steps)
      if (s.kind == Step::Kind::load && code_.inputs[static_cast<std::size_t>(s.index)].by_point())
        reg[s.out] = count++;
    // Loops as intervals of steps.
    std::vector<std::pair<int, int>> loops;
    for (int k = 0; k < steps; ++k)
      if (code_.steps[static_cast<std::size_t>(k)].kind == Step::Kind::loop_begin)
        loops.emplace_back(k, code_.steps[static_cast<std::size_t>(k)].index - 1);
    const auto lives_until = [&](NodeId id, int k) {
      int until = k;
      for (const auto& [begin, end] : loops)
        if (begin <= k && k <= end && first.count(id) > 0 && first[id] < begin) until = std::max(until, end);
      const auto known = last.emplace(id, until);
      known.first->second = std::max(known.first->second, until);
    };
    for (int k = 0; k < steps; ++k) {
      Step& s = code_.steps[static_cast<std::size_t>(k)];
      for_operands(s, [&](std::int32_t& in) {
        in = real(in);
        lives_until(in, k);
      });
      if (!writes(s)) continue;
      first.emplace(s.out, k);
      lives_until(s.out, k); // a carry is written at the end of a pass and read
                             // by the next one
    }
    std::vector<int> free;
    std::multimap<int, NodeId> ending;
    for (int k = 0; k < steps; ++k) {
      Step& s = code_.steps[static_cast<std::size_t>(k)];
      for_operands(s, [&](std::int32_t& in) { in = reg.at(in); });
      // Operands that end here give their registers to the result: steps may
      // write over what they read.
      for (auto it = ending.begin(); it != ending.end() && it->first <= k; it = ending.erase(it))
        free.push_back(reg.at(it->second));
      if (!writes(s)) continue;
      const NodeId id = s.out;
      if (reg.count(id) == 0) {
        if (free.empty()) {
          reg[id] = count++;
        } else {
          reg[id] = free.back();
          free.pop_back();
        }
        ending.emplace(last.at(id), id);
      }
      s.out = reg.at(id);
    }
    code_.registers = count;
  }

  Specialiser& all_;
  GraphBuilder& graph_;
  Stage stage_;
  StageCode& code_;
  std::set<NodeId> needed_;
  std::vector<NodeId> open_;
  std::map<std::int32_t, std::set<std::int32_t>> carries_; // needed carries by loop
  std::unordered_map<NodeId, int> uses_;
  std::unordered_map<NodeId, Shape> shape_;
  std::set<NodeId> swallowed_;
  std::map<std::int32_t, std::vector<NodeId>> outer_;
  std::set<NodeId> done_;
  std::set<std::int32_t> emitted_loops_;
  std::unordered_map<NodeId, NodeId> alias_;
  std::unordered_map<NodeId, std::vector<std::int32_t>> keeps_;
  std::size_t first_next_ = 0;
  NodeId temporaries_ = -1;
};

} // namespace

void emit_stage(Specialiser& all, Stage stage)
{
  Emitter(all, stage).run();
}

} // namespace torvale::engine
