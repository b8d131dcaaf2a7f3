#include "engine/stages/shared_forms.h"

namespace torvale::engine {

LogisticForm logistic_form(GraphBuilder& graph, NodeId id, const std::function<bool(NodeId)>& needed)
{
  const NodeId x = graph.operand(id, 0);
  NodeId base = x;
  if (is_kernel(graph.node(x), Kernel::negate)) base = graph.operand(x, 0);
  if (const Node n = graph.node(x); is_kernel(n, Kernel::subtract) && n.operand[0] > n.operand[1])
    if (const NodeId other = graph.negate(x); needed(other)) base = other;
  const NodeId e = graph.call(Kernel::exp, graph.negate(graph.call(Kernel::absolute, base)));
  const NodeId u = graph.add(graph.one(), e), w = graph.call(Kernel::divide_unchecked, graph.one(), u);
  if (is_kernel(graph.node(id), Kernel::softplus))
    return {Kernel::add, {graph.call(Kernel::positive_part, x), graph.call(Kernel::log1p_fraction, e, u, w)}};
  const NodeId below = graph.call(Kernel::less_known, base, graph.zero()), small = graph.multiply(e, w);
  if (base == x) return {Kernel::select, {below, small, w}};
  return {Kernel::select, {below, w, small}};
}

} // namespace torvale::engine
