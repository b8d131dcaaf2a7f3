// Simplification of new nodes. Every rule here keeps the value, missing values included; the sign of a zero may change.
// In derivative mode a constant factor 0 annihilates: what does not vary has derivative 0, whatever stands beside it.

#include "engine/graph/graph.h"

#include <cmath>
#include <utility>

namespace torvale::engine {

namespace {

// Multiplying by such a number is exact (barring overflow and underflow), so products with it may be regrouped.
bool is_power_of_two(double v)
{
  int exponent = 0;
  return std::isfinite(v) && v != 0.0 && std::fabs(std::frexp(v, &exponent)) == 0.5;
}

} // namespace

NodeId GraphBuilder::simplified(Kernel k, std::span<const NodeId> x)
{
  switch (k) {
  case Kernel::copy:
    return x[0];
  case Kernel::add:
    return add(x[0], x[1]);
  case Kernel::subtract:
    return subtract(x[0], x[1]);
  case Kernel::multiply:
    return multiply(x[0], x[1]);
  case Kernel::divide:
    return divide(x[0], x[1]);
  case Kernel::negate:
    return negate(x[0]);
  case Kernel::reciprocal:
    return reciprocal(x[0]);
  case Kernel::square:
    return square(x[0]);
  case Kernel::power:
    return power(x[0], x[1]);
  case Kernel::less:
  case Kernel::less_equal:
  case Kernel::equal:
  case Kernel::not_equal:
  case Kernel::greater:
  case Kernel::greater_equal:
    return compare(k, x[0], x[1]);
  case Kernel::truth:
    return truth(x[0]);
  case Kernel::and_:
    return and_(x[0], x[1]);
  case Kernel::or_:
    return or_(x[0], x[1]);
  case Kernel::not_:
    return not_(x[0]);
  case Kernel::and_not:
    return and_(x[0], not_(x[1]));
  case Kernel::select:
    return select(x[0], x[1], x[2]);
  case Kernel::select_or_zero:
    return select(x[0], x[1], zero());
  case Kernel::is_missing:
    return is_missing(x[0]);
  case Kernel::is_present:
    return not_(is_missing(x[0]));
  case Kernel::coalesce:
    return select(is_missing(x[0]), x[1], x[0]);
  case Kernel::log:
  case Kernel::log_or_minus_infinity:
    return logarithm(k, x[0]);
  case Kernel::log1p:
    return log_one_plus(x[0]);
  case Kernel::missing_rank:
    return never_missing(x[0]) ? zero() : no_node;
  case Kernel::ordinary_missing:
    return ordinary(x[0]);
  default:
    return no_node;
  }
}

NodeId GraphBuilder::add(NodeId a, NodeId b)
{
  a = ordinary(a);
  b = ordinary(b);
  const NodeId sum = regrouped(Kernel::add, a, b);
  return sum != no_node ? sum : plain_sum(a, b, false);
}

NodeId GraphBuilder::subtract(NodeId a, NodeId b)
{
  a = ordinary(a);
  b = ordinary(b);
  const NodeId sum = regrouped(Kernel::add, a, b, true);
  return sum != no_node ? sum : plain_sum(a, b, true);
}

NodeId GraphBuilder::plain_sum(NodeId a, NodeId b, bool minus)
{
  if (minus) {
    if (is_constant(b, 0.0)) return a;
    if (is_constant(a, 0.0)) return negate(b);
    if (a == b && derivative_mode_) return zero();
    if (is_kernel(node(b), Kernel::negate)) return plain_sum(a, operand(b, 0), false);
    if (is_constant(a, 1.0)) {
      if (const NodeId rest = complement(b); rest != no_node) return rest;
    }
    if (const NodeId ratio = gamma_ratio(a, b); ratio != no_node) return ratio;
    const NodeId x[] = {a, b};
    return intern_kernel(Kernel::subtract, x);
  }
  if (is_constant(a, 0.0)) return b;
  if (is_constant(b, 0.0)) return a;
  if (is_kernel(node(b), Kernel::negate)) return plain_sum(a, operand(b, 0), true);
  if (is_kernel(node(a), Kernel::negate)) return plain_sum(b, operand(a, 0), true);
  if (a > b) std::swap(a, b);
  const NodeId x[] = {a, b};
  return intern_kernel(Kernel::add, x);
}

NodeId GraphBuilder::negate(NodeId a)
{
  a = ordinary(a);
  if (is_constant(a)) return std::isnan(value(a)) ? missing() : constant(-value(a));
  if (is_kernel(node(a), Kernel::negate)) return operand(a, 0);
  if (is_kernel(node(a), Kernel::subtract)) return plain_sum(operand(a, 1), operand(a, 0), true);
  const NodeId x[] = {a};
  return intern_kernel(Kernel::negate, x);
}

NodeId GraphBuilder::multiply(NodeId a, NodeId b)
{
  a = ordinary(a);
  b = ordinary(b);
  if (is_constant(b)) std::swap(a, b);
  if (is_constant(a)) {
    const double v = value(a);
    if (v == 1.0) return b;
    if (v == -1.0) return negate(b);
    if (v == 0.0 && derivative_mode_) return a;
    if (!is_constant(b) && is_kernel(node(b), Kernel::multiply) && is_constant(operand(b, 0))) {
      const double w = value(operand(b, 0));
      if (is_power_of_two(v) || is_power_of_two(w)) return multiply(constant(v * w), operand(b, 1));
    }
    if (is_kernel(node(b), Kernel::negate)) return multiply(constant(-v), operand(b, 0));
    const NodeId x[] = {a, b}; // a constant factor stands first
    return intern_kernel(Kernel::multiply, x);
  }
  const bool minus_a = is_kernel(node(a), Kernel::negate);
  const bool minus_b = is_kernel(node(b), Kernel::negate);
  if (minus_a && minus_b) return multiply(operand(a, 0), operand(b, 0));
  if (minus_a) return negate(multiply(operand(a, 0), b));
  if (minus_b) return negate(multiply(a, operand(b, 0)));
  const NodeId product = regrouped(Kernel::multiply, a, b);
  return product != no_node ? product : plain_product(a, b);
}

NodeId GraphBuilder::plain_product(NodeId a, NodeId b)
{
  if (is_constant(a) || is_constant(b)) return multiply(a, b);
  if (a == b) return square(a);
  if (a > b) std::swap(a, b);
  const NodeId x[] = {a, b};
  return intern_kernel(Kernel::multiply, x);
}

NodeId GraphBuilder::divide(NodeId a, NodeId b)
{
  a = ordinary(a);
  b = ordinary(b);
  if (is_constant(b) && !std::isnan(value(b)) && value(b) != 0.0) {
    if (is_power_of_two(value(b)) && std::isfinite(1.0 / value(b))) return multiply(constant(1.0 / value(b)), a);
    const NodeId x[] = {a, b};
    return intern_kernel(Kernel::divide_unchecked, x);
  }
  if (is_constant(a, 0.0) && derivative_mode_) return a;
  if (const NodeId quotient = logistic_quotient(a, b); quotient != no_node) return quotient;
  if (is_constant(a, 1.0)) return reciprocal(b);
  // Derivatives need 1 / b again and again: one division, many products. (A value is divided as it is written.)
  if (derivative_mode_) return multiply(a, reciprocal(b));
  const bool minus_a = is_kernel(node(a), Kernel::negate);
  const bool minus_b = is_kernel(node(b), Kernel::negate);
  if (minus_a && minus_b) return divide(operand(a, 0), operand(b, 0));
  if (minus_a) return negate(divide(operand(a, 0), b));
  if (minus_b) return negate(divide(a, operand(b, 0)));
  if (const NodeId quotient = cancelled_quotient(a, b); quotient != no_node) return quotient;
  if (const NodeId quotient = regrouped_quotient(a, b); quotient != no_node) return quotient;
  const NodeId x[] = {a, b};
  return intern_kernel(Kernel::divide, x);
}

NodeId GraphBuilder::reciprocal(NodeId a)
{
  a = ordinary(a);
  if (is_kernel(node(a), Kernel::negate)) return negate(reciprocal(operand(a, 0)));
  if (derivative_mode_ && is_kernel(node(a), Kernel::reciprocal)) return operand(a, 0);
  if (const NodeId quotient = logistic_quotient(one(), a); quotient != no_node) return quotient;
  const NodeId x[] = {a};
  return intern_kernel(Kernel::reciprocal, x);
}

NodeId GraphBuilder::square(NodeId a)
{
  a = ordinary(a);
  if (is_kernel(node(a), Kernel::negate)) return square(operand(a, 0));
  const NodeId x[] = {a};
  return intern_kernel(Kernel::square, x);
}

// a ** n by squaring, n >= 1.
NodeId GraphBuilder::whole_power(NodeId a, int n)
{
  if (n == 1) return a;
  if (n == 2) return square(a);
  if (n == 3) {
    const NodeId x[] = {a};
    return intern_kernel(Kernel::cube, x);
  }
  return n % 2 == 0 ? square(whole_power(a, n / 2)) : multiply(whole_power(a, n - 1), a);
}

NodeId GraphBuilder::power(NodeId a, NodeId b)
{
  a = ordinary(a);
  b = ordinary(b);
  if (is_constant(b)) {
    const double n = value(b);
    if (n == 0.0) return derivative_mode_ || never_missing(a) ? one() : select(is_missing(a), missing(), one());
    // Up to 16 the products are as accurate as the general power to a few units in the last place, and they keep the
    // derivatives free of logarithms.
    if (n == std::floor(n) && std::fabs(n) <= 16.0) {
      const NodeId p = whole_power(a, static_cast<int>(std::fabs(n)));
      return n > 0.0 ? p : reciprocal(p);
    }
    if (n == 0.5) return apply(Kernel::sqrt, {a});
    if (n == -0.5) return reciprocal(apply(Kernel::sqrt, {a}));
  }
  const NodeId x[] = {a, b};
  return intern_kernel(Kernel::power, x);
}

// The order of values is total, so each comparison is `less` or `less_equal` of its operands in some order, and the
// negation of one is the other. All missing values are one value below the numbers, unless one side may be a special
// one and the other missing too.
NodeId GraphBuilder::compare(Kernel k, NodeId a, NodeId b)
{
  if (k == Kernel::greater) return compare(Kernel::less, b, a);
  if (k == Kernel::greater_equal) return compare(Kernel::less_equal, b, a);
  if ((may_be_special(a) && !never_missing(b)) || (may_be_special(b) && !never_missing(a)))
    return compare_kinds(k, a, b);
  return compare_as_one(k, a, b);
}

// The kinds of missing values decide between missing values; a number counts as the highest kind.
NodeId GraphBuilder::compare_kinds(Kernel k, NodeId a, NodeId b)
{
  if (k == Kernel::not_equal) return not_(compare_kinds(Kernel::equal, a, b));
  if (k == Kernel::less_equal) return not_(compare_kinds(Kernel::less, b, a));
  const NodeId kind_a = apply(Kernel::missing_rank, {a}), kind_b = apply(Kernel::missing_rank, {b});
  const NodeId by_kind = compare_as_one(k, kind_a, kind_b);
  if (is_constant(is_missing(a), 1.0) || is_constant(is_missing(b), 1.0)) return by_kind;
  const NodeId by_number = compare_as_one(k, a, b);
  return k == Kernel::less ? or_(by_kind, by_number) : and_(by_kind, by_number);
}

NodeId GraphBuilder::compare_as_one(Kernel k, NodeId a, NodeId b)
{
  const bool a_missing = is_constant(a) && std::isnan(value(a));
  const bool b_missing = is_constant(b) && std::isnan(value(b));
  const bool symmetric = k == Kernel::equal || k == Kernel::not_equal;
  if (symmetric && (a_missing || b_missing)) {
    const NodeId m = is_missing(a_missing ? b : a);
    return k == Kernel::equal ? m : not_(m);
  }
  if (k == Kernel::less && b_missing) return zero();
  if (k == Kernel::less && a_missing) return not_(is_missing(b));
  if (k == Kernel::less_equal && b_missing) return is_missing(a);
  if (k == Kernel::less_equal && a_missing) return one();
  if (a == b) return constant(k == Kernel::equal || k == Kernel::less_equal ? 1.0 : 0.0);
  if (symmetric && is_constant(b)) std::swap(a, b);
  if (symmetric && is_truth(b) && (is_constant(a, 0.0) || is_constant(a, 1.0)))
    return (k == Kernel::equal) == is_constant(a, 1.0) ? b : not_(b);
  if (symmetric && a > b) std::swap(a, b);
  const NodeId x[] = {a, b};
  if (never_missing(a) && never_missing(b)) {
    switch (k) {
    case Kernel::less:
      return intern_kernel(Kernel::less_known, x);
    case Kernel::less_equal:
      return intern_kernel(Kernel::less_equal_known, x);
    case Kernel::equal:
      return intern_kernel(Kernel::equal_known, x);
    case Kernel::not_equal:
      return intern_kernel(Kernel::not_equal_known, x);
    default:
      break;
    }
  }
  return intern_kernel(k, x);
}

NodeId GraphBuilder::truth(NodeId a)
{
  if (is_truth(a)) return a;
  const NodeId x[] = {a};
  return intern_kernel(Kernel::truth, x);
}

NodeId GraphBuilder::not_(NodeId a)
{
  a = truth(a);
  if (is_constant(a)) return constant(value(a) == 0.0 ? 1.0 : 0.0);
  const Node n = node(a);
  if (n.kind == NodeKind::kernel) {
    const NodeId swapped[] = {n.operand[1], n.operand[0]};
    const NodeId same[] = {n.operand[0], n.operand[1]};
    switch (n.kernel) {
    case Kernel::not_:
      return n.operand[0];
    case Kernel::less:
      return intern_kernel(Kernel::less_equal, swapped);
    case Kernel::less_equal:
      return intern_kernel(Kernel::less, swapped);
    case Kernel::less_known:
      return intern_kernel(Kernel::less_equal_known, swapped);
    case Kernel::less_equal_known:
      return intern_kernel(Kernel::less_known, swapped);
    case Kernel::equal:
      return intern_kernel(Kernel::not_equal, same);
    case Kernel::not_equal:
      return intern_kernel(Kernel::equal, same);
    case Kernel::equal_known:
      return intern_kernel(Kernel::not_equal_known, same);
    case Kernel::not_equal_known:
      return intern_kernel(Kernel::equal_known, same);
    default:
      break;
    }
  }
  const NodeId x[] = {a};
  return intern_kernel(Kernel::not_, x);
}

NodeId GraphBuilder::and_(NodeId a, NodeId b)
{
  a = truth(a);
  b = truth(b);
  if (is_constant(a)) return value(a) == 0.0 ? a : b;
  if (is_constant(b)) return value(b) == 0.0 ? b : a;
  if (a == b) return a;
  if (not_(a) == b) return zero();
  if (a > b) std::swap(a, b);
  const NodeId x[] = {a, b};
  return intern_kernel(Kernel::and_, x);
}

NodeId GraphBuilder::or_(NodeId a, NodeId b)
{
  a = truth(a);
  b = truth(b);
  if (is_constant(a)) return value(a) == 0.0 ? b : a;
  if (is_constant(b)) return value(b) == 0.0 ? a : b;
  if (a == b) return a;
  if (not_(a) == b) return one();
  // m or (not m and x) is m or x: what the branches of an IF leave of a mask.
  for (int side = 0; side < 2; ++side, std::swap(a, b)) {
    if (!is_kernel(node(b), Kernel::and_)) continue;
    const NodeId not_a = not_(a);
    if (operand(b, 0) == not_a) return or_(a, operand(b, 1));
    if (operand(b, 1) == not_a) return or_(a, operand(b, 0));
    if (operand(b, 0) == a || operand(b, 1) == a) return a;
  }
  const NodeId either = regrouped(Kernel::or_, a, b);
  return either != no_node ? either : plain_or(a, b);
}

NodeId GraphBuilder::plain_or(NodeId a, NodeId b)
{
  if (a == b) return a;
  if (a > b) std::swap(a, b);
  const NodeId x[] = {a, b};
  return intern_kernel(Kernel::or_, x);
}

NodeId GraphBuilder::is_missing(NodeId a)
{
  if (is_constant(a)) return constant(std::isnan(value(a)) ? 1.0 : 0.0);
  if (never_missing(a)) return zero();
  if (is_kernel(node(a), Kernel::negate) || is_kernel(node(a), Kernel::absolute)) return is_missing(operand(a, 0));
  const NodeId x[] = {a};
  return intern_kernel(Kernel::is_missing, x);
}

NodeId GraphBuilder::ordinary(NodeId a)
{
  if (!may_be_special(a)) return a;
  const NodeId x[] = {a};
  return intern_kernel(Kernel::ordinary_missing, x);
}

NodeId GraphBuilder::select(NodeId mask, NodeId a, NodeId b)
{
  mask = truth(mask);
  if (is_constant(mask)) return value(mask) != 0.0 ? a : b;
  if (is_kernel(node(mask), Kernel::not_)) {
    mask = operand(mask, 0);
    std::swap(a, b);
  }
  // A side that selects by the same mask, or by its negation, is already decided.
  const auto decided = [&](NodeId side, bool taken) {
    while (is_kernel(node(side), Kernel::select)) {
      if (operand(side, 0) == mask)
        side = operand(side, taken ? 1 : 2);
      else if (operand(side, 0) == not_(mask))
        side = operand(side, taken ? 2 : 1);
      else
        break;
    }
    return side;
  };
  a = decided(a, true);
  b = decided(b, false);
  if (a == b) return a;
  if (is_truth(a) && is_truth(b)) {
    if (is_constant(a)) return value(a) != 0.0 ? or_(mask, b) : and_(not_(mask), b);
    if (is_constant(b)) return value(b) != 0.0 ? or_(not_(mask), a) : and_(mask, a);
  }
  const NodeId x[] = {mask, a, b};
  return intern_kernel(Kernel::select, x);
}

} // namespace torvale::engine
