#include "optimizer/covariance/covariance.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/messages/messages.h"
#include "optimizer/optimizer.h"

#include "matrix/packed.h"
#include "matrix/packed_kernels.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace torvale::optimizer {
namespace {

using matrix::packed_diagonal;
using matrix::packed_index;
using matrix::packed_row;
using matrix::packed_size;

constexpr int status_no_hessian = -1;
constexpr int status_no_crossproduct = -2;
constexpr int status_inverse_failed = -3;
constexpr int status_singular = 1;
constexpr int status_generalized = 2;

void reserve(StoredMatrix& matrix, long order)
{
  matrix.present = true;
  matrix.order = order;
  matrix.elements.assign(static_cast<std::size_t>(packed_size(order)), 0.0);
  std::fill_n(matrix.det, 5, 0.0);
}

double divisor(const COVSTR& cov)
{
  const double count = std::max(cov.nobs, 1.0);
  return std::max(1.0, std::strncmp(cov.vardef, "DF", 2) == 0 ? count - cov.df : count);
}

// The Hessian at x into the request. The arrays of the technique are not touched: a conjugate gradient has none.
bool store_hessian(MINSTR* str, COVSTR& cov)
{
  reserve(cov.hessian, str->nvar);
  double* const own = std::exchange(str->hess, cov.hessian.elements.data());
  const int form = std::exchange(str->hfrm, cov.hfrm);
  const bool failed = objective_hessian(str, cov.ushes) != 0;
  str->hess = own;
  str->hfrm = form;
  cov.hessian.present = !failed;
  // The caller's own results at the point (modes, scores) must be those of this point again.
  return !failed && objective_value(str, cov.usfct) == 0;
}

// Z C Z' for a packed C of order m.
void expand(const MINSTR& str, const double* projected, double* whole, double* work)
{
  const long n = str.nvar;
  const long m = free_dimension(str);
  std::fill_n(whole, packed_size(n), 0.0);
  if (str.opro == 0) {
    for (long i = 0; i < m; ++i)
      for (long j = 0; j <= i; ++j) whole[packed_index(str.ifxr[i], str.ifxr[j])] = projected[packed_row(i) + j];
    return;
  }
  for (long j = 0; j < m; ++j) {
    // Column j of Z C, then its product with column j of Z.
    std::fill_n(work, n, 0.0);
    for (long k = 0; k < m; ++k) matrix::zvxay11(work, str.qlcn + (n - m + k) * n, n, projected[packed_index(j, k)]);
    const double* const z = str.qlcn + (n - m + j) * n;
    for (long a = 0; a < n; ++a) matrix::zvxay11(whole + packed_row(a), z, a + 1, work[a]);
  }
}

// C := inverse of the matrix of order m on the free space, generalized when singular.
int invert(MINSTR* str, COVSTR& cov, long m, std::vector<double>& c, double* det)
{
  std::vector<double> original(c);
  std::vector<double> scratch(static_cast<std::size_t>(m * m + 3 * m + 1));
  std::vector<long> singular(static_cast<std::size_t>(m + 1));
  double* const diagonal = scratch.data();
  const int zeros =
      zcovinv(1, 1, m, cov.asin, cov.msin, cov.vsin, c.data(), det, diagonal, diagonal + m, singular.data());
  if (zeros == 0) return 0;
  std::vector<double> spent(original);
  zcovlid(str, cov.asin, cov.msin, cov.vsin, m, spent.data(), scratch.data(), singular.data());
  if (m > cov.g4li) {
    send_message(str, named("singular_hessian_dependencies"), severity_warning);
    return status_singular;
  }
  double* const eigenvalues = scratch.data() + m * m + 2 * m;
  const double cut = is_missing(cov.csin) ? std::max(cov.msin, static_cast<double>(m) * machine_epsilon) : cov.csin;
  double spectral[5];
  if (zcovgiv(m, cov.asin, cut, original.data(), spectral, eigenvalues, scratch.data()) < 0)
    return status_inverse_failed;
  if (cov.eigenvalues != nullptr) cov.eigenvalues(str, eigenvalues, m);
  send_message(str, named("singular_hessian_inverse"), severity_warning);
  c = std::move(original);
  return status_generalized;
}

void standard_errors(MINSTR* str, const COVSTR& cov)
{
  bool negative = false;
  for (long i = 0; i < str->nvar; ++i) {
    const double variance = cov.covariance.elements[static_cast<std::size_t>(packed_diagonal(i))];
    negative = negative || variance < 0.0;
    str->ster[i] = variance >= 0.0 ? std::sqrt(variance) : missing;
  }
  if (negative) send_message(str, named("negative_variances"), severity_warning);
}

} // namespace

void covariance_defaults(COVSTR* cov)
{
  const auto fill = [](double& criterion, double value) {
    if (is_missing(criterion) || criterion == 0.0) criterion = value;
  };
  fill(cov->asin, root_smallest);
  fill(cov->msin, 1e-12);
  fill(cov->vsin, 1e-8);
  fill(cov->sigs, missing);
  fill(cov->csin, missing);
  fill(cov->cfac, missing);
  if (cov->g4li <= 0) cov->g4li = 60;
}

int znlpcov(MINSTR* str)
{
  COVSTR& cov = *str->covstr;
  const long n = str->nvar;
  const long m = free_dimension(*str);
  const int form = cov.icov >= 1 && cov.icov <= 6 ? cov.icov : 2;
  cov.df = static_cast<double>(m);
  cov.vardiv = divisor(cov);
  const double count = std::max(cov.nobs, 1.0);
  cov.sigm = !is_missing(cov.cfac) ? cov.cfac : form == 3 || form == 4 ? 1.0 / cov.vardiv : count / cov.vardiv;
  if (is_missing(cov.cfac) && !is_missing(cov.sigs))
    send_message(str, named("sigsq_ignored"), severity_note, {cov.sigs});

  const bool sandwich = form == 1 || form == 6;
  const bool from_scores = form == 5;
  if ((sandwich || from_scores) && !cov.crossproduct.present) {
    send_message(str, named("covariance_matrix_not_available"), severity_warning);
    return cov.status = status_no_crossproduct;
  }
  if (!from_scores && !cov.hessian.present) {
    send_message(str, named("covariance_matrix_not_available"), severity_warning);
    return cov.status = status_no_hessian;
  }

  // The matrix to invert, on the free space.
  const StoredMatrix& source = from_scores ? cov.crossproduct : cov.hessian;
  std::vector<double> c(static_cast<std::size_t>(packed_size(m)));
  std::vector<double> work(static_cast<std::size_t>(m * m + n + 1));
  znlpsym(*str, source.elements.data(), c.data(), work.data());
  if (m < n && !from_scores) {
    reserve(cov.projected, m);
    cov.projected.elements = c;
  }
  cov.status = invert(str, cov, m, c, str->det);
  if (cov.status == status_inverse_failed) return cov.status;
  if (sandwich) {
    std::vector<double> scores(c.size());
    znlpsym(*str, cov.crossproduct.elements.data(), scores.data(), work.data());
    matrix::zmxsss(c.data(), scores.data(), static_cast<int>(m), work.data());
    c = std::move(scores);
  }
  for (double& element : c) element *= cov.sigm;

  reserve(cov.covariance, n);
  expand(*str, c.data(), cov.covariance.elements.data(), work.data());
  if (cov.hfrm == 2) {
    for (long i = 0; i < n; ++i) std::fill_n(cov.covariance.elements.begin() + packed_row(i), i, 0.0);
  }
  std::copy_n(str->det, 5, cov.covariance.det);
  std::copy_n(str->det, 5, (m < n ? cov.projected : cov.hessian).det);
  str->npev = static_cast<long>(str->det[2]);
  str->nnev = static_cast<long>(str->det[3]);
  str->nzev = static_cast<long>(str->det[4]);
  if (str->nzev > 0)
    send_message(str,
                 str->nzev == 1   ? named("one_singular_direction")
                 : str->nzev == 2 ? named("two_singular_directions")
                                  : named("singular_directions"),
                 severity_warning, {str->det[4]});
  standard_errors(str, cov);
  return cov.status;
}

int znlpcma(MINSTR* str, int job)
{
  COVSTR& cov = *str->covstr;
  if (job == 0) {
    for (StoredMatrix* matrix : {&cov.hessian, &cov.projected, &cov.crossproduct, &cov.covariance})
      matrix->present = false;
    std::fill_n(str->ster, str->nvar, missing);
    cov.status = 0;
    return 0;
  }
  if (is_missing(str->crit) || (cov.ches == 0 && cov.ccov == 0 && cov.icov == 0)) return 0;
  if (!gradient_by_differences(*str) && is_missing(str->nvar > 0 ? str->grad[0] : 0.0))
    objective_gradient(str, cov.usgrd);
  if (!store_hessian(str, cov)) cov.status = status_no_hessian;
  if (cov.uscpj != nullptr) {
    reserve(cov.crossproduct, str->nvar);
    cov.crossproduct.present = cov.uscpj(str) == 0;
  }
  return cov.ccov != 0 || cov.icov != 0 ? znlpcov(str) : cov.status;
}

} // namespace torvale::optimizer
