#include "solve/starting_grid.h"

namespace torvale::solve {

using host::CellKind;

namespace {

void write_dimensions(const model::NX& n)
{
  host::Table table("Dimensions", host::otbmsg(503, 80),
                    {{"Descr", CellKind::text, host::otbmsg(503, 31), "", ""},
                     {"Value", CellKind::number, host::otbmsg(503, 32), "BEST12", ""}});
  const auto row = [&](int number, double value) { table.row({host::xpmstr(503, number), value}); };
  row(81, static_cast<double>(n.store->nobsu));
  row(82, static_cast<double>(n.store->nobs - n.store->nobsu));
  row(83, static_cast<double>(n.store->nobs));
  for (auto it = n.reff.rbegin(); it != n.reff.rend(); ++it) {
    if (n.nreff() == 1)
      row(84, it->nrepsub);
    else
      table.row({host::xpmstr(503, 90, {{"subject", it->subname}}), it->nrepsub});
  }
  if (n.nreff() > 0 && n.nreff() == 1) row(9301, static_cast<double>(n.leaf().ntmax));
  row(100, static_cast<double>(n.nparm));
  if (n.nreff() > 0 && (n.method == 0 || n.method == 3)) row(89, static_cast<double>(n.nqp));
  n.host->tables().wobmth(std::move(table));
}

} // namespace

void StartingTables::open()
{
  write_dimensions(n_);
  std::vector<host::TableColumn> columns;
  for (const auto& p : n_.parmstr) columns.push_back({p.parmname, CellKind::number, p.parmname, "D8.4", "Parm"});
  columns.push_back({"NegLogLike", CellKind::number, host::otbmsg(503, 101), "", ""});
  table_ = &n_.host->tables().open(host::Table("Parameters", host::otbmsg(503, 99), std::move(columns)));
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
