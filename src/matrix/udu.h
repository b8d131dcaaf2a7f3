#pragma once

#include <cstdint>

// The Bunch-Kaufman factorization A = U D U' of a packed symmetric matrix, in the form of LINPACK's
// DSPFA (Dongarra, Bunch, Moler and Stewart, LINPACK Users' Guide, chapter 5): D has 1x1 and 2x2
// diagonal blocks, U is a product of exchanges and unit upper triangles. Row k of packed storage
// holds column k of the upper triangle.
//
// Pivot vector h, one entry a row:
//   h[k] >= 0              1x1 pivot at k; k was exchanged with row h[k] (h[k] = k: no exchange)
//   h[k-1] = h[k] = -1-m   2x2 pivot on rows k-1, k; k-1 was exchanged with row m (-k: no exchange)
//
// Nothing fails on a singular matrix: a column without a usable pivot is left as it is and counted.
namespace torvale::matrix {

// zududec: U D U' decomposition.
//
//   n     in      order; below 1 nothing is done but the record
//   sing  in      absolute: a column whose elements are all at most sing has no pivot
//   dtin  out     determinant and inertia record (determinant.h), or null
//   a     in/out  packed symmetric; the factor on return
//   h     out     n pivot entries
//
// Returns the nullity; the record then has mantissa and exponent 0, its counts are complete.
int zududec(int n, double sing, double* dtin, double* a, std::int64_t* h);

// zudude2: the same with a tolerance for each row. vsin (n) is permuted with the rows.
int zudude2(int n, double* vsin, double* dtin, double* a, std::int64_t* h);

// zudusol: solve A X = B from the factor for p right-hand sides. Column c of B is at b + c with
// row stride incb; X replaces it. Pivots are not tested: the nullity must have been 0.
void zudusol(int n, int p, int incb, const double* a, double* b, const std::int64_t* h);

// zuduso2: the same on the positive 1x1 pivots alone, deliberately not a solve with A: a pivot not
// greater than sing (negative ones too) and a 2x2 block apply only their exchange. What remains is
// the solve restricted to the positively curved part of the factor.
void zuduso2(int n, int p, int incb, double sing, const double* a, double* b, const std::int64_t* h);

// zuduinv: a := packed A^-1 from the factor. w: n doubles. Pivots are not tested.
void zuduinv(int n, double* a, const std::int64_t* h, double* w);

} // namespace torvale::matrix
