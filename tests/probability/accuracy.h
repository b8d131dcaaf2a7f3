#pragma once

#include <functional>
#include <string>
#include <vector>

// The accuracy of every function with a reference table of 20 digits, measured row by row. The tests hold each row to
// its tolerance; numerics_table prints the worst of each region.

namespace torvale::probability {

// One comparison of a computed with a true value.
struct Measurement {
  std::string function; // the routine
  std::string region;   // where in its domain
  std::string inputs;   // the row's inputs as the table has them
  double error;         // relative error; absolute where the region says so; infinite for a wrong code or a NaN
  double tolerance;     // what the row may have
};

// A CSV table: the columns of each row as text and as long doubles.
struct Row {
  std::vector<std::string> text;
  std::vector<long double> value;
};
std::vector<Row> read_table(const std::string& name); // tests/data/special/<name>.csv; empty when it is not there

using Measurements = std::vector<Measurement>;
Measurements measure_elementary();        // erf, log1p, expm1, log gamma, log beta
Measurements measure_gamma_derivatives(); // polygammas, differences of log gamma and polygammas
Measurements measure_normal();            // normal distribution, Mills ratio, quantile
Measurements measure_incomplete();        // incomplete beta and gamma, F and t tails
Measurements measure_log_tails();         // logarithms of far tails, tiny and huge shapes
Measurements measure_quantiles();         // t, chi-square and beta quantiles

// |value/truth - 1|. A truth below the normal numbers asks only that the value is there too (0 or subnormal).
double relative_error(double value, long double truth);
double absolute_error(double value, long double truth);

} // namespace torvale::probability
