#include <algorithm>
#include <cmath>

#include "matrix/sparse/sparse_cholesky.h"

namespace torvale::matrix {

namespace {

// Row k of the factor from the matrix elements in its place, rows before k being final. w is zero on entry
// and return; in between it holds the row spread over its columns.
int factor_row(int k, int n, const int* ju, double* u, double sing, double* w)
{
  const int* const columns = ju + n + 1;
  const int diagonal = ju[k + 1] - 1;
  double pivot = u[diagonal];
  for (int t = ju[k]; t < diagonal; ++t) w[columns[t]] = u[t];
  for (int t = ju[k]; t < diagonal; ++t) {
    const int j = columns[t];
    const int end = ju[j + 1] - 1;
    double s = w[j];
    for (int m = ju[j]; m < end; ++m) s -= u[m] * w[columns[m]];
    w[j] = u[t] = u[end] == 0.0 ? 0.0 : s / u[end];
    pivot -= u[t] * u[t];
  }
  for (int t = ju[k]; t < diagonal; ++t) w[columns[t]] = 0.0;
  const bool refused = !(pivot > sing);
  u[diagonal] = refused ? 0.0 : std::sqrt(pivot);
  return refused ? 1 : 0;
}

int factor_rows(int in, int n, const int* ju, double* u, double sing, double* work)
{
  std::fill_n(work, n, 0.0);
  int nullity = 0;
  for (int k = in; k < n; ++k) nullity += factor_row(k, n, ju, u, sing, work);
  return nullity;
}

// Adds the matrix entries whose row in the factor is `in` or later; place(t, row, column) finds their index in u,
// negative when there is none.
template <class Place>
int add_matrix(int job, int in, int n, const int* ja, const double* a, const int* perm, const int* ju, double* u,
               Place place)
{
  if (job != 0) std::fill(u + ju[in], u + ju[n], 0.0);
  for (int i = 0; i < n; ++i)
    for (int t = ja[i]; t < ja[i + 1]; ++t) {
      const int turn = perm[n + i];
      const int other = perm[n + ja[n + 1 + t]];
      const int row = std::max(turn, other);
      if (row < in) continue;
      const int at = place(t, row, std::min(turn, other));
      if (at < 0) return structure_fault;
      u[at] += a[t];
    }
  return 0;
}

} // namespace

int zslltnf(int job, int in, int n, const int* ja, const double* a, const int* perm, const int* ju, double* u,
            double sing, double* work)
{
  const int* const columns = ju + n + 1;
  const auto search = [&](int, int row, int column) {
    const int* const end = columns + ju[row + 1];
    const int* const found = std::lower_bound(columns + ju[row], end, column);
    return found == end || *found != column ? -1 : static_cast<int>(found - columns);
  };
  if (const int fault = add_matrix(job, in, n, ja, a, perm, ju, u, search); fault != 0) return fault;
  return factor_rows(in, n, ju, u, sing, work);
}

int zslltf2(int job, int in, int n, const int* ja, const double* a, const int* perm, const int* ju, const int* jasl,
            double* u, double sing, double* work)
{
  (void)add_matrix(job, in, n, ja, a, perm, ju, u, [jasl](int t, int, int) { return jasl[t]; }); // cannot fail
  return factor_rows(in, n, ju, u, sing, work);
}

int zslltf5(int k, const int* ju, double* u, int n, double sing, double* work)
{
  std::fill_n(work, n, 0.0);
  return factor_row(k, n, ju, u, sing, work);
}

} // namespace torvale::matrix
