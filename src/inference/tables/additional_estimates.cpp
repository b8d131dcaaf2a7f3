#include "host/messages/names/labels.h"
#include "host/messages/names/optimization.h"
#include "host/values/missing.h"
#include "inference/tables/expressions.h"
#include "inference/tables/standard_errors.h"
#include "inference/tables/tables.h"
#include "matrix/quadratic_forms.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

using host::CellKind;
using host::missing;
using model::ModelLists;
using model::NX;

namespace {

host::TableColumn text_column(const char* name, host::MessageCode words)
{
  return {name, CellKind::text, host::otbmsg(words), "", ""};
}

host::TableColumn number_column(const char* name, host::MessageCode words, const char* format)
{
  return {name, CellKind::number, host::otbmsg(words), format, ""};
}

// "CovMatAddEst" or "CorrMatAddEst": rows of statements, a column for each.
host::Table matrix_table(const ModelLists& n, const char* name, host::MessageCode words, host::MessageCode title,
                         const char* family)
{
  std::vector<host::TableColumn> columns = {{"Row", CellKind::integer, host::otbmsg(label::row), "", ""},
                                            text_column("Label", label::label)};
  for (std::size_t k = 1; k <= n.estimates.size(); ++k) {
    const std::string column = family + std::to_string(k);
    columns.push_back({column, CellKind::number, column, "D10.4", family});
  }
  host::Table table(name, host::otbmsg(words), std::move(columns));
  table.title = host::otbmsg(title);
  return table;
}

host::Table derivative_table(const ModelLists& n)
{
  std::vector<host::TableColumn> columns = {{"Row", CellKind::integer, host::otbmsg(label::row), "", ""},
                                            text_column("Label", label::label)};
  for (const auto& p : n.parmstr)
    columns.push_back({("Der " + p.parmname).substr(0, 49), CellKind::number, p.parmname, "D10.4", "Der"});
  return {"DerAddEst", host::otbmsg(label::additional_derivatives), std::move(columns)};
}

} // namespace

int tvlesti(NX& n)
{
  const auto count = n.estimates.size();
  const auto np = static_cast<std::size_t>(n.nparm);
  if (n.loglevel > 0) n.host->log().xpmlog(message::computing{.what = count == 1 ? "estimate" : "estimates"});
  ExpressionValues values;
  if (evaluate_expressions(n, n.estimates, "ESTIMATE", values) != 0) return 1;

  // E = G C G', packed: the covariance of the additional estimates.
  const bool matrices = n.pecov || n.pecorr;
  std::vector<double> e(count * (count + 1) / 2), work(np);
  for (std::size_t r = 0; r < count; ++r)
    for (std::size_t c = 0; c <= r; ++c)
      e[r * (r + 1) / 2 + c] =
          matrix::zmxbi(&values.gradient[r * np], &values.gradient[c * np], n.covmat.data(), n.nparm);
  const auto element = [&](std::size_t r, std::size_t c) {
    return r >= c ? e[r * (r + 1) / 2 + c] : e[c * (c + 1) / 2 + r];
  };

  std::vector<double> errors(count);
  for (std::size_t k = 0; k < count; ++k) errors[k] = standard_error(n, &values.gradient[k * np], element(k, k));

  const bool robust = n.empirical && n.havemeat;
  host::Table estimates("AdditionalEstimates", host::otbmsg(label::additional_estimates),
                        {text_column("Label", label::label), number_column("Estimate", label::estimate, "D10.4"),
                         number_column("StandardError", label::standard_error, "D10.4"),
                         number_column("DF", label::df, "BEST6"), number_column("tValue", label::t_value, "7.2"),
                         number_column("Probt", label::probability_of_t, "PVALUE6.4"),
                         number_column("Alpha", label::alpha, "BEST6"), number_column("Lower", label::lower, "D10.4"),
                         number_column("Upper", label::upper, "D10.4")});
  host::Table covariances =
      matrix_table(n, "CovMatAddEst", label::additional_covariance,
                   robust ? label::empirical_additional_covariance_table : label::additional_covariance_table, "Cov");
  host::Table correlations = matrix_table(
      n, "CorrMatAddEst", label::additional_correlation,
      robust ? label::empirical_additional_correlation_table : label::additional_correlation_table, "Corr");
  host::Table derivatives = derivative_table(n);
  bool any_derivatives = n.peder;

  for (std::size_t k = 0; k < count; ++k) {
    const auto& statement = n.estimates[k];
    const double error = errors[k];
    const auto usable = [&](std::size_t j) { return !std::isnan(error) && !std::isnan(errors[j]); };
    if (matrices) {
      std::vector<host::Cell> cov = {k + 1, statement.label}, corr = cov;
      for (std::size_t j = 0; j < count; ++j) {
        cov.emplace_back(usable(j) ? element(k, j) : missing);
        corr.emplace_back(j == k      ? 1.0
                          : usable(j) ? std::clamp(element(k, j) / error / errors[j], -1.0, 1.0)
                                      : missing);
      }
      covariances.row(std::move(cov));
      correlations.row(std::move(corr));
    }
    TVAL t;
    t.estimate = values.value[k];
    t.sder = error;
    t.alpha = statement.alpha >= 0 ? statement.alpha : n.alpha;
    t.dfe = statement.df >= 0 ? statement.df : n.dfe;
    tvltval(t);
    estimates.row({statement.label, t.estimate, t.sder, t.dfe, t.tval, t.prob, t.alpha, t.lower, t.upper});
    if (n.peder || statement.derivatives) {
      any_derivatives = true;
      std::vector<host::Cell> row = {k + 1, statement.label};
      for (std::size_t j = 0; j < np; ++j) row.emplace_back(values.gradient[k * np + j]);
      derivatives.row(std::move(row));
    }
  }
  auto& tables = n.host->tables();
  tables.wobmth(std::move(estimates));
  if (n.pecov) tables.wobmth(std::move(covariances));
  if (n.pecorr) tables.wobmth(std::move(correlations));
  if (any_derivatives) tables.wobmth(std::move(derivatives));
  return 0;
}

} // namespace torvale::inference
