#include "solve/start/start_metric.h"
#include "solve/start/hessian_columns.h"

#include "integration/objective.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;
using optimizer::MINSTR;

namespace {

// That a sum of outer products needs to stand for a Hessian: where there is nothing else, and in place of a learnt one.
constexpr double gradients_per_parameter = 5.0, gradients_to_follow = 10.0;

std::size_t packed(std::size_t i, std::size_t j)
{
  return std::max(i, j) * (std::max(i, j) + 1) / 2 + std::min(i, j);
}

// Whether the products tell something of parameter j. Rounding leaves 1e-32 of what there is to know; units reach less
// far.
bool known(const std::vector<double>& products, std::size_t j, double x)
{
  constexpr double rounding = 1e-24;
  const double size = x != 0.0 ? x * x : 1.0; // which the parameter's unit leaves out of it
  return !products.empty() && products[packed(j, j)] * size > rounding && std::isfinite(products[packed(j, j)]);
}

// Subjects, or observations without random effects.
double independent_parts(const NX& n)
{
  return n.nreff() > 0 ? n.outer().nrepsub : static_cast<double>(n.store->nobsu);
}

// A metric need not be exact: one side of each parameter does, and where modes are predicted one pass over the data.
int by_differences(NX& n, MINSTR& str)
{
  if (!n.dograd || n.fdh != 0) return 1; // FDHESSIAN= asks for differences of the optimizer's
  const auto np = static_cast<std::size_t>(n.nparm);
  std::vector<double> h(np * np), column;
  HessianColumns columns(n, str);
  if (!columns.start()) return 1;
  for (std::size_t j = 0; j < np; ++j) {
    if (!columns.beside(j, column)) return 1;
    std::copy(column.begin(), column.end(), h.begin() + static_cast<std::ptrdiff_t>(j * np));
  }
  double* packed = str.hess;
  for (std::size_t i = 0; i < np; ++i)
    for (std::size_t j = 0; j <= i; ++j) *packed++ = 0.5 * (h[i * np + j] + h[j * np + i]);
  return 0;
}

} // namespace

int start_metric(MINSTR* str)
{
  NX& n = *static_cast<NX*>(str->comstr);
  if (!n.metric.empty() && std::equal(n.metric_point.begin(), n.metric_point.end(), str->x)) {
    std::copy(n.metric.begin(), n.metric.end(), str->hess);
    return 0;
  }
  if (!std::equal(n.parm.begin(), n.parm.end(), str->x)) return 1;
  if (independent_parts(n) < gradients_per_parameter * n.nparm) return by_differences(n, *str);
  std::vector<double> products;
  if (integration::outer_products(n, products) != 0) return 1;
  for (std::size_t j = 0; j < n.parm.size(); ++j)
    if (!known(products, j, n.parm[j])) {
      const double unit = unit_of(products, j, n.parm[j]);
      for (std::size_t k = 0; k < n.parm.size(); ++k) products[packed(j, k)] = j == k ? 1.0 / (unit * unit) : 0.0;
    }
  std::copy(products.begin(), products.end(), str->hess);
  return 0;
}

double unit_of(const std::vector<double>& products, std::size_t j, double x)
{
  return known(products, j, x) ? 1.0 / std::sqrt(products[packed(j, j)]) : 1.0 + std::abs(x);
}

bool metric_follows(const NX& n)
{
  return n.nreff() > 0 && independent_parts(n) >= gradients_to_follow * n.nparm;
}

} // namespace torvale::solve
