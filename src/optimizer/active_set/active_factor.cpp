#include "optimizer/active_set/active_set.h"

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::packed_row;
using matrix::zvdot11;

double* column(const MINSTR& str, long j)
{
  return str.qlcn + j * str.nvar;
}

// The plane rotation with c a + s b = r, c b - s a = 0.
struct Rotation {
  double c, s, r;
};

Rotation rotation(double a, double b)
{
  if (b == 0.0) return {1.0, 0.0, a};
  const double r = std::hypot(a, b);
  return {a / r, b / r, r};
}

void note_dependent(MINSTR* str, long c)
{
  if (std::count(str->ldco, str->ldco + str->nldc, c) != 0) return;
  str->ldco[str->nldc++] = c;
  if (c < str->nvar) ++str->nlbc;
}

void count_held(MINSTR* str, long c, int side, long change)
{
  if (c < str->nvar) {
    str->iabc[c] = change > 0 ? side : 0;
    str->nabc += change;
  } else {
    str->nalc += change;
  }
}

// Appends the normal to N = Q [R; 0]: rotations of the null-space columns turn Q'a into (l, |Z'a|, 0, ..., 0).
int append_to_factor(MINSTR* str, long c, int side)
{
  const long n = str->nvar;
  const long k = str->nabc + str->nalc;
  double* const a = str->awrk;
  double* const w = str->awrk + n;
  constraint_normal(*str, c, side, a);
  const double norm = matrix::zvenorm(n, 1, a);
  factor_coordinates(*str, a, w);
  const double outside = k < n ? matrix::zvenorm(n - k, 1, w + k) : 0.0;
  if (outside <= std::max(str->ldct, 1e-14) * norm) return 1;
  for (long j = n - 1; j > k; --j) {
    const Rotation g = rotation(w[j - 1], w[j]);
    if (g.s != 0.0) matrix::zvrotg(column(*str, j - 1), 1, column(*str, j), 1, n, g.c, g.s);
    w[j - 1] = g.r;
    w[j] = 0.0;
  }
  std::copy_n(w, k + 1, str->llcn + packed_row(k));
  str->iact[k] = c;
  return 0;
}

// Takes row p out of L; the rows below then stick out one place to the right and are rotated back, which turns the
// last range-space column of Q into the first of the null space.
void remove_from_factor(MINSTR* str, long p)
{
  const long n = str->nvar;
  const long k = str->nabc + str->nalc;
  double* const l = str->llcn;
  for (long j = p; j + 1 < k; ++j) str->iact[j] = str->iact[j + 1];
  for (long j = p; j + 1 < k; ++j) {
    const double* const below = l + packed_row(j + 1); // old row j + 1 becomes row j
    double* const row = l + packed_row(j);
    const Rotation g = rotation(below[j], below[j + 1]);
    for (long i = j + 2; i < k; ++i) {
      double* const later = l + packed_row(i);
      const double u = later[j], v = later[j + 1];
      later[j] = g.c * u + g.s * v;
      later[j + 1] = g.c * v - g.s * u;
    }
    matrix::zvrotg(column(*str, j), 1, column(*str, j + 1), 1, n, g.c, g.s);
    std::copy_n(below, j, row);
    row[j] = g.r;
  }
}

} // namespace

void constraint_normal(const MINSTR& str, long c, int side, double* a)
{
  if (c < str.nvar) {
    std::fill_n(a, str.nvar, 0.0);
    a[c] = side == -1 ? -1.0 : 1.0;
  } else {
    std::copy_n(str.alcn + (c - str.nvar) * str.nvar, str.nvar, a);
  }
}

void factor_coordinates(const MINSTR& str, const double* v, double* w)
{
  for (long j = 0; j < str.nvar; ++j) w[j] = zvdot11(column(str, j), v, str.nvar);
}

void list_free_parameters(MINSTR* str)
{
  long front = 0, back = str->nvar;
  for (long i = 0; i < str->nvar; ++i)
    if (str->iabc[i] == 0) str->ifxr[front++] = i;
  for (long i = 0; i < str->nvar; ++i)
    if (str->iabc[i] != 0) str->ifxr[--back] = i;
}

void clear_factor(MINSTR* str)
{
  const long n = str->nvar;
  str->nabc = str->nalc = str->nldc = str->nlbc = 0;
  std::fill_n(str->iabc, n, 0);
  for (long i = 0; i < n; ++i) str->ifxr[i] = i;
  if (str->opro == 0) return;
  std::fill_n(str->qlcn, n * n, 0.0);
  for (long i = 0; i < n; ++i) column(*str, i)[i] = 1.0;
}

int hold(MINSTR* str, long c, int side)
{
  if (str->opro != 0 && append_to_factor(str, c, side) != 0) {
    note_dependent(str, c);
    return 1;
  }
  count_held(str, c, side, 1);
  if (c < str->nvar) list_free_parameters(str);
  return 0;
}

void release(MINSTR* str, long c)
{
  if (str->opro != 0) {
    const long k = str->nabc + str->nalc;
    remove_from_factor(str, std::find(str->iact, str->iact + k, c) - str->iact);
  }
  count_held(str, c, 0, -1);
  if (c < str->nvar) list_free_parameters(str);
}

bool held(const MINSTR& str, long c)
{
  if (c < str.nvar) return str.iabc[c] != 0;
  return std::count(str.iact, str.iact + str.nabc + str.nalc, c) != 0;
}

} // namespace torvale::optimizer
