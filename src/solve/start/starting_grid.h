#pragma once
// From starting values to a start of the fit: the grid search and its tables.

#include "model/run_record.h"

namespace torvale::solve {

// tvlparm: evaluates the objective at each point of the starting grid, keeps the nbest best, settles the number of
// quadrature points at the first point with a value, writes "Dimensions" and "Parameters", and leaves n.parm, n.objfun
// and the modes of the best point. (tvl procedure, parm parameters.) Returns 0, or 1 to skip the BY group.
int tvlparm(model::NX& n);

// write_dimensions: table "Dimensions" as things stand.
void write_dimensions(const model::NX& n);

// StartingTables: "Dimensions", and the rows of "Parameters".
class StartingTables {
public:
  explicit StartingTables(model::NX& n) : n_(n) {}
  ~StartingTables();
  void open();                                       // writes "Dimensions", opens "Parameters"
  void point(const double* theta, double objective); // a row; a failed objective shows as missing
  bool is_open() const { return table_ != nullptr; }

private:
  model::NX& n_;
  host::Table* table_ = nullptr;
};

} // namespace torvale::solve
