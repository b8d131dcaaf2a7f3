#pragma once
// Values with their first (and second) derivatives in N variables, over doubles or over lanes: what one writes by hand
// when derivatives of long formulas are needed. Order 0: value only; 1: gradient; 2: gradient and lower triangle.
// Included only by hand_loops.cpp, which is compiled once for each instruction set.

#include "engine/kernels/lane_elementary.h"

#include <cmath>

namespace torvale::bench {
namespace {

using engine::Lanes;

inline double spread(double x, double)
{
  return x;
}
inline Lanes spread(double x, Lanes)
{
  return engine::all(x);
}
inline double exp_of(double x)
{
  return std::exp(x);
}
inline Lanes exp_of(Lanes x)
{
  return engine::lane::exp(x);
}

template <class S, int N, int Order> struct Jet {
  static constexpr int gradients = Order >= 1 ? N : 0;
  static constexpr int hessians = Order >= 2 ? N * (N + 1) / 2 : 0;
  S v{};
  S g[gradients > 0 ? gradients : 1] = {};
  S h[hessians > 0 ? hessians : 1] = {};

  Jet() = default;
  Jet(double x) : v(spread(x, S{})) {}
  template <class D> explicit Jet(const Jet<D, N, Order>& x) : v(spread(x.v, S{}))
  {
    for (int i = 0; i < gradients; ++i) g[i] = spread(x.g[i], S{});
    for (int i = 0; i < hessians; ++i) h[i] = spread(x.h[i], S{});
  }
  static Jet of_lanes(S x)
  {
    Jet j;
    j.v = x;
    return j;
  }
  static Jet variable(double x, int k)
  {
    Jet j(x);
    if (Order >= 1 && k >= 0) j.g[k] = spread(1.0, S{});
    return j;
  }
};

// f(x) with f' and f'' at x.v.
template <class S, int N, int O> Jet<S, N, O> chain(const Jet<S, N, O>& x, S f, S f1, S f2)
{
  Jet<S, N, O> r;
  r.v = f;
  for (int i = 0; i < r.gradients; ++i) r.g[i] = f1 * x.g[i];
  for (int i = 0, k = 0; k < r.hessians; ++i)
    for (int j = 0; j <= i; ++j, ++k) r.h[k] = f1 * x.h[k] + f2 * x.g[i] * x.g[j];
  return r;
}

template <class S, int N, int O> Jet<S, N, O> operator+(const Jet<S, N, O>& a, const Jet<S, N, O>& b)
{
  Jet<S, N, O> r;
  r.v = a.v + b.v;
  for (int i = 0; i < r.gradients; ++i) r.g[i] = a.g[i] + b.g[i];
  for (int i = 0; i < r.hessians; ++i) r.h[i] = a.h[i] + b.h[i];
  return r;
}
template <class S, int N, int O> Jet<S, N, O> operator-(const Jet<S, N, O>& a, const Jet<S, N, O>& b)
{
  Jet<S, N, O> r;
  r.v = a.v - b.v;
  for (int i = 0; i < r.gradients; ++i) r.g[i] = a.g[i] - b.g[i];
  for (int i = 0; i < r.hessians; ++i) r.h[i] = a.h[i] - b.h[i];
  return r;
}
template <class S, int N, int O> Jet<S, N, O> operator*(const Jet<S, N, O>& a, const Jet<S, N, O>& b)
{
  Jet<S, N, O> r;
  r.v = a.v * b.v;
  for (int i = 0; i < r.gradients; ++i) r.g[i] = a.g[i] * b.v + a.v * b.g[i];
  for (int i = 0, k = 0; k < r.hessians; ++i)
    for (int j = 0; j <= i; ++j, ++k) r.h[k] = a.h[k] * b.v + a.v * b.h[k] + a.g[i] * b.g[j] + a.g[j] * b.g[i];
  return r;
}
template <class S, int N, int O> Jet<S, N, O> inverse(const Jet<S, N, O>& x)
{
  const S i = spread(1.0, S{}) / x.v;
  return chain(x, i, -i * i, spread(2.0, S{}) * i * i * i);
}
template <class S, int N, int O> Jet<S, N, O> operator/(const Jet<S, N, O>& a, const Jet<S, N, O>& b)
{
  return a * inverse(b);
}
template <class S, int N, int O> Jet<S, N, O> exponential(const Jet<S, N, O>& x)
{
  const S e = exp_of(x.v);
  return chain(x, e, e, e);
}
// x times a lane value without derivatives.
template <class S, int N, int O> Jet<S, N, O> times(const Jet<S, N, O>& x, S t)
{
  Jet<S, N, O> r;
  r.v = x.v * t;
  for (int i = 0; i < r.gradients; ++i) r.g[i] = x.g[i] * t;
  for (int i = 0; i < r.hessians; ++i) r.h[i] = x.h[i] * t;
  return r;
}

// Functions of doubles only, for what is computed once per point.
template <int N, int O> Jet<double, N, O> root(const Jet<double, N, O>& x)
{
  const double s = std::sqrt(x.v);
  return chain(x, s, 0.5 / s, -0.25 / (s * x.v));
}
template <int N, int O> Jet<double, N, O> cube_root(const Jet<double, N, O>& x)
{
  const double s = std::pow(x.v, 1.0 / 3.0);
  return chain(x, s, s / (3.0 * x.v), -2.0 * s / (9.0 * x.v * x.v));
}
template <int N, int O> Jet<double, N, O> sine(const Jet<double, N, O>& x)
{
  return chain(x, std::sin(x.v), std::cos(x.v), -std::sin(x.v));
}
template <int N, int O> Jet<double, N, O> cosine(const Jet<double, N, O>& x)
{
  return chain(x, std::cos(x.v), -std::sin(x.v), -std::cos(x.v));
}
// The angle of (x, y) as an arc tangent of y / x, moved to the quadrant of the point.
template <int N, int O> Jet<double, N, O> angle(const Jet<double, N, O>& y, const Jet<double, N, O>& x)
{
  const Jet<double, N, O> q = y / x;
  const double d = 1.0 / (1.0 + q.v * q.v);
  return chain(q, std::atan2(y.v, x.v), d, -2.0 * q.v * d * d);
}

} // namespace
} // namespace torvale::bench
