#pragma once

#include <string>
#include <vector>

#include "matrix/constants.h"

// tests/data/matrices.json: small matrices with exact rational results, printed to 30 digits.
namespace torvale::matrix::test {

struct SymmetricCase {
  std::string name;
  int n = 0;
  std::vector<double> packed;
  double det_mantissa = 0.0;
  int det_exponent = 0;
  int positive = 0;
  int negative = 0;
  int zero = 0;
  bool positive_definite = false;
  double condition = 0.0;              // 2-norm; 0 when singular
  std::vector<double> eigenvalues;     // ascending
  std::vector<double> inverse;         // packed; empty when singular
  std::vector<double> right_hand_side; // A x = b
  std::vector<double> solution;
  std::vector<double> cholesky; // packed; empty unless positive definite
  double largest = 0.0;         // max |a(i, j)|

  // The tolerance at which the inertia is exact: 0 at full rank, n eps max|a| at deficient rank.
  double inertia_tolerance() const { return zero == 0 ? 0.0 : n * eps * largest; }
};

struct RectangularCase {
  std::string name;
  int rows = 0;
  int cols = 0;
  std::vector<double> matrix; // row-major
  int rank = 0;
  std::vector<double> unpivoted_diagonal; // |R(i, i)|; empty when the leading columns are dependent
  std::vector<double> pivoted_diagonal;
  std::vector<int> pivot_order; // one-based
  bool pivot_ties = false;      // the order depends on the rule for equal norms
  std::vector<double> right_hand_side;
  std::vector<double> solution; // least squares; empty unless of full column rank
  double rss = 0.0;
  double largest_singular_value = 0.0;
  double smallest_singular_value = 0.0;
};

const std::vector<SymmetricCase>& symmetric_cases();
const std::vector<RectangularCase>& rectangular_cases();

} // namespace torvale::matrix::test
