#include "engine/graph/graph.h"

#include "host/values/missing.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cmath>
#include <limits>

namespace torvale::engine {

namespace {

constexpr std::size_t most_origins = 64; // kept of a node: unrolled loops ask for some nodes in every pass
constexpr std::uint64_t ordinary_missing_bits = 0xFFFFFE0000000000u;

std::uint64_t mix(std::uint64_t h, std::uint64_t v)
{
  h ^= v + 0x9E3779B97F4A7C15u + (h << 6) + (h >> 2);
  return h * 0xBF58476D1CE4E5B9u;
}

// Kernels whose value depends on more than the operands' numbers, or that must stay visible, are not folded.
bool may_fold(Kernel k)
{
  return k != Kernel::uniform_random && k != Kernel::normal_random;
}

// Kernels that hand a missing value on as it is, or only ask whether or of which kind it is.
bool reads_kinds(Kernel k)
{
  switch (k) {
  case Kernel::select:
  case Kernel::coalesce:
  case Kernel::zero_if_missing:
  case Kernel::missing_rank:
  case Kernel::ordinary_missing:
    return true;
  default:
    return answers_truth(k);
  }
}

} // namespace

std::size_t GraphBuilder::Hash::operator()(const Node& n) const
{
  std::uint64_t h = mix(static_cast<std::uint64_t>(n.kind), static_cast<std::uint64_t>(n.kernel));
  h = mix(h, static_cast<std::uint32_t>(n.index));
  h = mix(h, std::bit_cast<std::uint64_t>(n.value));
  for (int k = 0; k < n.operands; ++k) h = mix(h, static_cast<std::uint32_t>(n.operand[static_cast<std::size_t>(k)]));
  return static_cast<std::size_t>(h ^ (h >> 31));
}

bool GraphBuilder::Same::operator()(const Node& a, const Node& b) const
{
  return a.kind == b.kind && a.kernel == b.kernel && a.index == b.index && a.operands == b.operands &&
         std::bit_cast<std::uint64_t>(a.value) == std::bit_cast<std::uint64_t>(b.value) && a.operand == b.operand;
}

GraphBuilder::GraphBuilder()
{
  origins_.push_back({});
  loops_.push_back({}); // loop 0: the records of a subject
}

NodeId GraphBuilder::intern(const Node& n)
{
  ++requests_;
  if (const auto it = known_.find(n); it != known_.end()) {
    if (n.kind == NodeKind::kernel && !derivative_mode_ && node(it->second).where != origin_) {
      std::vector<std::int32_t>& also = also_[it->second];
      if (also.size() < most_origins && std::find(also.begin(), also.end(), origin_) == also.end())
        also.push_back(origin_);
    }
    return it->second;
  }
  const auto id = static_cast<NodeId>(nodes_.size());
  nodes_.push_back(n);
  nodes_.back().where = origin_;
  truth_.push_back(found_truth(n));
  passes_special_.push_back(passes_special(n));
  if (n.kind == NodeKind::constant && passes_special_.back()) special_missing_ = true;
  known_.emplace(n, id);
  return id;
}

void GraphBuilder::declare_special(std::int32_t symbol_index)
{
  const auto at = static_cast<std::size_t>(symbol_index);
  if (special_symbols_.size() <= at) special_symbols_.resize(at + 1, false);
  special_symbols_[at] = special_missing_ = true;
}

bool GraphBuilder::passes_special(const Node& n) const
{
  const auto operand = [&](int k) {
    return passes_special_[static_cast<std::size_t>(n.operand[static_cast<std::size_t>(k)])];
  };
  switch (n.kind) {
  case NodeKind::constant:
    return host::wzmis(n.value) && host::missing_letter(n.value) != '.';
  case NodeKind::symbol:
  case NodeKind::carry:
  case NodeKind::result:
    return true;
  case NodeKind::kernel:
    if (n.kernel == Kernel::select) return operand(1) || operand(2);
    return n.kernel == Kernel::coalesce && (operand(0) || operand(1));
  default:
    return false;
  }
}

bool GraphBuilder::may_be_special(NodeId id) const
{
  if (!special_missing_ || !passes_special_[static_cast<std::size_t>(id)]) return false;
  const Node& n = node(id);
  const auto index = static_cast<std::size_t>(n.index);
  return n.kind != NodeKind::symbol || (index < special_symbols_.size() && special_symbols_[index]);
}

NodeId GraphBuilder::constant(double v)
{
  Node n;
  n.kind = NodeKind::constant;
  n.value = v;
  return intern(n);
}

NodeId GraphBuilder::missing()
{
  return constant(std::bit_cast<double>(ordinary_missing_bits));
}

NodeId GraphBuilder::symbol(std::int32_t index)
{
  Node n;
  n.kind = NodeKind::symbol;
  n.index = index;
  return intern(n);
}

NodeId GraphBuilder::row()
{
  Node n;
  n.kind = NodeKind::row;
  return intern(n);
}

NodeId GraphBuilder::text(std::int32_t text_index, std::span<const NodeId> numeric_inputs)
{
  assert(numeric_inputs.size() <= 6);
  Node n;
  n.kind = NodeKind::text;
  n.index = text_index;
  for (const NodeId in : numeric_inputs) n.operand[static_cast<std::size_t>(n.operands++)] = in;
  return intern(n);
}

std::int32_t GraphBuilder::new_loop(std::int32_t parent, syntax::Position where)
{
  loops_.push_back({});
  loops_.back().parent = parent;
  loops_.back().where = where;
  return static_cast<std::int32_t>(loops_.size()) - 1;
}

NodeId GraphBuilder::carry(std::int32_t loop, NodeId initial)
{
  Node n;
  n.kind = NodeKind::carry;
  n.index = static_cast<std::int32_t>(carries_.size());
  const NodeId id = intern(n);
  carries_.push_back({loop, initial, id, id});
  loop_at(loop).carries.push_back(n.index);
  return id;
}

NodeId GraphBuilder::result(std::int32_t carry_index)
{
  Node n;
  n.kind = NodeKind::result;
  n.index = carry_index;
  return intern(n);
}

void GraphBuilder::declare_present(std::int32_t symbol_index)
{
  const auto at = static_cast<std::size_t>(symbol_index);
  if (present_symbols_.size() <= at) present_symbols_.resize(at + 1);
  present_symbols_[at] = true;
}

void GraphBuilder::set_origin(const Origin& o)
{
  const Origin& last = origins_.back();
  if (last.where.source != o.where.source || last.where.line != o.where.line || last.where.column != o.where.column ||
      last.caller != o.caller || last.path != o.path || last.active != o.active)
    origins_.push_back(o);
  origin_ = static_cast<std::int32_t>(origins_.size()) - 1;
}

std::vector<Origin> GraphBuilder::origins(NodeId id) const
{
  std::vector<Origin> all{origin_at(node(id).where)};
  if (const auto it = also_.find(id); it != also_.end())
    for (const std::int32_t k : it->second) all.push_back(origin_at(k));
  return all;
}

bool answers_truth(Kernel k)
{
  switch (k) {
  case Kernel::less:
  case Kernel::less_equal:
  case Kernel::equal:
  case Kernel::not_equal:
  case Kernel::greater:
  case Kernel::greater_equal:
  case Kernel::less_known:
  case Kernel::less_equal_known:
  case Kernel::equal_known:
  case Kernel::not_equal_known:
  case Kernel::greater_known:
  case Kernel::greater_equal_known:
  case Kernel::truth:
  case Kernel::and_:
  case Kernel::or_:
  case Kernel::not_:
  case Kernel::and_not:
  case Kernel::is_missing:
  case Kernel::is_present:
    return true;
  default:
    return false;
  }
}

bool GraphBuilder::found_truth(const Node& n) const
{
  if (n.kind == NodeKind::constant) return n.value == 0.0 || n.value == 1.0;
  if (n.kind == NodeKind::result || n.kind == NodeKind::carry) {
    // A carried mask begins as a truth value and is only ever given truth values: loops of the program keep to that
    // for the masks that they make themselves, and `initial` of a variable that happens to be 0 does not count.
    return false;
  }
  if (n.kind != NodeKind::kernel) return false;
  if (n.kernel == Kernel::select) return is_truth(n.operand[1]) && is_truth(n.operand[2]);
  return answers_truth(n.kernel);
}

bool GraphBuilder::never_missing(NodeId id) const
{
  const Node& n = node(id);
  switch (n.kind) {
  case NodeKind::constant:
    return !std::isnan(n.value);
  case NodeKind::symbol:
    return static_cast<std::size_t>(n.index) < present_symbols_.size() &&
           present_symbols_[static_cast<std::size_t>(n.index)];
  case NodeKind::row:
    return true;
  case NodeKind::kernel:
    break;
  default:
    return false;
  }
  if (is_truth(id)) return true;
  // Only operations that yield no NaN from infinities either.
  switch (n.kernel) {
  case Kernel::copy:
  case Kernel::negate:
  case Kernel::absolute:
  case Kernel::square:
  case Kernel::exp:
  case Kernel::expm1:
  case Kernel::logistic:
  case Kernel::softplus:
  case Kernel::tanh:
  case Kernel::atan:
  case Kernel::normal_cdf:
    return never_missing(n.operand[0]);
  case Kernel::zero_if_missing:
  case Kernel::missing_rank:
    return true;
  default:
    return false;
  }
}

NodeId GraphBuilder::apply(Kernel k, std::initializer_list<NodeId> operands)
{
  return apply(k, std::span<const NodeId>(operands.begin(), operands.size()));
}

NodeId GraphBuilder::apply(Kernel k, std::span<const NodeId> operands)
{
  if (const NodeId simple = simplified(k, operands); simple != no_node) return simple;
  return intern_kernel(k, operands);
}

NodeId GraphBuilder::intern_kernel(Kernel k, std::span<const NodeId> operands)
{
  assert(operands.size() <= kernel_operands_max);
  Node n;
  n.kind = NodeKind::kernel;
  n.kernel = k;
  double values[kernel_operands_max];
  bool all_constant = !operands.empty();
  bool any_missing = false;
  for (NodeId operand_id : operands) {
    assert(operand_id >= 0 && operand_id < size());
    if (!reads_kinds(k)) operand_id = ordinary(operand_id);
    const auto at = static_cast<std::size_t>(n.operands++);
    n.operand[at] = operand_id;
    all_constant = all_constant && is_constant(operand_id);
    values[at] = node(operand_id).value;
    any_missing = any_missing || (is_constant(operand_id) && std::isnan(values[at]));
  }
  if (all_constant && may_fold(k)) {
    const double v = run_kernel(k, values);
    // A missing value that no operand had is a fault; it stays a node, so that a run can report it.
    if (!std::isnan(v)) return constant(v);
    if (any_missing) return missing();
  }
  return intern(n);
}

} // namespace torvale::engine
