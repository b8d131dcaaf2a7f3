#include "host/messages/names/labels.h"
#include "host/messages/names/optimizer.h"
#include "inference/tables/standard_errors.h"
#include "inference/tables/tables.h"
#include "model/bound_unit.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::inference {

using host::CellKind;
using host::missing;
using model::NX;

namespace {

constexpr double largest = std::numeric_limits<double>::max();

// The words for a parameter at or outside a bound; empty when it is inside.
std::string bound_status(const NX& n, int i, double eps)
{
  const auto& str = *n.str;
  const auto words = [](host::MessageCode name) { return host::xpmstr(name); };
  const double unit = model::bound_unit(n.parmstr[static_cast<std::size_t>(i)]);
  const int held = str.iabc[i];
  std::string status = held == 2    ? words(status_message::equality)
                       : held == 1  ? words(status_message::lower_bound)
                       : held == -1 ? words(status_message::upper_bound)
                                    : std::string();
  if (str.lb[i] > -largest) {
    const double d = str.x[i] - str.lb[i], t = (std::abs(str.lb[i]) + unit) * eps;
    if (d < -t)
      status = words(status_message::infeasible);
    else if (held != 2 && std::abs(d) < t)
      status = words(status_message::lower_bound);
  }
  if (str.ub[i] < largest) {
    const double d = str.ub[i] - str.x[i], t = (std::abs(str.ub[i]) + unit) * eps;
    if (d < -t)
      status = words(status_message::infeasible);
    else if (held != 2 && std::abs(d) < t)
      status = words(status_message::upper_bound);
  }
  return status;
}

} // namespace

void tvlpest(NX& n, int job)
{
  const auto& str = *n.str;
  const bool final = job > 0;
  const bool inference = final && n.znlprc > 0;
  const bool bounds = str.bounds != 0 && (!final || str.nabc != 0);
  const bool gradient = str.usgrd != nullptr || str.fidi != 0;
  const auto number = [](const char* name, const char* format) {
    return host::TableColumn{name, CellKind::number, "", format, ""};
  };

  std::vector<host::TableColumn> columns = {{"Parameter", CellKind::text, "", "", ""}, number("Estimate", "D10.4")};
  if (inference) {
    columns.push_back(number("StandardError", "D10.4"));
    columns.push_back(number("DF", "BEST6"));
    columns.push_back(number("tValue", "7.2"));
    columns.push_back(number("Probt", "PVALUE6.4"));
    columns.push_back(number("Alpha", "BEST6"));
    columns.push_back(number("Lower", "D10.4"));
    columns.push_back(number("Upper", "D10.4"));
  }
  if (gradient) columns.push_back(number("Gradient", "D9.2"));
  if (bounds && !final) {
    columns.push_back(number("LowerBC", "D10.4"));
    columns.push_back(number("UpperBC", "D10.4"));
  }
  if (bounds && final) columns.push_back({"ActiveBC", CellKind::text, "", "", ""});

  host::Table table(final ? "ParameterEstimates" : "StartingValues",
                    host::otbmsg(final ? label::parameter_estimates : label::starting_values), std::move(columns));
  table.dynamic = {{"confidence", (1 - n.alpha) * 100}};
  const double eps = str.ceps * std::pow(10.0, str.ipre);
  for (int i = 0; i < n.nparm; ++i) {
    std::vector<host::Cell> cells = {n.parmstr[static_cast<std::size_t>(i)].parmname, str.x[i]};
    const std::string status = bounds ? bound_status(n, i, eps) : std::string();
    if (inference) {
      // A parameter at a bound has no t test.
      TVAL t{str.x[i], status.empty() ? standard_error(n, i) : missing, n.dfe, n.alpha};
      tvltval(t);
      cells.insert(cells.end(), {t.sder, t.dfe, t.tval, t.prob, t.alpha, t.lower, t.upper});
    }
    if (gradient) cells.emplace_back(str.imax != 0 && !std::isnan(str.grad[i]) ? -str.grad[i] : str.grad[i]);
    if (bounds && !final) {
      cells.emplace_back(str.lb[i] > -largest ? str.lb[i] : missing);
      cells.emplace_back(str.ub[i] < largest ? str.ub[i] : missing);
    }
    if (bounds && final) cells.emplace_back(status);
    table.row(std::move(cells));
  }
  n.host->tables().wobmth(std::move(table));
}

void tvlphes(NX& n, int job)
{
  const int np = n.nparm;
  const std::vector<double>& matrix = job >= 1 ? n.covmat : n.hessmat;
  const bool robust = job >= 1 && n.empirical && n.havemeat;
  static constexpr const char* names[] = {"StartingHessian", "Hessian", "CovMatParmEst", "CorrMatParmEst"};
  const host::MessageCode words = job < 0    ? label::starting_hessian
                                  : job == 0 ? label::hessian
                                  : job == 1 ? (robust ? label::empirical_covariance : label::covariance)
                                             : (robust ? label::empirical_correlation : label::correlation);

  std::vector<host::TableColumn> columns = {{"Row", CellKind::integer, host::otbmsg(label::row), "", ""},
                                            {"Parameter", CellKind::text, "", "", ""}};
  for (const auto& p : n.parmstr) columns.push_back({p.parmname, CellKind::number, p.parmname, "D10.4", "Parm"});
  host::Table table(names[job + 1], host::otbmsg(words), std::move(columns));
  if (job == 1) table.title = host::otbmsg(robust ? label::empirical_covariance_table : label::covariance_table);
  if (job > 1) table.title = host::otbmsg(robust ? label::empirical_correlation_table : label::correlation_table);

  const auto s = [&](int i, int j) {
    const int r = std::max(i, j), c = std::min(i, j);
    return matrix[static_cast<std::size_t>(r) * static_cast<std::size_t>(r + 1) / 2 + static_cast<std::size_t>(c)];
  };
  const auto element = [&](int i, int j) -> double {
    if (job < 1) return s(i, j);
    if (job == 2 && i == j) return 1.0;
    const double si = standard_error(n, i), sj = standard_error(n, j);
    if (std::isnan(si) || std::isnan(sj)) return missing;
    return job == 1 ? s(i, j) : std::clamp(s(i, j) / std::sqrt(s(i, i)) / std::sqrt(s(j, j)), -1.0, 1.0);
  };
  for (int i = 0; i < np; ++i) {
    std::vector<host::Cell> cells = {i + 1, n.parmstr[static_cast<std::size_t>(i)].parmname};
    for (int j = 0; j < np; ++j) cells.emplace_back(element(i, j));
    table.row(std::move(cells));
  }
  n.host->tables().wobmth(std::move(table));
}

void starting_tables(NX& n)
{
  auto& str = *n.str;
  // Gradient and Hessian at the start: from the optimizer's own difference routines, at the starting point.
  if (str.usgrd == nullptr && str.fidi != 0) {
    const double crit = str.crit;
    if (optimizer::znlpfg2(&str) != 0) std::fill_n(str.grad, n.nparm, host::missing);
    str.crit = crit;
  }
  tvlpest(n, -1);
  if (!n.phess) return;
  const auto hessian = str.ushes != nullptr ? str.ushes : (str.fidi == 0 ? optimizer::znlpfh3 : optimizer::znlpfih);
  if (hessian(&str) != 0) return;
  n.hessmat.assign(str.hess, str.hess + static_cast<std::size_t>(n.nparm) * static_cast<std::size_t>(n.nparm + 1) / 2);
  tvlphes(n, -1);
  n.hessmat.clear();
}

} // namespace torvale::inference
