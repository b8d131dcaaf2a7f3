#include "host/messages/names/labels.h"
#include "solve/start/starting_grid.h"

namespace torvale::solve {

using host::CellKind;

void write_dimensions(const model::NX& n)
{
  host::Table table("Dimensions", host::otbmsg(label::dimensions),
                    {{"Descr", CellKind::text, host::otbmsg(label::description), "", ""},
                     {"Value", CellKind::number, host::otbmsg(label::value), "BEST12", ""}});
  const auto row = [&](host::MessageCode name, double value) { table.row({host::xpmstr(name), value}); };
  row(label::observations_used, static_cast<double>(n.store->nobsu));
  row(label::observations_not_used, static_cast<double>(n.store->nobs - n.store->nobsu));
  row(label::total_observations, static_cast<double>(n.store->nobs));
  for (auto it = n.reff.rbegin(); it != n.reff.rend(); ++it) {
    if (n.nreff() == 1)
      row(label::subjects, it->nrepsub);
    else
      table.row({host::xpmstr(label::subjects_of{.subject = it->subname}), it->nrepsub});
  }
  if (n.nreff() > 0 && n.nreff() == 1) row(label::most_observations_per_subject, static_cast<double>(n.leaf().ntmax));
  row(label::parameters, static_cast<double>(n.nparm));
  if (n.nreff() > 0 && (n.method == 0 || n.method == 3)) row(label::quadrature_points, static_cast<double>(n.nqp));
  n.host->tables().wobmth(std::move(table));
}

void StartingTables::open()
{
  write_dimensions(n_);
  std::vector<host::TableColumn> columns;
  for (const auto& p : n_.parmstr) columns.push_back({p.parmname, CellKind::number, p.parmname, "D8.4", "Parm"});
  columns.push_back({"NegLogLike", CellKind::number, host::otbmsg(label::negative_log_likelihood), "", ""});
  table_ = &n_.host->tables().open(host::Table("Parameters", host::otbmsg(label::starting_points), std::move(columns)));
}

void StartingTables::point(const double* theta, double objective)
{
  std::vector<host::Cell> cells;
  for (int j = 0; j < n_.nparm; ++j) cells.emplace_back(theta[j]);
  cells.emplace_back(objective < model::failure_objective ? objective : host::missing);
  table_->row(std::move(cells));
}

StartingTables::~StartingTables()
{
  if (table_ != nullptr) n_.host->tables().close(*table_);
}

} // namespace torvale::solve
