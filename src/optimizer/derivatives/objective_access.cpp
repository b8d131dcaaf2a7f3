#include "optimizer/derivatives/objective_access.h"

#include "optimizer/derivatives/units.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace torvale::optimizer {
namespace {

bool all_finite(const double* a, long n)
{
  for (long i = 0; i < n; ++i)
    if (!std::isfinite(a[i])) return false;
  return true;
}

bool last_called_here(const MINSTR& str)
{
  return str.xval_current && std::memcmp(str.xval, str.x, sizeof(double) * static_cast<std::size_t>(str.nvar)) == 0;
}

// A diagonal delivered in the first n places becomes a packed matrix.
void expand_diagonal(double* hess, long n)
{
  for (long i = n - 1; i >= 0; --i) {
    const double d = hess[i];
    double* const row = hess + i * (i + 1) / 2;
    if (i > 0) std::fill_n(row, i, 0.0);
    row[i] = d;
  }
}

// Callbacks work in the caller's units.
int called(MINSTR* str, ProblemCallback callback)
{
  const UserUnits view(str);
  return callback(str);
}

int called_for_hessian(MINSTR* str, ProblemCallback hessian)
{
  const UserUnits view(str);
  const int rc = hessian(str);
  if (rc == 0 && str->hfrm == 2) expand_diagonal(str->hess, str->nvar);
  return rc;
}

} // namespace

int objective_value(MINSTR* str, ProblemCallback objective)
{
  const double limit = str->fail != 0.0 ? str->fail : largest;
  str->ifdr = 1;
  std::copy_n(str->x, str->nvar, str->xval);
  const int rc = called(str, objective != nullptr ? objective : str->usfct);
  str->xval_current = true;
  if (rc == 0 && str->crit == -std::numeric_limits<double>::infinity()) str->tbig = 1.0;
  const bool usable = rc == 0 && std::isfinite(str->crit) && str->crit < limit;
  return usable && (str->imax == 0 || str->crit > -limit) ? 0 : 1;
}

int objective_gradient(MINSTR* str, ProblemCallback gradient)
{
  if (gradient == nullptr && gradient_by_differences(*str))
    return str->fidi % 10 == 2 ? znlpfg2(str) != 0 : znlpfig(str) != 0;
  // The value that comes back is that of crit already: the same point gives the same value.
  if (!last_called_here(*str) && objective_value(str) != 0) return 1;
  str->ifdr = 2;
  const int rc = called(str, gradient != nullptr ? gradient : str->usgrd);
  return rc == 0 && all_finite(str->grad, str->nvar) ? 0 : 1;
}

int objective_hessian(MINSTR* str, ProblemCallback hessian)
{
  if (provide_hessian(str) != 0) return 1;
  const ProblemCallback analytic = hessian != nullptr ? hessian : str->ushes;
  if (analytic == nullptr) {
    if (str->fidi % 10 == 0) return (str->fihs == 2 ? znlpfh4(str) : znlpfh3(str)) != 0;
    return (str->fidi % 10 == 2 ? znlpfh2(str) : znlpfih(str)) != 0;
  }
  if (!last_called_here(*str) && objective_value(str) != 0) return 1;
  str->ifdr = 3;
  const int rc = called_for_hessian(str, analytic);
  if (rc != 0) return 1;
  return all_finite(str->hess, str->nvar * (str->nvar + 1) / 2) ? 0 : 1;
}

int provide_hessian(MINSTR* str)
{
  if (str->hess != nullptr) return 0;
  try {
    str->hessian_block.assign(static_cast<std::size_t>(std::max(str->nnva, 1L)), 0.0);
  } catch (const std::bad_alloc&) {
    return 1016;
  }
  str->hess = str->hessian_block.data();
  return 0;
}

} // namespace torvale::optimizer
