#pragma once
// What the tests of the lane kernels share: padded arrays, running a kernel of one build, reference tables.

#include "engine/kernels/kernels.h"

#include <new>
#include <string>
#include <vector>

namespace torvale::engine {

// Doubles on a 64-byte boundary, their number a multiple of lane_padding.
class LaneArray {
public:
  explicit LaneArray(std::size_t n, double fill = 0.0);
  double& operator[](std::size_t i) { return data_[i]; }
  double operator[](std::size_t i) const { return data_[i]; }
  double* data() { return data_; }
  const double* data() const { return data_; }
  int lanes() const { return static_cast<int>(padded_); }

private:
  std::vector<double> storage_;
  double* data_ = nullptr;
  std::size_t padded_ = 0;
};

// Every build that this processor runs.
std::vector<const KernelTable*> builds();

// The results of a kernel for operands given by column: columns[k][i] is operand k of lane i.
std::vector<double> run_lanes(const KernelTable& table, Kernel k, const std::vector<std::vector<double>>& columns);
double run_one(const KernelTable& table, Kernel k, const std::vector<double>& operands);

// A CSV table of tests/data/special: its columns by name, as text and as long doubles.
struct ReferenceTable {
  std::vector<std::string> header;
  std::vector<std::vector<std::string>> text; // by row
  std::size_t column(const std::string& name) const;
  std::vector<double> numbers(const std::string& name) const;
  std::vector<long double> truths(const std::string& name) const;
  std::size_t rows() const { return text.size(); }
};
ReferenceTable read_reference(const std::string& name);

// |value - truth| in units of 2^-52 |truth|; a truth below the normal numbers asks only for a value there too.
double units_off(double value, long double truth);

} // namespace torvale::engine
