#pragma once
// Arithmetic, rounding, comparisons and masks on one vector of lanes. Exact unless said otherwise.

#include "engine/kernels/vector.h"

#include <cmath>

namespace torvale::engine {
namespace {
namespace lane {

// One line each, so that the family reads as a table.
// clang-format off
inline Lanes copy(Lanes a) { return a; }
// Missing values have all of their upper 16 bits set and none of the lower 40. Hardware NaNs have not, nor have those of
// SLEEF.
inline Mask is_missing_value(Lanes a)
{
  return (reinterpret_cast<Bits>(a) & 0xFFFF00FFFFFFFFFFULL) == 0xFFFF000000000000ULL;
}
inline Lanes canonical(Lanes a) { return unless(is_nan(a) & ~is_missing_value(a), a); }

inline Lanes add(Lanes a, Lanes b) { return a + b; }
inline Lanes subtract(Lanes a, Lanes b) { return a - b; }
inline Lanes multiply(Lanes a, Lanes b) { return a * b; }
inline Lanes divide(Lanes a, Lanes b) { return unless(b == Lanes{}, a / b); }
inline Lanes divide_unchecked(Lanes a, Lanes b) { return a / b; }
inline Lanes negate(Lanes a) { return -a; }
inline Lanes multiply_add(Lanes a, Lanes b, Lanes c) { return a * b + c; }
inline Lanes multiply_subtract(Lanes a, Lanes b, Lanes c) { return a * b - c; }
inline Lanes subtract_product(Lanes a, Lanes b, Lanes c) { return c - a * b; }
inline Lanes reciprocal(Lanes a) { return unless(a == Lanes{}, all(1.0) / a); }
inline Lanes reciprocal_or_zero(Lanes a) { return if_else(a == Lanes{}, Lanes{}, all(1.0) / a); }
inline Lanes square(Lanes a) { return a * a; }
inline Lanes cube(Lanes a) { return a * a * a; }
inline Lanes sqrt(Lanes a) { return square_root(a); }
inline Lanes absolute(Lanes a) { return magnitude(a); }
inline Lanes sign(Lanes a) { return if_else((a == Lanes{}) | is_nan(a), a, copy_sign(all(1.0), a)); }
inline Lanes side(Lanes a) { return if_else(is_nan(a), a, if_else(a < Lanes{}, all(-1.0), all(1.0))); }

inline Lanes positive_part(Lanes a) { return if_else(a <= Lanes{}, Lanes{}, a); }
inline Lanes positive(Lanes a) { return unless(a <= Lanes{}, a); }
inline Lanes nonnegative(Lanes a) { return unless(a < Lanes{}, a); }
inline Lanes probability(Lanes a) { return unless((a < Lanes{}) | (a > all(1.0)), a); }

// Domain: all doubles. 1 ulp. x ** 0 is 1 and 1 ** y is 1 also where the other operand is missing, by the rules of the
// hardware: not here.
inline Lanes power(Lanes x, Lanes y)
{
  return unless(is_nan(x) | is_nan(y) | ((x == Lanes{}) & (y < Lanes{})), elementary::pow(x, y));
}
inline Lanes power_or_zero(Lanes x, Lanes y)
{
  return if_else((x == Lanes{}) & (y < Lanes{}), Lanes{}, power(x, y));
}

inline Lanes least_ordered(Lanes a, Lanes b) { return if_else((a < b) | is_nan(a), a, b); }
inline Lanes least(Lanes a, Lanes b) { return if_else((a <= b) | is_nan(b), a, b); }
inline Lanes greatest(Lanes a, Lanes b) { return if_else((a >= b) | is_nan(b), a, b); }

// The nearest whole number where x is so close to it that the difference must be rounding, else x.
inline Lanes without_fuzz(Lanes x)
{
  const Lanes n = nearest_whole(x), size = magnitude(x), relative = size * all(0x1p-50);
  const Lanes fuzz = if_else(relative > all(1e-12), relative, all(1e-12));
  return if_else((magnitude(x - n) <= fuzz) & (size < all(1e9)), n, x);
}
inline Lanes floor(Lanes a) { return largest_whole_below(without_fuzz(a)); }
inline Lanes ceil(Lanes a) { return -floor(-a); }
inline Lanes truncate(Lanes a) { return copy_sign(largest_whole_below(magnitude(without_fuzz(a))), a); }
inline Lanes round(Lanes a)
{
  // From 2^52 on every number is whole, and adding a half would change it.
  const Lanes size = magnitude(a);
  return if_else(size < all(0x1p52), copy_sign(largest_whole_below(without_fuzz(size + all(0.5))), a), a);
}
// Multiples of a unit like 0.01 are formed as n / 100, which is the nearest double to the decimal; n * 0.01 is not.
inline Lanes round_to(Lanes a, Lanes unit)
{
  const Lanes u = magnitude(unit), n = round(a / u), per_one = all(1.0) / u, whole = nearest_whole(per_one);
  const Mask decimal = (u < all(1.0)) & (magnitude(per_one - whole) <= whole * all(0x1p-50));
  return unless(u == Lanes{}, if_else(decimal, n / whole, n * u));
}
// Exact for whole operands. Otherwise a quotient that is whole but for rounding gives 0: modulo(0.3, 0.1) is 0.
inline Lanes modulo(Lanes a, Lanes b)
{
  Lanes r = a;
  for (int i = 0; i < width; ++i) r[i] = std::fmod(a[i], b[i]); // NaN for b = 0
  const Lanes q = a / b, n = without_fuzz(q);
  const Mask whole = (nearest_whole(a) == a) & (nearest_whole(b) == b);
  return if_else(~whole & (nearest_whole(n) == n) & (magnitude(q) < all(1e9)), Lanes{} * a, r);
}

// "a >= b is false, and b is a number": the hardware's a < b is false for a missing a, which is below every number.
inline Lanes less(Lanes a, Lanes b) { return one_or_zero(~(a >= b) & (b == b)); }
inline Lanes less_equal(Lanes a, Lanes b) { return one_or_zero((a <= b) | is_nan(a)); }
inline Lanes equal(Lanes a, Lanes b) { return one_or_zero((a == b) | (is_nan(a) & is_nan(b))); }
inline Lanes not_equal(Lanes a, Lanes b) { return one_or_zero(~((a == b) | (is_nan(a) & is_nan(b)))); }
inline Lanes greater(Lanes a, Lanes b) { return less(b, a); }
inline Lanes greater_equal(Lanes a, Lanes b) { return less_equal(b, a); }
inline Lanes less_known(Lanes a, Lanes b) { return one_or_zero(a < b); }
inline Lanes less_equal_known(Lanes a, Lanes b) { return one_or_zero(a <= b); }
inline Lanes equal_known(Lanes a, Lanes b) { return one_or_zero(a == b); }
inline Lanes not_equal_known(Lanes a, Lanes b) { return one_or_zero(a != b); }
inline Lanes greater_known(Lanes a, Lanes b) { return one_or_zero(a > b); }
inline Lanes greater_equal_known(Lanes a, Lanes b) { return one_or_zero(a >= b); }

inline Mask set(Lanes mask) { return mask > Lanes{}; }
inline Lanes truth(Lanes a) { return one_or_zero((a < Lanes{}) | (a > Lanes{})); }
inline Lanes and_(Lanes a, Lanes b) { return a * b; }
inline Lanes or_(Lanes a, Lanes b) { return if_else(a > b, a, b); }
inline Lanes not_(Lanes a) { return all(1.0) - a; }
inline Lanes and_not(Lanes a, Lanes b) { return if_else(a > b, all(1.0), Lanes{}); }
inline Lanes select(Lanes mask, Lanes a, Lanes b) { return if_else(set(mask), a, b); }
inline Lanes select_or_zero(Lanes mask, Lanes a) { return if_else(set(mask), a, Lanes{}); }
inline Lanes is_missing(Lanes a) { return one_or_zero(is_nan(a)); }
inline Lanes is_present(Lanes a) { return one_or_zero(a == a); }
inline Lanes zero_if_missing(Lanes a) { return if_else(is_nan(a), Lanes{}, a); }
inline Lanes coalesce(Lanes a, Lanes b) { return if_else(is_nan(a), b, a); }
// The kind of a missing value is the complement of its third byte, from 0 for ._ to 27 for .Z; as a number by way of the
// last bits of 2^52 + kind.
inline Lanes missing_rank(Lanes a)
{
  const Bits bits = reinterpret_cast<Bits>(a), kind = (~bits >> 40) & 0xFF;
  const Mask special = is_missing_value(a) & (kind <= 27);
  const Lanes counted = reinterpret_cast<Lanes>(kind | 0x4330000000000000ULL) - all(0x1p52);
  return if_else(is_nan(a), if_else(special, counted, all(1.0)) - all(28.0), Lanes{});
}
inline Lanes ordinary_missing(Lanes a) { return unless(is_nan(a), a); }
// clang-format on

} // namespace lane
} // namespace
} // namespace torvale::engine
