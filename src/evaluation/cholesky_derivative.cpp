#include "evaluation/cholesky_derivative.h"

#include "matrix/vector_kernels.h"

#include <algorithm>

namespace torvale::evaluation {

int tvlcder(int nr, int np, const double* chol, const double* grad, const int* zgrad, double tol, double* work, double* cder)
{
  const int nrs = nr * (nr + 1) / 2;
  std::fill_n(cder, static_cast<long>(np) * nrs, 0.0);
  int e = 0;
  for (int r = 0; r < nr; ++r)
    for (int c = 0; c <= r; ++c, ++e) {
      std::fill_n(work, nrs, 0.0);
      work[e] = 1.0;
      cholesky_adjoint(nr, chol, work, tol); // derivative of L(r, c) by every element of A
      for (int j = 0; j < np; ++j)
        if (zgrad[j] == 0) cder[static_cast<long>(j) * nrs + e] = matrix::zvdot11(work, grad + static_cast<long>(j) * nrs, nrs);
    }
  return 0;
}

} // namespace torvale::evaluation
