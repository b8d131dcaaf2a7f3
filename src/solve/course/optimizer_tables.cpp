// Tables that the optimizer's library hands over row by row: the gradient check and the linear dependencies.

#include "host/messages/names/labels.h"
#include "optimizer/optimizer.h"
#include "solve/course/course.h"

#include <cmath>

namespace torvale::solve {

using host::CellKind;
using model::NX;

void gradient_check_row(optimizer::MINSTR* str, const optimizer::GradientCheckRow& row)
{
  NX& n = *static_cast<NX*>(str->comstr);
  if (n.gradient_check == nullptr)
    n.gradient_check =
        &n.host->tables().open(host::Table("GradCheck", host::otbmsg(label::gradient_check),
                                           {{"Parameter", CellKind::text, "", "", ""},
                                            {"Analytic", CellKind::number, "Analytic", "D12.6", ""},
                                            {"Difference", CellKind::number, "Difference Quotient", "D12.6", ""},
                                            {"Error", CellKind::number, "Relative Error", "D9.2", ""},
                                            {"Allowed", CellKind::number, "Explained by Rounding", "D9.2", ""},
                                            {"Verdict", CellKind::text, "Verdict", "", ""}}));
  n.gradient_check->row({n.parmstr[static_cast<std::size_t>(row.parameter)].parmname, row.analytic, row.difference,
                         row.error, row.allowed, row.agrees ? "agrees" : "differs"});
  if (row.parameter + 1 == n.nparm) {
    n.host->tables().close(*n.gradient_check);
    n.gradient_check = nullptr;
  }
}

void dependency_row(optimizer::MINSTR* str, const optimizer::DependencyRow& row)
{
  NX& n = *static_cast<NX*>(str->comstr);
  std::string words;
  for (int j = 0; j < n.nparm; ++j) {
    const double c = row.coefficients[j];
    if (c == 0.0 || std::isnan(c)) continue;
    if (!words.empty())
      words += c < 0 ? " - " : " + ";
    else if (c < 0)
      words += "-";
    words += host::format_number(std::abs(c), host::parse_format("BEST8"));
    words += " * ";
    words += n.parmstr[static_cast<std::size_t>(j)].parmname;
  }
  n.dependencies.push_back({n.parmstr[static_cast<std::size_t>(row.dependent)].parmname, words.empty() ? "0" : words});
}

void write_dependencies(NX& n)
{
  if (n.dependencies.empty()) return;
  host::Table table("LinearDependencies", host::otbmsg(label::linear_dependencies),
                    {{"Parameter", CellKind::text, "", "", ""}, {"Combination", CellKind::text, "Moves As", "", ""}});
  for (const auto& [parameter, combination] : n.dependencies) table.row({parameter, combination});
  n.host->tables().wobmth(std::move(table));
  n.dependencies.clear();
}

} // namespace torvale::solve
