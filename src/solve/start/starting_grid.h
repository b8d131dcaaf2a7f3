#pragma once
// From starting values to a start of the fit: the grid search and the choice of the number of quadrature points.

#include "model/run_record.h"

namespace torvale::solve {

// tvlparm: evaluates the objective at each point of the starting grid, keeps the nbest best, settles the number of
// quadrature points at the first point with a value, writes "Dimensions" and "Parameters", and leaves n.parm, n.objfun
// and the modes of the best point. (tvl procedure, parm parameters.) Returns 0, or 1 to skip the BY group.
int tvlparm(model::NX& n);

// settle_points: builds the point set and evaluates at n.parm; without QPOINTS= raises the number of points until the
// objective's relative change is below qtol, and settles on the smaller of the last two counts. Returns 0; 1 when the
// objective has no value here whatever the number of points (another grid point may have one); 2 when qmax was not
// enough (message 503/270).
int settle_points(model::NX& n);

// more_points: the choice of the number of points made once more at the estimates, from the number in use on. True when
// a larger one was chosen: the points then are in place, and the fit has to go on with them. Passing QMAX= is a
// warning.
bool more_points(model::NX& n);

// check_points: how much -2 log L at the estimates changes with 2 N + 1 points per dimension in place of N, into the
// verdict; left out, with the reason, where that evaluation would cost more than 100 of the fit's. A change above 0.1
// is a warning.
void check_points(model::NX& n);

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
