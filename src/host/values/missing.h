#pragma once
#include <bit>
#include <cmath>
#include <cstdint>
#include <span>

// Missing values. A number is missing when it is a NaN whose upper 16 bits are all ones; the third byte tells which
// of the 28 kinds: ._ (FF), the ordinary . (FE), .A (FD) ... .Z (E4). The kinds sort in that order, below every number.
namespace torvale::host {

// The ordinary missing value, FFFFFE0000000000.
inline constexpr double missing = std::bit_cast<double>(std::uint64_t{0xFFFFFE0000000000});

// wzmis: is x one of the missing values? (w host utility, z numeric, mis missing.) A NaN made by the hardware (7FF8...,
// FFF8...) is not one of them: canonical_missing turns it into one.
inline bool wzmis(double x)
{
  return (std::bit_cast<std::uint64_t>(x) >> 48) == 0xFFFF;
}

// vzfdl: fill an array with one value, by default the missing value. (v vector, fdl fill doubles.)
inline void vzfdl(std::span<double> values, double value = missing)
{
  for (double& x : values) x = value;
}

// Place of a missing value in the order of the kinds: 0 is ._, 1 is ., 2 to 27 are .A to .Z.
inline int missing_rank(double x)
{
  const int rank = static_cast<int>((~std::bit_cast<std::uint64_t>(x) >> 40) & 0xFF);
  return rank <= 27 ? rank : 1;
}

// The missing value of a kind: 'A' to 'Z' in either case, '_', or '.' (also any other character) for the ordinary one.
constexpr double special_missing(char kind)
{
  std::uint64_t rank = 1;
  if (kind == '_') rank = 0;
  if (kind >= 'A' && kind <= 'Z') rank = static_cast<std::uint64_t>(kind - 'A') + 2;
  if (kind >= 'a' && kind <= 'z') rank = static_cast<std::uint64_t>(kind - 'a') + 2;
  return std::bit_cast<double>((std::uint64_t{0xFFFF} << 48) | ((0xFF - rank) << 40));
}

// The letter of a missing value: '.', '_', or 'A' to 'Z'.
inline char missing_letter(double x)
{
  const int rank = missing_rank(x);
  return rank == 0 ? '_' : rank == 1 ? '.' : static_cast<char>('A' + rank - 2);
}

// x itself, or the ordinary missing value for a NaN that is not a missing value. (Functions of libraries may give NaNs
// with all bits set; missing values have none of the lower 40.)
inline double canonical_missing(double x)
{
  const bool is_missing = (std::bit_cast<std::uint64_t>(x) & 0xFFFF00FFFFFFFFFF) == 0xFFFF000000000000;
  return std::isnan(x) && !is_missing ? missing : x;
}

// Order of two values as data: missing values first, by kind, then numbers. Returns -1, 0 or 1; -0 equals 0.
inline int compare_values(double a, double b)
{
  const bool a_nan = std::isnan(a), b_nan = std::isnan(b);
  if (!a_nan && !b_nan) return a < b ? -1 : a > b ? 1 : 0;
  const int rank_a = a_nan ? missing_rank(canonical_missing(a)) : 28;
  const int rank_b = b_nan ? missing_rank(canonical_missing(b)) : 28;
  return rank_a < rank_b ? -1 : rank_a > rank_b ? 1 : 0;
}

} // namespace torvale::host
