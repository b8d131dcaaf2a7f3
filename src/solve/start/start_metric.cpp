#include "solve/start/start_metric.h"

#include "integration/objective.h"

#include <algorithm>

namespace torvale::solve {

using model::NX;

namespace {

// That a sum of outer products needs to stand for a Hessian: where there is nothing else, and in place of a learnt one.
constexpr double gradients_per_parameter = 5.0, gradients_to_follow = 10.0;

// Subjects, or observations without random effects.
double independent_parts(const NX& n)
{
  return n.nreff() > 0 ? n.outer().nrepsub : static_cast<double>(n.store->nobsu);
}

} // namespace

int start_metric(optimizer::MINSTR* str)
{
  NX& n = *static_cast<NX*>(str->comstr);
  if (!n.metric.empty() && std::equal(n.metric_point.begin(), n.metric_point.end(), str->x)) {
    std::copy(n.metric.begin(), n.metric.end(), str->hess);
    return 0;
  }
  std::vector<double> products;
  if (independent_parts(n) < gradients_per_parameter * n.nparm || !std::equal(n.parm.begin(), n.parm.end(), str->x) ||
      integration::outer_products(n, products) != 0)
    return 1;
  std::copy(products.begin(), products.end(), str->hess);
  return 0;
}

bool metric_follows(const NX& n)
{
  return n.nreff() > 0 && independent_parts(n) >= gradients_to_follow * n.nparm;
}

} // namespace torvale::solve
