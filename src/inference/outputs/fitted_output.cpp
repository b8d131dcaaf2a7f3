#include "inference/outputs/fitted_output.h"

#include "host/data/libraries.h"
#include "inference/outputs/open_output.h"
#include "inference/outputs/response_moments.h"

namespace torvale::inference {

using integration::Posterior;
using model::NX;

int open_fitted_output(NX& n)
{
  if (n.fitted.out == nullptr) return 0;
  if (const int rc = open_output(n, *n.fitted.out, "TORVALE", n.fitted.output); rc != 0) return rc;
  host::OutputDataSet& out = *n.fitted.output;
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  for (std::size_t k = n.reff.size(); k-- > 0;) out.add_column_like(*n.fid->find(n.reff[k].subname));
  add_output_column(n, out, "Observation", "Observation of the BY Group");
  add_output_column(n, out, "Response", n.depname);
  add_output_column(n, out, "PredPop", "Predicted Value at the Means of the Random Effects");
  add_output_column(n, out, "StdErrPop", "Standard Error of PredPop");
  add_output_column(n, out, "PredInd", "Predicted Value at the Estimates of the Random Effects");
  add_output_column(n, out, "StdErrInd", "Standard Error of PredInd");
  add_output_column(n, out, "Resid", "Residual");
  add_output_column(n, out, "Pearson", "Pearson Residual");
  add_output_column(n, out, "CondWtRes", "Conditional Weighted Residual");
  add_output_column(n, out, "Quantile", "Quantile Residual");
  return 0;
}

int write_fitted_output(NX& n, const Posterior& posterior)
{
  if (n.fitted.output == nullptr) return 0;
  FittedRecords r;
  if (const int rc = find_fitted_records(n, posterior, r); rc > 2) return rc;
  host::OutputDataSet& out = *n.fitted.output;
  for (std::size_t at = 0; at < r.response.size(); ++at) {
    const auto row = static_cast<std::size_t>(n.store->row_of_group(static_cast<std::int64_t>(at)));
    if (n.store->badobs[row] != model::BadCause::none) continue;
    std::size_t column = 0;
    for (const auto& by : n.bylist) out.set_from(column++, *n.fid->find(by.name), n.rows.begin + at);
    for (std::size_t k = n.reff.size(); k-- > 0;)
      out.set_from(column++, *n.fid->find(n.reff[k].subname), n.rows.begin + at);
    out.set(column++, static_cast<double>(at + 1));
    for (const auto* v : {&r.response, &r.population, &r.population_error, &r.individual, &r.individual_error,
                          &r.residual, &r.pearson, &r.conditional, &r.quantile})
      out.set(column++, (*v)[at]);
    out.end_row();
  }
  return 0;
}

} // namespace torvale::inference
