#include "modes/hessian_at_mode.h"

#include "matrix/eigenvalues.h"
#include "matrix/packed.h"
#include "matrix/sweep.h"

namespace torvale::modes {

using model::BlockWork;

namespace {

constexpr double ridge_start = 1e-8;
constexpr double ridge_ceiling = 8.988465674311578e+307; // half the largest double
constexpr double ridge_safety = 1.05;
constexpr double reduction_ceiling = 1.3407807929943e+154; // squares of larger elements overflow

double largest_diagonal(const double* mat, int n)
{
  double largest = 0.0;
  for (int i = 0; i < n; ++i) largest = std::max(largest, std::abs(mat[matrix::packed_diagonal(i)]));
  return largest;
}

void clear_row(double* a, int i, int dim)
{
  for (int k = 0; k < dim; ++k) a[matrix::packed_index(i, k)] = 0.0;
}

// Sweeps the leading nr pivots of the bordered matrix a. Returns 0; 1 at a refused pivot, unless such pivots are to be cleared.
int sweep_all(const model::RunOptions& options, int nr, double* a, double* pivots, BlockWork& block, bool clear_refused)
{
  const int dim = nr + 1;
  for (int i = 0; i < nr; ++i) block.work2[static_cast<std::size_t>(i)] = std::abs(a[matrix::packed_diagonal(i)]);
  std::fill_n(block.dfr.begin(), dim, '0');
  for (int i = 0; i < nr; ++i) {
    const double own = block.work2[static_cast<std::size_t>(i)];
    pivots[i] = a[matrix::packed_diagonal(i)];
    const double sing = own > pivot_floor ? options.singsweep * own : options.singsweep;
    if (matrix::zsweep(sing, a, i, dim, block.dfr.data(), block.work1.data()) == 0) continue;
    if (!clear_refused) return 1;
    clear_row(a, i, dim);
    pivots[i] = 1.0;
  }
  return 0;
}

} // namespace

int chodect2(int n, const double* d, const double* e, double bound)
{
  if (!(d[0] > bound)) return 1;
  double q = 1.0 / std::sqrt(d[0]);
  for (int i = 1; i < n; ++i) {
    const double b = e[i] * q;
    const double a = d[i] - b * b;
    if (!(a > bound)) return 1;
    q = 1.0 / std::sqrt(a);
  }
  return 0;
}

double ridgmat(double* mat, int n, double eps, double* work)
{
  const long size = matrix::packed_size(n);
  for (long k = 0; k < size; ++k)
    if (!(std::abs(mat[k]) <= reduction_ceiling)) return host::missing;
  const double scale = largest_diagonal(mat, n);
  const double unit = scale > 0.0 ? scale : 1.0;
  const double bound = definite_bound * unit;
  double* const copy = work;
  double* const d = work + size;
  double* const e = d + n;
  std::copy_n(mat, size, copy);
  matrix::ztred3(n, copy, d);
  if (chodect2(n, d, e, bound) == 0) return 0.0;

  double t = eps * unit / 4.0, ridge = 0.0;
  while (t < ridge_ceiling) {
    t *= 4.0;
    for (int i = 0; i < n; ++i) d[i] += t;
    ridge += t;
    if (chodect2(n, d, e, bound) == 0) break;
  }
  ridge *= ridge_safety;
  for (int i = 0; i < n; ++i) mat[matrix::packed_diagonal(i)] += ridge;
  return ridge;
}

int invert_by_sweeps(const model::RunOptions& options, int nr, double* h, double* g, double* pivots, BlockWork& block)
{
  const long size = matrix::packed_size(nr);
  double* const a = block.hessumat.data();
  const auto border = [&](const double* matrix_part) {
    std::copy_n(matrix_part, size, a);
    std::copy_n(g, nr, a + size);
    a[size + nr] = 0.0;
  };
  border(h);
  if (sweep_all(options, nr, a, pivots, block, false) != 0) {
    double* const repaired = block.hessumat0.data();
    std::copy_n(h, size, repaired);
    if (std::isnan(ridgmat(repaired, nr, ridge_start, block.work3.data()))) return 1;
    border(repaired);
    sweep_all(options, nr, a, pivots, block, true);
  }
  std::copy_n(a, size, h);
  std::copy_n(a + size, nr, g);
  return 0;
}

} // namespace torvale::modes
