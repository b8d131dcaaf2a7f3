#include "solve/start/start_metric.h"

#include "integration/objective.h"
#include "matrix/packed.h"
#include "solve/start/hessian_columns.h"
#include "solve/start/parameter_unit.h"

#include <algorithm>

namespace torvale::solve {

using model::NX;
using optimizer::MINSTR;

namespace {

// That a sum of outer products needs to stand for a Hessian: where there is nothing else, and in place of a learnt one.
constexpr double gradients_per_parameter = 5.0, gradients_to_follow = 10.0;

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
  for (int j = 0; j < n.nparm; ++j) {
    const double x = n.parm[static_cast<std::size_t>(j)];
    if (tells_of(products, static_cast<std::size_t>(j), x)) continue;
    for (int k = 0; k < n.nparm; ++k) products[static_cast<std::size_t>(matrix::packed_index(j, k))] = 0.0;
    const double unit = unit_of(products, static_cast<std::size_t>(j), x);
    products[static_cast<std::size_t>(matrix::packed_diagonal(j))] = 1.0 / (unit * unit);
  }
  std::copy(products.begin(), products.end(), str->hess);
  return 0;
}

bool metric_follows(const NX& n)
{
  return n.nreff() > 0 && independent_parts(n) >= gradients_to_follow * n.nparm;
}

} // namespace torvale::solve
