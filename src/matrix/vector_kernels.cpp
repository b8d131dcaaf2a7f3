#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace torvale::matrix {

namespace {

// Two doubles, loaded from any address that is good for one. The baseline instruction set has these
// on every 64-bit machine; wider vectors would change the order of the sums between machines.
using Pair = double __attribute__((vector_size(16)));

inline Pair load_pair(const double* p)
{
  Pair v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline void store_pair(double* p, Pair v)
{
  std::memcpy(p, &v, sizeof v);
}

// `count` rows of R times x. A row's sum has two running pairs whatever the number of rows taken together,
// so that a result does not depend on its place among the rows.
template <long count> void row_group_times_vector(const double* r, const double* x, double* y, long cols, bool add)
{
  Pair even[count] = {};
  Pair odd[count] = {};
  long j = 0;
  for (; j + 4 <= cols; j += 4) {
    const Pair x0 = load_pair(x + j);
    const Pair x1 = load_pair(x + j + 2);
#pragma GCC unroll 4
    for (long i = 0; i < count; ++i) {
      even[i] += load_pair(r + i * cols + j) * x0;
      odd[i] += load_pair(r + i * cols + j + 2) * x1;
    }
  }
#pragma GCC unroll 4
  for (long i = 0; i < count; ++i) {
    const Pair s = even[i] + odd[i];
    double sum = s[0] + s[1];
    for (long k = j; k < cols; ++k) sum += r[i * cols + k] * x[k];
    y[i] = add ? y[i] + sum : sum;
  }
}

} // namespace

double long_inner_product(const double* a, const double* b, long n)
{
  // Four independent chains of pairs hide the latency of the additions.
  Pair s0 = {0.0, 0.0};
  Pair s1 = s0;
  Pair s2 = s0;
  Pair s3 = s0;
  long i = 0;
  for (; i + 8 <= n; i += 8) {
    s0 += load_pair(a + i) * load_pair(b + i);
    s1 += load_pair(a + i + 2) * load_pair(b + i + 2);
    s2 += load_pair(a + i + 4) * load_pair(b + i + 4);
    s3 += load_pair(a + i + 6) * load_pair(b + i + 6);
  }
  const Pair s = (s0 + s1) + (s2 + s3);
  double sum = s[0] + s[1];
  for (; i < n; ++i) sum += a[i] * b[i];
  return sum;
}

double inner_product_and_update(const double* s, const double* x, double* y, long n, double alpha)
{
  const Pair factor = {alpha, alpha};
  Pair s0 = {0.0, 0.0};
  Pair s1 = s0;
  long i = 0;
  for (; i + 4 <= n; i += 4) {
    const Pair v0 = load_pair(s + i);
    const Pair v1 = load_pair(s + i + 2);
    s0 += v0 * load_pair(x + i);
    s1 += v1 * load_pair(x + i + 2);
    store_pair(y + i, load_pair(y + i) + factor * v0);
    store_pair(y + i + 2, load_pair(y + i + 2) + factor * v1);
  }
  const Pair t = s0 + s1;
  double sum = t[0] + t[1];
  for (; i < n; ++i) {
    sum += s[i] * x[i];
    y[i] += alpha * s[i];
  }
  return sum;
}

void rows_times_vector(const double* r, const double* x, double* y, long rows, long cols, bool add)
{
  long i = 0;
  for (; i + 4 <= rows; i += 4) row_group_times_vector<4>(r + i * cols, x, y + i, cols, add);
  for (; i < rows; ++i) row_group_times_vector<1>(r + i * cols, x, y + i, cols, add);
}

double zvdotj1(const double* a, long ja, const double* b, long n)
{
  if (ja == 1) return zvdot11(a, b, n);
  double sum = 0.0;
  for (long i = 0; i < n; ++i) sum += a[i * ja] * b[i];
  return sum;
}

double zvdots1(const double* a, long jcol, const double* b, long n)
{
  const long bend = std::min(jcol + 1, n);
  double sum = zvdot11(a, b, bend);
  const double* s = a + jcol; // S(jcol, jcol)
  for (long i = bend; i < n; ++i) {
    s += i;
    sum += *s * b[i];
  }
  return sum;
}

double zvdotsj(const double* a, long ja, const double* b, long jb, long n)
{
  const long bend = std::min(ja + 1, n);
  double sum = zvdotj1(b, jb, a, bend);
  const double* s = a + ja;
  for (long i = bend; i < n; ++i) {
    s += i;
    sum += *s * b[i * jb];
  }
  return sum;
}

double zvdotss(const double* a, long ja, const double* b, long jb, long n)
{
  if (ja > jb) {
    std::swap(a, b);
    std::swap(ja, jb);
  }
  // Up to ja both rows are contiguous, up to jb only the second, then both are stepped.
  double sum = zvdot11(a, b, std::min(ja + 1, n));
  const double* s = a + ja;
  long i = std::min(ja + 1, n);
  for (; i < std::min(jb + 1, n); ++i) {
    s += i;
    sum += *s * b[i];
  }
  const double* t = b + jb;
  for (; i < n; ++i) {
    s += i;
    t += i;
    sum += *s * *t;
  }
  return sum;
}

double zvdott1(const double* c, long jc, const double* a, long n)
{
  double sum = 0.0;
  for (long i = jc; i < n; c += ++i) sum += *c * a[i];
  return sum;
}

double zvdotsl(const double* a, long ja, const double* b, long jb, long n)
{
  double sum = 0.0;
  long i = jb;
  for (; i < std::min(ja + 1, n); b += ++i) sum += a[i] * *b;
  if (i >= n) return sum;
  // Beyond the bend: S(ja, i) stands at ja + (ja+1) + ... + i from the row's first element.
  const double* s = a + ja + i * (i + 1) / 2 - ja * (ja + 1) / 2;
  for (; i < n; ++i, b += i, s += i) sum += *s * *b;
  return sum;
}

void zvxayj1(double* a, long ja, const double* b, long n, double alpha)
{
  if (alpha == 0.0) return;
  if (ja == 1) return zvxay11(a, b, n, alpha);
  for (long i = 0; i < n; ++i) a[i * ja] += alpha * b[i];
}

void zvxay1j(double* a, const double* b, long jb, long n, double alpha)
{
  if (alpha == 0.0) return;
  if (jb == 1) return zvxay11(a, b, n, alpha);
  for (long i = 0; i < n; ++i) a[i] += alpha * b[i * jb];
}

void zvaxpy(double* z, const double* x, const double* y, long n, double alpha)
{
  if (n <= 0) return;
  if (alpha == 0.0) {
    if (z != x) std::copy_n(x, n, z);
    return;
  }
  zvz111(z, x, y, n, alpha);
}

void zvfillj(double* a, long ja, long n, double alpha)
{
  for (long i = 0; i < n; ++i) a[i * ja] = alpha;
}

double zvamx(const double* vector, long dim)
{
  double largest = 0.0;
  for (long i = 0; i < dim; ++i) largest = std::max(largest, std::fabs(vector[i]));
  return largest;
}

double zvamxj(const double* vector, long j, long dim)
{
  double largest = std::fabs(vector[0]);
  for (long i = 1; i < dim; ++i) largest = std::max(largest, std::fabs(vector[i * j]));
  return largest;
}

double zvasumj(const double* a, long j, long n)
{
  double sum = 0.0;
  for (long i = 0; i < n; ++i) sum += std::fabs(a[i * j]);
  return sum;
}

void zvrotg(double* x, long jx, double* y, long jy, long n, double c, double s)
{
  for (long i = 0; i < n; ++i) {
    const double xi = x[i * jx];
    const double yi = y[i * jy];
    x[i * jx] = c * xi + s * yi;
    y[i * jy] = c * yi - s * xi;
  }
}

double zvenorm(long n, long incx, const double* x)
{
  if (n < 1) return 0.0;
  const double m = incx == 1 ? zvamx(x, n) : zvamxj(x, incx, n);
  if (m == 0.0) return zvasumj(x, incx, n); // all zero, or NaNs, which must not read as a norm of 0
  const double t = m <= 1.0 ? m : std::sqrt(m);
  double sum = 0.0;
  for (long i = 0; i < n; ++i) {
    const double v = x[i * incx];
    const double r = std::fabs(v) + t == t ? 0.0 : v / m;
    if (r + 1.0 != 1.0) sum += r * r;
  }
  return m * std::sqrt(sum);
}

} // namespace torvale::matrix
