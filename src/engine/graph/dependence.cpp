#include "engine/graph/dependence.h"

#include "engine/graph/compiler.h"

#include <algorithm>

namespace torvale::engine {

bool passes_no_derivative(Kernel k, int operand)
{
  if (answers_truth(k)) return true;
  switch (k) {
  case Kernel::select:
  case Kernel::select_or_zero:
    return operand == 0;
  case Kernel::exp_mean: // the exponentials are functions of the first operands
    return operand > 1;
  case Kernel::cubic_root:
    return operand == 3;
  case Kernel::compartment_response: // roots are functions of the coefficients
    return operand == 0 || operand > 5;
  case Kernel::floor:
  case Kernel::ceil:
  case Kernel::truncate:
  case Kernel::round:
  case Kernel::round_to:
  case Kernel::sign:
  case Kernel::side:
  case Kernel::missing_rank:
  case Kernel::binomial_quantile:
  case Kernel::poisson_quantile:
  case Kernel::negative_binomial_quantile:
  case Kernel::uniform_random:
  case Kernel::normal_random:
    return true;
  default:
    return false;
  }
}

Stage stage_of_classes(std::uint8_t c)
{
  const bool data = (c & depends::on_data) != 0, history = (c & depends::on_history) != 0;
  if ((c & (depends::on_parameters | depends::on_random_effects)) == 0)
    return data || history ? Stage::data : Stage::parameter;
  if (history) return Stage::lane;
  if ((c & depends::on_random_effects) != 0) return data ? Stage::lane : Stage::point;
  return data ? Stage::observation : Stage::parameter;
}

void Dependence::clear()
{
  classes_.clear();
  smooth_.clear();
  column_.clear();
  variable_.clear();
  words_ = 0;
}

void Dependence::extend()
{
  const GraphBuilder& g = compiler_->graph;
  if (classes_.empty()) {
    int bits = 0;
    variable_.assign(compiler_->symbols.size(), -1);
    for (const CMPSYM& s : compiler_->symbols)
      if (s.parameter >= 0 || s.random_effect >= 0) variable_[static_cast<std::size_t>(s.index)] = bits++;
    words_ = static_cast<std::size_t>(bits + 63) / 64;
  }
  const auto covered = static_cast<NodeId>(classes_.size());
  if (covered == g.size()) return;
  classes_.resize(static_cast<std::size_t>(g.size()), 0);
  column_.resize(static_cast<std::size_t>(g.size()), no_node);
  smooth_.resize(static_cast<std::size_t>(g.size()) * words_, 0);
  for (NodeId id = covered; id < g.size(); ++id) update(id);
  // Carries look forward to their next values: repeat what stands behind a carry until nothing grows.
  for (bool grown = g.carries() > 0; grown;) {
    grown = false;
    NodeId first = g.size();
    for (int c = 0; c < g.carries(); ++c)
      if (update(g.carry_at(c).entry)) first = std::min(first, g.carry_at(c).entry);
    for (NodeId id = first; id < g.size(); ++id) grown = update(id) || grown;
  }
}

bool Dependence::divides_by_inverse(NodeId id) const
{
  const Node& n = compiler_->graph.node(id);
  if (n.kind != NodeKind::kernel || (n.kernel != Kernel::divide && n.kernel != Kernel::divide_unchecked)) return false;
  if (static_cast<std::size_t>(id) >= classes_.size()) return false; // in no program
  const std::uint8_t divisor = classes_[static_cast<std::size_t>(n.operand[1])];
  const Stage stage = stage_of_classes(divisor);
  return (divisor & (depends::on_parameters | depends::on_random_effects)) != 0 && stage != Stage::lane &&
         stage != stage_of_classes(classes_[static_cast<std::size_t>(id)]);
}

bool Dependence::update(NodeId id)
{
  const GraphBuilder& g = compiler_->graph;
  const Node& n = g.node(id);
  std::uint8_t classes = classes_[static_cast<std::size_t>(id)];
  const std::uint8_t classes_before = classes;
  std::uint64_t* const own = smooth(id);
  bool grown = false;
  NodeId column =
      n.kind == NodeKind::constant || n.kind == NodeKind::symbol || n.kind == NodeKind::kernel ? no_node : several;
  const auto join = [&](NodeId from, bool with_derivative) {
    if (from == no_node) return;
    const NodeId other_column = column_[static_cast<std::size_t>(from)];
    column = column == no_node || column == other_column ? other_column : other_column == no_node ? column : several;
    classes = static_cast<std::uint8_t>(classes | classes_[static_cast<std::size_t>(from)]);
    if (!with_derivative) return;
    const std::uint64_t* const other = smooth(from);
    for (std::size_t w = 0; w < words_; ++w) {
      grown = grown || (other[w] & ~own[w]) != 0;
      own[w] |= other[w];
    }
  };
  switch (n.kind) {
  case NodeKind::constant:
    break;
  case NodeKind::row:
    classes |= depends::on_data;
    break;
  case NodeKind::symbol: {
    const CMPSYM& s = compiler_->at(n.index);
    if (s.parameter >= 0)
      classes |= depends::on_parameters;
    else if (s.random_effect >= 0 || s.total >= 0)
      classes |= depends::on_random_effects;
    else if (s.dsvarno > 0) {
      classes |= depends::on_data;
      column = s.type == 'c' ? several : id;
    }
    const std::size_t at = static_cast<std::size_t>(n.index);
    if (at < variable_.size() && variable_[at] >= 0) {
      const auto bit = static_cast<std::size_t>(variable_[at]);
      own[bit / 64] |= std::uint64_t{1} << (bit % 64);
    }
    break;
  }
  case NodeKind::kernel:
    for (int k = 0; k < n.operands; ++k)
      join(n.operand[static_cast<std::size_t>(k)], !passes_no_derivative(n.kernel, k));
    break;
  case NodeKind::text: {
    for (int k = 0; k < n.operands; ++k) join(n.operand[static_cast<std::size_t>(k)], false);
    std::vector<std::int32_t> columns;
    compiler_->text.columns_of_test(n.index, columns);
    if (!columns.empty()) classes |= depends::on_data;
    break;
  }
  case NodeKind::carry:
  case NodeKind::result: {
    const Carry& c = g.carry_at(n.index);
    join(c.initial, true);
    join(c.next, true);
    if (c.loop == 0)
      classes |= depends::on_data | depends::on_history;
    else
      join(g.loop_at(c.loop).condition, false);
    break;
  }
  }
  classes_[static_cast<std::size_t>(id)] = classes;
  column_[static_cast<std::size_t>(id)] = column;
  return grown || classes != classes_before;
}

std::uint8_t Dependence::classes(NodeId id)
{
  extend();
  return classes_[static_cast<std::size_t>(id)];
}

NodeId Dependence::only_column(NodeId id)
{
  extend();
  return std::max(column_[static_cast<std::size_t>(id)], no_node);
}

bool Dependence::varies_with(NodeId id, std::int32_t symbol_index)
{
  extend();
  const auto at = static_cast<std::size_t>(symbol_index);
  if (at >= variable_.size() || variable_[at] < 0) return false;
  const auto bit = static_cast<std::size_t>(variable_[at]);
  return (smooth(id)[bit / 64] >> (bit % 64)) & 1u;
}

std::vector<std::int32_t> Dependence::symbols_behind(NodeId id)
{
  const GraphBuilder& g = compiler_->graph;
  std::vector<bool> seen(static_cast<std::size_t>(g.size()));
  std::vector<NodeId> open;
  const auto visit = [&](NodeId from) {
    if (from == no_node || seen[static_cast<std::size_t>(from)]) return;
    seen[static_cast<std::size_t>(from)] = true;
    open.push_back(from);
  };
  std::vector<std::int32_t> symbols;
  visit(id);
  while (!open.empty()) {
    const Node& n = g.node(open.back());
    open.pop_back();
    for (int k = 0; k < n.operands; ++k) visit(n.operand[static_cast<std::size_t>(k)]);
    if (n.kind == NodeKind::symbol) symbols.push_back(n.index);
    if (n.kind == NodeKind::text) compiler_->text.columns_of_test(n.index, symbols);
    if (n.kind == NodeKind::carry || n.kind == NodeKind::result) {
      const Carry& c = g.carry_at(n.index);
      visit(c.initial);
      visit(c.next);
      if (c.loop != 0) visit(g.loop_at(c.loop).condition);
    }
  }
  std::sort(symbols.begin(), symbols.end());
  symbols.erase(std::unique(symbols.begin(), symbols.end()), symbols.end());
  return symbols;
}

bool Dependence::reads(NodeId id, std::int32_t symbol_index)
{
  const std::vector<std::int32_t> all = symbols_behind(id);
  return std::binary_search(all.begin(), all.end(), symbol_index);
}

} // namespace torvale::engine
