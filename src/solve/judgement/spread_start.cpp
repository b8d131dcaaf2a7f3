#include "solve/judgement/spread_start.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;

namespace {

// The objective with one parameter after another multiplied; bounds are kept.
class Multiples {
public:
  Multiples(NX& n, const std::vector<double>& x) : c_(n, x.data(), false), surface_(n, c_), t_(x.size(), 0.0) {}

  bool fixed(int i) const { return c_.fixed(i) || c_.origin(i) == 0.0; }

  bool value(double& f) { return surface_.value(t_.data(), f); }

  // False where the model cannot be evaluated; t keeps the factor.
  bool value(int i, double factor, double& f)
  {
    set(i, factor);
    return value(f);
  }

  void set(int i, double factor) { t_[static_cast<std::size_t>(i)] = (factor - 1.0) * c_.origin(i); }

  std::vector<double> parameters() const
  {
    std::vector<double> x(t_.size());
    c_.parameters(t_.data(), x.data());
    return x;
  }

private:
  FitCoordinates c_;
  FitSurface surface_;
  std::vector<double> t_;
};

// Whether direction k of the judgement is largely one of plain coordinates.
bool moves_plain(const FitCoordinates& c, const Judgement& judged, int k)
{
  const auto m = static_cast<std::size_t>(judged.curvature.size());
  double plain = 0.0, all = 0.0;
  for (std::size_t i = 0; i < m; ++i) {
    const double element = judged.directions[i * m + static_cast<std::size_t>(k)];
    all += element * element;
    if (c.plain(judged.curvature.free[i])) plain += element * element;
  }
  return plain > 0.1 * all;
}

// Whether neither half nor twice parameter i changes -2 log L.
bool unknown(Multiples& at, int i, double f)
{
  bool same = !at.fixed(i);
  for (const double factor : {0.5, 2.0}) {
    double there = 0.0;
    same = same && at.value(i, factor, there) && 2.0 * std::abs(there - f) < gain_allowed;
  }
  at.set(i, 1.0);
  return same;
}

} // namespace

bool lost_parameter(NX& n, const FitCoordinates& c, const Judgement& judged, const std::vector<double>& x, double f)
{
  if (std::any_of(judged.separated.begin(), judged.separated.end(), [&](int i) { return c.plain(i); })) return true;
  for (const int k : judged.null)
    if (moves_plain(c, judged, k)) return true;
  Multiples at(n, x);
  for (int i = 0; i < c.size(); ++i)
    if (c.plain(i) && unknown(at, i, f)) return true;
  return false;
}

bool spread_start(NX& n, const std::vector<double>& start, std::vector<double>& x)
{
  constexpr int rounds = 2, farthest = 5; // powers of two
  Multiples at(n, start);
  double lowest = 0.0;
  if (!at.value(lowest)) return false;
  std::vector<int> power(start.size(), 0);
  bool lower = false;
  for (int round = 0; round < rounds; ++round)
    for (std::size_t i = 0; i < start.size(); ++i) {
      const int k = static_cast<int>(i);
      if (at.fixed(k)) continue;
      for (int p = -farthest; p <= farthest; ++p) {
        double f = 0.0;
        if (!at.value(k, std::ldexp(1.0, p), f) || 2.0 * (lowest - f) < gain_allowed) continue;
        lowest = f;
        power[i] = p;
        lower = true;
      }
      at.set(k, std::ldexp(1.0, power[i]));
    }
  x = at.parameters();
  return lower;
}

} // namespace torvale::solve
