#pragma once

// Vector kernels. A name is zv, an operation, and one letter or digit for each vector operand:
//
//   dot   inner product          xay   x := x + a y        xy    c := a + b       z     c := a + alpha b
//   scl   c := alpha a           fill  a := alpha          amx   largest |a|      asum  sum of |a|
//   rot   plane rotation         enorm Euclidean norm      axpy  z := x + alpha y
//
//   1 unit stride    j a stride argument follows, in elements    s row walk of a packed symmetric
//   matrix (the pointer is the row's first element, the number beside it the row)    t, l column
//   walk of a packed triangle (the pointer is the diagonal element)
//
// A size of zero or less makes a kernel return 0 or do nothing. None allocates or tests for
// aliasing (zvaxpy excepted); operands may be the same array element for element. Sums are formed
// in an order that depends on the size alone, so equal input gives equal bits on every machine.
namespace torvale::matrix {

// The inner product of long vectors: eight running sums, combined in a fixed order.
double long_inner_product(const double* a, const double* b, long n);

// Up to this length one running sum is as fast as eight, and stays in the caller.
constexpr long short_vector = 7;

// zvdot11: sum of a[i] b[i], i < n.
inline double zvdot11(const double* a, const double* b, long n)
{
  if (n > short_vector) return long_inner_product(a, b, n);
  double sum = 0.0;
  for (long i = 0; i < n; ++i) sum += a[i] * b[i];
  return sum;
}

// zinner: the same with a 32-bit size.
inline double zinner(const double* a, const double* b, int n)
{
  return zvdot11(a, b, n);
}

// A row of a symmetric matrix used twice: y[i] += alpha s[i], and the inner product of s and x is returned.
double inner_product_and_update(const double* s, const double* x, double* y, long n, double alpha);

// y[i] := R(i, :) x for the dense rows x cols matrix R; with add, y[i] += R(i, :) x.
void rows_times_vector(const double* r, const double* x, double* y, long rows, long cols, bool add);

// zvdotj1: sum of a[i ja] b[i].
double zvdotj1(const double* a, long ja, const double* b, long n);

// zvdots1: sum over i < n of S(jcol, i) b[i]; a is the first element of row jcol of S. With
// jcol >= n the walk stays contiguous.
double zvdots1(const double* a, long jcol, const double* b, long n);

// zvdotsj: sum over i < n of S(ja, i) b[i jb]; a is the first element of row ja of S.
double zvdotsj(const double* a, long ja, const double* b, long jb, long n);

// zvdotss: sum over i < n of S(ja, i) T(jb, i); a and b are the first elements of those rows.
double zvdotss(const double* a, long ja, const double* b, long jb, long n);

// zvdott1: sum over i from jc to n-1 of L(i, jc) a[i]; c points at L(jc, jc), a at its element 0.
double zvdott1(const double* c, long jc, const double* a, long n);

// zvdotsl: sum over i from jb to n-1 of S(ja, i) L(i, jb); a is the first element of row ja of S,
// b points at L(jb, jb).
double zvdotsl(const double* a, long ja, const double* b, long jb, long n);

// zvxay11: a[i] += alpha b[i]. alpha is not tested: 0 times a NaN or an infinity reaches a.
inline void zvxay11(double* a, const double* b, long n, double alpha)
{
  for (long i = 0; i < n; ++i) a[i] += alpha * b[i];
}

// zvxayj1: a[i ja] += alpha b[i]; nothing when alpha is 0.
void zvxayj1(double* a, long ja, const double* b, long n, double alpha);

// zvxay1j: a[i] += alpha b[i jb]; nothing when alpha is 0.
void zvxay1j(double* a, const double* b, long jb, long n, double alpha);

// zvxy111: c[i] = a[i] + b[i].
inline void zvxy111(double* c, const double* a, const double* b, long n)
{
  for (long i = 0; i < n; ++i) c[i] = a[i] + b[i];
}

// zvz111: c[i] = a[i] + alpha b[i].
inline void zvz111(double* c, const double* a, const double* b, long n, double alpha)
{
  for (long i = 0; i < n; ++i) c[i] = a[i] + alpha * b[i];
}

// zvaxpy: z[i] = x[i] + alpha y[i]. With alpha 0 y is not read: z is a copy of x, and when z is x
// nothing is done.
void zvaxpy(double* z, const double* x, const double* y, long n, double alpha);

// zvscl11: c[i] = alpha a[i].
inline void zvscl11(double* c, const double* a, long n, double alpha)
{
  for (long i = 0; i < n; ++i) c[i] = alpha * a[i];
}

// zvfillj: a[i ja] = alpha.
void zvfillj(double* a, long ja, long n, double alpha);

// zvamx: largest |vector[i]|; 0 for dim below 1. NaNs are passed over.
double zvamx(const double* vector, long dim);

// zvamxj: largest |vector[i j]|. Reads the first element whatever dim is: dim must be at least 1.
double zvamxj(const double* vector, long j, long dim);

// zvasumj: sum of |a[i j]|.
double zvasumj(const double* a, long j, long n);

// zvrotg: turn the plane. x[i jx], y[i jy] := c x + s y, c y - s x.
void zvrotg(double* x, long jx, double* y, long jy, long n, double c, double s);

// zvenorm: guarded Euclidean norm of x at stride incx. With m the largest |x| and t = m (its root
// when m > 1), an element is dropped when |x| + t is t, or when its ratio to m adds nothing to 1.
// These two tests make it differ from a plain scaled sum for badly scaled vectors; the stopping
// tests of the optimizer depend on them. A single non-zero element gives its absolute value exactly.
double zvenorm(long n, long incx, const double* x);

} // namespace torvale::matrix
