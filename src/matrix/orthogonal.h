#pragma once

// Householder QR, triangular solves, plane rotations and single reflections.
namespace torvale::matrix {

// zqrdec: QR decomposition of u (m x n, row stride incu), applied also to the p columns of b.
//
//   m, n, p     in      rows; columns of u; columns of b (0: b is not touched, may be null)
//   incu, incb  in      row strides: element (i, j) at i inc + j
//   ipiv        in/out  null: no column moves. Else n entries. On entry a column's wish: e > 0, the column
//                       is forced to position e (one-based), the forced columns filling positions 1, 2, ...;
//                       e < 0, forced to position -e, filling ..., n-1, n; 0, free: the free columns stand
//                       between and compete. On return ipiv[j] is the original column (zero-based) at j.
//   sing        in      absolute: a column whose remaining norm is at most sing is no pivot
//   u           in/out  on return R strictly above the diagonal; in column l from the diagonal down the
//                       Householder vector v, scaled so that the reflection is c -= (v'c / v_l) v
//   b           in/out  Q' b
//   alfa        out     n: diagonal of R, 0 for a step without a pivot; norms of what is left in columns
//                       beyond row m
//   sum         out     n: -v_l for a finished column, 0 for a step without pivot, for the others the norm
//                       as last computed in full
//
// Of equal norms the last wins. A column without a pivot moves to the end of the free ones and the next
// is tried; without ipiv, or when none is left, the step counts as null and its diagonal place is 0.
// Returns the number of null steps out of min(m, n); or -1 - position, nothing done, when no column (or more
// than one) claims a forced position (one-based).
int zqrdec(int m, int n, int p, int incu, int incb, int* ipiv, double sing, double* u, double* b, double* alfa,
           double* sum);

// zqrsol: solve with a triangle of order n for p right-hand sides.
//
//   job         in      1  R x = b, R upper, element (i, j) at i incu + j (the factor of zqrdec, with alfa)
//                       2  R' x = b
//                       3  L x = b, L lower, stored likewise
//                       4  L' x = b
//                       5  R x = b, R upper, packed by rows: (0,0..n-1), (1,1..n-1), ...
//                       6  R' x = b
//                       7  R x = b, R upper, packed by columns; that is L' x = b with packed lower L
//                       8  R' x = b; that is L x = b
//                       11 to 18: the same triangle, the right-hand sides being rows (X T = B is the solve
//                       with T' for the rows of B)
//   incb, incx  in      jobs 1 to 8: row strides, right-hand side c in column c; jobs 11 to 18: row c at c inc
//   ipiv        in      null, or the order of zqrdec: odd jobs then spread the solution, x[ipiv[j]] being
//                       unknown j; even jobs take right-hand side element j from b[ipiv[j]]
//   b, x        in/out  right-hand sides and solutions; may be the same array when the strides agree
//   alfa        in      null, or the diagonal, in place of the stored one
//   h           scratch n doubles; may be null when ipiv is
//
// A stride of 0 stands for contiguous storage (incu: n; incb, incx: p, or n in jobs 11 to 18). A zero on the
// diagonal gives a zero in the solution. Returns the number of zero diagonals, counted over the
// right-hand sides and divided by p; 0 for n or p below 1; -1 for an unknown job.
int zqrsol(int job, int n, int p, int incu, int incb, int incx, const int* ipiv, const double* u, const double* b,
           double* x, const double* alfa, double* h);

// zgivcon: construct a Givens rotation with c a + s b = r, c b - s a = 0. On return *pa is r, *pb 0, *pc and
// *ps the rotation. Returns its compact form: 0 for b = 0, 1 for a = 0, s when |a| > |b|, else 1/c (1 for c
// near underflow). Both zero: c = 1, s = 0.
double zgivcon(double* pa, double* pb, double* pc, double* ps);

// zgivapl: apply a rotation to n pairs. x := c x + s y, y := c y - s x. Returns 0; or 1, nothing done,
// when s is 0.
int zgivapl(int n, int inx, int iny, double c, double s, double* x, double* y);

// ztriprm: permute a triangle. Column k1 of the upper triangle r (packed by columns: the rows of packed L)
// moves to position k2 > k1, columns k1+1..k2 move one place forward, and k2 - k1 rotations of neighbouring rows
// make it triangular again: R' R, and L L', are the old ones with their rows and columns moved so.
//
//   job   in      0: the triangle alone; 1: the rotations also combine rows k1..k2 of z (nz columns, row
//                 stride incz); 2: they combine columns k1..k2 of z (nz rows)
//   dcds  out     null, or 2 (k2 - k1) doubles: cosine and sine of each rotation in order
//
// Returns 0; or 12, nothing done, when not 0 <= k1 < k2 < n: a fault of the calling program.
int ztriprm(int job, int n, int nz, int incz, int k1, int k2, double* r, double* z, double* dcds);

// ztrapp3: apply a triangle's rows as projections. For the rows k of packed a, from n-1 down to 1 when job is
// 0, from 1 up otherwise: b(0..k-1) loses (t / d^2) a(k, 0..k-1) with d = a(k, k), t = a(k, 0..k-1) . b.
// Rows with |d| below rootmin are skipped. Returns the number skipped.
int ztrapp3(int job, int n, const double* a, double* b);

// zhh1: one Householder reflection of a row-stored matrix. From column k of abase (row stride inc), rows k to
// nvar-1, builds u in row k of ubase (elements k..nvar-1 at row stride inc) and *pk such that I - u u'/pk
// turns the column into (r, 0, ..., 0), which replaces it. Returns 0; or 1 with *pk = 0 when the
// column is zero.
int zhh1(double* abase, double* ubase, double* pk, int k, int inc, int nvar);

// zhh2: applies it to the column whose first element (row 0) is abase[0]: rows k..nvar-1 lose (u'a / pk) u.
// Returns 0; or 1, nothing done, when pk is 0.
int zhh2(double pk, double* abase, const double* ubase, int k, int inc, int nvar);

} // namespace torvale::matrix
