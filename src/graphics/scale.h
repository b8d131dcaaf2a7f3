#pragma once
// Scales and ticks: from data to places on paper, and the round numbers in between.

#include <span>
#include <string>
#include <vector>

namespace torvale::graphics {

// A stretch of the line; low <= high.
struct Interval {
  double low = 0.0;
  double high = 1.0;
  double length() const { return high - low; }
  bool holds(double x) const { return x >= low && x <= high; } // false for a missing value
};

// The smallest interval that holds every finite value; false when there is none.
bool range_of(std::span<const double> values, Interval& range);
bool all_whole(std::span<const double> values); // every finite value is a whole number
// An interval that holds both.
Interval joined(const Interval& a, const Interval& b);
// The interval made longer by `share` of its length on both sides; one of length 0 gets a length.
Interval widened(const Interval& range, double share);

// Ticks of an axis: multiples of a step of 1, 2 or 5 times a power of ten that lie in the range, ascending.
struct Ticks {
  std::vector<double> at;
  std::vector<std::string> label; // all with the decimals that the step needs
};
// About `count` of them: between half and twice as many. At least two when the range has a length. whole: only whole
// numbers.
Ticks round_ticks(const Interval& range, int count, bool whole = false);
// Ticks of an axis whose values are powers of ten: whole exponents in the range, thinned to about `count`.
Ticks power_ticks(const Interval& exponents, int count);

// Scale: data linearly onto places; places may run downwards (pixels.low > pixels.high).
class Scale {
public:
  Scale() = default;
  Scale(const Interval& data, double place_of_low, double place_of_high)
      : data_(data), from_(place_of_low), to_(place_of_high)
  {
  }
  double place(double x) const { return from_ + (x - data_.low) / data_.length() * (to_ - from_); }
  double value(double place) const { return data_.low + (place - from_) / (to_ - from_) * data_.length(); }
  const Interval& data() const { return data_; }
  double from() const { return from_; }
  double to() const { return to_; }

private:
  Interval data_;
  double from_ = 0.0, to_ = 1.0;
};

} // namespace torvale::graphics
