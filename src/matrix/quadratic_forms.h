#pragma once

// Quadratic forms in packed symmetric S, and products of the form R S R'. Stated by their
// mathematics; sizes below 1 give 0 or leave the result untouched. None allocates.
namespace torvale::matrix {

// zqform: quadratic form, scalar or matrix.
//
//   sym   in      packed S of order n
//   rec   in      p = 1: the vector x (n); p > 1: R, p x n dense
//   prod  in/out  p = 1: prod[0] := x' S x; p > 1: packed p x p := R S R'
//   work  scratch n doubles: S times the row in hand
//   acc   in      non-zero: add to prod instead of storing
void zqform(const double* sym, int n, const double* rec, int p, double* prod, double* work, int acc);

// x' S x, x at stride m.
double zmxq1(const double* x, const double* a, int n, int m);

// x' A x with dense n x n A, x at stride m.
double zmxq2(const double* x, const double* a, int n, int m);

// zmxtq: trace of a quadratic form. Trace of R' S R; R is n x m dense.
double zmxtq(const double* r, const double* s, int n, int m);

// zmxbi: bilinear form x' S y. A row whose x[i] is 0 is skipped.
double zmxbi(const double* x, const double* y, const double* a, int n);

// Packed m x m result := R S R' when add is 0, else result += add (R S R'). R is m x n dense, S of
// order n. When adding, a zero element of R skips its row of S.
void zmxrsr(const double* r, const double* s, double* result, int m, int n, double add);

// Packed n x n result := R' S R when add is 0, else result += add (R' S R), with the same skipping.
// R is m x n dense, S of order m. work: m doubles.
void zmxrts(const double* r, const double* s, double* result, int m, int n, double* work, double add);

} // namespace torvale::matrix
