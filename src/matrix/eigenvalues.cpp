#include "matrix/eigenvalues.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "matrix/constants.h"
#include "matrix/packed.h"
#include "matrix/packed_kernels.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

void ztred3(int n, double* a, double* tri)
{
  double* const d = tri;
  double* const e = tri + n;
  double* const squares = e + n;
  for (long i = n - 1; i >= 0; --i) {
    double* const row = a + packed_row(i);
    const double scale = zvasumj(row, 1, i);
    d[i] = row[i];
    e[i] = squares[i] = 0.0;
    if (scale == 0.0) continue;

    // u = row / scale with its last element stretched, so that I - u u' / h maps the row to (0, ..., e).
    // It is kept in the row: d is not yet in use below i, and the row not any more.
    double* const u = row;
    for (long k = 0; k < i; ++k) u[k] /= scale;
    double h = zvdot11(u, u, i);
    squares[i] = scale * scale * h;
    const double f = u[i - 1];
    const double g = -std::copysign(std::sqrt(h), f);
    e[i] = scale * g;
    h -= f * g;
    u[i - 1] = f - g;

    // A -= u q' + q u' with q = A u / h - (u'A u / 2 h^2) u. e below i is free for q.
    double* const q = e;
    symmetric_times_vector(a, u, q, i);
    for (long k = 0; k < i; ++k) q[k] /= h;
    const double half = zvdot11(u, q, i) / (h + h);
    zvxay11(q, u, i, -half);
    for (long j = 0; j < i; ++j) {
      double* const aj = a + packed_row(j);
      for (long k = 0; k <= j; ++k) aj[k] -= u[j] * q[k] + q[j] * u[k];
    }
  }
}

namespace {

// A tridiagonal matrix: d diagonal, e[i] couples i-1 and i, squares[i] = e[i]^2.
struct Tridiagonal {
  double* d;
  double* e;
  double* squares;
};

// Number of eigenvalues of rows first..last (a block) below x: negative pivots of T - x I. A zero pivot is
// replaced by a tiny one.
int sturm(const Tridiagonal& t, long first, long last, double x)
{
  int below = 0;
  double q = 1.0;
  for (long i = first; i <= last; ++i) {
    double coupling = 0.0;
    if (i > first) coupling = q == 0.0 ? std::fabs(t.e[i]) / eps : t.squares[i] / q;
    q = t.d[i] - x - coupling;
    below += q < 0.0 ? 1 : 0;
  }
  return below;
}

// Eigenvalues of the whole matrix below x.
int sturm_all(const Tridiagonal& t, long n, double x)
{
  return sturm(t, 0, n - 1, x); // a zero coupling separates blocks by itself
}

struct Interval {
  double low;
  double high;
};

// Gerschgorin bounds of rows first..last, widened by what rounding can move an eigenvalue.
Interval gersch(const Tridiagonal& t, long first, long last)
{
  Interval b = {t.d[first], t.d[first]};
  for (long i = first; i <= last; ++i) {
    const double radius = (i > first ? std::fabs(t.e[i]) : 0.0) + (i < last ? std::fabs(t.e[i + 1]) : 0.0);
    b.low = std::min(b.low, t.d[i] - radius);
    b.high = std::max(b.high, t.d[i] + radius);
  }
  const double slack = static_cast<double>(last - first + 1) * eps * std::max(std::fabs(b.low), std::fabs(b.high));
  return {b.low - slack - dmin, b.high + slack + dmin};
}

// Stops when no double lies well inside.
bool open(Interval b, double width)
{
  return b.high - b.low > width + 2.220446049250314e-16 * (std::fabs(b.low) + std::fabs(b.high));
}

// The largest point found with at most `count` eigenvalues below it, or the smallest with at least `count`:
// where the wanted eigenvalues end. A cluster that rounding cannot part leaves more than `count` inside.
double cut(const Tridiagonal& t, long n, int count, Interval b, bool smallest_wanted)
{
  const double width = eps * std::max(std::fabs(b.low), std::fabs(b.high));
  while (open(b, width)) {
    const double middle = b.low + (b.high - b.low) / 2.0;
    const int below = sturm_all(t, n, middle);
    if (below == count) return middle;
    (below < count ? b.low : b.high) = middle;
  }
  return smallest_wanted ? b.high : b.low;
}

// The wanted values so far, in ascending order, with their blocks. Holds at most `most`; of more it keeps
// those at the wanted end.
struct Values {
  int most;
  bool largest_wanted;
  double* val;
  int* block; // may be null
  int count = 0;

  void put(int at, double x, int tag) const
  {
    val[at] = x;
    if (block != nullptr) block[at] = tag;
  }
  void move(int from, int to) const
  {
    val[to] = val[from];
    if (block != nullptr) block[to] = block[from];
  }
  void insert(double x, int tag)
  {
    if (count == most) {
      if (largest_wanted) {
        if (!(x > val[0])) return;
        for (int i = 1; i < count; ++i) move(i, i - 1);
      } else if (!(x < val[count - 1])) {
        return;
      }
      --count;
    }
    int at = count++;
    for (; at > 0 && val[at - 1] > x; --at) move(at - 1, at);
    put(at, x, tag);
  }
};

// Bisects for every eigenvalue of a block between b.low and b.high. lower and upper (one element for each
// row of the block) keep what the counts have told about the eigenvalues still sought.
void bisect_block(const Tridiagonal& t, long first, long last, Interval b, double asked, int tag, double* lower,
                  double* upper, Values& values)
{
  const int from = sturm(t, first, last, b.low);
  const int to = sturm(t, first, last, b.high); // ordinals from..to-1
  const Interval bounds = gersch(t, first, last);
  const double width = asked > 0.0 ? asked : eps * std::max(std::fabs(bounds.low), std::fabs(bounds.high));
  const double low = std::max(b.low, bounds.low);
  const double high = std::min(b.high, bounds.high);
  for (int k = from; k < to; ++k) {
    lower[k] = low;
    upper[k] = high;
  }
  for (int k = from; k < to; ++k) {
    if (k > from) lower[k] = std::max(lower[k], lower[k - 1]);
    Interval at = {lower[k], upper[k]};
    while (open(at, width)) {
      const double middle = at.low + (at.high - at.low) / 2.0;
      const int below = sturm(t, first, last, middle);
      if (below > k)
        at.high = middle;
      else
        at.low = middle;
      // Ordinals below `below` lie left of the middle, the others right of it.
      for (int j = k + 1; j < to; ++j) {
        if (j < below)
          upper[j] = std::min(upper[j], middle);
        else
          lower[j] = std::max(lower[j], middle);
      }
    }
    lower[k] = at.low;
    values.insert(at.low < 0.0 && at.high > 0.0 ? 0.0 : at.low + (at.high - at.low) / 2.0, tag);
  }
}

double guarded_quotient(double a, double b)
{
  return std::fabs(b) <= dmin ? 0.0 : a / b;
}

// The power of two that brings the largest |sym| near 1, as an exponent; 0 when it is not far from it.
int scaling_exponent(const double* sym, long n)
{
  const double largest = zvamx(sym, packed_size(n));
  if (!(largest > 0.0) || !std::isfinite(largest) || (largest > 1e-100 && largest < 1e100)) return 0;
  return -std::ilogb(largest);
}

} // namespace

int zbisect(int n, int nval, double eps_argument, double* trid, double* val, int* ii, double* work)
{
  if (n < 1 || nval == 0) return 0;
  const Tridiagonal t = {trid, trid + n, trid + 2 * static_cast<long>(n)};
  for (long i = 1; i < n; ++i)
    if (std::fabs(t.e[i]) <= eps * (std::fabs(t.d[i - 1]) + std::fabs(t.d[i]))) t.e[i] = t.squares[i] = 0.0;

  const bool largest_wanted = nval > 0;
  const int most = std::min(std::abs(nval), n);
  Interval search = gersch(t, 0, n - 1);
  if (most < n) {
    if (largest_wanted)
      search.low = cut(t, n, n - most, search, false);
    else
      search.high = cut(t, n, most, search, true);
  }

  Values values = {most, largest_wanted, val, ii};
  int tag = 0;
  for (long first = 0, last = 0; first < n; first = last + 1, ++tag) {
    for (last = first; last < n - 1 && t.e[last + 1] != 0.0;) ++last;
    if (first == last) {
      if (t.d[first] >= search.low && t.d[first] <= search.high) values.insert(t.d[first], tag);
    } else {
      bisect_block(t, first, last, search, eps_argument, tag, work, work + n, values);
    }
  }
  if (largest_wanted) {
    std::reverse(val, val + values.count);
    if (ii != nullptr) std::reverse(ii, ii + values.count);
  }
  return values.count;
}

int zimtqlv(int n, const double* tri, double* d, int* ind, double* e)
{
  constexpr int most_sweeps = 50;
  if (n < 1) return 0;
  std::copy_n(tri, n, d);
  std::copy_n(tri + n + 1, n - 1, e);
  e[n - 1] = 0.0;
  int tag = 0;
  int block_end = -1; // last row of the block in hand
  for (int l = 0; l < n; ++l) {
    double p = d[l];
    for (int sweep = 0;; ++sweep) {
      // The end of the block: the first coupling that adds nothing to its neighbours.
      int m = l;
      for (; m < n - 1; ++m) {
        const double size = std::fabs(d[m]) + std::fabs(d[m + 1]);
        if (size + std::fabs(e[m]) == size) break;
      }
      if (m > block_end) {
        block_end = m;
        ++tag;
      }
      p = d[l];
      if (m == l) break;
      if (sweep == most_sweeps) return ~l;

      double g = guarded_quotient(d[l + 1] - p, 2.0 * e[l]);
      g = d[m] - p + guarded_quotient(e[l], g + std::copysign(std::hypot(g, 1.0), g));
      double s = 1.0;
      double c = 1.0;
      p = 0.0;
      int i = m - 1;
      for (; i >= l; --i) {
        const double f = s * e[i];
        const double b = c * e[i];
        const double r = std::hypot(f, g);
        e[i + 1] = r;
        if (r <= dmin) break; // the rotation has underflowed: the block splits here
        s = f / r;
        c = g / r;
        g = d[i + 1] - p;
        const double t = (d[i] - g) * s + 2.0 * c * b;
        p = s * t;
        d[i + 1] = g + p;
        g = c * t - b;
      }
      if (i >= l) {
        d[i + 1] -= p;
      } else {
        d[l] -= p;
        e[l] = g;
      }
      e[m] = 0.0;
    }
    int at = l;
    for (; at > 0 && d[at - 1] > p; --at) {
      d[at] = d[at - 1];
      if (ind != nullptr) ind[at] = ind[at - 1];
    }
    d[at] = p;
    if (ind != nullptr) ind[at] = tag;
  }
  return 0;
}

int zeigval(int n, double* sym, double* val, int nval, double* work)
{
  if (nval == 0) return 0;
  const int wanted = std::abs(nval);
  if (n < 1 || wanted > n || sym == nullptr || val == nullptr || work == nullptr) return 99;

  // Squares of very large or small elements would leave the range; a power of two costs no digits.
  const int exponent = scaling_exponent(sym, n);
  if (exponent != 0)
    for (long i = 0; i < packed_size(n); ++i) sym[i] = std::ldexp(sym[i], exponent);

  const long order = n;
  ztred3(n, sym, work);
  // A value costs bisection some fifty passes over the matrix; all of them together cost the iteration few more.
  double* const every = work + 3 * order;
  if (n >= 16 && 8L * wanted > order && zimtqlv(n, work, every, nullptr, work + 4 * order) == 0) {
    for (int i = 0; i < wanted; ++i) val[i] = std::ldexp(nval > 0 ? every[n - 1 - i] : every[i], -exponent);
    return 0;
  }
  int found = std::max(0, zbisect(n, nval, 0.0, work, val, nullptr, work + 3 * order));
  if (found < wanted) {
    const double missing = std::bit_cast<double>(std::uint64_t{0xFFFFFE0000000000});
    std::fill(val + found, val + wanted, missing);
    // All values by the other method, of which the wanted ones are passed on in the order asked for.
    double* const all = work + 3 * order;
    if (zimtqlv(n, work, all, nullptr, work + 4 * order) != 0) return -30;
    for (int i = 0; i < wanted; ++i) val[i] = nval > 0 ? all[n - 1 - i] : all[i];
  }
  if (exponent != 0)
    for (int i = 0; i < wanted; ++i) val[i] = std::ldexp(val[i], -exponent);
  return 0;
}

} // namespace torvale::matrix
