#pragma once
// Elementary functions on one vector of lanes: SLEEF (the natural exponential and logarithm our own), with every value
// outside the domain made missing.
//
// Each is within 1 ulp (erfc 1.5) over the domain given; forms of our own give theirs. Infinities pass where the limit
// exists.

#include "engine/kernels/lane_arithmetic.h"
#include "engine/kernels/lane_exponential.h"
#include "engine/kernels/lane_logarithm.h"

namespace torvale::engine {
namespace {
namespace lane {

// One line each, so that the family reads as a table.
// clang-format off
inline Lanes exp(Lanes a) { return natural_exp(a); }         // all doubles; infinity above 709.78
inline Lanes expm1(Lanes a) { return elementary::expm1(a); } // all doubles
inline Lanes log(Lanes a) { return unless(a == Lanes{}, natural_log(a)); }              // a > 0
inline Lanes log2(Lanes a) { return unless(a == Lanes{}, elementary::log2(a)); }        // a > 0
inline Lanes log10(Lanes a) { return unless(a == Lanes{}, elementary::log10(a)); }      // a > 0
inline Lanes log1p(Lanes a) { return unless(a == all(-1.0), natural_log1p(a)); }        // a > -1
inline Lanes log_or_zero(Lanes a) { return if_else(a == Lanes{}, a, natural_log(a)); }
inline Lanes log_or_minus_infinity(Lanes a) { return natural_log(a); }                  // a >= 0
// log(1 - exp(a)), a <= 0, 2 ulp: below log(1/2) exp(a) is the small part, above it 1 - exp(a) is.
inline Lanes log_one_minus_exp(Lanes a)
{
  const Mask low = a < all(-0.69314718055994531);
  const Lanes far = natural_log1p(if_else(low, -natural_exp(a), Lanes{}));
  return if_else(low, far, natural_log(-elementary::expm1(a)));
}
inline Lanes sin(Lanes a) { return elementary::sin(a); }     // finite a
inline Lanes cos(Lanes a) { return elementary::cos(a); }     // finite a
inline Lanes tan(Lanes a) { return elementary::tan(a); }     // finite a
inline Lanes asin(Lanes a) { return elementary::asin(a); }   // [-1, 1]
inline Lanes acos(Lanes a) { return elementary::acos(a); }   // [-1, 1]
inline Lanes atan(Lanes a) { return elementary::atan(a); }   // all doubles
inline Lanes sinh(Lanes a) { return elementary::sinh(a); }   // infinite beyond 709
inline Lanes cosh(Lanes a) { return elementary::cosh(a); }   // infinite beyond 709
inline Lanes tanh(Lanes a) { return elementary::tanh(a); }   // all doubles
inline Lanes asinh(Lanes a) { return elementary::asinh(a); } // infinite beyond 1.3e154
inline Lanes acosh(Lanes a) { return elementary::acosh(a); } // a >= 1; infinite beyond 1.3e154
inline Lanes atanh(Lanes a) { return unless(magnitude(a) == all(1.0), elementary::atanh(a)); } // (-1, 1)
inline Lanes atan2(Lanes a, Lanes b) { return unless(is_nan(a) | is_nan(b), elementary::atan2(a, b)); } // all doubles
inline Lanes erf(Lanes a) { return unless(is_nan(a), elementary::erf(a)); }   // all doubles
inline Lanes erfc(Lanes a) { return unless(is_nan(a), elementary::erfc(a)); } // all doubles; 0 above 26.55
// clang-format on

// The logistic function and softplus have exp(-|a|) in common, which never overflows, and 1 / (1 + exp(-|a|)). Programs
// that need both, of a or of -a, compute these once (stages/shared_forms), by the same operations as here.

// 1 / (1 + exp(-a)), all doubles, 3 ulp. Below 0 nothing is lost to 1 + small.
inline Lanes logistic(Lanes a)
{
  const Lanes e = natural_exp(-magnitude(a)), w = all(1.0) / (all(1.0) + e);
  return if_else(a < Lanes{}, e * w, w);
}

// exp(c) from a = exp(r) and b = exp(s), r + s = c; 2.5 ulp. Where one of them is not given (missing) exp(c) itself.
inline Lanes exp_of_factors(Lanes a, Lanes b, Lanes c)
{
  const Lanes product = a * b;
  const Mask open = is_nan(product) | is_nan(c);
  return any(open) ? if_else(open, natural_exp(c), product) : product;
}

// log(1 + a), 0 <= a <= 1, u = 1 + a, w = 1 / u; 1 ulp. What u has lost is put back: log(1 + a) = log u + (1 + a - u) /
// u.
inline Lanes log1p_fraction(Lanes a, Lanes u, Lanes w)
{
  return log_of_normal(u, (a - (u - all(1.0))) * w);
}

// log(1 + exp(a)), all doubles, 3 ulp.
inline Lanes softplus(Lanes a)
{
  const Lanes e = natural_exp(-magnitude(a)), u = all(1.0) + e;
  return if_else(a <= Lanes{}, Lanes{}, a) + log1p_fraction(e, u, all(1.0) / u);
}

// log(a / (1 - a)), 0 < a < 1, 4 ulp. About the root at 1/2, where 2a - 1 is exact, through log1p.
inline Lanes logit(Lanes a)
{
  const Lanes complement = all(1.0) - a;
  const Mask central = (a > all(0.25)) & (a < all(0.75));
  const Lanes far = natural_log(if_else(central, all(1.0), a / complement));
  const Lanes near = natural_log1p(if_else(central, (a + a - all(1.0)) / complement, Lanes{}));
  return unless(~((a > Lanes{}) & (a < all(1.0))), if_else(central, near, far));
}

// log(exp(a) + exp(b)), all doubles, 2 ulp of the larger. Equal infinities are their own sum.
inline Lanes log_add_exp(Lanes a, Lanes b)
{
  const Lanes distance = if_else(a == b, Lanes{}, magnitude(a - b));
  return if_else(a > b, a, b) + natural_log1p(natural_exp(-distance));
}

} // namespace lane
} // namespace
} // namespace torvale::engine
