#include "optimizer/optimizer.h"

#include <cmath>

namespace torvale::optimizer {
namespace {

int layout_of(int tech)
{
  switch (tech) {
  case TRUREG:
    return 31;
  case NRRIDG:
    return 18;
  case DBLDOG:
    return 15;
  case NMSIMP:
  case NMSIM2:
    return 28;
  default:
    return 23; // line search techniques
  }
}

} // namespace

HistoryRow make_history_row(MINSTR* str, int job)
{
  HistoryRow row;
  const bool start = job == 10;
  str->pnact = str->nabc + str->nalc;
  str->piter = str->nitr;
  str->pcrit = str->imax != 0 ? -str->crit : str->crit;
  str->pcdif = start ? largest : str->cold - str->crit;
  str->pgmax = str->gmax;
  str->ppred = str->pred;
  row.layout = layout_of(str->tech);
  row.start = start;
  row.iteration = static_cast<long>(str->nitr);
  row.skipped = str->null > 0 && str->tech != CONGRA;
  row.restarts = str->ires;
  row.calls = str->nfct;
  row.active = str->pnact;
  row.active_change = str->idac == 0 ? 0 : str->idac == 2147483647 ? 2 : str->idac > 0 ? 1 : -1;
  row.objective = str->pcrit;
  row.decrease = str->pcdif;
  row.gradient = str->pgmax;
  switch (row.layout) {
  case 31:
    row.first = str->lamb, row.second = str->delt;
    break;
  case 18:
    row.first = str->ridg;
    break;
  case 15:
    row.first = str->lamb, row.second = -str->pred;
    break;
  case 28:
    row.gradient = str->pred, row.first = str->alfa, row.second = str->gmax;
    break;
  default:
    row.first = str->alfa;
    break;
  }
  return row;
}

const char* const* history_columns(int layout)
{
  static constexpr const char* radius[] = {"Iter",    "Ac1",     "Rest",    "NFun",   "Act",    "Ac2",
                                           "OptCrit", "DifCrit", "MaxGrad", "Lambda", "Radius", nullptr};
  static constexpr const char* ridge[] = {"Iter",    "Ac1",     "Rest",    "NFun",  "Act",  "Ac2",
                                          "OptCrit", "DifCrit", "MaxGrad", "Ridge", nullptr};
  static constexpr const char* slope[] = {"Iter",    "Ac1",     "Rest",    "NFun",   "Act",   "Ac2",
                                          "OptCrit", "DifCrit", "MaxGrad", "Lambda", "Slope", nullptr};
  static constexpr const char* simplex[] = {"Iter",    "Ac1",     "Rest",   "NFun",  "Act",  "Ac2",
                                            "OptCrit", "DifCrit", "StdDev", "Delta", "Size", nullptr};
  static constexpr const char* step[] = {"Iter",    "Ac1",     "Rest",    "NFun",  "Act",  "Ac2",
                                         "OptCrit", "DifCrit", "MaxGrad", "Alpha", nullptr};
  switch (layout) {
  case 31:
    return radius;
  case 18:
    return ridge;
  case 15:
    return slope;
  case 28:
    return simplex;
  default:
    return step;
  }
}

} // namespace torvale::optimizer
