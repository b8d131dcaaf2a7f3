#pragma once
// Loops over lanes and pairs that are worth the widest vectors of the machine. Every element is computed alone and
// nothing is contracted, so all builds give the same bits.

#include <cstdint>

namespace torvale::evaluation {

// sum[j] += from[j].
void add_lanes(double* sum, const double* from, int n);

// sum[j] += from[j], then from[n + j], ... of `rows` rows, one after the other. Seven values behind the last are read
// too.
void add_rows(double* sum, const double* from, int n, int rows);

// sum[j] += from[j] factor, sum[j] += a[j] b[j].
void add_multiples(double* sum, const double* from, double factor, int n);
void add_products(double* sum, const double* a, const double* b, int n);
// The same; where a[j] is 0 nothing is added whatever b[j] is.
void add_present_products(double* sum, const double* a, const double* b, int n);

// part[j % 8] += a[j] b[j], in ascending order of j.
void add_interleaved_products(double* part, const double* a, const double* b, int n);

// Every x[j] is above `low`, and none is infinite or not a number.
bool all_finite_above(double low, const double* x, int n);

// out[j] = from[j] + step.
void shift_rows(std::int32_t* out, const std::int32_t* from, std::int32_t step, int n);

// x[j] := exp(x[j]) for x[j] <= 0, within 2 ulp; exactly 0 where x[j] is below -708.3964185 (or not a number), so that
// no result is denormal. Cody and Waite's reduction, Taylor polynomial of degree 13 on |r| <= log(2) / 2.
void exponentials_of_nonpositive(double* x, int n);

// sum[j] += from[j] where from[j] is above `above`; `failed` where it is not, or not a number.
void join_above(double* sum, const double* from, double above, double failed, int n);

// to[j] := from[j] where that is larger.
void keep_larger(double* to, const double* from, int n);

} // namespace torvale::evaluation
