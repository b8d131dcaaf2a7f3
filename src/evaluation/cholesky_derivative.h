#pragma once
// Derivatives through a packed Cholesky factor A = L L', by reverse differentiation of the factorization (S. P. Smith,
// Differentiation of the Cholesky algorithm, J. Comput. Graph. Statist. 4, 1995, 134-147).

namespace torvale::evaluation {

// cholesky_adjoint: turns derivatives by L into derivatives by A.
//
//   nr    order
//   chol  L, packed
//   f     in/out  packed: on entry the derivative of some number by each element of L; on return by each element of the
//                 lower triangle of A (an element off the diagonal stands for both of its places)
//   tol   a column of L whose diagonal is below tol is singular: it has no derivative and passes none on
// T: double, or a vector of them (slot_group.h): a matrix in each place.
template <class T> inline void cholesky_adjoint(int nr, const T* chol, T* f, double tol)
{
  const auto at = [](int i, int j) { return i * (i + 1) / 2 + j; };
  const T zero{};
  for (int c = 0; c < nr; ++c)
    for (int r = c; r < nr; ++r) f[at(r, c)] = chol[at(c, c)] >= tol ? f[at(r, c)] : zero;
  for (int i = nr - 1; i >= 0; --i) {
    const T d = chol[at(i, i)];
    const auto regular = d >= tol;
    for (int j = i + 1; j < nr; ++j)
      for (int k = j; k < nr; ++k) {
        f[at(k, i)] = regular ? f[at(k, i)] - f[at(k, j)] * chol[at(j, i)] : f[at(k, i)];
        f[at(j, i)] = regular ? f[at(j, i)] - f[at(k, j)] * chol[at(k, i)] : f[at(j, i)];
      }
    for (int j = i + 1; j < nr; ++j) {
      f[at(j, i)] = regular ? f[at(j, i)] / d : f[at(j, i)];
      f[at(i, i)] = regular ? f[at(i, i)] - chol[at(j, i)] * f[at(j, i)] : f[at(i, i)];
    }
    f[at(i, i)] = regular ? f[at(i, i)] * (0.5 / d) : f[at(i, i)];
  }
}

// tvlcder: derivatives of a Cholesky factor by np parameters (tvl procedure, c Cholesky, der derivative).
//
//   chol   L of A = L L', packed, order nr
//   grad   np rows of packed dA by a parameter; zgrad[j] 1: row j is zero and skipped
//   work   scratch nr (nr + 1) / 2 doubles
//   cder   out  np rows of packed dL
// Returns 0.
int tvlcder(int nr, int np, const double* chol, const double* grad, const int* zgrad, double tol, double* work,
            double* cder);

} // namespace torvale::evaluation
