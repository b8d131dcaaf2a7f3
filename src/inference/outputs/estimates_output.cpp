#include "inference/outputs/estimates_output.h"

#include "host/data/libraries.h"
#include "host/values/missing.h"
#include "inference/outputs/open_output.h"
#include "inference/outputs/output_columns.h"
#include "inference/tables/standard_errors.h"
#include "matrix/packed.h"

#include <algorithm>

namespace torvale::inference {

using host::missing;
using model::NX;

int open_estimates_output(NX& n)
{
  if (n.outest == nullptr) return 0;
  if (const int rc = open_output(n, *n.outest, "TORVALE", n.outestfid); rc != 0) return rc;
  host::OutputDataSet& out = *n.outestfid;
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  out.add_column("Parameter", host::ColumnKind::character, "Parameter");
  add_output_column(n, out, "Estimate", "Estimate");
  add_output_column(n, out, "StandardError", "Standard Error");
  add_output_column(n, out, "LowerBC", "Lower Bound");
  add_output_column(n, out, "UpperBC", "Upper Bound");
  add_output_column(n, out, "Gradient", "Gradient");
  for (const auto& p : n.parmstr) add_output_column(n, out, "Cov_" + p.parmname, "Covariance with " + p.parmname);
  return 0;
}

void write_estimates_output(NX& n)
{
  if (n.outestfid == nullptr || !(n.fval < model::failure_objective)) return;
  host::OutputDataSet& out = *n.outestfid;
  for (int i = 0; i < n.nparm; ++i) {
    const auto k = static_cast<std::size_t>(i);
    const model::PARMSTR& p = n.parmstr[k];
    std::size_t at = 0;
    for (const auto& by : n.bylist) out.set_from(at++, *n.fid->find(by.name), n.rows.begin);
    out.set(at++, std::string_view(p.parmname));
    out.set(at++, n.parm[k]);
    out.set(at++, n.znlprc > 0 ? standard_error(n, i) : missing);
    out.set(at++, p.applyl ? p.lowbound : missing);
    out.set(at++, p.applyh ? p.highbound : missing);
    out.set(at++, k < n.finalgrad.size() ? n.finalgrad[k] : missing);
    for (int j = 0; j < n.nparm && !n.covmat.empty() && n.znlprc > 0; ++j)
      out.set(at++, n.covmat[static_cast<std::size_t>(matrix::packed_index(i, j))]);
    out.end_row();
  }
}

} // namespace torvale::inference
