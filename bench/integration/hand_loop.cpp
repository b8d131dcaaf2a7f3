#include "integration/hand_loop.h"

#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#include <sleef.h>
#endif

namespace torvale::bench {

namespace {

#if defined(__AVX512F__)
constexpr int width = 8;
using Vector = __m512d;
Vector load(const double* x) { return _mm512_loadu_pd(x); }
Vector exponential(Vector x) { return Sleef_finz_expd8_u10avx512f(x); }
Vector logarithm(Vector x) { return Sleef_finz_logd8_u10avx512f(x); }
Vector one() { return _mm512_set1_pd(1.0); }
Vector zero() { return _mm512_setzero_pd(); }
Vector add(Vector a, Vector b) { return _mm512_add_pd(a, b); }
constexpr const char* isa = "avx512";
#elif defined(__AVX2__)
constexpr int width = 4;
using Vector = __m256d;
Vector load(const double* x) { return _mm256_loadu_pd(x); }
Vector exponential(Vector x) { return Sleef_finz_expd4_u10avx2(x); }
Vector logarithm(Vector x) { return Sleef_finz_logd4_u10avx2(x); }
Vector one() { return _mm256_set1_pd(1.0); }
Vector zero() { return _mm256_setzero_pd(); }
Vector add(Vector a, Vector b) { return _mm256_add_pd(a, b); }
constexpr const char* isa = "avx2";
#else
constexpr int width = 2;
using Vector = __m128d;
Vector load(const double* x) { return _mm_loadu_pd(x); }
Vector exponential(Vector x) { return Sleef_cinz_expd2_u10sse2(x); }
Vector logarithm(Vector x) { return Sleef_cinz_logd2_u10sse2(x); }
Vector one() { return _mm_set1_pd(1.0); }
Vector zero() { return _mm_setzero_pd(); }
Vector add(Vector a, Vector b) { return _mm_add_pd(a, b); }
constexpr const char* isa = "baseline";
#endif

template <int Logarithms> double sum_of(const double* x, int buffer, long lanes)
{
  Vector sum = zero();
  int at = 0;
  for (long done = 0; done < lanes; done += width) {
    const Vector e = exponential(load(x + at)), odds = add(one(), e);
    if constexpr (Logarithms == 0)
      sum = add(sum, e);
    else if constexpr (Logarithms == 1)
      sum = add(sum, logarithm(odds));
    else
      sum = add(sum, add(logarithm(odds), logarithm(add(one(), odds)))); // arguments without the divisions
    at = at + width < buffer ? at + width : 0;
  }
  double parts[width];
  std::memcpy(parts, &sum, sizeof parts);
  double total = 0.0;
  for (const double p : parts) total += p;
  return total;
}

} // namespace

double exponentials_and_logarithms(const double* x, int buffer, long lanes, int logarithms)
{
  return logarithms == 0 ? sum_of<0>(x, buffer, lanes) : logarithms == 1 ? sum_of<1>(x, buffer, lanes) : sum_of<2>(x, buffer, lanes);
}

double first_order_objective(const double* x, const double* y, int subjects, int observations, double b0, double b1, double s2, double g)
{
  double total = 0.0;
  for (int s = 0; s < subjects; s += width) {
    Vector square = zero(), pull = zero(), information = zero();
    for (int i = 0; i < observations; ++i) {
      const Vector m = exponential(b0 + b1 * load(x + i * subjects + s)), e = load(y + i * subjects + s) - m;
      square = add(square, e * e);
      pull = add(pull, m * e);
      information = add(information, m * m);
    }
    double q[width], c[width], a[width];
    std::memcpy(q, &square, sizeof q);
    std::memcpy(c, &pull, sizeof c);
    std::memcpy(a, &information, sizeof a);
    for (int k = 0; k < width; ++k) {
      const double b = 1.0 + g * a[k] / s2;
      total += 0.5 * (observations * (1.8378770664093456 + std::log(s2)) + q[k] / s2 + std::log(b) - g * c[k] * c[k] / (s2 * s2 * b));
    }
  }
  return total;
}

const char* hand_loop_isa()
{
  return isa;
}

} // namespace torvale::bench
