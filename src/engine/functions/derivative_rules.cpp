// Partial derivatives of the kernels. Each rule gives d node / d operand as nodes, in forms that keep their accuracy
// and whose kernels have rules in turn, so that derivatives of any function of the language exist to third order.
//
// At removable points (square root at 0, a power at 0, absolute value at 0, ties of least and greatest) a rule gives a
// fixed finite value instead of what the formula cannot compute.

#include "engine/functions/distribution_parts.h"

namespace torvale::engine {
namespace {

// One line each, so that the family reads as a table.
// clang-format off
using Graph = GraphBuilder;

// Operand k of the node.
NodeId in(Graph& g, NodeId node, int k) { return g.operand(node, k); }
NodeId whole_number(Graph& g, int k) { return g.constant(k); }

NodeId nothing(Graph& g, NodeId, int) { return g.zero(); } // constant but for jumps
NodeId unchanged(Graph& g, NodeId, int) { return g.one(); }

// --- arithmetic ------------------------------------------------------------------------------------------------------

NodeId subtract_rule(Graph& g, NodeId, int k) { return g.constant(k == 0 ? 1.0 : -1.0); }
NodeId multiply_rule(Graph& g, NodeId n, int k) { return in(g, n, 1 - k); }
NodeId divide_rule(Graph& g, NodeId n, int k)
{
  const NodeId divisor = in(g, n, 1);
  return k == 0 ? g.divide(g.one(), divisor) : g.negate(g.divide(n, divisor));
}
NodeId negate_rule(Graph& g, NodeId, int) { return g.constant(-1.0); }
NodeId product_sum_rule(Graph& g, NodeId n, int k) { return k == 2 ? g.one() : in(g, n, 1 - k); } // a b + c
NodeId product_less_rule(Graph& g, NodeId n, int k) { return k == 2 ? g.constant(-1.0) : in(g, n, 1 - k); } // a b - c
NodeId less_product_rule(Graph& g, NodeId n, int k) { return k == 2 ? g.one() : g.negate(in(g, n, 1 - k)); } // c - a b
NodeId reciprocal_rule(Graph& g, NodeId n, int) { return g.negate(g.square(n)); }
NodeId square_rule(Graph& g, NodeId n, int) { return g.scale(2.0, in(g, n, 0)); }
NodeId cube_rule(Graph& g, NodeId n, int) { return g.scale(3.0, g.square(in(g, n, 0))); }
NodeId sqrt_rule(Graph& g, NodeId n, int) { return g.scale(0.5, g.call(Kernel::reciprocal_or_zero, n)); }
NodeId absolute_rule(Graph& g, NodeId n, int) { return g.call(Kernel::side, in(g, n, 0)); }
NodeId positive_part_rule(Graph& g, NodeId n, int) { return g.compare(Kernel::less, g.zero(), in(g, n, 0)); }

// b a**(b-1), and a**b log a with the value 0 at a = 0: there the power is constant for b > 0.
NodeId power_rule(Graph& g, NodeId n, int k)
{
  const NodeId a = in(g, n, 0), b = in(g, n, 1);
  if (k == 1) return g.multiply(n, g.call(Kernel::log_or_zero, a));
  const NodeId exponent = g.shift(b, -1.0);
  const bool no_pole = g.is_constant(exponent) && g.value(exponent) >= 0.0;
  return g.multiply(b, no_pole ? g.power(a, exponent) : g.call(Kernel::power_or_zero, a, exponent));
}
NodeId log_or_zero_rule(Graph& g, NodeId n, int) { return g.call(Kernel::reciprocal_or_zero, in(g, n, 0)); }

NodeId takes(Graph& g, NodeId takes_first, int k) { return k == 0 ? takes_first : g.not_(takes_first); }
NodeId least_ordered_rule(Graph& g, NodeId n, int k)
{
  return takes(g, g.compare(Kernel::less_equal, in(g, n, 0), in(g, n, 1)), k);
}
NodeId greatest_rule(Graph& g, NodeId n, int k)
{
  return takes(g, g.compare(Kernel::less_equal, in(g, n, 1), in(g, n, 0)), k);
}
NodeId least_rule(Graph& g, NodeId n, int k)
{
  const NodeId a = in(g, n, 0), b = in(g, n, 1);
  return takes(g, g.or_(g.is_missing(b), g.and_(g.compare(Kernel::less_equal, a, b), g.not_(g.is_missing(a)))), k);
}
NodeId modulo_rule(Graph& g, NodeId n, int k)
{
  return k == 0 ? g.one() : g.negate(g.call(Kernel::truncate, g.divide(in(g, n, 0), in(g, n, 1))));
}
NodeId present_rule(Graph& g, NodeId n, int) { return g.not_(g.is_missing(in(g, n, 0))); }
NodeId coalesce_rule(Graph& g, NodeId n, int k) { return takes(g, g.not_(g.is_missing(in(g, n, 0))), k); }

// --- elementary functions --------------------------------------------------------------------------------------------

NodeId exp_rule(Graph&, NodeId n, int) { return n; }
NodeId expm1_rule(Graph& g, NodeId n, int) { return g.call(Kernel::exp, in(g, n, 0)); }
NodeId log_rule(Graph& g, NodeId n, int) { return g.reciprocal(in(g, n, 0)); }
NodeId log1p_rule(Graph& g, NodeId n, int) { return g.reciprocal(g.shift(in(g, n, 0), 1.0)); }
NodeId log2_rule(Graph& g, NodeId n, int) { return g.divide(g.constant(1.4426950408889634), in(g, n, 0)); }
NodeId log10_rule(Graph& g, NodeId n, int) { return g.divide(g.constant(0.43429448190325183), in(g, n, 0)); }
// log(1 - exp(a)): -1 / expm1(-a).
NodeId log_one_minus_exp_rule(Graph& g, NodeId n, int)
{
  return g.negate(g.reciprocal(g.call(Kernel::expm1, g.negate(in(g, n, 0)))));
}

// d/da of the integral of u**i (1 - u)**j exp(-(a u + b (1 - u))): less the integral with u**(i+1).
NodeId exp_mean_rule(Graph& g, NodeId n, int k)
{
  if (k > 1) return g.zero(); // the exponentials are functions of the first operands
  const NodeId order = g.shift(in(g, n, 4), k == 0 ? 10.0 : 1.0);
  return g.negate(g.apply(Kernel::exp_mean, {in(g, n, 0), in(g, n, 1), in(g, n, 2), in(g, n, 3), order}));
}
// Of x**3 - a x**2 + b x - c = 0: x' = (x**2 a' - x b' + c') / (3 x**2 - 2 a x + b).
NodeId cubic_root_rule(Graph& g, NodeId n, int k)
{
  if (k == 3) return g.zero();
  const NodeId a = in(g, n, 0), b = in(g, n, 1);
  const NodeId slope = g.add(g.multiply(g.subtract(g.scale(3.0, n), g.scale(2.0, a)), n), b);
  return g.divide(k == 0 ? g.square(n) : k == 1 ? g.negate(n) : g.one(), slope);
}
// In the transform: by the time a factor s, by ka and the coefficients a factor of the denominator more.
NodeId compartment_response_rule(Graph& g, NodeId n, int k)
{
  if (k == 0 || k > 5) return g.zero(); // the roots are functions of the coefficients
  CompartmentResponse r = CompartmentResponse::of(g.value(in(g, n, 0)));
  double factor = 1.0;
  if (k == 1) {
    ++r.power;
  } else if (k == 2) {
    factor = -r.depot++;
  } else {
    factor = -r.system++;
    r.power += r.n - (k - 2);
  }
  if (factor == 0.0 || k - 2 > r.n) return g.zero();
  if (!r.valid()) return no_node;
  std::array<NodeId, 9> operands{g.constant(r.number())};
  for (int j = 1; j < 9; ++j) operands[static_cast<std::size_t>(j)] = in(g, n, j);
  return g.scale(factor, g.apply(Kernel::compartment_response, operands));
}

NodeId sin_rule(Graph& g, NodeId n, int) { return g.call(Kernel::cos, in(g, n, 0)); }
NodeId cos_rule(Graph& g, NodeId n, int) { return g.negate(g.call(Kernel::sin, in(g, n, 0))); }
NodeId tan_rule(Graph& g, NodeId n, int) { return g.shift(g.square(n), 1.0); }
// 1 - a^2 as (1 - a)(1 + a), which keeps its digits near 1.
NodeId one_less_square(Graph& g, NodeId a) { return g.multiply(complement(g, a), g.shift(a, 1.0)); }
NodeId asin_rule(Graph& g, NodeId n, int)
{
  return g.reciprocal(g.call(Kernel::sqrt, one_less_square(g, in(g, n, 0))));
}
NodeId acos_rule(Graph& g, NodeId n, int k) { return g.negate(asin_rule(g, n, k)); }
NodeId atan_rule(Graph& g, NodeId n, int) { return g.reciprocal(g.shift(g.square(in(g, n, 0)), 1.0)); }
NodeId sinh_rule(Graph& g, NodeId n, int) { return g.call(Kernel::cosh, in(g, n, 0)); }
NodeId cosh_rule(Graph& g, NodeId n, int) { return g.call(Kernel::sinh, in(g, n, 0)); }
NodeId tanh_rule(Graph& g, NodeId n, int) // cosh(a)^-2; 1 - tanh^2 would lose it for large a
{
  const NodeId twice = g.scale(2.0, in(g, n, 0));
  return g.scale(4.0, g.multiply(g.call(Kernel::logistic, twice), g.call(Kernel::logistic, g.negate(twice))));
}
NodeId asinh_rule(Graph& g, NodeId n, int)
{
  return g.reciprocal(g.call(Kernel::sqrt, g.shift(g.square(in(g, n, 0)), 1.0)));
}
NodeId acosh_rule(Graph& g, NodeId n, int)
{
  const NodeId a = in(g, n, 0);
  return g.reciprocal(g.call(Kernel::sqrt, g.multiply(g.shift(a, -1.0), g.shift(a, 1.0))));
}
NodeId atanh_rule(Graph& g, NodeId n, int) { return g.reciprocal(one_less_square(g, in(g, n, 0))); }
NodeId atan2_rule(Graph& g, NodeId n, int k)
{
  const NodeId y = in(g, n, 0), x = in(g, n, 1), r2 = g.add(g.square(x), g.square(y));
  return k == 0 ? g.divide(x, r2) : g.negate(g.divide(y, r2));
}
NodeId erf_rule(Graph& g, NodeId n, int)
{
  return g.scale(1.1283791670955126, g.call(Kernel::exp, g.negate(g.square(in(g, n, 0)))));
}
NodeId erfc_rule(Graph& g, NodeId n, int k) { return g.negate(erf_rule(g, n, k)); }

// The logistic function times its complement, both without cancellation.
NodeId logistic_rule(Graph& g, NodeId n, int) { return g.multiply(n, g.call(Kernel::logistic, g.negate(in(g, n, 0)))); }
NodeId softplus_rule(Graph& g, NodeId n, int) { return g.call(Kernel::logistic, in(g, n, 0)); }
NodeId logit_rule(Graph& g, NodeId n, int)
{
  const NodeId a = in(g, n, 0);
  return g.reciprocal(g.multiply(a, complement(g, a)));
}
NodeId log_add_exp_rule(Graph& g, NodeId n, int k)
{
  return g.call(Kernel::logistic, g.subtract(in(g, n, k), in(g, n, 1 - k)));
}

// --- gamma family ----------------------------------------------------------------------------------------------------

NodeId gamma_rule(Graph& g, NodeId n, int) { return g.multiply(n, g.call(Kernel::digamma, in(g, n, 0))); }
template <Kernel next> NodeId chain_rule(Graph& g, NodeId n, int) { return g.call(next, in(g, n, 0)); }
NodeId lgamma_ratio_rule(Graph& g, NodeId n, int k) // lgamma(a + b) - lgamma(a)
{
  const NodeId a = in(g, n, 0), b = in(g, n, 1);
  return k == 0 ? g.call(Kernel::digamma_ratio, a, b) : g.call(Kernel::digamma, g.add(a, b));
}
NodeId digamma_ratio_rule(Graph& g, NodeId n, int k)
{
  const NodeId a = in(g, n, 0), at_sum = g.call(Kernel::trigamma, g.add(a, in(g, n, 1)));
  return k == 0 ? g.subtract(at_sum, g.call(Kernel::trigamma, a)) : at_sum;
}
NodeId lbeta_rule(Graph& g, NodeId n, int k)
{
  return g.negate(g.call(Kernel::digamma_ratio, in(g, n, k), in(g, n, 1 - k)));
}
NodeId comb_rule(Graph& g, NodeId n, int k) // of log: psi(a+1) - psi(a-b+1), and psi(a-b+1) - psi(b+1)
{
  const NodeId a = in(g, n, 0), b = in(g, n, 1), rest = g.shift(g.subtract(a, b), 1.0);
  const NodeId log_slope = k == 0 ? g.call(Kernel::digamma_ratio, rest, b)
                                  : g.subtract(g.call(Kernel::digamma, rest), g.call(Kernel::digamma, g.shift(b, 1.0)));
  return g.multiply(n, log_slope);
}

// --- normal distribution ---------------------------------------------------------------------------------------------

NodeId normal_pdf_rule(Graph& g, NodeId n, int) { return g.negate(g.multiply(in(g, n, 0), n)); }
NodeId normal_quantile_rule(Graph& g, NodeId n, int) { return g.reciprocal(g.call(Kernel::normal_pdf, n)); }
NodeId normal_hazard_rule(Graph& g, NodeId n, int)
{
  return g.negate(g.multiply(n, g.call(Kernel::normal_hazard_excess, in(g, n, 0))));
}
NodeId normal_hazard_excess_rule(Graph& g, NodeId n, int)
{
  return complement(g, g.multiply(g.call(Kernel::normal_hazard, in(g, n, 0)), n));
}

// --- distribution functions with shapes ------------------------------------------------------------------------------
//
// With F a lower tail, f its density and L_a the derivative of log F by a shape a (a kernel of its own):
//     dF/dx = f,  dF/da = F L_a,  d log F/dx = f / F =: r,  d log F/da = L_a
//     dL_a/dx = r (s_a - L_a),  where s_a = d log f / da
//     dL_ab/dx = r ((s_a - L_a)(s_b - L_b) + s_ab - L_ab)
// For an upper tail f and r change sign. Outside the support everything is 0.

// exp(log density - log tail), with the sign of the tail.
NodeId ratio(Graph& g, NodeId log_density, NodeId log_tail, bool upper)
{
  const NodeId r = g.call(Kernel::exp, g.subtract(log_density, log_tail));
  return upper ? g.negate(r) : r;
}

// Incomplete gamma: operands x, shape[, order].
struct GammaTail {
  Kernel log_tail, log_by_shape;
  bool upper;
};
constexpr GammaTail gamma_below{Kernel::log_gamma_lower, Kernel::log_gamma_lower_by_shape, false};
constexpr GammaTail gamma_above{Kernel::log_gamma_upper, Kernel::log_gamma_upper_by_shape, true};

NodeId inside_gamma(Graph& g, NodeId x, NodeId value) { return g.select(above(g, x, 0.0), value, g.zero()); }

template <const GammaTail& tail> NodeId gamma_tail_rule(Graph& g, NodeId n, int k)
{
  const NodeId x = in(g, n, 0), a = in(g, n, 1);
  if (k == 1) return g.multiply(n, g.call(tail.log_by_shape, x, a, g.one()));
  const NodeId f = g.call(Kernel::exp, gamma_log_density(g, x, a));
  return inside_gamma(g, x, tail.upper ? g.negate(f) : f);
}
template <const GammaTail& tail> NodeId log_gamma_tail_rule(Graph& g, NodeId n, int k)
{
  const NodeId x = in(g, n, 0), a = in(g, n, 1);
  if (k == 1) return g.call(tail.log_by_shape, x, a, g.one());
  return inside_gamma(g, x, ratio(g, gamma_log_density(g, x, a), n, tail.upper));
}
template <const GammaTail& tail> NodeId log_gamma_by_shape_rule(Graph& g, NodeId n, int k)
{
  const NodeId x = in(g, n, 0), a = in(g, n, 1);
  const int order = static_cast<int>(g.value(in(g, n, 2)));
  if (k == 1) return order < 3 ? g.call(tail.log_by_shape, x, a, whole_number(g, order + 1)) : no_node;
  if (order > 2) return no_node;
  const NodeId r = ratio(g, gamma_log_density(g, x, a), g.call(tail.log_tail, x, a), tail.upper);
  const NodeId s = g.subtract(g.call(Kernel::log, x), g.call(Kernel::digamma, a));
  const NodeId gap = g.subtract(s, g.call(tail.log_by_shape, x, a, g.one()));
  if (order == 1) return inside_gamma(g, x, g.multiply(r, gap));
  const NodeId second = g.subtract(g.square(gap), g.add(g.call(Kernel::trigamma, a), n));
  return inside_gamma(g, x, g.multiply(r, second));
}

// shape - 1 over x; 0 for shape 1, also at the end of the support.
NodeId power_slope(Graph& g, NodeId x, NodeId shape)
{
  if (g.is_constant(shape, 1.0)) return g.zero();
  const NodeId less_one = g.shift(shape, -1.0);
  return g.select(g.compare(Kernel::equal, less_one, g.zero()), g.zero(), g.divide(less_one, x));
}
NodeId gamma_log_density_rule(Graph& g, NodeId n, int k)
{
  const NodeId x = in(g, n, 0), a = in(g, n, 1);
  return k == 0 ? g.shift(power_slope(g, x, a), -1.0) : g.subtract(g.call(Kernel::log, x), g.call(Kernel::digamma, a));
}

// Incomplete beta: operands x, a, b, y = 1 - x[, orders by a and b]. x and y move together: the derivative by x covers
// both, so that by y is 0.
struct BetaTail {
  Kernel log_tail, log_by_shapes;
  bool upper;
};
constexpr BetaTail beta_below{Kernel::log_beta_lower, Kernel::log_beta_lower_by_shapes, false};
constexpr BetaTail beta_above{Kernel::log_beta_upper, Kernel::log_beta_upper_by_shapes, true};

NodeId inside_beta(Graph& g, NodeId x, NodeId y, NodeId value)
{
  return g.select(g.and_(above(g, x, 0.0), above(g, y, 0.0)), value, g.zero());
}
struct BetaOperands {
  NodeId x, a, b, y;
  BetaOperands(Graph& g, NodeId n) : x(in(g, n, 0)), a(in(g, n, 1)), b(in(g, n, 2)), y(in(g, n, 3)) {}
  NodeId log_density(Graph& g) const { return beta_log_density(g, x, y, a, b); }
  NodeId by_shapes(Graph& g, Kernel k, int i, int j) const
  {
    return g.apply(k, {x, a, b, y, whole_number(g, i), whole_number(g, j)});
  }
};

NodeId beta_log_density_rule(Graph& g, NodeId n, int k)
{
  const BetaOperands o(g, n);
  if (k == 3) return g.zero();
  if (k == 1) return g.add(g.call(Kernel::log, o.x), g.call(Kernel::digamma_ratio, o.a, o.b));
  if (k == 2) return g.add(g.call(Kernel::log, o.y), g.call(Kernel::digamma_ratio, o.b, o.a));
  return g.subtract(power_slope(g, o.x, o.a), power_slope(g, o.y, o.b));
}

template <const BetaTail& tail> NodeId beta_tail_rule(Graph& g, NodeId n, int k)
{
  const BetaOperands o(g, n);
  if (k == 3) return g.zero();
  if (k > 0) return g.multiply(n, o.by_shapes(g, tail.log_by_shapes, k == 1, k == 2));
  const NodeId f = g.call(Kernel::exp, o.log_density(g));
  return inside_beta(g, o.x, o.y, tail.upper ? g.negate(f) : f);
}
template <const BetaTail& tail> NodeId log_beta_tail_rule(Graph& g, NodeId n, int k)
{
  const BetaOperands o(g, n);
  if (k == 3) return g.zero();
  if (k > 0) return o.by_shapes(g, tail.log_by_shapes, k == 1, k == 2);
  return inside_beta(g, o.x, o.y, ratio(g, o.log_density(g), n, tail.upper));
}
template <const BetaTail& tail> NodeId log_beta_by_shapes_rule(Graph& g, NodeId n, int k)
{
  const BetaOperands o(g, n);
  const int i = static_cast<int>(g.value(in(g, n, 4))), j = static_cast<int>(g.value(in(g, n, 5)));
  if (k == 3) return g.zero();
  if (k > 0) return i + j < 3 ? o.by_shapes(g, tail.log_by_shapes, i + (k == 1), j + (k == 2)) : no_node;
  if (i + j > 2) return no_node;
  const NodeId r = ratio(g, o.log_density(g), g.apply(tail.log_tail, {o.x, o.a, o.b, o.y}), tail.upper);
  const auto gap = [&](bool by_a) { // s - L, with s = log x - psi(a) + psi(a+b) and its like for b
    const NodeId slope = by_a ? g.add(g.call(Kernel::log, o.x), g.call(Kernel::digamma_ratio, o.a, o.b))
                              : g.add(g.call(Kernel::log, o.y), g.call(Kernel::digamma_ratio, o.b, o.a));
    return g.subtract(slope, o.by_shapes(g, tail.log_by_shapes, by_a, !by_a));
  };
  if (i + j == 1) return inside_beta(g, o.x, o.y, g.multiply(r, gap(i == 1)));
  NodeId curvature = g.call(Kernel::trigamma, g.add(o.a, o.b));
  if (i == 2) curvature = g.subtract(curvature, g.call(Kernel::trigamma, o.a));
  if (j == 2) curvature = g.subtract(curvature, g.call(Kernel::trigamma, o.b));
  const NodeId product = g.multiply(gap(i >= 1), gap(i == 2));
  return inside_beta(g, o.x, o.y, g.multiply(r, g.add(product, g.subtract(curvature, n))));
}

// Student's t: operands t, degrees of freedom[, order].
NodeId t_by_df(Graph& g, NodeId t, NodeId df, int order)
{
  return g.call(Kernel::log_t_lower_by_df, t, df, whole_number(g, order));
}
NodeId t_lower_rule(Graph& g, NodeId n, int k)
{
  const NodeId t = in(g, n, 0), df = in(g, n, 1);
  return k == 0 ? g.call(Kernel::exp, t_log_density(g, t, df)) : g.multiply(n, t_by_df(g, t, df, 1));
}
NodeId log_t_lower_rule(Graph& g, NodeId n, int k)
{
  const NodeId t = in(g, n, 0), df = in(g, n, 1);
  return k == 0 ? ratio(g, t_log_density(g, t, df), n, false) : t_by_df(g, t, df, 1);
}
// d log f / d df = (psi((n+1)/2) - psi(n/2) - 1/n - log(1 + t^2/n) + (n+1) w) / 2, with w = t^2 / (n (n + t^2)), and
// its derivative by n; w' = -w (2n + t^2) / (n (n + t^2)).
NodeId log_t_by_df_rule(Graph& g, NodeId n, int k)
{
  const NodeId t = in(g, n, 0), df = in(g, n, 1);
  const int order = static_cast<int>(g.value(in(g, n, 2)));
  if (k == 1) return order < 3 ? t_by_df(g, t, df, order + 1) : no_node;
  if (order > 2) return no_node;
  const NodeId half = g.scale(0.5, df), t2 = g.square(t), nt = g.multiply(df, g.add(df, t2)), w = g.divide(t2, nt);
  const NodeId more = g.shift(df, 1.0);
  const NodeId r = ratio(g, t_log_density(g, t, df), g.call(Kernel::log_t_lower, t, df), false);
  const NodeId psi = g.subtract(g.call(Kernel::digamma_ratio, half, g.constant(0.5)), g.reciprocal(df));
  const NodeId s = g.scale(0.5, g.add(g.subtract(psi, g.call(Kernel::log1p, g.divide(t2, df))), g.multiply(more, w)));
  const NodeId gap = g.subtract(s, t_by_df(g, t, df, 1));
  if (order == 1) return g.multiply(r, gap);
  const NodeId psi1 = g.scale(0.5, g.subtract(g.call(Kernel::trigamma, g.shift(half, 0.5)), g.call(Kernel::trigamma,
      half)));
  const NodeId w1 = g.negate(g.divide(g.multiply(w, g.add(g.scale(2.0, df), t2)), nt));
  const NodeId inner = g.add(g.add(psi1, g.reciprocal(g.square(df))), g.add(g.scale(2.0, w), g.multiply(more, w1)));
  return g.multiply(r, g.add(g.square(gap), g.subtract(g.scale(0.5, inner), n)));
}

// --- quantiles -------------------------------------------------------------------------------------------------------
//
// From F(q(p, a), a) = p:  dq/dp = 1 / f,  dq/da = -F_a / f.

NodeId gamma_quantile_rule(Graph& g, NodeId n, int k)
{
  const NodeId p = in(g, n, 0), a = in(g, n, 1), f = g.call(Kernel::exp, gamma_log_density(g, n, a));
  if (k == 0) return g.reciprocal(f);
  return g.negate(g.divide(g.multiply(p, g.call(Kernel::log_gamma_lower_by_shape, n, a, g.one())), f));
}
NodeId gamma_upper_quantile_rule(Graph& g, NodeId n, int k)
{
  const NodeId q = in(g, n, 0), a = in(g, n, 1), f = g.call(Kernel::exp, gamma_log_density(g, n, a));
  if (k == 0) return g.negate(g.reciprocal(f));
  return g.divide(g.multiply(q, g.call(Kernel::log_gamma_upper_by_shape, n, a, g.one())), f);
}
NodeId beta_quantile_slope(Graph& g, NodeId n, int k)
{
  const NodeId p = in(g, n, 0), a = in(g, n, 1), b = in(g, n, 2);
  const NodeId x = g.call(Kernel::beta_quantile, p, a, b), y = g.call(Kernel::beta_quantile_complement, p, a, b);
  const NodeId f = g.call(Kernel::exp, beta_log_density(g, x, y, a, b));
  if (k == 0) return g.reciprocal(f);
  const NodeId by = g.apply(Kernel::log_beta_lower_by_shapes, {x, a, b, y, whole_number(g, k == 1), whole_number(g,
      k == 2)});
  return g.negate(g.divide(g.multiply(p, by), f));
}
NodeId beta_quantile_complement_rule(Graph& g, NodeId n, int k) { return g.negate(beta_quantile_slope(g, n, k)); }
NodeId t_quantile_rule(Graph& g, NodeId n, int k)
{
  const NodeId p = in(g, n, 0), df = in(g, n, 1), f = g.call(Kernel::exp, t_log_density(g, n, df));
  return k == 0 ? g.reciprocal(f) : g.negate(g.divide(g.multiply(p, t_by_df(g, n, df, 1)), f));
}
// clang-format on

} // namespace

PartialRule partial_rule(Kernel k)
{
  // One line for each rule.
  // clang-format off
  switch (k) {
  case Kernel::copy: case Kernel::canonical: case Kernel::ordinary_missing: case Kernel::add:
  case Kernel::positive: case Kernel::nonnegative: case Kernel::probability: return unchanged;
  case Kernel::subtract: return subtract_rule;
  case Kernel::multiply: return multiply_rule;
  case Kernel::divide: case Kernel::divide_unchecked: return divide_rule;
  case Kernel::negate: return negate_rule;
  case Kernel::multiply_add: return product_sum_rule;
  case Kernel::multiply_subtract: return product_less_rule;
  case Kernel::subtract_product: return less_product_rule;
  case Kernel::reciprocal: case Kernel::reciprocal_or_zero: return reciprocal_rule;
  case Kernel::square: return square_rule;
  case Kernel::cube: return cube_rule;
  case Kernel::positive_part: return positive_part_rule;
  case Kernel::sqrt: return sqrt_rule;
  case Kernel::absolute: return absolute_rule;
  case Kernel::power: case Kernel::power_or_zero: return power_rule;
  case Kernel::log_or_zero: return log_or_zero_rule;
  case Kernel::least_ordered: return least_ordered_rule;
  case Kernel::least: return least_rule;
  case Kernel::greatest: return greatest_rule;
  case Kernel::modulo: return modulo_rule;
  case Kernel::zero_if_missing: return present_rule;
  case Kernel::coalesce: return coalesce_rule;

  case Kernel::sign: case Kernel::side: case Kernel::floor: case Kernel::ceil: case Kernel::truncate:
  case Kernel::round: case Kernel::round_to: case Kernel::missing_rank: case Kernel::binomial_quantile: case Kernel::poisson_quantile:
  case Kernel::negative_binomial_quantile: case Kernel::uniform_random: case Kernel::normal_random: return nothing;

  case Kernel::exp: return exp_rule;
  case Kernel::expm1: return expm1_rule;
  case Kernel::exp_mean: return exp_mean_rule;
  case Kernel::cubic_root: return cubic_root_rule;
  case Kernel::compartment_response: return compartment_response_rule;
  case Kernel::log: case Kernel::log_or_minus_infinity: return log_rule;
  case Kernel::log1p: return log1p_rule;
  case Kernel::log2: return log2_rule;
  case Kernel::log10: return log10_rule;
  case Kernel::log_one_minus_exp: return log_one_minus_exp_rule;
  case Kernel::sin: return sin_rule;
  case Kernel::cos: return cos_rule;
  case Kernel::tan: return tan_rule;
  case Kernel::asin: return asin_rule;
  case Kernel::acos: return acos_rule;
  case Kernel::atan: return atan_rule;
  case Kernel::sinh: return sinh_rule;
  case Kernel::cosh: return cosh_rule;
  case Kernel::tanh: return tanh_rule;
  case Kernel::asinh: return asinh_rule;
  case Kernel::acosh: return acosh_rule;
  case Kernel::atanh: return atanh_rule;
  case Kernel::atan2: return atan2_rule;
  case Kernel::erf: return erf_rule;
  case Kernel::erfc: return erfc_rule;
  case Kernel::logistic: return logistic_rule;
  case Kernel::softplus: return softplus_rule;
  case Kernel::logit: return logit_rule;
  case Kernel::log_add_exp: return log_add_exp_rule;

  case Kernel::gamma: return gamma_rule;
  case Kernel::lgamma: return chain_rule<Kernel::digamma>;
  case Kernel::digamma: return chain_rule<Kernel::trigamma>;
  case Kernel::trigamma: return chain_rule<Kernel::tetragamma>;
  case Kernel::tetragamma: return chain_rule<Kernel::pentagamma>;
  case Kernel::pentagamma: return chain_rule<Kernel::hexagamma>;
  case Kernel::lgamma_ratio: return lgamma_ratio_rule;
  case Kernel::digamma_ratio: return digamma_ratio_rule;
  case Kernel::lbeta: return lbeta_rule;
  case Kernel::comb: return comb_rule;

  case Kernel::normal_pdf: return normal_pdf_rule;
  case Kernel::normal_cdf: return chain_rule<Kernel::normal_pdf>;
  case Kernel::normal_log_cdf: return chain_rule<Kernel::normal_hazard>;
  case Kernel::normal_quantile: return normal_quantile_rule;
  case Kernel::normal_hazard: return normal_hazard_rule;
  case Kernel::normal_hazard_excess: return normal_hazard_excess_rule;

  case Kernel::gamma_lower: return gamma_tail_rule<gamma_below>;
  case Kernel::gamma_upper: return gamma_tail_rule<gamma_above>;
  case Kernel::log_gamma_lower: return log_gamma_tail_rule<gamma_below>;
  case Kernel::log_gamma_upper: return log_gamma_tail_rule<gamma_above>;
  case Kernel::log_gamma_lower_by_shape: return log_gamma_by_shape_rule<gamma_below>;
  case Kernel::log_gamma_upper_by_shape: return log_gamma_by_shape_rule<gamma_above>;
  case Kernel::gamma_log_density: return gamma_log_density_rule;
  case Kernel::gamma_quantile: return gamma_quantile_rule;
  case Kernel::gamma_upper_quantile: return gamma_upper_quantile_rule;
  case Kernel::beta_lower: return beta_tail_rule<beta_below>;
  case Kernel::beta_upper: return beta_tail_rule<beta_above>;
  case Kernel::log_beta_lower: return log_beta_tail_rule<beta_below>;
  case Kernel::log_beta_upper: return log_beta_tail_rule<beta_above>;
  case Kernel::log_beta_lower_by_shapes: return log_beta_by_shapes_rule<beta_below>;
  case Kernel::log_beta_upper_by_shapes: return log_beta_by_shapes_rule<beta_above>;
  case Kernel::beta_log_density: return beta_log_density_rule;
  case Kernel::beta_quantile: return beta_quantile_slope;
  case Kernel::beta_quantile_complement: return beta_quantile_complement_rule;
  case Kernel::t_lower: return t_lower_rule;
  case Kernel::log_t_lower: return log_t_lower_rule;
  case Kernel::log_t_lower_by_df: return log_t_by_df_rule;
  case Kernel::t_quantile: return t_quantile_rule;
    // clang-format on
  default:
    return nullptr; // comparisons, masks, and hexagamma, whose derivative nothing to third order needs
  }
}

} // namespace torvale::engine
