#include "engine/stages/shared_forms.h"

namespace torvale::engine {

namespace {

constexpr double most_moderate = 350.0; // products of exponentials up to there
                                        // neither overflow nor lose digits

// Whether one is written as the negative of the other.
bool opposite(const GraphBuilder& graph, NodeId a, NodeId b)
{
  const Node &x = graph.node(a), &y = graph.node(b);
  if (is_kernel(x, Kernel::subtract) && is_kernel(y, Kernel::subtract))
    return x.operand[0] == y.operand[1] && x.operand[1] == y.operand[0];
  return (is_kernel(x, Kernel::negate) && x.operand[0] == b) || (is_kernel(y, Kernel::negate) && y.operand[0] == a);
}

} // namespace

NodeId SharedForms::factor(NodeId x, bool negative)
{
  const NodeId signed_x = negative ? graph_.negate(x) : x;
  const NodeId moderate =
      graph_.call(Kernel::less_equal_known, graph_.call(Kernel::absolute, x), graph_.constant(most_moderate));
  return graph_.select(moderate, graph_.call(Kernel::exp, signed_x), graph_.missing());
}

bool is_exp_factor(const GraphBuilder& graph, NodeId id, NodeId& of, bool& negative)
{
  const Node& n = graph.node(id);
  if (!is_kernel(n, Kernel::select) || !graph.is_constant(n.operand[2])) return false;
  const Node &moderate = graph.node(n.operand[0]), &power = graph.node(n.operand[1]);
  if (!is_kernel(moderate, Kernel::less_equal_known) || !graph.is_constant(moderate.operand[1], most_moderate) ||
      !is_kernel(graph.node(moderate.operand[0]), Kernel::absolute) || !is_kernel(power, Kernel::exp))
    return false;
  of = graph.operand(moderate.operand[0], 0);
  negative = opposite(graph, power.operand[0], of);
  return negative || power.operand[0] == of;
}

// exp(x) or exp(-x) from factors; no_node where x is no sum of a record's and a
// point's part.
NodeId SharedForms::exp_of(NodeId x, bool negative)
{
  const Node n = graph_.node(x);
  const bool difference = is_kernel(n, Kernel::subtract);
  if (!difference && !is_kernel(n, Kernel::add)) return no_node;
  const Stage first = stage_of_(n.operand[0]), second = stage_of_(n.operand[1]);
  const bool split =
      (first == Stage::point) != (second == Stage::point) && first != Stage::lane && second != Stage::lane;
  if (!split || stage_of_(x) != Stage::lane) return no_node;
  return graph_.call(Kernel::exp_of_factors, factor(n.operand[0], negative),
                     factor(n.operand[1], negative != difference), negative ? graph_.negate(x) : x);
}

bool SharedForms::exponential(NodeId id, StepForm& form)
{
  const NodeId x = graph_.operand(id, 0);
  const bool negative = is_kernel(graph_.node(x), Kernel::negate);
  const NodeId product = exp_of(negative ? graph_.operand(x, 0) : x, negative);
  if (product == no_node) return false;
  const Node n = graph_.node(product);
  form = {n.kernel, {n.operand[0], n.operand[1], n.operand[2]}};
  return true;
}

StepForm SharedForms::logistic(NodeId id)
{
  const NodeId x = graph_.operand(id, 0);
  NodeId base = x;
  if (is_kernel(graph_.node(x), Kernel::negate)) base = graph_.operand(x, 0);
  if (const Node n = graph_.node(x); is_kernel(n, Kernel::subtract) && n.operand[0] > n.operand[1])
    if (const NodeId other = graph_.negate(x); needed_(other)) base = other;
  const NodeId below = graph_.call(Kernel::less_known, base, graph_.zero());
  NodeId e = exp_of(base, false);
  e = e == no_node ? graph_.call(Kernel::exp, graph_.negate(graph_.call(Kernel::absolute, base)))
                   : graph_.select(below, e, exp_of(base, true));
  const NodeId u = graph_.add(graph_.one(), e), w = graph_.call(Kernel::divide_unchecked, graph_.one(), u);
  if (is_kernel(graph_.node(id), Kernel::softplus))
    return {Kernel::add, {graph_.call(Kernel::positive_part, x), graph_.call(Kernel::log1p_fraction, e, u, w)}};
  const NodeId small = graph_.multiply(e, w);
  if (base == x) return {Kernel::select, {below, small, w}};
  return {Kernel::select, {below, w, small}};
}

} // namespace torvale::engine
