#include "inference/outputs/output_columns.h"

#include "host/data/libraries.h"
#include "inference/outputs/open_output.h"

namespace torvale::inference {

using host::OutputDataSet;
using model::NX;

void add_test_columns(NX& n, OutputDataSet& out)
{
  add_output_column(n, out, "StdErrPred", "Standard Error of Prediction");
  add_output_column(n, out, "DF", "Degrees of Freedom");
  add_output_column(n, out, "tValue", "t Value");
  add_output_column(n, out, "Probt", "Pr > |t|");
  add_output_column(n, out, "Alpha", "Alpha");
  add_output_column(n, out, "Lower", "Lower Confidence Limit");
  add_output_column(n, out, "Upper", "Upper Confidence Limit");
}

std::size_t set_test(OutputDataSet& out, std::size_t at, const TVAL& t)
{
  for (const double x : {t.sder, t.dfe, t.tval, t.prob, t.alpha, t.lower, t.upper}) out.set(at++, x);
  return at;
}

} // namespace torvale::inference
