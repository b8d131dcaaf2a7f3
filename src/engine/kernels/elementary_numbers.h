#pragma once
// The numbers of the exponential and the logarithm, for the lane kernels and for machine code that does the same.

namespace torvale::engine {

// log 2 in two parts; the first has zeros in its low bits, so that its products with whole numbers are exact.
inline constexpr double log2_high = 6.93147180369123816490e-01, log2_low = 1.90821492927058770002e-10;

// exp x = 2^k e^r with k = x / log 2, rounded, and e^r = 1 + (r + r^2 P(r)), |r| <= log(2) / 2.
namespace exponential {
inline constexpr double per_log2 = 1.4426950408889634;
inline constexpr double shifter = 0x1.8p52; // adding it leaves the nearest whole number in the low bits
inline constexpr double regular = 708.0;    // up to this size 2^k is a normal number
// P, lowest coefficient first: minimax by the exchange method of E. Remez; relative error of e^r 2^-58.
inline constexpr double p[] = {0.5000000000000011,    0.16666666666666413,    0.041666666666530155,
                               0.008333333333494461,  0.0013888888943630114,  0.00019841269506578688,
                               2.480149309890655e-05, 2.7557586373840165e-06, 2.763024837921144e-07,
                               2.5000061602835666e-08};
} // namespace exponential

// log x with x = 2^k m, sqrt(1/2) <= m < sqrt 2, f = m - 1 and s = f / (2 + f):
//     log m = 2 artanh s = f - (f^2/2 - s (f^2/2 + s^2 R(s^2)))
// with the minimax polynomial R of K. C. Ng (fdlibm, 1993; error 2^-58), highest coefficient first.
namespace logarithm {
inline constexpr unsigned long long root_half = 0x3FE6A09E667F3BCD; // the bits of sqrt(1/2)
inline constexpr unsigned long long bias = 0x3FE0000000000000;      // of exponents, counted from sqrt(1/2)
inline constexpr unsigned long long whole = 0x4330000000000000;     // 2^52: a whole number stands in its low bits
inline constexpr double offset = 0x1p52 + 1022.0;                   // what that and the bias add to the exponent
inline constexpr unsigned long long fraction = 0x000FFFFFFFFFFFFF;
inline constexpr double r[] = {1.479819860511658591e-01, 1.531383769920937332e-01, 1.818357216161805012e-01,
                               2.222219843214978396e-01, 2.857142874366239149e-01, 3.999999999940941908e-01,
                               6.666666666666735130e-01};
inline constexpr double least_normal = 0x1p-1022;
} // namespace logarithm

} // namespace torvale::engine
