#pragma once

#include "dual.h"

#include <cmath>
#include <string>
#include <vector>

// The objectives of the reference problems, by name, for doubles and duals alike. Indices from 0.

namespace torvale::test {

using Data = std::vector<std::vector<double>>;

template <class T> T square(T a)
{
  return a * a;
}
template <class T> T fourth(T a)
{
  return square(square(a));
}

template <class T> T rosenbrock(const T* x, int n, const Data&)
{
  T f = 0.0;
  for (int i = 0; i + 1 < n; i += 2) f += 100.0 * square(x[i + 1] - x[i] * x[i]) + square(1.0 - x[i]);
  return f;
}

template <class T> T powell_badly_scaled(const T* x, int, const Data&)
{
  using std::exp;
  return square(1e4 * x[0] * x[1] - 1.0) + square(exp(-x[0]) + exp(-x[1]) - 1.0001);
}

template <class T> T brown_badly_scaled(const T* x, int, const Data&)
{
  return square(x[0] - 1e6) + square(x[1] - 2e-6) + square(x[0] * x[1] - 2.0);
}

template <class T> T jennrich_sampson(const T* x, int, const Data&)
{
  using std::exp;
  T f = 0.0;
  for (int i = 1; i <= 10; ++i) f += square(2.0 + 2.0 * i - (exp(double(i) * x[0]) + exp(double(i) * x[1])));
  return f;
}

template <class T> T bard(const T* x, int, const Data& data)
{
  T f = 0.0;
  for (int i = 1; i <= 15; ++i) {
    const double u = i, v = 16 - i, w = std::min(u, v);
    f += square(data[0][size_t(i - 1)] - (x[0] + u / (v * x[1] + w * x[2])));
  }
  return f;
}

template <class T> T gaussian(const T* x, int, const Data& data)
{
  using std::exp;
  T f = 0.0;
  for (int i = 1; i <= 15; ++i)
    f += square(x[0] * exp(-x[1] * square((8.0 - i) / 2.0 - x[2]) / 2.0) - data[0][size_t(i - 1)]);
  return f;
}

template <class T> T box_3d(const T* x, int, const Data&)
{
  using std::exp;
  T f = 0.0;
  for (int i = 1; i <= 10; ++i) {
    const double t = i / 10.0;
    f += square(exp(-t * x[0]) - exp(-t * x[1]) - x[2] * (std::exp(-t) - std::exp(-10.0 * t)));
  }
  return f;
}

template <class T> T meyer(const T* x, int, const Data& data)
{
  using std::exp;
  T f = 0.0;
  for (int i = 1; i <= 16; ++i) f += square(x[0] * exp(x[1] / (45.0 + 5.0 * i + x[2])) - data[0][size_t(i - 1)]);
  return f;
}

template <class T> T powell_singular(const T* x, int n, const Data&)
{
  T f = 0.0;
  for (int i = 0; i + 3 < n; i += 4)
    f += square(x[i] + 10.0 * x[i + 1]) + 5.0 * square(x[i + 2] - x[i + 3]) + fourth(x[i + 1] - 2.0 * x[i + 2]) +
         10.0 * fourth(x[i] - x[i + 3]);
  return f;
}

template <class T> T wood(const T* x, int, const Data&)
{
  return 100.0 * square(x[1] - x[0] * x[0]) + square(1.0 - x[0]) + 90.0 * square(x[3] - x[2] * x[2]) +
         square(1.0 - x[2]) + 10.1 * (square(x[1] - 1.0) + square(x[3] - 1.0)) + 19.8 * (x[1] - 1.0) * (x[3] - 1.0);
}

template <class T> T kowalik_osborne(const T* x, int, const Data& data)
{
  T f = 0.0;
  for (size_t i = 0; i < 11; ++i) {
    const double u = data[1][i];
    f += square(data[0][i] - x[0] * (u * u + u * x[1]) / (u * u + u * x[2] + x[3]));
  }
  return f;
}

template <class T> T osborne_1(const T* x, int, const Data& data)
{
  using std::exp;
  T f = 0.0;
  for (int i = 0; i < 33; ++i) {
    const double t = 10.0 * i;
    f += square(data[0][size_t(i)] - (x[0] + x[1] * exp(-t * x[3]) + x[2] * exp(-t * x[4])));
  }
  return f;
}

template <class T> T watson(const T* x, int n, const Data&)
{
  T f = x[0] * x[0] + square(x[1] - x[0] * x[0] - 1.0);
  for (int i = 1; i <= 29; ++i) {
    const double t = i / 29.0;
    T derivative = 0.0, value = x[0];
    double power = 1.0;
    for (int j = 1; j < n; ++j) {
      derivative += double(j) * power * x[j];
      power *= t;
      value += power * x[j];
    }
    f += square(derivative - value * value - 1.0);
  }
  return f;
}

template <class T> T penalty_1(const T* x, int n, const Data&)
{
  T sum = 0.0, squares = 0.0;
  for (int i = 0; i < n; ++i) {
    sum += square(x[i] - 1.0);
    squares += x[i] * x[i];
  }
  return 1e-5 * sum + square(squares - 0.25);
}

template <class T> T penalty_2(const T* x, int n, const Data&)
{
  using std::exp;
  T f = square(x[0] - 0.2), sum = double(n) * x[0] * x[0];
  for (int i = 1; i < n; ++i) {
    const double y = std::exp((i + 1) / 10.0) + std::exp(i / 10.0);
    f += 1e-5 * square(exp(x[i] / 10.0) + exp(x[i - 1] / 10.0) - y);
    f += 1e-5 * square(exp(x[i] / 10.0) - std::exp(-0.1));
    sum += double(n - i) * x[i] * x[i];
  }
  return f + square(sum - 1.0);
}

template <class T> T variably_dimensioned(const T* x, int n, const Data&)
{
  T f = 0.0, s = 0.0;
  for (int i = 0; i < n; ++i) {
    f += square(x[i] - 1.0);
    s += (i + 1.0) * (x[i] - 1.0);
  }
  return f + s * s + fourth(s);
}

template <class T> T trigonometric(const T* x, int n, const Data&)
{
  using std::cos, std::sin;
  T f = 0.0, cosines = 0.0;
  for (int j = 0; j < n; ++j) cosines += cos(x[j]);
  for (int i = 0; i < n; ++i) f += square(double(n) - cosines + (i + 1.0) * (1.0 - cos(x[i])) - sin(x[i]));
  return f;
}

template <class T> T chebyquad(const T* x, int n, const Data&)
{
  std::vector<T> mean(size_t(n + 1), T(0.0));
  for (int j = 0; j < n; ++j) {
    const T z = 2.0 * x[j] - 1.0;
    T before = 1.0, now = z;
    for (int i = 1; i <= n; ++i) {
      mean[size_t(i)] += now / double(n);
      const T next = 2.0 * z * now - before;
      before = now;
      now = next;
    }
  }
  T f = 0.0;
  for (int i = 1; i <= n; ++i) f += square(mean[size_t(i)] - (i % 2 == 0 ? -1.0 / (double(i) * i - 1.0) : 0.0));
  return f;
}

template <class T> T brown_almost_linear(const T* x, int n, const Data&)
{
  T f = 0.0, sum = 0.0, product = 1.0;
  for (int j = 0; j < n; ++j) {
    sum += x[j];
    product *= x[j];
  }
  for (int i = 0; i + 1 < n; ++i) f += square(x[i] + sum - double(n + 1));
  return f + square(product - 1.0);
}

template <class T> T discrete_boundary(const T* x, int n, const Data&)
{
  T f = 0.0;
  const double h = 1.0 / (n + 1);
  for (int i = 0; i < n; ++i) {
    const T left = i > 0 ? x[i - 1] : T(0.0), right = i + 1 < n ? x[i + 1] : T(0.0);
    const T c = x[i] + (i + 1) * h + 1.0;
    f += square(2.0 * x[i] - left - right + h * h * c * c * c / 2.0);
  }
  return f;
}

template <class T> T linear_full_rank(const T* x, int n, const Data&)
{
  const double m = 10.0;
  T f = 0.0, sum = 0.0;
  for (int i = 0; i < n; ++i) sum += x[i];
  const T mean = (2.0 / m) * sum;
  for (int i = 0; i < n; ++i) f += square(x[i] - mean - 1.0);
  return f + (m - n) * square(mean + 1.0);
}

template <class T> T linear_rank_1(const T* x, int n, const Data&)
{
  T f = 0.0, sum = 0.0;
  for (int j = 0; j < n; ++j) sum += (j + 1.0) * x[j];
  for (int i = 1; i <= 10; ++i) f += square(double(i) * sum - 1.0);
  return f;
}

template <class T> T hs3(const T* x, int, const Data&)
{
  return x[1] + 1e-5 * square(x[1] - x[0]);
}
template <class T> T hs4(const T* x, int, const Data&)
{
  return (x[0] + 1.0) * square(x[0] + 1.0) / 3.0 + x[1];
}

template <class T> T hs9(const T* x, int, const Data&)
{
  using std::cos, std::sin;
  const double pi = 3.14159265358979323846;
  return sin(pi * x[0] / 12.0) * cos(pi * x[1] / 16.0);
}

template <class T> T hs21(const T* x, int, const Data&)
{
  return 0.01 * x[0] * x[0] + x[1] * x[1] - 100.0;
}

template <class T> T hs25(const T* x, int, const Data&)
{
  using std::exp, std::pow;
  T f = 0.0;
  for (int i = 1; i <= 99; ++i) {
    const double u = 25.0 + std::pow(-50.0 * std::log(i / 100.0), 2.0 / 3.0);
    f += square(-i / 100.0 + exp(-pow(u - x[1], x[2]) / x[0]));
  }
  return f;
}

template <class T> T hs28(const T* x, int, const Data&)
{
  return square(x[0] + x[1]) + square(x[1] + x[2]);
}
template <class T> T minus_product_3(const T* x, int, const Data&)
{
  return -x[0] * x[1] * x[2];
}

template <class T> T hs44(const T* x, int, const Data&)
{
  return x[0] - x[1] - x[2] - x[0] * x[2] + x[0] * x[3] + x[1] * x[2] - x[1] * x[3];
}

template <class T> T hs45(const T* x, int, const Data&)
{
  return 2.0 - x[0] * x[1] * x[2] * x[3] * x[4] / 120.0;
}

template <class T> T hs48(const T* x, int, const Data&)
{
  return square(x[0] - 1.0) + square(x[1] - x[2]) + square(x[3] - x[4]);
}

template <class T> T hs50(const T* x, int, const Data&)
{
  return square(x[0] - x[1]) + square(x[1] - x[2]) + fourth(x[2] - x[3]) + square(x[3] - x[4]);
}

template <class T> T hs51(const T* x, int, const Data&)
{
  return square(x[0] - x[1]) + square(x[1] + x[2] - 2.0) + square(x[3] - 1.0) + square(x[4] - 1.0);
}

template <class T> T hs52(const T* x, int, const Data&)
{
  return square(4.0 * x[0] - x[1]) + square(x[1] + x[2] - 2.0) + square(x[3] - 1.0) + square(x[4] - 1.0);
}

template <class T> T hs55(const T* x, int, const Data&)
{
  using std::exp;
  return x[0] + 2.0 * x[1] + 4.0 * x[4] + exp(x[0] * x[3]);
}

template <class T> T hs76(const T* x, int, const Data&)
{
  return x[0] * x[0] + 0.5 * x[1] * x[1] + x[2] * x[2] + 0.5 * x[3] * x[3] - x[0] * x[2] + x[2] * x[3] - x[0] -
         3.0 * x[1] + x[2] - x[3];
}

// data: e, d, then the rows of c.
template <class T> T hs86(const T* x, int n, const Data& data)
{
  T f = 0.0;
  for (size_t j = 0; j < size_t(n); ++j) {
    f += data[0][j] * x[j] + data[1][j] * x[j] * x[j] * x[j];
    for (size_t i = 0; i < size_t(n); ++i) f += data[2 + i][j] * x[i] * x[j];
  }
  return f;
}

template <class T> T hs110(const T* x, int n, const Data&)
{
  using std::log, std::pow;
  T f = 0.0, product = 1.0;
  for (int i = 0; i < n; ++i) {
    f += square(log(x[i] - 2.0)) + square(log(10.0 - x[i]));
    product *= x[i];
  }
  return f - pow(product, T(0.2));
}

template <class T> T hs112(const T* x, int n, const Data& data)
{
  using std::log;
  T f = 0.0, sum = 0.0;
  for (int j = 0; j < n; ++j) sum += x[j];
  for (int j = 0; j < n; ++j) f += x[j] * (data[0][size_t(j)] + log(x[j] / sum));
  return f;
}

} // namespace torvale::test
