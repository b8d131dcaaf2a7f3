// What `check` says of a step without mistakes: the model as it was understood.

#include "host/messages/names/fit.h"
#include "host/messages/names/labels.h"
#include "run/statements/statement_processing.h"

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
  host::Table table("ModelSummary", host::otbmsg(label::model_as_understood),
                    {{"Descr", CellKind::text, host::otbmsg(label::description), "", ""},
                     {"Value", CellKind::text, host::otbmsg(label::value), "", ""}});
  const auto row = [&](const host::NumberedMessage& words, const std::string& value) {
    if (!value.empty()) table.row({host::xpmstr(words), value});
  };
  row(label::named_parameters, listed(parameters));
  row(label::defaulted_parameters, listed(defaulted));
  for (auto it = n.reff.rbegin(); it != n.reff.rend(); ++it)
    table.row({host::xpmstr(label::effects_by{.subject = it->subname}), listed(it->names)});
  row(label::variables_read, listed(read));
  n.host->tables().wobmth(std::move(table));
  if (!n.host->log().has_errors()) n.host->log().xpmlog(message::no_mistakes);
}

} // namespace torvale::run
