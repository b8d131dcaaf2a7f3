#include "solve/start/hessian_columns.h"

#include "integration/objective.h"
#include "solve/start/parameter_unit.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;
using optimizer::MINSTR;

namespace {

// Of 1 / sqrt(curvature). Gradients have an error of 1e-14 or so in that unit, so that rounding makes about 1e-9 of the
// quotient; the fourth derivative makes a sixth of the square.
constexpr double interval = 3e-5;
constexpr double longest = 4.0, shortest = 0.1; // of it, that need not be mended
constexpr int most_trials = 8;

} // namespace

HessianColumns::HessianColumns(NX& n, MINSTR& str)
    : n_(n), str_(str), crit_(str.crit), grad_(str.grad, str.grad + str.nvar), grad_point_(n.parmlast),
      point_(str.x, str.x + n.nparm)
{
  n_.dograd = true;
}

HessianColumns::~HessianColumns()
{
  integration::stand_by_prediction(n_, false);
  n_.parmlast = grad_point_;
  str_.crit = crit_;
  std::copy(grad_.begin(), grad_.end(), str_.grad);
}

bool HessianColumns::evaluate(const std::vector<double>& x)
{
  n_.parm = x;
  n_.parmlast.clear();
  ++str_.nfct;
  if (integration::tvllike(n_) > 2 || n_.host->interrupted()) str_.stop = 1;
  return str_.stop == 0 && !n_.failed &&
         std::all_of(n_.objgrad.begin(), n_.objgrad.end(), [](double v) { return std::isfinite(v); });
}

bool HessianColumns::start()
{
  n_.parm = point_;
  if (!integration::recall_evaluation(n_) && !evaluate(point_)) return false;
  gradient_ = n_.objgrad;
  if (integration::outer_products(n_, information_) != 0) information_.clear();
  integration::accept_modes(n_);
  kept_.emplace(n_, information_);
  integration::stand_by_prediction(n_, true);
  return true;
}

bool HessianColumns::inside(std::size_t j, double x) const
{
  const auto& p = n_.parmstr[j];
  return !(p.applyl && x < p.lowbound) && !(p.applyh && x > p.highbound);
}

bool HessianColumns::moved(std::size_t j, double by, std::vector<double>& gradient, double& made)
{
  std::vector<double> x(point_);
  x[j] += by;
  made = x[j] - point_[j];
  if (!inside(j, x[j]) || !evaluate(x)) return false;
  gradient = n_.objgrad;
  return true;
}

bool HessianColumns::difference(std::size_t j, double h, std::vector<double>& column)
{
  std::vector<double> other;
  double a = 0.0, b = 0.0;
  const bool up = moved(j, h, column, a), down = moved(j, -h, other, b);
  if (!up && !down) return false;
  if (up && down) {
    for (std::size_t i = 0; i < column.size(); ++i) column[i] = (column[i] - other[i]) / (a - b);
    return true;
  }
  if (!up) {
    column = other;
    a = b;
  }
  if (!moved(j, up ? 2.0 * h : -2.0 * h, other, b)) return false;
  // The parabola through the three points; its slope at the first.
  for (std::size_t i = 0; i < column.size(); ++i)
    column[i] = ((column[i] - gradient_[i]) * (b / a) - (other[i] - gradient_[i]) * (a / b)) / (b - a);
  return true;
}

bool HessianColumns::beside(std::size_t j, std::vector<double>& column)
{
  const double h = interval * short_unit_of(information_, j, point_[j]);
  double made = 0.0;
  if (!moved(j, h, column, made) && !moved(j, -h, column, made)) return false;
  for (std::size_t i = 0; i < column.size(); ++i) column[i] = (column[i] - gradient_[i]) / made;
  return made != 0.0;
}

bool HessianColumns::along(std::size_t j, std::vector<double>& column)
{
  double h = interval * unit_of(information_, j, point_[j]);
  for (int trial = 0; trial < most_trials && str_.stop == 0; ++trial) {
    if (!difference(j, h, column)) {
      h = std::min(0.1 * h, interval * (1.0 + std::abs(point_[j]))); // a unit that far outgrows the parameter is none
      continue;
    }
    const double ratio = std::sqrt(std::abs(column[j])) * h / interval;
    if (ratio <= longest && (ratio >= shortest || trial > 1)) return true;
    h *= std::clamp(1.0 / ratio, 1e-3, 1e3);
  }
  return false;
}

} // namespace torvale::solve
