#pragma once

// Eigenvalues of symmetric matrices: the EISPACK routines (Smith et al., Matrix Eigensystem Routines,
// 2nd ed.) on this room's storage.
namespace torvale::matrix {

// ztred2: reduce a dense symmetric matrix to tridiagonal form (EISPACK TRED2).
//
//   z  in/out  n x n; the lower triangle is read; on return the orthogonal Q with A = Q T Q'
//   d  out     n: diagonal of T
//   e  out     n: e[i] couples i-1 and i; e[0] is 0
void ztred2(int n, double* z, double* d, double* e);

// ztql2: QL iteration with implicit shifts of origin (EISPACK TQL2).
//
//   z      in/out  n x n, evbit not 0: the matrix of ztred2 (or the identity); column j on return is the
//                  eigenvector of d[j]. With evbit 0 not touched, may be null
//   d, e   in/out  as from ztred2; on return d holds the eigenvalues in descending order, e is spent
//
// Returns 0; or -1 - l when eigenvalue l needs more than 50 sweeps: d and z are then unordered.
int ztql2(int n, double* z, double* d, double* e, int evbit);

// ztred3: reduce a packed symmetric matrix to tridiagonal form (EISPACK TRED3). a is destroyed.
// tri: 3 n doubles: diagonal, off-diagonal (element i couples i-1 and i, element 0 is 0), its squares.
void ztred3(int n, double* a, double* tri);

// zbisect: eigenvalues of a tridiagonal matrix by bisection on Sturm counts.
//
//   nval  in      > 0: the nval largest, descending; < 0: the -nval smallest, ascending
//   eps   in      absolute width to bisect to; at or below 0: unit roundoff times the bound of the block
//   trid  in/out  3 n doubles as from ztred3; negligible off-diagonals become 0
//   val   out     |nval| values
//   ii    out     |nval| numbers of the diagonal block (from 0) of each value, or null
//   work  scratch 2 n doubles
//
// Returns the number of values found; less than |nval| only for a matrix with NaNs.
int zbisect(int n, int nval, double eps, double* trid, double* val, int* ii, double* work);

// zimtqlv: all eigenvalues of a tridiagonal matrix by implicit QL (EISPACK IMTQLV).
//
//   tri  in   3 n doubles as from ztred3; not changed
//   d    out  n eigenvalues, ascending
//   ind  out  n block numbers (from 1), or null
//   e    scratch n doubles
//
// Returns 0; or the bitwise complement of l when eigenvalue l needs more than 50 sweeps.
int zimtqlv(int n, const double* tri, double* d, int* ind, double* e);

// zeigval: some eigenvalues of a packed symmetric matrix.
//
//   sym   in/out  packed, order n; destroyed
//   val   out     |nval| values
//   nval  in      > 0: the nval largest, descending; < 0: the -nval smallest, ascending
//   work  scratch 5 n doubles
//
// Returns 0; 99 for n below 1, |nval| above n or a null pointer; -30 when no method converged: the values
// not found are then the missing value.
int zeigval(int n, double* sym, double* val, int nval, double* work);

} // namespace torvale::matrix
