// The steps of one stage of a program: what its results need, in order, loops
// as closed groups, over few registers.

#include "engine/stages/stage_emitter.h"

#include "engine/stages/element_chains.h"
#include "engine/stages/node_table.h"
#include "engine/stages/shared_forms.h"
#include "engine/stages/step_registers.h"

#include <algorithm>
#include <map>
#include <set>
#include <span>

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
    look_up_elements();
    first_next_ = code_.results.size();
    if (stage_ == Stage::data || stage_ == Stage::lane)
      for (const std::int32_t carry : kept) code_.results.push_back(graph_.carry_at(carry).next);
    count_uses();
    choose_fusions();
    gather_loop_operands();
    list_keeps();
    region(0, code_.results);
    finish_keeps();
    share_registers(code_, alias_);
  }

private:
  struct Shape { // a node as it will be computed: perhaps two operations in one. Until the graph grows
    Kernel kernel;
    std::span<const NodeId> operands;
    std::int32_t elements = -1; // place among the stage's operands of element steps, when it becomes one
  };

  // --- what is needed ---
  bool is_leaf(NodeId id)
  {
    std::int8_t& known = leaf_[id];
    if (known < 0) known = found_leaf(id) ? 1 : 0;
    return known != 0;
  }

  bool found_leaf(NodeId id)
  {
    const Node& n = graph_.node(id);
    if (n.kind == NodeKind::constant || n.kind == NodeKind::symbol || n.kind == NodeKind::row) return true;
    if (n.kind == NodeKind::carry) return true;
    return all_.loops_.loop_of(id) == 0 && all_.stage_of(id, stage_) != stage_;
  }

  void need(NodeId id)
  {
    if (id != no_node && needed_.insert(id)) open_.push_back(id);
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
    for (const NodeId id : needed_.ascending())
      if (all_.gcmp_.dependence.divides_by_inverse(id) && !is_leaf(id)) divisions.push_back(id);
    for (const NodeId id : divisions) {
      const NodeId inverse = graph_.reciprocal(graph_.operand(id, 1));
      compute_as(id, Kernel::multiply, {graph_.operand(id, 0), inverse});
      need(inverse);
    }
    work_off();
  }

  // Logistic functions and softplus, of x and of -x, from one exponential;
  // exponentials of sums from their factors.
  void share_forms()
  {
    std::vector<NodeId> found;
    for (const NodeId id : needed_.ascending()) {
      const Node& n = graph_.node(id);
      if ((is_kernel(n, Kernel::logistic) || is_kernel(n, Kernel::softplus) || is_kernel(n, Kernel::exp)) &&
          !is_leaf(id))
        found.push_back(id);
    }
    const GraphBuilder::Derivative plain(graph_);
    SharedForms forms(
        graph_, [&](NodeId id) { return needed_.has(id); }, [&](NodeId id) { return all_.stage_of(id, stage_); });
    for (const NodeId id : found) {
      StepForm form;
      if (!is_kernel(graph_.node(id), Kernel::exp))
        form = forms.logistic(id);
      else if (!forms.exponential(id, form))
        continue;
      compute_as(id, form.kernel, form.operands);
    }
    if (!found.empty()) need_anew();
  }

  // Stages that are walked look elements of arrays up: in loops a comparison with every subscript, pass by pass, would
  // make work of the square of the passes. Machine code chooses as fast as it could fetch all elements.
  void look_up_elements()
  {
    const auto is_text = [&](NodeId id) { return graph_.node(id).kind == NodeKind::text; };
    const bool walked = std::any_of(carries_.begin(), carries_.end(), [](const auto& of) { return of.first != 0; }) ||
                        std::any_of(needed_.members().begin(), needed_.members().end(), is_text);
    for (bool found = walked; found;) {
      found = false;
      NodeSet inner;
      const std::vector<NodeId> candidates = needed_.ascending();
      for (auto id = candidates.rbegin(); id != candidates.rend(); ++id) {
        if (!is_kernel(graph_.node(*id), Kernel::select) || inner.has(*id) || computed_as_.get(*id) >= 0 ||
            is_leaf(*id))
          continue;
        ElementChain chain = element_chain(graph_, *id, [&](NodeId rest) { return is_leaf(rest); });
        if (chain.operands.empty()) continue;
        for (const NodeId select : chain.inner) inner.insert(select);
        Step s;
        s.kind = Step::Kind::element;
        s.index = static_cast<std::int32_t>(code_.elements.size());
        code_.elements.push_back(std::move(chain.operands));
        computed_as_[*id] = static_cast<std::int32_t>(other_forms_.size());
        other_forms_.push_back(s);
        found = true;
      }
      if (found) need_anew();
    }
  }

  void need_anew()
  {
    needed_.clear();
    carries_.clear();
    for (const NodeId id : code_.results) need(id);
    work_off();
  }

  void count_uses()
  {
    for (const NodeId id : needed_.members()) {
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
    const NodeId zero = graph_.zero();
    for (const NodeId id : needed_.members()) {
      if (is_leaf(id)) continue;
      const Node& n = graph_.node(id);
      if (n.kind != NodeKind::kernel || shape(id).elements >= 0) continue;
      const auto private_product = [&](NodeId m) {
        const Node& x = graph_.node(m);
        return x.kind == NodeKind::kernel && x.kernel == Kernel::multiply && uses_[m] == 1 && !is_leaf(m) &&
               all_.loops_.loop_of(m) == all_.loops_.loop_of(id);
      };
      const NodeId a = n.operand[0], b = n.operand[1];
      const auto fuse = [&](Kernel k, NodeId product, NodeId other) {
        compute_as(id, k, {graph_.operand(product, 0), graph_.operand(product, 1), other});
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
        fuse(Kernel::subtract_product, a, zero);
      else if (n.kernel == Kernel::select && graph_.is_constant(n.operand[2], 0.0))
        compute_as(id, Kernel::select_or_zero, {a, b});
      else if (n.kernel == Kernel::and_ && private_negation(b, id))
        compute_as(id, Kernel::and_not, {a, graph_.operand(b, 0)});
      else if (n.kernel == Kernel::and_ && private_negation(a, id))
        compute_as(id, Kernel::and_not, {b, graph_.operand(a, 0)});
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
    if (const std::int32_t other = computed_as_.get(id); other >= 0) {
      const Step& s = other_forms_[static_cast<std::size_t>(other)];
      if (s.kind == Step::Kind::element) return {s.kernel, code_.elements[static_cast<std::size_t>(s.index)], s.index};
      return {s.kernel, {s.in.data(), static_cast<std::size_t>(s.operands)}};
    }
    const Node& n = graph_.node(id);
    return {n.kernel, {n.operand.data(), static_cast<std::size_t>(n.operands)}};
  }

  void compute_as(NodeId id, Kernel kernel, std::span<const NodeId> operands)
  {
    Step s;
    s.kernel = kernel;
    for (const NodeId operand : operands) s.in[static_cast<std::size_t>(s.operands++)] = operand;
    computed_as_[id] = static_cast<std::int32_t>(other_forms_.size());
    other_forms_.push_back(s);
  }
  void compute_as(NodeId id, Kernel kernel, std::initializer_list<NodeId> operands)
  {
    compute_as(id, kernel, std::span<const NodeId>(operands.begin(), operands.size()));
  }

  // --- order ---
  // What a loop reads from outside must be ready before it begins.
  void gather_loop_operands()
  {
    const auto outside = [&](NodeId from, std::int32_t loop) {
      for (; loop != 0 && !all_.loops_.within(all_.loops_.loop_of(from), loop); loop = graph_.loop_at(loop).parent)
        outer_[loop].push_back(from);
    };
    for (const NodeId id : needed_.ascending()) {
      const std::int32_t loop = all_.loops_.loop_of(id);
      if (loop == 0 || is_leaf(id) || swallowed_.has(id)) continue;
      for (const NodeId operand : shape(id).operands) outside(operand, loop);
    }
    for (const auto& [loop, carries] : carries_)
      for (const std::int32_t c : carries) {
        outside(graph_.carry_at(c).initial, loop);
        outside(graph_.carry_at(c).next, loop);
      }
  }

  std::span<const NodeId> before(NodeId id)
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
      std::span<const NodeId> operands;
      std::size_t next = 0;
    };
    std::vector<Visit> path;
    for (const NodeId root : roots) {
      if (!done_.has(root)) path.push_back({root, before(root), 0});
      while (!path.empty()) {
        Visit& v = path.back();
        if (v.next < v.operands.size()) {
          const NodeId operand = v.operands[v.next++];
          if (!done_.has(operand)) path.push_back({operand, before(operand), 0});
          continue;
        }
        const NodeId id = v.id;
        path.pop_back();
        if (done_.insert(id)) emit(id, loop);
      }
    }
  }

  void emit(NodeId id, std::int32_t loop)
  {
    const Node& n = graph_.node(id);
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
      const Shape as = shape(id);
      s.kind = as.elements >= 0           ? Step::Kind::element
               : n.kind == NodeKind::text ? Step::Kind::text
                                          : Step::Kind::kernel;
      s.kernel = as.kernel;
      s.index = as.elements >= 0 ? as.elements : n.index;
      s.out = id;
      s.node = id;
      if (as.elements < 0)
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
      if (s.total >= 0) return {From::total, s.total};
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
  void list_keeps()
  {
    next_keep_.assign(code_.results.size(), -1);
    for (std::size_t k = code_.results.size(); k-- > 0;) {
      std::int32_t& first = first_keep_[code_.results[k]];
      next_keep_[k] = first;
      first = static_cast<std::int32_t>(k);
    }
  }

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
    for (std::int32_t result = first_keep_.get(id); result >= 0; result = next_keep_[static_cast<std::size_t>(result)])
      if (static_cast<std::size_t>(result) < first_next_) keep_step(result, id);
  }

  void finish_keeps()
  {
    for (std::size_t k = first_next_; k < code_.results.size(); ++k)
      keep_step(static_cast<std::int32_t>(k), code_.results[k]);
  }

  // The node in whose register a value is: that of a loop's result is the loop's carry.
  NodeId real(NodeId id) const
  {
    const auto it = alias_.find(id);
    return it == alias_.end() ? id : it->second;
  }

  Specialiser& all_;
  GraphBuilder& graph_;
  Stage stage_;
  StageCode& code_;
  NodeTable<std::int8_t> leaf_{-1}; // as far as it has been asked
  NodeSet needed_;
  std::vector<NodeId> open_;
  std::map<std::int32_t, std::set<std::int32_t>> carries_; // needed carries by loop
  NodeTable<int> uses_{0};
  NodeTable<std::int32_t> computed_as_{-1}; // place in the next list of a form other than the node's own
  std::vector<Step> other_forms_;           // kernel and operands (nodes)
  NodeSet swallowed_;
  std::map<std::int32_t, std::vector<NodeId>> outer_;
  NodeSet done_;
  std::set<std::int32_t> emitted_loops_;
  std::unordered_map<NodeId, NodeId> alias_;
  NodeTable<std::int32_t> first_keep_{-1}; // first result that a node is
  std::vector<std::int32_t> next_keep_;    // per result: the next one of the same node; -1: none
  std::size_t first_next_ = 0;
  NodeId temporaries_ = -1;
};

} // namespace

void emit_stage(Specialiser& all, Stage stage)
{
  Emitter(all, stage).run();
}

} // namespace torvale::engine
