#pragma once

// The determinant and inertia record det: five doubles, in this one order everywhere.
namespace torvale::matrix {

enum DeterminantField {
  det_mantissa = 0, // 1 to below 10 in absolute value; 0 for a singular matrix
  det_exponent = 1, // power of ten; 0 with a zero mantissa
  det_positive = 2, // positive pivots
  det_negative = 3, // negative pivots
  det_zero = 4      // pivots that are at most the tolerance in absolute value
};

// det := 1, 0, 0, 0, 0.
void determinant_start(double* det);

// Takes one pivot into the product. A factor of at most dmin in absolute value makes the product 0
// for good; an infinite or NaN factor makes the mantissa so.
void determinant_multiply(double* det, double pivot);

// Counts one pivot: zero when at most tolerance in absolute value, else by its sign.
void determinant_count(double* det, double pivot, double tolerance);

// Product 0: mantissa and exponent 0. The counts stay.
void determinant_clear(double* det);

} // namespace torvale::matrix
