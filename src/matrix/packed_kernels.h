#pragma once

// Matrix kernels: products, sums of squares and triangular products. A name is zmx and one letter
// for each operand in the order of the product:
//
//   l  packed lower triangular L     u  its transpose L'      s  packed symmetric S
//   r  rectangular dense R, A, B     t  transpose of R        v  vector
//
// Results are dense unless marked packed. Every kernel does nothing for an order below 1. Results
// may not overlap operands unless "in place" is said. None allocates.
namespace torvale::matrix {

// Trace of packed S (n x n).
double zmxtr(const double* a, int n);

// zmxins: inner product of symmetric matrices. Trace of A B, both packed n x n.
double zmxins(const double* a, const double* b, int n);

// s := L S L' in place, packed n x n. work: n n doubles.
void zmxlsu(const double* l, double* s, int n, double* work);

// s := L' S L in place, packed n x n. work: n n doubles.
void zmxusl(const double* l, double* s, int n, double* work);

// The same for a skyline triangle: row i of L is stored in full but only its len[i] elements up to
// and including the diagonal are used; the rest count as zero.
void zmxls1(const double* l, double* s, int n, double* work, const int* len);
void zmxus1(const double* l, double* s, int n, double* work, const int* len);

// s2 := S1 S2 S1 in place, packed n x n. work: n n doubles.
void zmxsss(const double* s1, double* s2, int n, double* work);

// l := L L' in place, packed, rows from the last to the first.
void zmxllt(double* l, int n);

// l := L' L in place, packed, rows from the first to the last.
void zmxltl(double* l, int n);

// result := L R; R is n x m.
void zmxlr(const double* l, const double* r, double* result, int n, int m);

// result := R L; R is n x m, L of order m.
void zmxrl(const double* r, const double* l, double* result, int n, int m);

// result := R S; R is m x n, S of order n.
void zmxrs(const double* r, const double* s, double* result, int m, int n);

// result := S R; R is n x m, S of order n.
void zmxsr(const double* s, const double* r, double* result, int n, int m);

// r := S L, dense n x n; a is packed symmetric, b packed triangular.
void zmxsl(const double* a, const double* b, double* r, int n);

// r := A B, dense n x n, both packed symmetric.
void zmxss(const double* a, const double* b, double* r, int n);

// r := A A, packed, from packed symmetric A.
void zmxs2(const double* a, double* r, int n);

// r := A B + B A, packed, both packed symmetric.
void zmxss1(const double* a, const double* b, double* r, int n);

// r := A B; A is m x n, B n x p.
void zmxrr(const double* a, const double* b, double* r, int m, int n, int p);

// result[i] := sum over j of S(i, j) v[j m]: S (n x n) times a column of a matrix of m columns.
void zmxvs(const double* v, const double* s, double* result, int m, int n);

// Packed r += A' A (n x n); A is m x n.
void zmxrtr(const double* a, int m, int n, double* r);

// Packed r += A A' (m x m); A is m x n.
void zmxrrt(const double* a, int m, int n, double* r);

// zmxout: outer product. Dense m x n result += a b'; a zero a[i] skips its row.
void zmxout(const double* a, const double* b, double* result, int m, int n);

// zmxscp: weighted sum of squares and cross products. Packed sscp += weight d d' with the nv
// elements of data, skipping zero elements of d. Returns 1; or 0 when the weight is 0: sscp is
// unchanged, and the observation does not count.
int zmxscp(const double* data, int nv, double weight, double* sscp);

// The same with weight 1. Returns 1.
int zmxsc1(const double* data, int nv, double* sscp);

// Sum of a[i span] b[i span], i < n.
double zmxin1(const double* a, const double* b, int n, int span);

// Sum of a[i s1] b[i s2], i < n.
double zmxin2(const double* a, const double* b, int n, int s1, int s2);

// y := S x for packed S of order n; one pass over S, each element read once. y may not be x.
void symmetric_times_vector(const double* s, const double* x, double* y, long n);

} // namespace torvale::matrix
