#include "matrix/packed_kernels.h"

#include <algorithm>
#include <cmath>

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

// Products walk the rows of a packed operand, which are contiguous: a row of the lower triangle
// serves once as a row and once, by symmetry, as a column.
namespace torvale::matrix {

namespace {

// First column of the stored span of row i: 0 for a full triangle (len null).
inline long span_start(const int* len, long i)
{
  return len == nullptr ? 0 : i + 1 - len[i];
}

// s := L S L' for a full or skyline L. work first holds dense S, then W = L S built from the last
// row upwards, since row i of W needs the rows of S up to i only; then s(i, j) = W(i, :) L(j, :)'.
void lower_congruence(const double* l, double* s, long n, double* work, const int* len)
{
  zmmovsr(s, work, static_cast<int>(n));
  for (long i = n - 1; i >= 0; --i) {
    const double* const li = l + packed_row(i);
    double* const wi = work + i * n;
    zvscl11(wi, wi, n, li[i]);
    for (long k = span_start(len, i); k < i; ++k) zvxay11(wi, work + k * n, n, li[k]);
  }
  for (long i = 0; i < n; ++i) {
    double* const si = s + packed_row(i);
    for (long j = 0; j <= i; ++j) {
      const long first = span_start(len, j);
      si[j] = zvdot11(work + i * n + first, l + packed_row(j) + first, j + 1 - first);
    }
  }
}

// s := L' S L likewise: W = L' S from the first row downwards, then row i of the result gathers
// W(i, k) times row k of L.
void upper_congruence(const double* l, double* s, long n, double* work, const int* len)
{
  zmmovsr(s, work, static_cast<int>(n));
  for (long i = 0; i < n; ++i) {
    double* const wi = work + i * n;
    zvscl11(wi, wi, n, l[packed_diagonal(i)]);
    for (long k = i + 1; k < n; ++k)
      if (i >= span_start(len, k)) zvxay11(wi, work + k * n, n, l[packed_row(k) + i]);
  }
  for (long i = 0; i < n; ++i) {
    double* const si = s + packed_row(i);
    std::fill_n(si, i + 1, 0.0);
    for (long k = 0; k < n; ++k) {
      const long first = span_start(len, k);
      zvxay11(si + first, l + packed_row(k) + first, std::min(i, k) + 1 - first, work[i * n + k]);
    }
  }
}

} // namespace

void zmxun(int ij, int* toI, int* toJ)
{
  *toI = 0;
  *toJ = 0;
  if (ij < 1) return;
  long i = static_cast<long>((std::sqrt(8.0 * ij + 1.0) - 1.0) / 2.0);
  while (packed_row(i) > ij) --i;
  while (packed_row(i + 1) <= ij) ++i;
  *toI = static_cast<int>(i);
  *toJ = static_cast<int>(ij - packed_row(i));
}

void zmmovsr(const double* sym, double* rec, int n)
{
  const long order = n;
  for (long i = 0; i < order; ++i) {
    const double* const si = sym + packed_row(i);
    for (long j = 0; j < i; ++j) rec[j * order + i] = rec[i * order + j] = si[j];
    rec[i * order + i] = si[i];
  }
}

void zmmovrs(const double* rec, double* sym, int nlo, int nhi, int n)
{
  for (long i = nlo; i <= nhi; ++i) std::copy_n(rec + i * n, i + 1, sym + packed_row(i));
}

double zmxtr(const double* a, int n)
{
  double sum = 0.0;
  for (long i = 0; i < n; ++i) sum += a[packed_diagonal(i)];
  return sum;
}

double zmxins(const double* a, const double* b, int n)
{
  double diagonal = 0.0;
  double below = 0.0;
  for (long i = 0; i < n; ++i) {
    const long row = packed_row(i);
    below += zvdot11(a + row, b + row, i);
    diagonal += a[row + i] * b[row + i];
  }
  return diagonal + 2.0 * below;
}

void zmxlsu(const double* l, double* s, int n, double* work)
{
  lower_congruence(l, s, n, work, nullptr);
}

void zmxusl(const double* l, double* s, int n, double* work)
{
  upper_congruence(l, s, n, work, nullptr);
}

void zmxls1(const double* l, double* s, int n, double* work, const int* len)
{
  lower_congruence(l, s, n, work, len);
}

void zmxus1(const double* l, double* s, int n, double* work, const int* len)
{
  upper_congruence(l, s, n, work, len);
}

void zmxsss(const double* s1, double* s2, int n, double* work)
{
  zmxss(s1, s2, work, n);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j <= i; ++j) s2[packed_row(i) + j] = zvdots1(s1 + packed_row(j), j, work + i * n, n);
}

void zmxllt(double* l, int n)
{
  // (i, j) needs elements 0..j of rows i and j of L: from the last column back none is lost.
  for (long i = n - 1; i >= 0; --i) {
    double* const li = l + packed_row(i);
    for (long j = i; j >= 0; --j) li[j] = zvdot11(li, l + packed_row(j), j + 1);
  }
}

void zmxltl(double* l, int n)
{
  // Row i of the product needs rows i and later of L.
  for (long i = 0; i < n; ++i) {
    double* const li = l + packed_row(i);
    zvscl11(li, li, i + 1, li[i]);
    for (long k = i + 1; k < n; ++k) zvxay11(li, l + packed_row(k), i + 1, l[packed_row(k) + i]);
  }
}

void zmxlr(const double* l, const double* r, double* result, int n, int m)
{
  for (long i = 0; i < n; ++i) {
    double* const out = result + i * m;
    const double* const li = l + packed_row(i);
    zvscl11(out, r, m, li[0]);
    for (long k = 1; k <= i; ++k) zvxay11(out, r + k * m, m, li[k]);
  }
}

void zmxrl(const double* r, const double* l, double* result, int n, int m)
{
  for (long i = 0; i < n; ++i) {
    double* const out = result + i * m;
    zvfillj(out, 1, m, 0.0);
    for (long k = 0; k < m; ++k) zvxay11(out, l + packed_row(k), k + 1, r[i * m + k]);
  }
}

namespace {

// y := S x at one small order, unrolled: the branches of its short loops would cost more than its arithmetic.
template <long n> void short_symmetric_times_vector(const double* s, const double* x, double* y)
{
  double sum[n + 1] = {};
#pragma GCC unroll 8
  for (long i = 0; i < n; ++i) {
    const double* const si = s + packed_row(i);
#pragma GCC unroll 8
    for (long j = 0; j < i; ++j) {
      sum[i] += si[j] * x[j];
      sum[j] += si[j] * x[i];
    }
    sum[i] += si[i] * x[i];
  }
  for (long i = 0; i < n; ++i) y[i] = sum[i];
}

constexpr void (*short_products[])(const double*, const double*, double*) = {
    short_symmetric_times_vector<0>, short_symmetric_times_vector<1>, short_symmetric_times_vector<2>,
    short_symmetric_times_vector<3>, short_symmetric_times_vector<4>, short_symmetric_times_vector<5>,
    short_symmetric_times_vector<6>, short_symmetric_times_vector<7>, short_symmetric_times_vector<8>};

} // namespace

void symmetric_times_vector(const double* s, const double* x, double* y, long n)
{
  if (n < 1) return;
  if (n <= 8) return short_products[n](s, x, y);
  const double* si = s;
  for (long i = 0; i < n; si += ++i) y[i] = inner_product_and_update(si, x, y, i, x[i]) + si[i] * x[i];
}

void zmxrs(const double* r, const double* s, double* result, int m, int n)
{
  for (long i = 0; i < m; ++i) symmetric_times_vector(s, r + i * n, result + i * n, n);
}

void zmxsr(const double* s, const double* r, double* result, int n, int m)
{
  for (long i = 0; i < n; ++i) {
    const double* const si = s + packed_row(i);
    double* const out = result + i * m;
    zvscl11(out, r + i * m, m, si[i]);
    for (long k = 0; k < i; ++k) {
      zvxay11(out, r + k * m, m, si[k]);
      zvxay11(result + k * m, r + i * m, m, si[k]);
    }
  }
}

void zmxsl(const double* a, const double* b, double* r, int n)
{
  for (long i = 0; i < n; ++i) {
    const double* const ai = a + packed_row(i);
    const double* const bi = b + packed_row(i);
    double* const ri = r + i * n;
    zvfillj(ri, 1, n, 0.0);
    zvxay11(ri, bi, i + 1, ai[i]);
    for (long k = 0; k < i; ++k) {
      zvxay11(ri, b + packed_row(k), k + 1, ai[k]);
      zvxay11(r + k * n, bi, i + 1, ai[k]);
    }
  }
}

void zmxss(const double* a, const double* b, double* r, int n)
{
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) r[i * n + j] = zvdotss(a + packed_row(i), i, b + packed_row(j), j, n);
}

void zmxs2(const double* a, double* r, int n)
{
  for (long i = 0; i < n; ++i)
    for (long j = 0; j <= i; ++j) r[packed_row(i) + j] = zvdotss(a + packed_row(i), i, a + packed_row(j), j, n);
}

void zmxss1(const double* a, const double* b, double* r, int n)
{
  for (long i = 0; i < n; ++i)
    for (long j = 0; j <= i; ++j)
      r[packed_row(i) + j] = zvdotss(a + packed_row(i), i, b + packed_row(j), j, n) +
                             zvdotss(b + packed_row(i), i, a + packed_row(j), j, n);
}

void zmxrr(const double* a, const double* b, double* r, int m, int n, int p)
{
  for (long i = 0; i < m; ++i) {
    double* const ri = r + i * p;
    zvfillj(ri, 1, p, 0.0);
    for (long k = 0; k < n; ++k) zvxay11(ri, b + k * p, p, a[i * n + k]);
  }
}

void zmxvs(const double* v, const double* s, double* result, int m, int n)
{
  for (long i = 0; i < n; ++i) {
    const double* const si = s + packed_row(i);
    result[i] = zvdotj1(v, m, si, i + 1);
    zvxay11(result, si, i, v[i * m]);
  }
}

void zmxrtr(const double* a, int m, int n, double* r)
{
  for (long k = 0; k < m; ++k)
    for (long i = 0; i < n; ++i) zvxay11(r + packed_row(i), a + k * n, i + 1, a[k * n + i]);
}

void zmxrrt(const double* a, int m, int n, double* r)
{
  for (long i = 0; i < m; ++i)
    for (long j = 0; j <= i; ++j) r[packed_row(i) + j] += zvdot11(a + i * n, a + j * n, n);
}

void zmxout(const double* a, const double* b, double* result, int m, int n)
{
  for (long i = 0; i < m; ++i)
    if (a[i] != 0.0) zvxay11(result + i * n, b, n, a[i]);
}

int zmxscp(const double* data, int nv, double weight, double* sscp)
{
  if (weight == 0.0) return 0;
  for (long i = 0; i < nv; ++i) {
    if (data[i] == 0.0) continue;
    const double t = weight * data[i];
    double* const row = sscp + packed_row(i);
    for (long j = 0; j <= i; ++j)
      if (data[j] != 0.0) row[j] += t * data[j];
  }
  return 1;
}

int zmxsc1(const double* data, int nv, double* sscp)
{
  return zmxscp(data, nv, 1.0, sscp);
}

double zmxin1(const double* a, const double* b, int n, int span)
{
  return zmxin2(a, b, n, span, span);
}

double zmxin2(const double* a, const double* b, int n, int s1, int s2)
{
  double sum = 0.0;
  for (long i = 0; i < n; ++i) sum += a[i * s1] * b[i * s2];
  return sum;
}

} // namespace torvale::matrix
