#pragma once
#include <bit>
#include <cstdint>
#include <cstring>

namespace torvale::host {

// A field that is a number of digits, perhaps with a sign before and a decimal point among them, and nothing else
// before `separator` or a line end.
struct PlainNumber {
  const char* end = nullptr; // behind it; null: the field is written otherwise
  double value = 0.0;        // correctly rounded
  bool leading_zero = false; // a whole number as 007
  bool point = false;
};

// Digits eight at a time: the characters of one load, in the order of their addresses from the lowest byte on.
namespace digits {

static_assert(std::endian::native == std::endian::little);

inline std::uint64_t load(const char* p)
{
  std::uint64_t characters;
  std::memcpy(&characters, p, 8);
  return characters;
}

// The highest bit of each byte that is no digit. What stands behind a byte from 80 on is not told apart any more.
inline std::uint64_t others(std::uint64_t characters)
{
  const std::uint64_t d = characters ^ 0x3030303030303030U;
  return ((d + 0x7676767676767676U) | d) & 0x8080808080808080U;
}

// The value of eight digits, the highest one in the lowest byte; bytes of 0 count as the digit 0.
inline std::uint64_t value(std::uint64_t characters)
{
  std::uint64_t d = characters & 0x0F0F0F0F0F0F0F0FU;
  d = d * 10 + (d >> 8);
  constexpr std::uint64_t pairs = 0x000000FF000000FFU;
  return ((d & pairs) * 0x000F424000000064U + ((d >> 16) & pairs) * 0x0000271000000001U) >> 32;
}

} // namespace digits

inline constexpr double powers_of_ten[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                           1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The same for fields of any length.
PlainNumber long_plain_number(const char* p, char separator);

// Reads the field at p. Behind the text must stand a line end and eight bytes that may be read. Most fields lie in one
// load: their digits and the power of ten are doubles then, and one division rounds correctly.
inline PlainNumber plain_number(const char* p, char separator)
{
  PlainNumber n;
  std::uint64_t characters = digits::load(p);
  const unsigned minus = (characters & 0xFF) == '-' ? 1 : 0;
  characters >>= 8 * minus;
  const std::uint64_t others = digits::others(characters);
  const char* const first = p + minus;
  const auto ends = [&](char c) { return c == separator || c == '\n' || c == '\r'; };
  if (others == 0) return long_plain_number(p, separator);
  const int whole = std::countr_zero(others) / 8;
  std::uint64_t number = 0;
  if (ends(first[whole])) {
    if (whole == 0) return n;
    number = characters << (64 - 8 * whole);
    n.value = static_cast<double>(digits::value(number));
    n.leading_zero = whole > 1 && *first == '0';
    n.end = first + whole;
  } else {
    const std::uint64_t behind = others & (others - 1);
    if (first[whole] != '.' || behind == 0) return long_plain_number(p, separator);
    const int length = std::countr_zero(behind) / 8;
    if (!ends(first[length]) || length == 1) return long_plain_number(p, separator);
    const std::uint64_t before = (std::uint64_t{1} << (8 * whole)) - 1;
    number = (characters & before) | ((characters >> 8) & ~before);
    number <<= 64 - 8 * (length - 1);
    n.value = static_cast<double>(digits::value(number)) / powers_of_ten[length - 1 - whole];
    n.point = true;
    n.end = first + length;
  }
  if (minus != 0) n.value = -n.value;
  return n;
}

} // namespace torvale::host
