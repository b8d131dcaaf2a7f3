#include "engine/derivatives/differentiate.h"

#include "engine/functions/functions.h"

#include <algorithm>
#include <set>

namespace torvale::engine {

NodeId Differentiator::partial(NodeId node, int operand)
{
  const Node n = graph_.node(node);
  const PartialRule rule = partial_rule(n.kernel);
  const NodeId p = rule == nullptr ? no_node : rule(graph_, node, operand);
  if (p != no_node) return p;
  failed_ = true;
  gcmp_.error(message::no_derivative, graph_.position(node),
              "The derivative of " + std::string(kernel_info(n.kernel).name) + " by its argument " +
                  std::to_string(operand + 1) + " is not available, but a parameter or random effect enters there.");
  return graph_.missing();
}

// Some kernels pass one of their operands on. The mask under which it is this one; no_node for all other kernels. The
// derivative follows the choice by a select: the side not chosen may well be missing, with all its derivatives.
NodeId Differentiator::chosen(NodeId node, int operand)
{
  const Node n = graph_.node(node);
  const NodeId a = n.operand[0], b = n.operand[1];
  NodeId first = no_node; // mask of operand 0 (of select: of operand 1)
  switch (n.kernel) {
  case Kernel::select:
    return operand == 1 ? a : graph_.not_(a);
  case Kernel::zero_if_missing:
    return graph_.not_(graph_.is_missing(a));
  case Kernel::coalesce:
    first = graph_.not_(graph_.is_missing(a));
    break;
  case Kernel::least_ordered:
    first = graph_.compare(Kernel::less_equal, a, b);
    break;
  case Kernel::greatest:
    first = graph_.compare(Kernel::less_equal, b, a);
    break;
  case Kernel::least: // the lesser of two present values
    first = graph_.or_(graph_.is_missing(b),
                       graph_.and_(graph_.not_(graph_.is_missing(a)), graph_.compare(Kernel::less_equal, a, b)));
    break;
  default:
    return no_node;
  }
  return operand == 0 ? first : graph_.not_(first);
}

// Nodes that a derivative of y by one of the symbols passes, ascending. Carried values are ends: their derivatives are
// carried values of their own. Nodes in `known` are left out, with what lies below them.
std::vector<NodeId> Differentiator::varying_below(NodeId y, std::span<const std::int32_t> symbols,
                                                  const std::unordered_map<NodeId, NodeId>* known)
{
  Dependence& dependence = gcmp_.dependence;
  const auto varies = [&](NodeId id) {
    return std::any_of(symbols.begin(), symbols.end(), [&](std::int32_t s) { return dependence.varies_with(id, s); });
  };
  std::vector<NodeId> found;
  std::vector<bool> seen(static_cast<std::size_t>(graph_.size()));
  std::vector<NodeId> open;
  const auto visit = [&](NodeId id) {
    if (seen[static_cast<std::size_t>(id)]) return;
    seen[static_cast<std::size_t>(id)] = true;
    if (!varies(id) || (known != nullptr && known->count(id) > 0)) return;
    found.push_back(id);
    open.push_back(id);
  };
  visit(y);
  while (!open.empty()) {
    const Node& n = graph_.node(open.back());
    open.pop_back();
    if (n.kind != NodeKind::kernel) continue;
    for (int k = 0; k < n.operands; ++k)
      if (!passes_no_derivative(n.kernel, k)) visit(n.operand[static_cast<std::size_t>(k)]);
  }
  std::sort(found.begin(), found.end());
  return found;
}

void Differentiator::contribute(Contributions& to, Guarded what)
{
  for (Guarded& g : to)
    if (g.guard == what.guard) {
      g.value = graph_.add(g.value, what.value);
      return;
    }
  to.push_back(what);
}

Differentiator::Guarded Differentiator::joined(const Contributions& all)
{
  Guarded sum = all.front();
  for (std::size_t k = 1; k < all.size(); ++k) {
    const Guarded& g = all[k];
    if (graph_.not_(sum.guard) == g.guard) {
      sum.value = graph_.select(sum.guard, sum.value, g.value);
    } else {
      sum.value = graph_.add(graph_.select(sum.guard, sum.value, graph_.zero()),
                             graph_.select(g.guard, g.value, graph_.zero()));
    }
    sum.guard = graph_.or_(sum.guard, g.guard);
  }
  return sum;
}

// What is computed less often than y (once per point, say) has derivatives that are computed less often too. Below such
// a node the sweep either goes on, one product per edge for every lane, or stops and multiplies the adjoint by the
// node's derivatives, one product per node and variable. True when the second is less work.
bool Differentiator::jacobian_is_cheaper(NodeId y, const std::vector<NodeId>& nodes,
                                         std::span<const std::int32_t> symbols)
{
  Dependence& dependence = gcmp_.dependence;
  const Stage top = dependence.stage(y);
  std::set<NodeId> frontier;
  std::size_t edges = 0;
  for (const NodeId id : nodes) {
    const bool above = dependence.stage(id) == top;
    const Node& n = graph_.node(id);
    for (int k = 0; n.kind == NodeKind::kernel && k < n.operands; ++k) {
      const NodeId operand = n.operand[static_cast<std::size_t>(k)];
      if (!std::binary_search(nodes.begin(), nodes.end(), operand)) continue;
      if (!above)
        ++edges;
      else if (dependence.stage(operand) != top)
        frontier.insert(operand);
    }
  }
  std::size_t products = 0;
  for (const NodeId id : frontier) {
    std::set<NodeId> distinct;
    for (const std::int32_t s : symbols)
      if (const NodeId d = derivative(id, s); d != no_node && !graph_.is_constant(d)) distinct.insert(d);
    products += distinct.size();
  }
  return products < edges;
}

std::vector<NodeId> Differentiator::gradient(NodeId y, std::span<const std::int32_t> symbols)
{
  const GraphBuilder::Derivative mode(graph_);
  const std::vector<NodeId> nodes = varying_below(y, symbols, nullptr);
  const Stage top = nodes.empty() ? Stage::parameter : gcmp_.dependence.stage(y);
  const bool jacobian = jacobian_is_cheaper(y, nodes, symbols);
  std::map<NodeId, Contributions> adjoint;
  std::vector<Contributions> leaf(symbols.size());
  if (!nodes.empty()) adjoint[y].push_back({graph_.one(), graph_.one()});
  const std::set<NodeId> varying(nodes.begin(), nodes.end());
  for (auto it = nodes.rbegin(); it != nodes.rend(); ++it) {
    const auto entry = adjoint.find(*it);
    if (entry == adjoint.end()) continue;
    const Guarded a = joined(entry->second);
    adjoint.erase(entry);
    const Node n = graph_.node(*it);
    graph_.inherit_origin(*it);
    if (n.kind == NodeKind::kernel && !(jacobian && gcmp_.dependence.stage(*it) != top)) {
      for (int k = 0; k < n.operands; ++k) {
        const NodeId operand = n.operand[static_cast<std::size_t>(k)];
        if (varying.count(operand) == 0 || passes_no_derivative(n.kernel, k)) continue;
        if (const NodeId mask = chosen(*it, k); mask != no_node)
          contribute(adjoint[operand], {graph_.and_(a.guard, mask), a.value});
        else
          contribute(adjoint[operand], {a.guard, graph_.multiply(a.value, partial(*it, k))});
      }
    } else {
      for (std::size_t k = 0; k < symbols.size(); ++k)
        if (const NodeId d = derivative(*it, symbols[k]); d != no_node)
          contribute(leaf[k], {a.guard, graph_.multiply(a.value, d)});
    }
  }
  close_carries();
  std::vector<NodeId> result(symbols.size(), no_node);
  for (std::size_t k = 0; k < symbols.size(); ++k) {
    if (leaf[k].empty()) continue;
    const Guarded sum = joined(leaf[k]);
    const NodeId d = graph_.select(sum.guard, sum.value, graph_.zero());
    if (!graph_.is_constant(d, 0.0)) result[k] = d;
  }
  return result;
}

NodeId Differentiator::derivative(NodeId y, std::int32_t symbol)
{
  const GraphBuilder::Derivative mode(graph_);
  auto& known = gcmp_.tangents[symbol];
  if (const auto it = known.find(y); it != known.end()) return it->second;
  const std::int32_t by[] = {symbol};
  for (const NodeId id : varying_below(y, by, &known)) {
    if (known.count(id) > 0) continue;       // meanwhile
    const NodeId d = tangent_of(id, symbol); // may add to `known`
    known.emplace(id, d);
  }
  if (open_.size() > 0 && !closing_) close_carries();
  const auto it = known.find(y);
  return it == known.end() ? no_node : it->second;
}

NodeId Differentiator::tangent_of(NodeId id, std::int32_t symbol)
{
  const auto& known = gcmp_.tangents[symbol];
  const auto of = [&](NodeId operand) {
    const auto it = known.find(operand);
    return it == known.end() ? no_node : it->second;
  };
  const Node n = graph_.node(id);
  graph_.inherit_origin(id);
  NodeId sum = no_node;
  switch (n.kind) {
  case NodeKind::symbol:
    return n.index == symbol ? graph_.one() : no_node;
  case NodeKind::carry:
  case NodeKind::result: {
    const std::int32_t carry = tangent_carry(n.index, symbol);
    return n.kind == NodeKind::carry ? graph_.carry_at(carry).entry : graph_.result(carry);
  }
  case NodeKind::kernel:
    break;
  default:
    return no_node;
  }
  // Of two operands that a kernel chooses between, the tangents are chosen between in the same way.
  const int first_choice = n.kernel == Kernel::select ? 1 : 0;
  if (chosen(id, first_choice) != no_node) {
    const NodeId yes = of(n.operand[static_cast<std::size_t>(first_choice)]);
    const NodeId no =
        n.operands > first_choice + 1 ? of(n.operand[static_cast<std::size_t>(first_choice) + 1]) : no_node;
    if (yes == no_node && no == no_node) return no_node;
    sum = graph_.select(chosen(id, first_choice), yes == no_node ? graph_.zero() : yes,
                        no == no_node ? graph_.zero() : no);
  } else {
    for (int k = 0; k < n.operands; ++k) {
      if (passes_no_derivative(n.kernel, k)) continue;
      const NodeId t = of(n.operand[static_cast<std::size_t>(k)]);
      if (t == no_node) continue;
      const NodeId term = graph_.multiply(t, partial(id, k));
      sum = sum == no_node ? term : graph_.add(sum, term);
    }
  }
  return sum == no_node || graph_.is_constant(sum, 0.0) ? no_node : sum;
}

// The derivative of a carried value is carried beside it, in the same loop.
std::int32_t Differentiator::tangent_carry(std::int32_t carry, std::int32_t symbol)
{
  auto& known = gcmp_.tangents[symbol];
  const Carry c = graph_.carry_at(carry);
  if (const auto it = known.find(c.entry); it != known.end()) return graph_.node(it->second).index;
  const bool outer = closing_;
  closing_ = true; // next values wait until the outermost derivative is done
  const NodeId first = derivative(c.initial, symbol);
  closing_ = outer;
  const NodeId entry = graph_.carry(c.loop, first == no_node ? graph_.zero() : first);
  known.emplace(c.entry, entry);
  open_.push_back({carry, graph_.node(entry).index, symbol});
  return graph_.node(entry).index;
}

void Differentiator::close_carries()
{
  if (closing_) return;
  closing_ = true;
  while (!open_.empty()) {
    const Open o = open_.back();
    open_.pop_back();
    const NodeId next = derivative(graph_.carry_at(o.carry).next, o.symbol);
    graph_.carry_at(o.tangent).next = next == no_node ? graph_.zero() : next;
  }
  closing_ = false;
}

// --- requests ----------------------------------------------------------------------------------------------------

namespace {

// The derivative by a parameter of what is a derivative by random effects already: the effects go forward over the derivative by the
// parameter. Models have few effects, and that derivative keeps the factors that it does not share with other parameters
// (the covariates of a linear predictor) outermost. False when there is no such derivative yet.
bool by_effect_last(CMPGLOBAL& gcmp, Differentiator& d, const DerivativeOrigin& which, NodeId& node)
{
  if (which.by.size() != 2) return false;
  for (std::size_t k = 0; k < 2; ++k) {
    const std::int32_t effect = which.by[k], parameter = which.by[1 - k];
    if (gcmp.at(effect).random_effect < 0 || gcmp.at(parameter).parameter < 0) continue;
    const auto first = gcmp.known_derivatives.find({which.base, {parameter}});
    if (first == gcmp.known_derivatives.end()) return false;
    node = first->second == no_node ? no_node : d.derivative(first->second, effect);
    return true;
  }
  return false;
}

} // namespace

int cmpder(CMPDER& der, const CMPLIST& obj, const CMPLIST& wrt, CMPGLOBAL& gcmp)
{
  gcmp.translate();
  der.obj = obj;
  der.wrt = wrt;
  der.der.s.clear();
  der.objindex.clear();
  der.wrtindex.clear();
  Differentiator d(gcmp);
  std::vector<std::int32_t> variables;
  for (const CMPSYM* const v : wrt.s) variables.push_back(v->index);
  for (int o = 0; o < obj.n(); ++o) {
    const CMPSYM& object = *obj.s[static_cast<std::size_t>(o)];
    const auto earlier = gcmp.origin.find(object.index);
    const bool first_order = earlier == gcmp.origin.end();
    DerivativeOrigin stem;
    if (first_order)
      stem.base = object.index;
    else
      stem = earlier->second;
    const NodeId y = gcmp.node_of(object);
    std::vector<NodeId> swept;
    if (first_order) swept = d.gradient(y, variables);
    for (int v = 0; v < wrt.n(); ++v) {
      const std::int32_t variable = variables[static_cast<std::size_t>(v)];
      DerivativeOrigin which = stem;
      which.by.insert(std::upper_bound(which.by.begin(), which.by.end(), variable), variable);
      // A mixed derivative is one node whichever way it was asked for.
      const auto known = gcmp.known_derivatives.find(which);
      NodeId node = no_node;
      if (known != gcmp.known_derivatives.end())
        node = known->second;
      else if (first_order)
        node = swept[static_cast<std::size_t>(v)];
      else if (!by_effect_last(gcmp, d, which, node))
        node = d.derivative(y, variable);
      if (node != no_node && gcmp.graph.is_constant(node, 0.0)) node = no_node;
      gcmp.known_derivatives.emplace(which, node);
      if (node == no_node) continue;
      CMPSYM& s = gcmp.new_symbol(object.name + "/" + wrt.s[static_cast<std::size_t>(v)]->name, 'd', 'n');
      s.assigned = true;
      s.where = object.where;
      gcmp.value.resize(gcmp.symbols.size(), no_node);
      gcmp.value[static_cast<std::size_t>(s.index)] = node;
      gcmp.origin.emplace(s.index, std::move(which));
      der.der.s.push_back(&s);
      der.objindex.push_back(o);
      der.wrtindex.push_back(v);
    }
  }
  return d.failed() ? 1 : 0;
}

} // namespace torvale::engine
