// The iteration history and the convergence status: what a user watches while the optimizer runs.

#include "host/messages/names/fit.h"
#include "host/messages/names/labels.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/optimizer.h"
#include "integration/objective.h"
#include "optimizer/missing_value.h"
#include "optimizer/optimizer.h"
#include "solve/course/course.h"

#include <array>
#include <cmath>
#include <limits>

namespace torvale::solve {

using host::CellKind;
using host::TableColumn;
using model::NX;
using optimizer::MINSTR;

namespace {

// The columns of a technique beyond the common ones: layout 15 DBLDOG, 18 ridge, 23 line search, 28 simplex, 31 trust
// region.
int layout_of(int tech)
{
  switch (tech) {
  case optimizer::TRUREG:
    return 31;
  case optimizer::NRRIDG:
  case optimizer::NRLINS:
    return 18;
  case optimizer::DBLDOG:
    return 15;
  case optimizer::NMSIMP:
  case optimizer::NMSIM2:
    return 28;
  case optimizer::NEWRAP:
  case optimizer::QUANEW:
  case optimizer::DUQUAN:
  case optimizer::CONGRA:
    return 23;
  default:
    return 0;
  }
}

std::vector<TableColumn> history_columns(const NX& n, int layout)
{
  const auto number = [](const char* name, const char* format = "D10.4") {
    return TableColumn{name, CellKind::number, "", format, ""};
  };
  const auto integer = [](const char* name) { return TableColumn{name, CellKind::integer, "", "", ""}; };
  const auto flag = [](const char* name) { return TableColumn{name, CellKind::text, " ", "", ""}; };
  std::vector<TableColumn> columns = {integer("Iter"), flag("Flag1")};
  if (n.itdetails) columns.push_back(integer("Restart"));
  columns.push_back(integer("Calls"));
  if (n.itdetails) {
    columns.push_back(integer("Active"));
    columns.push_back(flag("Flag2"));
  }
  columns.push_back(number("NegLogLike", ""));
  columns.push_back(number("Diff"));
  if (n.itdetails) {
    for (const auto& p : n.parmstr) columns.push_back({p.parmname, CellKind::number, p.parmname, "D8.4", "Parameter"});
    if (layout != 28)
      for (int j = 1; j <= n.nparm; ++j)
        columns.push_back({"Grad" + std::to_string(j), CellKind::number, host::otbmsg(label::gradient_of{.number = j}),
                           "D8.4", "Grad"});
  }
  columns.push_back(number(layout == 28 ? "StdDev" : "MaxGrad"));
  if (n.itdetails) {
    if (layout == 15 || layout == 31) columns.push_back(number("Lambda"));
    if (layout == 18) columns.push_back(number("Ridge"));
    if (layout == 23) columns.push_back(number("Alpha"));
  }
  if (layout == 28) columns.push_back(number("Delta"));
  if (layout == 18) columns.push_back(number("Rho"));
  if (layout == 15 || layout == 23) columns.push_back(number("Slope"));
  if (layout == 28) columns.push_back(number("Size"));
  if (layout == 31) columns.push_back(number("Radius"));
  return columns;
}

const char* active_change(long idac)
{
  if (idac == 2147483647L) return "~";
  return idac > 0 ? "'" : idac < 0 ? "^" : " ";
}

void write_row(NX& n, const MINSTR& str, int layout)
{
  const bool simplex = layout == 28;
  const bool starred = str.null > 0 && !simplex && str.tech != optimizer::CONGRA;
  std::vector<host::Cell> cells = {static_cast<long>(str.nitr), starred ? "*" : " "};
  if (n.itdetails) cells.emplace_back(str.ires);
  cells.emplace_back(str.nfct);
  if (n.itdetails) {
    cells.emplace_back(str.nabc + str.nalc);
    cells.emplace_back(active_change(str.idac));
  }
  cells.emplace_back(str.imax != 0 ? -str.crit : str.crit);
  cells.emplace_back(n.cold - str.crit);
  if (n.itdetails) {
    for (int j = 0; j < n.nparm; ++j) cells.emplace_back(str.x[j]);
    if (!simplex)
      for (int j = 0; j < n.nparm; ++j) cells.emplace_back(str.grad[j]);
  }
  cells.emplace_back(str.gmax);
  if (n.itdetails) {
    if (layout == 15 || layout == 31) cells.emplace_back(str.lamb);
    if (layout == 18) cells.emplace_back(str.ridg);
    if (layout == 23) cells.emplace_back(str.alfa);
  }
  if (simplex) cells.emplace_back(str.pred);
  if (layout == 18) cells.emplace_back(str.rhor);
  // Where the Hessian is not positive definite there is no full step, and no slope of one.
  if (layout == 15 || layout == 23) cells.emplace_back(str.pred < optimizer::largest ? -str.pred : host::missing);
  if (simplex) cells.emplace_back(str.alfa);
  if (layout == 31) cells.emplace_back(str.delt);
  n.ithis->row(std::move(cells));
}

// Words of the catalogue with {0}, {1}, ... filled in.
std::string filled(host::MessageCode code, const std::vector<std::string>& values = {})
{
  return host::xpmstr(host::NumberedMessage(code, values));
}

// The words of a termination code, and the status: 0 converged, 1 failed, 2 failed otherwise.
std::pair<std::string, int> convergence_reason(const MINSTR& str, int code)
{
  const std::string criterion = optimizer::criterion_name(code > 100 ? code - 100 : code);
  if (code >= 1 && code <= 9) return {filled(status_message::criterion_satisfied, {criterion}), 0};
  if (code > 100)
    return {filled(status_message::criterion_satisfied_too_few_times,
                   {criterion, std::to_string(str.toln[code - 101 + 10])}),
            0};
  switch (code) {
  case 10:
    return {filled(status_message::all_fixed), 0};
  case -1:
    return {filled(status_message::no_objective_at_start), 1};
  case -2:
    return {filled(status_message::no_derivatives_at_start), 1};
  case -3:
    return {filled(status_message::no_objective_during_optimization), 1};
  case -4:
    return {filled(status_message::no_gradient_during_optimization), 1};
  case -5:
    return {filled(label::no_convergence), 1};
  case -6:
    return {filled(status_message::point_not_made_feasible), 1};
  case -7:
    return {filled(status_message::newton_line_search_failed), 1};
  case -8:
    return {filled(label::stopped_before_convergence, {host::shortest(str.maxi), host::shortest(str.maxf)}), 1};
  case -9:
    return {filled(status_message::time_limit, {host::shortest(str.upti)}), 1};
  case -10:
    return {filled(status_message::no_feasible_start), 1};
  default:
    return code < -10 ? std::pair{filled(status_message::not_completed), 2} : std::pair{std::string(), 0};
  }
}

} // namespace

void tvliter(NX& n, int job)
{
  const MINSTR& str = *n.str;
  const int layout = layout_of(str.tech);
  if (job >= 901) {
    if (n.ithis != nullptr) n.host->tables().close(*n.ithis);
    n.ithis = nullptr;
    const bool stopped = job < 1000 && n.host->interrupted();
    const auto [reason, status] =
        stopped ? std::pair{host::xpmstr(message::interrupted), 1} : convergence_reason(str, job - 1000);
    host::Table table("ConvergenceStatus", host::otbmsg(label::convergence_status),
                      {{"Reason", CellKind::text, host::otbmsg(label::reason), "", ""},
                       {"Status", CellKind::integer, host::otbmsg(label::status), "", ""}});
    table.row({reason, status});
    n.host->tables().wobmth(std::move(table));
    return;
  }
  if (layout == 0) return;
  if (job == 10 && str.nitr == 0 && n.ithis == nullptr)
    n.ithis = &n.host->tables().open(
        host::Table("IterHistory", host::otbmsg(label::iteration_history), history_columns(n, layout)));
  if (job > 0 && job % 2 == 1 && n.ithis != nullptr) {
    write_row(n, str, layout);
    n.host->progress({"optimization", static_cast<long>(str.nitr), str.crit, str.gmax, host::missing});
  }
  if (n.loglevel > 1) {
    if (job == 10)
      n.host->log().xpmlog(message::starting_objective{.objective = str.crit});
    else
      n.host->log().xpmlog(
          message::iteration_objective{.iteration = static_cast<long>(str.nitr), .objective = str.crit});
  }
}

void continued_row(NX& n, const MINSTR& run)
{
  if (n.ithis == nullptr) return;
  std::vector<host::Cell> cells;
  std::size_t parameter = 0;
  for (const TableColumn& column : history_columns(n, layout_of(n.str->tech))) {
    if (column.name == "Iter")
      cells.emplace_back(static_cast<long>(run.nitr));
    else if (column.name == "Calls")
      cells.emplace_back(run.nfct);
    else if (column.name == "NegLogLike")
      cells.emplace_back(run.crit);
    else if (column.name == "Diff")
      cells.emplace_back(n.cold - run.crit);
    else if (column.generic == "Parameter")
      cells.emplace_back(n.parm[parameter++]);
    else if (column.kind == CellKind::text)
      cells.emplace_back(" ");
    else
      cells.emplace_back(host::missing); // the technique's own
  }
  n.ithis->row(std::move(cells));
  n.cold = run.crit;
}

int nlpterm(MINSTR* str, int job)
{
  NX& n = *static_cast<NX*>(str->comstr);
  n.converged = false;
  if (str->nitr == 0 && job == 10 && n.pstart && n.starting_tables != nullptr && n.ithis == nullptr)
    n.starting_tables(n);
  if (str->nitr == 0 && job == 10) n.cold = str->crit;
  if (job > 0) {
    n.parm.assign(str->x, str->x + n.nparm);
    integration::accept_modes(n);
  }
  tvliter(n, job);
  if (job < 0 || job % 2 == 1) n.cold = str->crit;
  if (n.host->interrupted()) str->stop = 1;
  const int rc = optimizer::znlptrm(str, job);
  if (rc == 0 && n.loglevel > 0)
    n.host->log().xpmlog(message::iteration_begins{.iteration = static_cast<long>(str->nitr) + 1});
  return rc;
}

void optimizer_message(MINSTR* str, int group, int number, int severity, const double* values, int count)
{
  NX& n = *static_cast<NX*>(str->comstr);
  std::vector<std::string> shown;
  const bool names_criterion = group == 549 && number >= 607 && number <= 612; // its first value is a termination code
  for (int k = 0; k < count; ++k)
    shown.push_back(k == 0 && names_criterion ? optimizer::criterion_name(static_cast<int>(values[k]))
                                              : host::readable(values[k]));
  host::Message message;
  message.group = group;
  message.number = number;
  message.severity = severity >= 3   ? host::Severity::error
                     : severity == 2 ? host::Severity::warning
                                     : host::Severity::note;
  message.text = filled({group, number}, shown);
  n.optimizer_messages.push_back(std::move(message));
}

} // namespace torvale::solve
