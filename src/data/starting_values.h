#pragma once
// Starting values: from the PARMS statement, from a PARMS data set, and the grid that they span.

#include "model/run_record.h"

#include <string>
#include <vector>

namespace torvale::data {

// NamedValues: one parameter as a PARMS statement or data set names it.
struct NamedValues {
  std::string name;
  std::vector<double> values; // in order; TO and BY expanded
  syntax::Position where;
};

// The names of a PARMS statement with their values; a name without values has those of the next name that has some.
// Returns 0, or 1 when a name has no values to take (message 503/235).
int parms_statement(model::NX& n, const syntax::STMT& parms, std::vector<NamedValues>& found);

// Opens PARMS / DATA= and finds out its layout and the parameters it gives: rows of Parameter and Estimate, or one
// column per parameter. Columns that no statement mentions are skipped with a note. Returns 0, or 1 after a message.
int open_parms_data(model::NX& n, const syntax::STMT& parms, std::vector<NamedValues>& found);

// With BYDATA: puts the rows of the current BY group into the parameters' lists. Returns 0, or 1 to skip the BY group.
int load_group_values(model::NX& n);

// grid_point: the parameters at point p of the grid (0 to npoints - 1); the first parameter varies fastest. False when
// the point is not usable: a value is missing, outside its bounds, or its list is too short.
bool grid_point(const model::ModelLists& n, long p, double* theta);

} // namespace torvale::data
