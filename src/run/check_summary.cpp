// What `check` says of a step without mistakes: the model as it was understood.

#include "run/statement_processing.h"

namespace torvale::run {

namespace {

std::string listed(const std::vector<std::string>& names)
{
  std::string out;
  for (const auto& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

} // namespace

void write_model_summary(model::NX& n)
{
  tvlspec(n);
  std::vector<std::string> parameters, defaulted, read;
  for (const auto& p : n.parmstr) (p.defaulted ? defaulted : parameters).push_back(p.parmname);
  for (const auto* symbol : engine::cmppdv(*n.gcmp).variables) read.push_back(symbol->name);

  using host::CellKind;
  host::Table table("ModelSummary", host::otbmsg(503, 9544),
                    {{"Descr", CellKind::text, host::otbmsg(503, 31), "", ""},
                     {"Value", CellKind::text, host::otbmsg(503, 32), "", ""}});
  const auto row = [&](int label, const std::string& value) {
    if (!value.empty()) table.row({host::xpmstr(503, label), value});
  };
  row(9545, listed(parameters));
  row(9546, listed(defaulted));
  for (auto it = n.reff.rbegin(); it != n.reff.rend(); ++it)
    table.row({host::xpmstr(503, 9547, {{"subject", it->subname}}), listed(it->names)});
  row(9548, listed(read));
  n.host->tables().wobmth(std::move(table));
  if (!n.host->log().has_errors()) n.host->log().xpmlog(503, 9543);
}

} // namespace torvale::run
