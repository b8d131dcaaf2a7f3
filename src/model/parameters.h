#pragma once
// Parameters and the grid of their starting values.

#include "engine/engine.h"

#include <limits>
#include <string>
#include <vector>

namespace torvale::model {

// PARMSTR: one parameter. (Parameter structure.)
struct PARMSTR {
  std::string parmname;                                    // as first spelled
  std::vector<double> parmlist;                            // grid values; npoint of them
  int npoint() const { return held() ? 1 : static_cast<int>(parmlist.size()); }
  bool held() const { return applyl && applyh && lowbound == highbound; } // its bounds leave one value
  bool applyl = false;                                     // a lower bound applies
  bool applyh = false;                                     // an upper bound applies
  double lowbound = std::numeric_limits<double>::lowest(); // slack of strict bounds included
  double highbound = std::numeric_limits<double>::max();
  engine::CMPSYM* sym = nullptr;                           // its symbol
  bool defaulted = false;                                  // named in no PARMS statement or data set: starts at 1
};

// POINT: one evaluated point of the starting grid.
struct POINT {
  long parmnum = -1;  // number of the point in the grid; -1 none
  double obj = 0.0;   // objective there
};

} // namespace torvale::model
