#include "host/data/csv_number.h"
#include <array>
#include <charconv>
#include <system_error>

namespace torvale::host {

namespace {

__extension__ using Wide = unsigned __int128;

constexpr int most_decimals = 27; // 5^27 has 63 bits

// 1 / 5^k as bits / 2^shift, rounded up to 64 bits.
struct Reciprocal {
  std::uint64_t bits = 0;
  int shift = 0;
};

constexpr std::array<Reciprocal, most_decimals + 1> make_reciprocals()
{
  std::array<Reciprocal, most_decimals + 1> out{};
  std::uint64_t power = 1;
  for (std::size_t k = 1; k < out.size(); ++k) {
    power *= 5;
    out[k].shift = 63 + static_cast<int>(std::bit_width(power));
    out[k].bits = static_cast<std::uint64_t>((Wide{1} << out[k].shift) / power) + 1;
  }
  return out;
}

constexpr auto reciprocals = make_reciprocals();

// digits / 10^decimals, correctly rounded, for digits from 1 on and decimals from 1 to most_decimals: the upper 64
// bits of digits times the reciprocal are off by less than 1, so that they tell on which side of the middle between two
// doubles the quotient lies, unless their lower part is that middle itself. False then.
bool rounded_quotient(std::uint64_t digits, std::int64_t decimals, double& value)
{
  const Reciprocal& r = reciprocals[static_cast<std::size_t>(decimals)];
  const int zeros = std::countl_zero(digits);
  const auto high = static_cast<std::uint64_t>((Wide{digits << zeros} * r.bits) >> 64);
  const int spare = static_cast<int>(std::bit_width(high)) - 53; // 10 or 11
  const std::uint64_t middle = std::uint64_t{1} << (spare - 1);
  const std::uint64_t rest = high & (2 * middle - 1);
  if (rest == middle) return false;
  const std::uint64_t mantissa = (high >> spare) + (rest > middle ? 1 : 0);
  const int exponent = spare + 64 - zeros - r.shift - static_cast<int>(decimals);
  value = static_cast<double>(mantissa) * std::bit_cast<double>(static_cast<std::uint64_t>(1023 + exponent) << 52);
  return true;
}

// Passes over digits and puts them behind those of `number`, which is right up to 19 of them.
const char* take_digits(const char* p, std::uint64_t& number)
{
  static constexpr std::uint64_t powers[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};
  for (;;) {
    const std::uint64_t characters = digits::load(p);
    const std::uint64_t others = digits::others(characters);
    const int count = others == 0 ? 8 : std::countr_zero(others) / 8;
    if (count > 0) number = number * powers[count] + digits::value(characters << (64 - 8 * count));
    p += count;
    if (count < 8) return p;
  }
}

} // namespace

PlainNumber long_plain_number(const char* const begin, char separator)
{
  PlainNumber n;
  const bool minus = *begin == '-';
  const char* const first = begin + (minus ? 1 : 0);
  std::uint64_t number = 0;
  const char* p = take_digits(first, number);
  const std::ptrdiff_t whole = p - first;
  std::ptrdiff_t decimals = 0;
  if (*p == '.') {
    n.point = true;
    const char* const point = p;
    p = take_digits(point + 1, number);
    decimals = p - point - 1;
  }
  if (whole + decimals == 0 || (*p != separator && *p != '\n' && *p != '\r')) return n;
  if (!n.point && whole > 15) return n; // long whole numbers need a closer look
  std::ptrdiff_t figures = whole + decimals;
  if (figures > 19)
    for (const char* q = first; *q == '0' || *q == '.'; ++q) figures -= *q == '0' ? 1 : 0;
  bool done = true;
  if (figures <= 15 && decimals <= 22)
    n.value = static_cast<double>(number) / powers_of_ten[decimals];
  else
    done = figures <= 19 && number > 0 && decimals > 0 && decimals <= most_decimals &&
           rounded_quotient(number, decimals, n.value);
  if (done && minus) n.value = -n.value;
  if (!done && std::from_chars(begin, p, n.value).ec != std::errc()) return n;
  n.leading_zero = !n.point && whole > 1 && *first == '0';
  n.end = p;
  return n;
}

} // namespace torvale::host
