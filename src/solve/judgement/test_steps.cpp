#include "solve/judgement/test_steps.h"

#include <cmath>

namespace torvale::solve {

double evaluation_noise(double f)
{
  return 2e-14 * std::max(1.0, std::abs(f));
}

double TestSteps::length(int k) const
{
  double square = 0.0;
  for (int i = 0; i < size(); ++i) square += vector(i, k) * vector(i, k);
  return std::sqrt(square);
}

double TestSteps::along(int k, double a)
{
  std::fill(t_.begin(), t_.end(), 0.0);
  for (int i = 0; i < size(); ++i) t_[static_cast<std::size_t>(coordinate(i))] = a * vector(i, k);
  return change();
}

double TestSteps::of(int coordinate, double a)
{
  std::fill(t_.begin(), t_.end(), 0.0);
  t_[static_cast<std::size_t>(coordinate)] = a;
  return change();
}

double TestSteps::by(const std::vector<double>& way, double a)
{
  std::fill(t_.begin(), t_.end(), 0.0);
  for (int i = 0; i < size(); ++i) t_[static_cast<std::size_t>(coordinate(i))] = a * way[static_cast<std::size_t>(i)];
  return change();
}

double TestSteps::change()
{
  double f = 0.0;
  if (!surface_.value(t_.data(), f)) return fails;
  const double rise = 2.0 * (f - f_);
  if (rise < -out_.allowed && -rise > out_.lower_by) {
    out_.lower_by = -rise;
    out_.better = t_;
  }
  return rise;
}

bool TestSteps::rises(double change)
{
  if (past_zero()) return true;
  if (!(change >= gain_allowed)) return false;
  if (change < fails) out_.rises.push_back({t_, change});
  return true;
}

bool TestSteps::past_zero() const
{
  const FitCoordinates& c = surface_.coordinates();
  for (const int i : c.edge_diagonals()) {
    const double there = c.origin(i) + c.scale(i) * t_[static_cast<std::size_t>(i)];
    if (c.origin(i) * there < 0.0) return true;
  }
  return false;
}

void TestSteps::note_separated(const std::vector<double>& way)
{
  double square = 0.0;
  for (const double e : way) square += e * e;
  for (int i = 0; i < size(); ++i)
    if (std::abs(way[static_cast<std::size_t>(i)]) > 0.3 * std::sqrt(square)) note_separated(coordinate(i));
}

void TestSteps::note_separated(int coordinate)
{
  if (std::find(out_.separated.begin(), out_.separated.end(), coordinate) == out_.separated.end())
    out_.separated.push_back(coordinate);
}

} // namespace torvale::solve
