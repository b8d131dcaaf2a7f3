#pragma once
// The value graph evaluated and differentiated in the plainest way, for tests of the functions: one value at a time, by
// recursion, the chain rule as it stands in the book.

#include "engine/functions/functions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <vector>

namespace torvale::engine {

// The value of a node when symbol k has the value symbols[k].
inline double evaluate(const GraphBuilder& g, NodeId id, const std::vector<double>& symbols,
                       std::map<NodeId, double>& known)
{
  if (const auto it = known.find(id); it != known.end()) return it->second;
  const Node& n = g.node(id);
  double value = std::nan("");
  if (n.kind == NodeKind::constant) {
    value = n.value;
  } else if (n.kind == NodeKind::symbol) {
    value = symbols[static_cast<std::size_t>(n.index)];
  } else if (n.kind == NodeKind::kernel) {
    double operands[kernel_operands_max] = {};
    for (int k = 0; k < n.operands; ++k)
      operands[k] = evaluate(g, n.operand[static_cast<std::size_t>(k)], symbols, known);
    value = run_kernel(n.kernel, operands);
  }
  known.emplace(id, value);
  return value;
}
inline double evaluate(const GraphBuilder& g, NodeId id, const std::vector<double>& symbols)
{
  std::map<NodeId, double> known;
  return evaluate(g, id, symbols, known);
}

// The derivative of a node by a symbol; no_node when a kernel on the way has no rule.
class Differentiator {
public:
  Differentiator(GraphBuilder& g, NodeId symbol) : g_(g), symbol_(symbol) {}
  NodeId operator()(NodeId id)
  {
    if (id == symbol_) return g_.one();
    if (const auto it = known_.find(id); it != known_.end()) return it->second;
    const NodeId d = derivative(id);
    known_.emplace(id, d);
    return d;
  }

private:
  NodeId derivative(NodeId id)
  {
    const Node n = g_.node(id);
    if (n.kind != NodeKind::kernel) return g_.zero();
    if (n.kernel == Kernel::select) {
      const NodeId a = (*this)(n.operand[1]), b = (*this)(n.operand[2]);
      return a == no_node || b == no_node ? no_node : g_.select(n.operand[0], a, b);
    }
    if (g_.is_truth(id)) return g_.zero();
    NodeId sum = g_.zero();
    for (int k = 0; k < n.operands; ++k) {
      const NodeId inner = (*this)(n.operand[static_cast<std::size_t>(k)]);
      if (inner == no_node) return no_node;
      if (g_.is_constant(inner, 0.0)) continue;
      const PartialRule rule = partial_rule(n.kernel);
      const NodeId partial = rule == nullptr ? no_node : rule(g_, id, k);
      if (partial == no_node) return no_node;
      sum = g_.add(sum, g_.multiply(partial, inner));
    }
    return sum;
  }

  GraphBuilder& g_;
  NodeId symbol_;
  std::map<NodeId, NodeId> known_;
};

// The value of a function of the language.
inline double call(const char* function, const std::vector<double>& arguments)
{
  GraphBuilder g;
  std::vector<NodeId> symbols;
  for (std::size_t k = 0; k < arguments.size(); ++k) symbols.push_back(g.symbol(static_cast<std::int32_t>(k)));
  std::string error;
  const NodeId value = expand_function(g, *find_function(function), symbols, &error);
  EXPECT_NE(value, no_node) << error;
  return evaluate(g, value, arguments);
}

} // namespace torvale::engine
