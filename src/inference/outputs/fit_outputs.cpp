#include "inference/outputs/fit_outputs.h"

#include "host/data/libraries.h"
#include "inference/outputs/effect_outputs.h"
#include "inference/outputs/estimates_output.h"
#include "inference/outputs/fitted_output.h"
#include "inference/outputs/open_output.h"
#include "inference/outputs/output_columns.h"
#include "inference/outputs/predictions.h"

namespace torvale::inference {

using host::OutputDataSet;
using integration::Posterior;
using model::NX;
using model::PredictStatement;

namespace {

void declare(NX& n, PredictStatement& statement)
{
  OutputDataSet& out = *statement.output;
  for (const auto& column : n.fid->columns()) out.add_column_like(column);
  for (const auto* symbol : n.idsym.s) out.add_column(symbol->name, host::ColumnKind::numeric);
  add_output_column(n, out, "Pred", "Predicted Value");
  add_test_columns(n, out);
  if (!statement.derivatives) return;
  for (const auto& p : n.parmstr) add_output_column(n, out, "Der_" + p.parmname, "Der " + p.parmname);
  for (std::size_t level = n.reff.size(); level > 0; --level)
    for (const auto& effect : n.reff[level - 1].names)
      add_output_column(n, out, "Der_" + effect + "_" + std::to_string(n.reff.size() - level + 1), "Der " + effect);
}

void write(const NX& n, const PredictStatement& statement, const PredictionColumns& c)
{
  OutputDataSet& out = *statement.output;
  const auto& columns = n.fid->columns();
  const std::size_t derivatives = c.value.empty() ? 0 : c.derivative.size() / c.value.size();
  const std::size_t ids = n.idsym.s.size();
  for (std::size_t row = 0; row < c.value.size(); ++row) {
    for (std::size_t k = 0; k < columns.size(); ++k) out.set_from(k, columns[k], n.rows.begin + row);
    std::size_t at = columns.size();
    for (std::size_t k = 0; k < ids; ++k) out.set(at++, c.id[row * ids + k]);
    out.set(at++, c.value[row]);
    at = set_test(out, at, {c.value[row], c.error[row], c.df, c.alpha, c.t[row], c.p[row], c.lower[row], c.upper[row]});
    for (std::size_t k = 0; k < derivatives; ++k) out.set(at++, c.derivative[row * derivatives + k]);
    out.end_row();
  }
}

} // namespace

int open_fit_outputs(NX& n)
{
  for (PredictStatement& statement : n.predictions) {
    if (statement.out == nullptr) continue;
    if (const int rc = open_output(n, *statement.out, "PREDICT", statement.output); rc != 0) return rc;
    declare(n, statement);
  }
  if (const int rc = open_estimates_output(n); rc != 0) return rc;
  if (const int rc = open_fitted_output(n); rc != 0) return rc;
  return open_effect_outputs(n);
}

int write_fit_outputs(NX& n)
{
  Posterior posterior;
  if (n.wants_effects && n.nreff() > 0)
    if (const int rc = integration::find_posterior(n, posterior); rc > 2) return rc;
  for (const PredictStatement& statement : n.predictions) {
    if (statement.output == nullptr) continue;
    PredictionColumns columns;
    if (const int rc = predict(n, statement, posterior, columns); rc > 2) return rc;
    write(n, statement, columns);
  }
  if (const int rc = write_fitted_output(n, posterior); rc > 2) return rc;
  if (n.wants_effects && n.nreff() > 0) write_effect_outputs(n, posterior);
  if (const int rc = write_round_outputs(n); rc > 2) return rc;
  return 0;
}

} // namespace torvale::inference
