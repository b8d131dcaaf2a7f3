// Forms that are cheaper and safer than what is written: logarithms of exponentials, and the logistic function and its
// logarithm, log(1 / (1 + exp(-x))) = -softplus(-x), in whatever steps a program comes to them. A rule takes no factor
// out of a logarithm unless it is above 0 whatever it is computed from, so that what is left has the logarithm's
// domain.

#include "engine/graph/graph.h"

namespace torvale::engine {

// x where a is 1 + exp(x).
NodeId GraphBuilder::one_plus_exp(NodeId a)
{
  const Node n = node(a);
  if (!is_kernel(n, Kernel::add)) return no_node;
  for (std::size_t k = 0; k < 2; ++k)
    if (is_constant(n.operand[k], 1.0) && is_kernel(node(n.operand[1 - k]), Kernel::exp))
      return operand(n.operand[1 - k], 0);
  return no_node;
}

// 1 / (1 + exp(x)) and exp(x) / (1 + exp(x)).
NodeId GraphBuilder::logistic_quotient(NodeId a, NodeId b)
{
  const NodeId x = one_plus_exp(b);
  if (x == no_node) return no_node;
  if (is_constant(a, 1.0)) return call(Kernel::logistic, negate(x));
  return is_kernel(node(a), Kernel::exp) && operand(a, 0) == x ? call(Kernel::logistic, x) : no_node;
}

// Made of parameters, random effects and constants, so that it is missing only where something overflows.
bool GraphBuilder::lost_by_overflow_alone(NodeId a, int depth) const
{
  if (never_missing(a)) return true;
  const Node& n = node(a);
  if (depth == 0 || n.kind != NodeKind::kernel) return false;
  switch (n.kernel) {
  case Kernel::add:
  case Kernel::subtract:
  case Kernel::multiply:
  case Kernel::negate:
  case Kernel::exp:
    break;
  default:
    return false;
  }
  for (int k = 0; k < n.operands; ++k)
    if (!lost_by_overflow_alone(n.operand[static_cast<std::size_t>(k)], depth - 1)) return false;
  return true;
}

// A rate CL/V where V was written as CL/k, or CL as k*V, is k: it need not vary with what the others vary with.
NodeId GraphBuilder::cancelled_quotient(NodeId a, NodeId b)
{
  constexpr int nested = 6;
  const auto cancels = [&](NodeId x) {
    return is_kernel(node(x), Kernel::exp) && lost_by_overflow_alone(operand(x, 0), nested);
  };
  // The other factor of a product.
  const auto beside = [&](NodeId product, NodeId factor) {
    const Node n = node(product);
    if (!is_kernel(n, Kernel::multiply)) return no_node;
    return n.operand[0] == factor ? n.operand[1] : n.operand[1] == factor ? n.operand[0] : no_node;
  };
  if (cancels(a)) {
    if (const NodeId other = beside(b, a); other != no_node) return reciprocal(other);
    if (is_kernel(node(b), Kernel::divide) && operand(b, 0) == a) {
      const NodeId divisor = operand(b, 1);
      return is_kernel(node(divisor), Kernel::exp) ? divisor : reciprocal(reciprocal(divisor));
    }
  }
  if (cancels(b)) {
    if (const NodeId other = beside(a, b); other != no_node) return other;
    if (is_kernel(node(a), Kernel::divide) && operand(a, 0) == b) return reciprocal(operand(a, 1));
  }
  return no_node;
}

NodeId GraphBuilder::complement(NodeId a)
{
  const Node n = node(a);
  if (is_kernel(n, Kernel::logistic)) return call(Kernel::logistic, negate(n.operand[0]));
  const bool twice = is_kernel(n, Kernel::subtract) && is_constant(n.operand[0], 1.0);
  return twice && is_kernel(node(n.operand[1]), Kernel::exp) ? n.operand[1] : no_node; // 1 - (1 - exp(x))
}

// As two functions the difference would lose the digits that both have in common.
NodeId GraphBuilder::gamma_ratio(NodeId a, NodeId b)
{
  const Node n = node(a), m = node(b);
  if (!is_kernel(n, Kernel::lgamma) || !is_kernel(m, Kernel::lgamma)) return no_node;
  const Node sum = node(n.operand[0]);
  if (!is_kernel(sum, Kernel::add)) return no_node;
  for (std::size_t k = 0; k < 2; ++k)
    if (sum.operand[k] == m.operand[0]) return call(Kernel::lgamma_ratio, m.operand[0], sum.operand[1 - k]);
  return no_node;
}

NodeId GraphBuilder::known_logarithm(NodeId a)
{
  const Node n = node(a);
  if (n.kind == NodeKind::constant) return n.value > 0.0 ? call(Kernel::log, a) : no_node;
  if (n.kind != NodeKind::kernel) return no_node;
  const NodeId x = n.operand[0];
  switch (n.kernel) {
  case Kernel::exp:
    return x;
  case Kernel::logistic:
    return negate(call(Kernel::softplus, negate(x)));
  case Kernel::add: {
    const NodeId exponent = one_plus_exp(a);
    return exponent == no_node ? no_node : call(Kernel::softplus, exponent);
  }
  case Kernel::multiply:
  case Kernel::divide:
  case Kernel::divide_unchecked: {
    const NodeId first = known_logarithm(x), second = first == no_node ? no_node : known_logarithm(n.operand[1]);
    if (second == no_node) return no_node;
    return n.kernel == Kernel::multiply ? add(first, second) : subtract(first, second);
  }
  case Kernel::reciprocal: {
    const NodeId log = known_logarithm(x);
    return log == no_node ? no_node : negate(log);
  }
  case Kernel::square:
  case Kernel::cube:
  case Kernel::sqrt: {
    const NodeId log = known_logarithm(x);
    const double power = n.kernel == Kernel::square ? 2.0 : n.kernel == Kernel::cube ? 3.0 : 0.5;
    return log == no_node ? no_node : scale(power, log);
  }
  case Kernel::power: {
    const NodeId log = known_logarithm(x);
    return log == no_node ? no_node : multiply(n.operand[1], log);
  }
  default:
    return no_node;
  }
}

NodeId GraphBuilder::logarithm(Kernel k, NodeId a)
{
  a = ordinary(a);
  if (is_constant(a)) return no_node;
  if (const NodeId log = known_logarithm(a); log != no_node) return log;
  const Node n = node(a);
  if (n.kind != NodeKind::kernel) return no_node;
  const auto exponent = [&](NodeId x) { return is_kernel(node(x), Kernel::exp) ? operand(x, 0) : no_node; };
  const NodeId x = n.operand[0], y = n.operands > 1 ? n.operand[1] : no_node;
  switch (n.kernel) {
  case Kernel::subtract:
    return log_of_rest(a);
  case Kernel::multiply:
    if (const NodeId e = exponent(x); e != no_node) return add(e, call(k, y));
    if (const NodeId e = exponent(y); e != no_node) return add(e, call(k, x));
    return no_node;
  case Kernel::divide:
    if (const NodeId e = exponent(y); e != no_node) return subtract(call(k, x), e);
    if (const NodeId e = exponent(x); e != no_node && k == Kernel::log) return subtract(e, call(k, y));
    return no_node;
  case Kernel::reciprocal:
    return k == Kernel::log ? negate(call(k, x)) : no_node;
  case Kernel::sqrt:
    return scale(0.5, call(k, x));
  default:
    return no_node;
  }
}

// With p = 1 / (1 + t) between 0 and 1, as the guards of a distribution have it, t is above 0, and log(1 - p) is
// log(t) - log(1 + t). The latter is there when log(p) is wanted too, and the former is a sum where t is an
// exponential: a negative binomial of mean exp(eta) takes one logarithm in place of two. No digits of 1 - p are lost
// where p is near 1.
NodeId GraphBuilder::log_of_rest(NodeId a)
{
  if (!is_constant(operand(a, 0), 1.0)) return no_node;
  const NodeId p = operand(a, 1);
  if (!is_kernel(node(p), Kernel::reciprocal)) return no_node;
  const NodeId sum = operand(p, 0);
  if (!is_kernel(node(sum), Kernel::add)) return no_node;
  for (int k = 0; k < 2; ++k)
    if (is_constant(operand(sum, k), 1.0) && assumed_inside_unit(p)) {
      const NodeId t = operand(sum, 1 - k);
      return subtract(call(Kernel::log, t), call(Kernel::log, sum));
    }
  return no_node;
}

// By comparisons with constants that hold wherever the assumed mask is 1: parts of it, or parts of what it denies.
bool GraphBuilder::assumed_inside_unit(NodeId a) const
{
  if (assumed_ == no_node) return false;
  constexpr std::size_t most_parts = 64;
  struct Fact {
    NodeId id;
    bool holds;
  };
  std::vector<Fact> facts{{assumed_, true}};
  bool above = false, below = false;
  for (std::size_t k = 0; k < facts.size() && facts.size() < most_parts && !(above && below); ++k) {
    const auto [id, holds] = facts[k];
    const Node& n = node(id);
    if (n.kind != NodeKind::kernel) continue;
    const NodeId x = n.operand[0], y = n.operand[1];
    switch (n.kernel) {
    case Kernel::not_:
      facts.push_back({x, !holds});
      break;
    case Kernel::and_:
    case Kernel::or_:
      if (holds == (n.kernel == Kernel::and_)) {
        facts.push_back({x, holds});
        facts.push_back({y, holds});
      }
      break;
    case Kernel::less:
    case Kernel::less_equal:
    case Kernel::less_known:
    case Kernel::less_equal_known: {
      // low < high, or low <= high; missing values are below all numbers
      const NodeId low = holds ? x : y, high = holds ? y : x;
      const bool strict = (n.kernel == Kernel::less || n.kernel == Kernel::less_known) == holds;
      if (high == a && is_constant(low)) above = above || (strict ? value(low) >= 0.0 : value(low) > 0.0);
      if (low == a && is_constant(high)) below = below || (strict ? value(high) <= 1.0 : value(high) < 1.0);
      break;
    }
    default:
      break;
    }
  }
  return above && below;
}

NodeId GraphBuilder::log_one_plus(NodeId a)
{
  a = ordinary(a);
  const Node n = node(a);
  if (is_kernel(n, Kernel::exp)) return call(Kernel::softplus, n.operand[0]);
  if (!is_kernel(n, Kernel::negate)) return no_node;
  const Node m = node(n.operand[0]);
  return is_kernel(m, Kernel::logistic) ? negate(call(Kernel::softplus, m.operand[0])) : no_node; // log(1 - p)
}

} // namespace torvale::engine
