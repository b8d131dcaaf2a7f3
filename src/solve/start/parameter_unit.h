#pragma once
// What a parameter is known by at the start of a fit.

#include <cstddef>
#include <vector>

namespace torvale::solve {

// Far from its optimum a parameter may seem to matter to nothing: no unit is much longer than the parameter itself.
inline constexpr double most_lengths = 100.0;

// tells_of: whether the sum of outer products of gradients (packed; empty: there is none) tells something of parameter
// j, which is x. Gradients by it may be 0 but for rounding, as by the slope of a covariate that stands symmetrically
// around 0 in subjects that are all alike.
bool tells_of(const std::vector<double>& products, std::size_t j, double x);

// unit_of: 1 / sqrt of the diagonal of the sum; where it tells nothing the parameter's own size, 1 + |x|.
double unit_of(const std::vector<double>& products, std::size_t j, double x);

// short_unit_of: the same, at most `most_lengths` of a parameter that is not 0.
double short_unit_of(const std::vector<double>& products, std::size_t j, double x);

} // namespace torvale::solve
