#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "matrix/constants.h"
#include "matrix/packed.h"

// The slow, obviously right side of the comparisons: dense matrices in long double, and random input.
namespace torvale::matrix::test {

struct Dense {
  int rows = 0;
  int cols = 0;
  std::vector<long double> values;

  Dense(int r, int c) : rows(r), cols(c), values(static_cast<std::size_t>(r) * static_cast<std::size_t>(c), 0.0L) {}
  long double& operator()(int i, int j) { return values[static_cast<std::size_t>(i * cols + j)]; }
  long double operator()(int i, int j) const { return values[static_cast<std::size_t>(i * cols + j)]; }
};

inline Dense operator*(const Dense& a, const Dense& b)
{
  Dense c(a.rows, b.cols);
  for (int i = 0; i < a.rows; ++i)
    for (int k = 0; k < a.cols; ++k)
      for (int j = 0; j < b.cols; ++j) c(i, j) += a(i, k) * b(k, j);
  return c;
}

inline Dense operator+(Dense a, const Dense& b)
{
  for (std::size_t i = 0; i < a.values.size(); ++i) a.values[i] += b.values[i];
  return a;
}

inline Dense operator*(long double t, Dense a)
{
  for (long double& v : a.values) v *= t;
  return a;
}

inline Dense transpose(const Dense& a)
{
  Dense t(a.cols, a.rows);
  for (int i = 0; i < a.rows; ++i)
    for (int j = 0; j < a.cols; ++j) t(j, i) = a(i, j);
  return t;
}

inline Dense identity(int n)
{
  Dense e(n, n);
  for (int i = 0; i < n; ++i) e(i, i) = 1.0L;
  return e;
}

inline Dense from_rows(const std::vector<double>& r, int rows, int cols)
{
  Dense a(rows, cols);
  for (std::size_t i = 0; i < a.values.size(); ++i) a.values[i] = r[i];
  return a;
}

inline Dense from_symmetric(const std::vector<double>& s, int n)
{
  Dense a(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) a(i, j) = s[static_cast<std::size_t>(packed_index(i, j))];
  return a;
}

inline Dense from_lower(const std::vector<double>& l, int n)
{
  Dense a(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) a(i, j) = l[static_cast<std::size_t>(packed_index(i, j))];
  return a;
}

inline double largest(const Dense& a)
{
  long double m = 0.0L;
  for (const long double v : a.values) m = std::max(m, std::fabs(v));
  return static_cast<double>(m);
}

inline double difference(const Dense& a, const Dense& b)
{
  return largest(a + -1.0L * b);
}

// A number as mantissa times a power of two, for products that leave every range.
struct Product {
  long double mantissa = 1.0L;
  long exponent = 0;

  void multiply(long double x)
  {
    int of_factor = 0;
    int of_product = 0;
    mantissa = std::frexp(mantissa * std::frexp(x, &of_factor), &of_product);
    exponent += of_factor + of_product;
  }
};

// Determinant by Gaussian elimination with row exchanges.
inline Product determinant(Dense a)
{
  Product det;
  for (int k = 0; k < a.rows; ++k) {
    int p = k;
    for (int i = k + 1; i < a.rows; ++i)
      if (std::fabs(a(i, k)) > std::fabs(a(p, k))) p = i;
    for (int j = 0; j < a.cols; ++j) std::swap(a(k, j), a(p, j));
    det.multiply(p == k ? a(k, k) : -a(k, k));
    for (int i = k + 1; i < a.rows; ++i) {
      const long double t = a(i, k) / a(k, k);
      for (int j = k; j < a.cols; ++j) a(i, j) -= t * a(k, j);
    }
  }
  return det;
}

inline std::size_t packed_length(int n)
{
  return static_cast<std::size_t>(packed_size(n));
}

// Random input, the same in every run.
class Source {
public:
  explicit Source(unsigned seed) : engine_(seed) {}

  int integer(int low, int high) { return low + static_cast<int>(engine_() % static_cast<unsigned>(high - low + 1)); }
  double uniform() { return 2.0 * (static_cast<double>(engine_()) / 4294967296.0) - 1.0; }

  std::vector<double> values(std::size_t n)
  {
    std::vector<double> v(n);
    for (double& x : v) x = uniform();
    return v;
  }
  std::vector<double> symmetric(int n) { return values(packed_length(n)); }
  // A lower triangle with a diagonal away from zero.
  std::vector<double> triangle(int n)
  {
    std::vector<double> l = symmetric(n);
    for (int i = 0; i < n; ++i) l[static_cast<std::size_t>(packed_diagonal(i))] += i % 3 == 0 ? -2.0 : 2.0;
    return l;
  }
  // B B' + n I, with rows and columns scaled by 10^-span ... 10^span.
  std::vector<double> positive_definite(int n, double span)
  {
    const Dense b = from_rows(values(static_cast<std::size_t>(n * n)), n, n);
    const Dense c = b * transpose(b) + static_cast<long double>(n) * identity(n);
    std::vector<double> scale(static_cast<std::size_t>(n));
    for (double& s : scale) s = std::pow(10.0, span * uniform());
    std::vector<double> s(packed_length(n));
    for (int i = 0; i < n; ++i)
      for (int j = 0; j <= i; ++j)
        s[static_cast<std::size_t>(packed_index(i, j))] =
            static_cast<double>(c(i, j)) * scale[static_cast<std::size_t>(i)] * scale[static_cast<std::size_t>(j)];
    return s;
  }

private:
  std::mt19937 engine_;
};

} // namespace torvale::matrix::test
