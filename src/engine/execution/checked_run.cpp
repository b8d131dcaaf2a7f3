#include "engine/execution/checked_run.h"

#include "engine/execution/frame_state.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::engine {

void CheckedRun::start(std::int64_t row, const std::vector<NodeId>& wanted)
{
  std::set<std::int32_t> carries;
  if (!graph_.loop_at(0).carries.empty())
    for (const NodeId id : wanted) needed_carries(0, id, carries);
  kept_.clear();
  for (const std::int32_t c : carries) kept_[c] = graph_.value(graph_.carry_at(c).initial);
  earlier_ = true;
  for (row_ = carries.empty() ? row : data_.subject_start(row); row_ < row; ++row_) {
    known_.clear();
    std::map<std::int32_t, double> next;
    for (const std::int32_t c : carries) next[c] = value(graph_.carry_at(c).next);
    kept_ = std::move(next);
    passes_ = 0;
  }
  earlier_ = false;
  known_.clear();
}

// Carries of a loop that stand behind a node.
void CheckedRun::needed_carries(std::int32_t loop, NodeId from, std::set<std::int32_t>& carries)
{
  std::set<NodeId> seen;
  std::vector<NodeId> open{from};
  while (!open.empty()) {
    const NodeId id = open.back();
    open.pop_back();
    if (id == no_node || !seen.insert(id).second) continue;
    const Node& n = graph_.node(id);
    for (int k = 0; k < n.operands; ++k) open.push_back(n.operand[static_cast<std::size_t>(k)]);
    if (n.kind != NodeKind::carry && n.kind != NodeKind::result) continue;
    const Carry& c = graph_.carry_at(n.index);
    if (c.loop == loop) carries.insert(n.index);
    open.push_back(c.next);
    open.push_back(c.initial);
    if (c.loop != 0) open.push_back(graph_.loop_at(c.loop).condition);
  }
}

double CheckedRun::symbol_value(const Node& n) const
{
  const CMPSYM& s = gcmp_.at(n.index);
  if (s.parameter >= 0) return theta_[s.parameter];
  if (s.random_effect >= 0) return ran_ != nullptr ? ran_[s.random_effect * stride_ + point_] : std::nan("");
  return s.dsvarno > 0 ? data_.raw(n.index, row_) : std::nan("");
}

// The value of a node: its operands first, by a stack of our own because programs can be very deep. A select asks for
// its mask, then for the side that the mask takes.
double CheckedRun::value(NodeId wanted)
{
  std::vector<NodeId> open{wanted};
  while (!open.empty()) {
    const NodeId id = open.back();
    if (known_.count(id) > 0) {
      open.pop_back();
      continue;
    }
    const Node& n = graph_.node(id);
    const std::size_t before = open.size();
    if (n.kind == NodeKind::kernel && n.kernel == Kernel::select) {
      const auto mask = known_.find(n.operand[0]);
      if (mask == known_.end())
        open.push_back(n.operand[0]);
      else if (const NodeId side = n.operand[mask->second != 0.0 ? 1 : 2]; known_.count(side) == 0)
        open.push_back(side);
    } else {
      for (int k = n.operands; k-- > 0;)
        if (const NodeId operand = n.operand[static_cast<std::size_t>(k)]; known_.count(operand) == 0)
          open.push_back(operand);
    }
    if (open.size() > before) continue;
    open.pop_back();
    compute(id);
  }
  return known_.at(wanted);
}

void CheckedRun::compute(NodeId id)
{
  const Node& n = graph_.node(id);
  double v = 0.0;
  switch (n.kind) {
  case NodeKind::constant:
    v = n.value;
    break;
  case NodeKind::symbol:
    v = symbol_value(n);
    break;
  case NodeKind::row:
    v = static_cast<double>(row_);
    break;
  case NodeKind::text:
    v = gcmp_.text.answer(n.index, *this);
    break;
  case NodeKind::kernel:
    v = kernel_value(id, n);
    break;
  case NodeKind::carry:
    v = kept_.count(n.index) > 0 ? kept_.at(n.index) : std::nan("");
    break;
  case NodeKind::result:
    v = run_loop(graph_.carry_at(n.index).loop, {graph_.carry_at(n.index).entry}, {}).at(n.index);
    break;
  }
  known_[id] = v;
  pass_.push_back(id);
}

double CheckedRun::kernel_value(NodeId id, const Node& n)
{
  if (n.kernel == Kernel::select) return known_.at(n.operand[known_.at(n.operand[0]) != 0.0 ? 1 : 2]);
  double operands[kernel_operands_max];
  bool missing_operand = false;
  for (int k = 0; k < n.operands; ++k) {
    operands[k] = known_.at(n.operand[static_cast<std::size_t>(k)]);
    missing_operand = missing_operand || std::isnan(operands[k]);
  }
  double v = run_kernel(n.kernel, operands);
  if (gcmp_.dependence.divides_by_inverse(id)) v = operands[0] * run_kernel(Kernel::reciprocal, operands + 1);
  if (!std::isnan(v) || silent_) return v;
  if (missing_operand) {
    ++made_missing;
    return v;
  }
  (earlier_ ? earlier : faults).push_back(fault_of(id, n, operands));
  return v;
}

Fault CheckedRun::fault_of(NodeId id, const Node& n, const double* operands)
{
  const auto line = [&](syntax::Position where) {
    if (gcmp_.options.sources != nullptr) where = gcmp_.options.sources->user_position(where);
    return std::to_string(where.line);
  };
  const KernelInfo& info = kernel_info(n.kernel);
  Fault f;
  f.row = row_;
  f.text = info.fault.empty() ? std::string(info.name) + " has no value" : std::string(info.fault);
  f.text += n.operands == 1 ? " (operand " : " (operands ";
  for (int k = 0; k < n.operands; ++k) f.text += (k > 0 ? ", " : "") + text_from_number(operands[k], {});
  f.text += ")";
  const std::vector<Origin> origins = executed_origins(id);
  f.where = origins[0].where;
  for (std::int32_t c = origins[0].caller; c >= 0; c = graph_.origin_at(c).caller)
    f.text += ", called in line " + line(graph_.origin_at(c).where);
  std::string last = line(f.where);
  for (std::size_t k = 1; k < origins.size(); ++k) {
    const std::string other = line(origins[k].where);
    if (other != last) f.text += "; the same expression stands in line " + other;
    last = other;
  }
  return f;
}

// The statements that compute the node in this lane. One expression in several branches is one node; the masks tell in
// which branch the lane is. All of them when that cannot be found out.
std::vector<Origin> CheckedRun::executed_origins(NodeId id)
{
  const std::vector<Origin> all = graph_.origins(id);
  if (all.size() == 1) return all;
  std::vector<Origin> those;
  const bool before = std::exchange(silent_, true);
  for (const Origin& origin : all)
    if (executed(origin)) those.push_back(origin);
  silent_ = before;
  return those.empty() ? all : those;
}

bool CheckedRun::executed(const Origin& origin)
{
  for (const NodeId mask : {origin.path, origin.active})
    if (mask != no_node && computable(mask) && !(value(mask) != 0.0)) return false;
  return true;
}

// False when a value carried in a loop stands behind the node that this pass has not brought along.
bool CheckedRun::computable(NodeId id) const
{
  std::set<NodeId> seen;
  std::vector<NodeId> open{id};
  while (!open.empty()) {
    const NodeId at = open.back();
    open.pop_back();
    if (known_.count(at) > 0 || !seen.insert(at).second) continue;
    const Node& n = graph_.node(at);
    if (n.kind == NodeKind::result) return false;
    if (n.kind == NodeKind::carry && (graph_.carry_at(n.index).loop != 0 || kept_.count(n.index) == 0)) return false;
    for (int k = 0; k < n.operands; ++k) open.push_back(n.operand[static_cast<std::size_t>(k)]);
  }
  return true;
}

// Passes of a loop for one lane; the carries behind the wanted nodes at its end. Values that belong to a pass are
// forgotten after it.
CheckedRun::Carries CheckedRun::run_loop(std::int32_t loop, const std::vector<NodeId>& wanted,
                                         const std::function<void()>& in_pass)
{
  const NodeId condition = graph_.loop_at(loop).condition;
  std::set<std::int32_t> carries;
  needed_carries(loop, condition, carries);
  for (const NodeId id : wanted) needed_carries(loop, id, carries);
  Carries now;
  for (const std::int32_t c : carries) now[c] = value(graph_.carry_at(c).initial);
  std::vector<NodeId> outside;
  outside.swap(pass_);
  const auto forget_pass = [&] {
    std::vector<NodeId> still;
    for (const NodeId id : pass_) {
      if (loops_.loop_of(id) != 0 && loops_.within(loops_.loop_of(id), loop))
        known_.erase(id);
      else
        still.push_back(id);
    }
    pass_.swap(still);
  };
  for (;;) {
    for (const auto& [c, v] : now) known_[graph_.carry_at(c).entry] = v;
    if (endless() || !(value(condition) != 0.0)) break;
    if (++passes_ > most_passes)
      faults.insert(faults.begin(), {graph_.loop_at(loop).where, row_,
                                     "the loops make more than " + std::to_string(most_passes) + " passes"});
    if (in_pass) in_pass();
    Carries next;
    for (const std::int32_t c : carries) next[c] = value(graph_.carry_at(c).next);
    now = std::move(next);
    forget_pass();
  }
  forget_pass();
  outside.insert(outside.end(), pass_.begin(), pass_.end());
  pass_.swap(outside);
  for (const auto& [c, v] : now) known_.erase(graph_.carry_at(c).entry);
  return now;
}

void CheckedRun::each_pass(std::int32_t loop, const std::vector<NodeId>& wanted, const std::function<void()>& in_pass)
{
  (void)run_loop(loop, wanted, in_pass);
}

void CheckedRun::inputs_of_text(TextId id)
{
  if (id == no_text) return;
  const TextNode& n = gcmp_.text.node(id);
  for (const NodeId in : {n.number, n.number2})
    if (in != no_node) (void)value(in);
  for (const TextId side : {n.a, n.b, n.c}) inputs_of_text(side);
}

std::string CheckedRun::text_value(TextId id)
{
  inputs_of_text(id);
  return gcmp_.text.evaluate(id, *this);
}

// --- Frame -------------------------------------------------------------------------------------------------------

int Frame::run_checked(const Program& program, std::int64_t row, int point, std::vector<Fault>& faults, int& nerror,
                       int& nmissgen)
{
  const State& s = *state_;
  const StageCode& code = program.code(Stage::lane);
  const auto wanted_end = code.results.begin() + program.outputs + static_cast<std::ptrdiff_t>(program.traps.size());
  const std::vector<NodeId> wanted(code.results.begin(), wanted_end);
  CheckedRun run(s.gcmp, *s.data, s.theta.data(), s.ran, s.ran_stride, point);
  run.start(row, wanted);
  int rc = 0;
  for (std::size_t k = 0; k < wanted.size(); ++k) {
    const double v = run.value(wanted[k]);
    if (k < static_cast<std::size_t>(program.outputs) || !(v != 0.0) || rc != 0) continue;
    const Effect& e =
        s.gcmp.effects[static_cast<std::size_t>(program.traps[k - static_cast<std::size_t>(program.outputs)])];
    rc = trap_code(e.kind);
    static constexpr const char* texts[] = {"STOP was executed", "ABORT was executed",
                                            "a subscript is outside the bounds of its array"};
    run.faults.insert(run.faults.begin(),
                      {e.where, row, e.text.empty() ? texts[static_cast<std::size_t>(e.kind)] : e.text});
  }
  if (run.endless()) rc = run_code::endless_loop;
  nerror = static_cast<int>(run.faults.size());
  run.faults.insert(run.faults.end(), run.earlier.begin(), run.earlier.end());
  nmissgen = run.made_missing;
  faults.insert(faults.end(), run.faults.begin(), run.faults.end());
  return rc;
}

} // namespace torvale::engine
