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

// Whether coordinate i has a share in a null direction of the judgement.
bool on_a_ridge(const Judgement& judged, int i)
{
  constexpr double least = 0.01; // of the direction's square
  const auto m = static_cast<std::size_t>(judged.curvature.size());
  const auto row = static_cast<std::size_t>(std::find(judged.curvature.free.begin(), judged.curvature.free.end(), i) -
                                            judged.curvature.free.begin());
  return row < m && std::any_of(judged.null.begin(), judged.null.end(), [&](int k) {
           const auto square = [&](std::size_t r) {
             return std::pow(judged.directions[r * m + static_cast<std::size_t>(k)], 2);
           };
           double all = 0.0;
           for (std::size_t r = 0; r < m; ++r) all += square(r);
           return square(row) > least * all;
         });
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

std::vector<int> lost_parameters(NX& n, const FitCoordinates& c, const Judgement& judged, const std::vector<double>& x,
                                 double f)
{
  std::vector<int> lost;
  Multiples at(n, x);
  const auto& separated = judged.separated;
  for (int i = 0; i < c.size(); ++i) {
    if (!c.plain(i)) continue;
    const bool ran_away = std::find(separated.begin(), separated.end(), i) != separated.end();
    if (ran_away || on_a_ridge(judged, i) || unknown(at, i, f)) lost.push_back(i);
  }
  return lost;
}

bool spread_start(NX& n, const std::vector<int>& lost, const std::vector<double>& start, std::vector<double>& x)
{
  constexpr int rounds = 2, farthest = 5; // powers of two
  Multiples at(n, start);
  double lowest = 0.0;
  if (lost.empty() || !at.value(lowest)) return false;
  std::vector<int> power(start.size(), 0);
  bool lower = false;
  for (int round = 0; round < rounds; ++round)
    for (const int k : lost) {
      if (at.fixed(k)) continue;
      for (int p = -farthest; p <= farthest; ++p) {
        double f = 0.0;
        if (!at.value(k, std::ldexp(1.0, p), f) || 2.0 * (lowest - f) < gain_allowed) continue;
        lowest = f;
        power[static_cast<std::size_t>(k)] = p;
        lower = true;
      }
      at.set(k, std::ldexp(1.0, power[static_cast<std::size_t>(k)]));
    }
  x = at.parameters();
  return lower;
}

} // namespace torvale::solve
