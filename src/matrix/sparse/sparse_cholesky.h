#pragma once

// Sparse Cholesky: P A P' = L L' for a symmetric positive (semi-)definite A with few non-zero elements.
//
// Compressed rows of a lower triangle, in one integer array and one of values:
//   ja[i] .. ja[i+1]-1   the entries of row i, i < n; ja[n] is their number
//   ja[n+1+t]            column of entry t, ascending in each row, at most the row
//   a[t]                 its value
// The factor has its structure ju and values u in the same form. Its rows and columns are in the order of
// elimination, and the last entry of each row is the diagonal.
//
//   perm    2 n ints: perm[k] is the row of A that is eliminated k-th; perm[n + i] the turn of row i, filled
//           by zslltsf
//   sing    absolute: a pivot at most sing leaves a zero on the diagonal, counts one into the nullity, and
//           later rows get 0 in its column, as with zchol; solves then give 0 there
//   work    n doubles
//
// A numeric routine that meets a matrix entry without place in the structure returns structure_fault,
// nothing being usable then: a fault of the calling program.
namespace torvale::matrix {

constexpr int structure_fault = -3;

// lsort2: sort a list with a second. Sorts n keys ascending, the values following; equal keys keep their order.
void lsort2(int n, int* keys, double* values);

// zslltco: compress coordinates. Entry t is s[t] at (ir[t], ic[t]), in either triangle.
//   job   0: of entries at the same place the last holds; else they are summed
//   ja    out, n + 1 + count ints; a: out, count doubles
// Returns the number of entries kept; or -1 - t, t the first entry with an index out of range.
int zslltco(int job, int n, int count, const int* ir, const int* ic, const double* s, int* ja, double* a);

// zslltsf: symbolic factorization.
//   perm   in/out  the first n in, the second n out
//   ju     out     structure of the factor
//   maxju  in/out  ints available in ju; ints needed
//   iwork  scratch 3 n + ja[n] ints
// Returns 0; or 1 when ju is too short, which is then not touched.
int zslltsf(int n, const int* ja, int* perm, int* ju, int* maxju, int* iwork);

// zslltiu: index lists of inverse use.
//   jasl  out  ja[n] ints: where in u each matrix entry goes
//   jusl  out  n + 1 + 2 ju[n] ints: the factor by columns: jusl[c] .. jusl[c+1]-1 number the entries of column c
//              below the diagonal in ascending rows; entry m is u[jusl[n+1+2m]], of row jusl[n+2+2m]
// Returns 0 or structure_fault.
int zslltiu(int n, const int* ja, const int* perm, const int* ju, int* jasl, int* jusl);

// zslltnf: numeric factorization of rows in, in+1, ... (in elimination order), rows before being final.
//   job  0: the matrix is added to what u holds in those rows (a ridge, say); else they are cleared first
// Returns the nullity of these rows, or structure_fault.
int zslltnf(int job, int in, int n, const int* ja, const double* a, const int* perm, const int* ju, double* u,
            double sing, double* work);

// zslltf2: the same, finding its places by jasl.
int zslltf2(int job, int in, int n, const int* ja, const double* a, const int* perm, const int* ju, const int* jasl,
            double* u, double sing, double* work);

// zslltf5: append one row: rows before k are final, row k of u holds the matrix elements. Returns 0, or 1 for
// a refused pivot.
int zslltf5(int k, const int* ju, double* u, int n, double sing, double* work);

// zslltra: row added. L L' := L L' + x x', with x in elimination order (n, destroyed).
//   dcds  out  2 n doubles: cosine and sine of each column's rotation (1, 0 where there was none)
// Returns 0; or structure_fault, nothing done, when x has elements that the structure does not couple.
int zslltra(int n, const int* ju, const int* jusl, double* u, double* x, double* dcds);

// zslltrd: row deleted. L L' := L L' - x x' likewise. Returns 0; or 1, u unchanged, when the result would not
// be positive definite.
int zslltrd(int n, const int* ju, const int* jusl, double* u, double* x, double* dcds);

// zslltso: solve A x = b in place.
void zslltso(int n, const int* ju, const double* u, const int* perm, double* b, double* work);

// zsllts2: the same for p right-hand sides, the columns of b at row stride incb.
void zsllts2(int n, int p, int incb, const int* ju, const double* u, const int* perm, double* b, double* work);

// zslltli: lower inverse. b := L^-1 b; job not 0: b := L^-1 P b.
void zslltli(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work);

// zslltui: upper inverse. b := L'^-1 b; job not 0: b := P' L'^-1 b.
void zslltui(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work);

// zslltml: multiply by lower. b := L b; job not 0: b := P' L b.
void zslltml(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work);

// zslltmu: multiply by upper. b := L' b; job not 0: b := L' P b.
void zslltmu(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work);

// zslltma: multiply by the matrix. y := A x; y may not be x.
void zslltma(int n, const int* ja, const double* a, const double* x, double* y);

// zslltqf: quadratic form. Packed p x p q := B' A^-1 B with the p columns of b (row stride incb), which
// become L^-1 P B.
void zslltqf(int n, int p, int incb, const int* ju, const double* u, const int* perm, double* b, double* q,
             double* work);

// zslltre: one step of iterative refinement of A x = b. r (n) receives the residual, summed in extended
// precision, and then the correction that has been added to x.
void zslltre(int n, const int* ja, const double* a, const int* ju, const double* u, const int* perm, const double* b,
             double* x, double* r, double* work);

} // namespace torvale::matrix
