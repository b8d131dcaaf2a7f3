#include <algorithm>
#include <cmath>
#include <utility>

#include "matrix/constants.h"
#include "matrix/orthogonal.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

namespace {

struct Decomposition {
  long m, n, p;
  long incu, incb;
  int* ipiv;
  double* u;
  double* b;
  double* alfa;
  double* sum;

  double* at(long i, long j) const { return u + i * incu + j; }
  double remaining_norm(long j, long row) const { return zvenorm(m - row, incu, at(row, j)); }
};

void exchange_columns(const Decomposition& q, long i, long j)
{
  if (i == j) return;
  for (long r = 0; r < q.m; ++r) std::swap(*q.at(r, i), *q.at(r, j));
  std::swap(q.ipiv[i], q.ipiv[j]);
  std::swap(q.alfa[i], q.alfa[j]);
  std::swap(q.sum[i], q.sum[j]);
}

// Column l goes to position last, columns l+1..last one place forward.
void move_column_back(const Decomposition& q, long l, long last)
{
  for (long r = 0; r < q.m; ++r) std::rotate(q.at(r, l), q.at(r, l) + 1, q.at(r, last) + 1);
  std::rotate(q.ipiv + l, q.ipiv + l + 1, q.ipiv + last + 1);
  std::rotate(q.alfa + l, q.alfa + l + 1, q.alfa + last + 1);
  std::rotate(q.sum + l, q.sum + l + 1, q.sum + last + 1);
}

// Positions of the free columns: first..end-1.
struct FreeRange {
  long first;
  long end;
};

// Every forced position must be claimed once. Returns 0 or -1 - position.
int check_wishes(long n, const int* ipiv, FreeRange& range)
{
  const long front = std::count_if(ipiv, ipiv + n, [](int e) { return e > 0; });
  const long back = std::count_if(ipiv, ipiv + n, [](int e) { return e < 0; });
  range = {front, n - back};
  for (long position = 1; position <= n; ++position) {
    if (position > front && position <= n - back) continue;
    const long wish = position <= front ? position : -position;
    if (std::count(ipiv, ipiv + n, static_cast<int>(wish)) != 1) return static_cast<int>(-1 - position);
  }
  return 0;
}

// Brings the forced columns to their positions, the free ones following each other in their old
// order, and leaves the order of the columns in ipiv. sum serves as scratch.
void place_forced_columns(const Decomposition& q, FreeRange range)
{
  long next_free = range.first;
  for (long j = 0; j < q.n; ++j) {
    const int wish = q.ipiv[j];
    q.sum[wish == 0 ? next_free++ : std::abs(wish) - 1] = static_cast<double>(j);
  }
  for (long j = 0; j < q.n; ++j) {
    q.ipiv[j] = static_cast<int>(j);
    q.alfa[j] = 0.0;
  }
  for (long position = 0; position < q.n; ++position) {
    const int wanted = static_cast<int>(q.sum[position]);
    const long found = std::find(q.ipiv + position, q.ipiv + q.n, wanted) - q.ipiv;
    const double keep = q.sum[position];
    const double other = q.sum[found];
    exchange_columns(q, position, found);
    q.sum[position] = keep; // the plan does not travel with the columns
    q.sum[found] = other;
  }
}

// Builds the reflection of column l from its norm and applies it to what stands right of it and to b.
void reflect(const Decomposition& q, long l, double norm)
{
  const double s = std::copysign(norm, *q.at(l, l));
  for (long i = l; i < q.m; ++i) *q.at(i, l) /= s;
  *q.at(l, l) += 1.0;
  const double v1 = *q.at(l, l);
  const auto apply = [&](double* c, long inc) {
    double t = 0.0;
    for (long i = l; i < q.m; ++i) t += *q.at(i, l) * c[i * inc];
    t = -t / v1;
    for (long i = l; i < q.m; ++i) c[i * inc] += t * *q.at(i, l);
  };
  for (long j = l + 1; j < q.n; ++j) apply(q.u + j, q.incu);
  for (long j = 0; j < q.p; ++j) apply(q.b + j, q.incb);
  q.alfa[l] = -s;
  q.sum[l] = -v1;
}

// The norm of column j without its row l. Down-dating loses digits as it goes: once little is left of
// the norm last computed in full, it is computed again (as LAPACK's xLAQP2, note 176).
void downdate_norm(const Decomposition& q, long l, long j)
{
  const double element = std::fabs(*q.at(l, j));
  const double norm = q.alfa[j];
  if (norm > element) {
    const double ratio = element / norm;
    const double left = std::max(0.0, 1.0 - ratio * ratio);
    const double kept = norm / q.sum[j];
    if (left * kept * kept > 1e-8) { // root of eps
      q.alfa[j] = norm * std::sqrt(left);
      return;
    }
  }
  q.alfa[j] = q.sum[j] = q.remaining_norm(j, l + 1);
}

} // namespace

int zqrdec(int m, int n, int p, int incu, int incb, int* ipiv, double sing, double* u, double* b, double* alfa,
           double* sum)
{
  const Decomposition q = {m, n, p, incu, incb, ipiv, u, b, alfa, sum};
  FreeRange range = {0, 0};
  if (ipiv != nullptr) {
    if (const int bad = check_wishes(n, ipiv, range); bad != 0) return bad;
    place_forced_columns(q, range);
  }
  for (long j = 0; j < n; ++j) alfa[j] = sum[j] = q.remaining_norm(j, 0);

  int nullity = 0;
  for (long l = 0; l < std::min(m, n); ++l) {
    const bool competing = ipiv != nullptr && l >= range.first && l < range.end;
    if (competing) {
      long best = l;
      for (long j = l + 1; j < range.end; ++j)
        if (alfa[best] <= alfa[j]) best = j;
      exchange_columns(q, l, best);
    }
    double norm = q.remaining_norm(l, l);
    if (ipiv != nullptr)
      for (long tries = range.end - 1 - l; !(norm > sing) && tries > 0; --tries) {
        move_column_back(q, l, range.end - 1);
        norm = q.remaining_norm(l, l);
      }
    if (!(norm > sing)) {
      ++nullity;
      *q.at(l, l) = alfa[l] = sum[l] = 0.0;
      continue;
    }
    reflect(q, l, norm);
    if (ipiv != nullptr)
      for (long j = std::max(l + 1, range.first); j < range.end; ++j) downdate_norm(q, l, j);
  }
  return nullity;
}

} // namespace torvale::matrix
