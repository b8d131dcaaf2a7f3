#pragma once

// Packed Cholesky: a factor is grown row by row, a deficient row leaves a zero diagonal, and solves
// give a zero where the diagonal is zero. Nothing fails on a singular matrix.
namespace torvale::matrix {

// zchol: one row of a Cholesky factor.
//
//   k     in      rows 0..k-1 of L are final; row k is computed
//   base  in/out  packed triangle, at least packed_size(k+1); row k holds a(k, 0..k) on entry and
//                 L(k, 0..k) on return
//   tol   in      absolute: the pivot must be greater. Callers pass a relative tolerance times the
//                 largest diagonal element.
//
// Returns 0; or 1 when the pivot is not above tol (NaN included): L(k, k) is 0, and every later row
// gets 0 in column k. The sum over all rows is the rank deficiency.
int zchol(int k, double* base, double tol);

// Forward substitution: vec := L^-1 vec with the k x k factor, in place.
void zchol2(int k, const double* base, double* vec);

// zbaksub: back substitution. v := L'^-1 v with the k x k factor m, in place.
void zbaksub(int k, const double* m, double* v);

// zinvlo: invert lower. a := a^-1 for a packed lower triangle of order n, in place. work: n
// doubles. Returns 0; or 1 at the first diagonal element not above singular in absolute value: a is
// then half transformed.
int zinvlo(double* a, int n, double* work, double singular);

} // namespace torvale::matrix
