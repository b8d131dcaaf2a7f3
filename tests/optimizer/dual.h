#pragma once

#include <cmath>

namespace torvale::test {

// A value with its derivative in one direction: the truth that gradients are compared with, free of differences.
struct Dual {
  double v = 0.0;
  double d = 0.0;
  Dual() = default;
  Dual(double value) : v(value) {} // NOLINT: constants mix freely with duals
  Dual(double value, double derivative) : v(value), d(derivative) {}
};

inline Dual operator+(Dual a, Dual b)
{
  return {a.v + b.v, a.d + b.d};
}
inline Dual operator-(Dual a, Dual b)
{
  return {a.v - b.v, a.d - b.d};
}
inline Dual operator-(Dual a)
{
  return {-a.v, -a.d};
}
inline Dual operator*(Dual a, Dual b)
{
  return {a.v * b.v, a.d * b.v + a.v * b.d};
}
inline Dual operator/(Dual a, Dual b)
{
  return {a.v / b.v, (a.d - a.v / b.v * b.d) / b.v};
}
inline Dual& operator+=(Dual& a, Dual b)
{
  return a = a + b;
}
inline Dual& operator*=(Dual& a, Dual b)
{
  return a = a * b;
}
inline Dual exp(Dual a)
{
  return {std::exp(a.v), std::exp(a.v) * a.d};
}
inline Dual log(Dual a)
{
  return {std::log(a.v), a.d / a.v};
}
inline Dual sin(Dual a)
{
  return {std::sin(a.v), std::cos(a.v) * a.d};
}
inline Dual cos(Dual a)
{
  return {std::cos(a.v), -std::sin(a.v) * a.d};
}
inline Dual atan(Dual a)
{
  return {std::atan(a.v), a.d / (1.0 + a.v * a.v)};
}
inline Dual pow(Dual a, Dual b)
{
  const double p = std::pow(a.v, b.v);
  return {p, p * (b.d * std::log(a.v) + b.v * a.d / a.v)};
}

} // namespace torvale::test
