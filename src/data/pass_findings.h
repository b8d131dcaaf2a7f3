#pragma once
// What one pass over the data learns of the rows.

#include "model/run_record.h"

#include <cstdint>
#include <vector>

namespace torvale::data {

// BlockFindings: of the rows of one block.
struct BlockFindings {
  long bad = 0;                               // rows marked in badobs
  long fractions = 0;                         // used rows whose response is not a whole number, where it should be one
  std::int64_t first_fraction = 0;            // row of the first one
  long impossible = 0;                        // usable rows with an impossible log likelihood
  std::vector<std::int64_t> first_impossible; // a few of these rows

  void add(const BlockFindings& next)
  {
    if (fractions == 0) first_fraction = next.first_fraction;
    bad += next.bad;
    fractions += next.fractions;
    impossible += next.impossible;
    for (const std::int64_t row : next.first_impossible)
      if (first_impossible.size() < most_shown) first_impossible.push_back(row);
  }
  static constexpr std::size_t most_shown = 3;
};

// PassFindings: of all rows.
struct PassFindings {
  std::vector<std::vector<double>> arguments; // by level: distribution arguments of each row, nd each; one row for all
                                              // where they do not vary
  BlockFindings found;
};

// The distribution arguments of a level's random effects at a row: nd numbers.
const double* arguments_at(const model::ModelLists& n, const PassFindings& pass, std::size_t level, std::int64_t row);

// The means of all random effects at a row, ne numbers: what the program is run at.
void means_at(const model::ModelLists& n, const PassFindings& pass, std::int64_t row, double* mean);

// All random effects at 0: ne numbers, one where there are none.
std::vector<double> no_effects(const model::ModelLists& n);

} // namespace torvale::data
