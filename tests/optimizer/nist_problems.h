#pragma once

#include <string>
#include <vector>

namespace torvale::test {

// A nonlinear regression of tests/data/nist: y = model(b, x) + error.
struct NistProblem {
  std::string name;
  std::vector<double> y, x1, x2;
  std::vector<double> start1, start2;
  std::vector<double> certified; // to 20 digits
  double rss = 0.0;              // likewise
  double rss_at_start1 = 0.0, rss_at_start2 = 0.0;
  double ml_sigma2 = 0.0; // maximum likelihood estimate of the variance
  std::vector<double> ml_standard_errors;
  int model = -1;

  // Residual sum of squares at b; gradient may be null.
  double sum_of_squares(const double* b, double* gradient) const;
};

const std::vector<NistProblem>& nist_problems();

} // namespace torvale::test
