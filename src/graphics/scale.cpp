#include "graphics/scale.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>

namespace torvale::graphics {

namespace {

// The step of 1, 2 or 5 times a power of ten whose number of ticks in a range of this length comes nearest to `count`.
double round_step(double length, int count)
{
  const double rough = length / std::max(1, count);
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  static constexpr std::array steps = {1.0, 2.0, 5.0, 10.0};
  double best = power;
  for (const double s : steps)
    if (std::abs(std::log(s * power / rough)) < std::abs(std::log(best / rough))) best = s * power;
  return best;
}

// A tick's text: as many decimals as the step has; powers of ten where plain digits would be long.
std::string tick_label(double x, double step)
{
  if (x == 0.0) return "0";
  const double largest = std::abs(x);
  if (largest >= 1e6 || largest < 1e-4) {
    std::string text = fmt::format(
        "{:.{}e}", x,
        std::clamp(static_cast<int>(std::floor(std::log10(largest)) - std::floor(std::log10(step))), 0, 15));
    const auto e = text.find('e');
    std::string mantissa = text.substr(0, e);
    if (mantissa.find('.') != std::string::npos) {
      mantissa.erase(mantissa.find_last_not_of('0') + 1);
      if (mantissa.back() == '.') mantissa.pop_back();
    }
    return mantissa + "e" + std::to_string(std::stoi(text.substr(e + 1)));
  }
  const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step) + 1e-9)));
  return fmt::format("{:.{}f}", x, decimals);
}

} // namespace

bool range_of(std::span<const double> values, Interval& range)
{
  bool any = false;
  for (const double x : values) {
    if (!std::isfinite(x)) continue;
    range = any ? Interval{std::min(range.low, x), std::max(range.high, x)} : Interval{x, x};
    any = true;
  }
  return any;
}

bool all_whole(std::span<const double> values)
{
  return std::all_of(values.begin(), values.end(), [](double x) { return !std::isfinite(x) || x == std::floor(x); });
}

Interval joined(const Interval& a, const Interval& b)
{
  return {std::min(a.low, b.low), std::max(a.high, b.high)};
}

Interval widened(const Interval& range, double share)
{
  // A single value stands in the middle of its own size. Halves first: the ends may be the largest numbers.
  const double middle = range.low / 2 + range.high / 2;
  const double least = std::max(std::abs(middle) * 1e-9, 1e-300);
  if (!(range.length() > least)) {
    const double half = middle == 0.0 ? 1.0 : std::abs(middle) / 2;
    return {middle - half, middle + half};
  }
  const double more = share * range.length();
  return {range.low - more, range.high + more};
}

Ticks round_ticks(const Interval& range, int count, bool whole)
{
  Ticks ticks;
  if (!(range.length() > 0) || !std::isfinite(range.length())) return ticks;
  double step = round_step(range.length(), count);
  const auto first = [&] { return std::ceil(range.low / step - 1e-9); };
  const auto last = [&] { return std::floor(range.high / step + 1e-9); };
  while (last() - first() < 1) step = round_step(step, 2);
  if (whole && step < 1 && range.length() >= 1) step = 1;
  for (double k = first(); k <= last(); ++k) {
    const double x = k * step;
    ticks.at.push_back(x);
    ticks.label.push_back(tick_label(x, step));
  }
  return ticks;
}

Ticks power_ticks(const Interval& exponents, int count)
{
  Ticks ticks;
  const double low = std::ceil(exponents.low - 1e-9), high = std::floor(exponents.high + 1e-9);
  if (!(high >= low)) return ticks;
  const double step = std::max(1.0, std::ceil((high - low) / std::max(1, count)));
  for (double k = low; k <= high; k += step) {
    ticks.at.push_back(k);
    ticks.label.push_back(k >= -3 && k <= 4
                              ? fmt::format("{:.{}f}", std::pow(10.0, k), k < 0 ? -static_cast<int>(k) : 0)
                              : "1e" + std::to_string(static_cast<int>(k)));
  }
  return ticks;
}

} // namespace torvale::graphics
