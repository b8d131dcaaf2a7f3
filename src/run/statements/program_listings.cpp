// What LIST, XREF, LISTCODE, LISTDEP and LISTDER show of the compiled model.
#include "run/statements/statement_processing.h"

namespace torvale::run {

using model::NX;

namespace {

void list_derivatives(NX& n)
{
  const auto show = [&](const std::string& title, std::initializer_list<const engine::CMPDER*> requests) {
    std::string text;
    for (const auto* der : requests) text += engine::cmppder(*n.gcmp, *der);
    if (!text.empty()) n.host->list_program(title, std::move(text));
  };
  if (n.nreff() == 0) show("Derivatives of the Log Likelihood", {&n.gradstr});
  for (const auto& r : n.reff) {
    const std::string level = n.nreff() > 1 ? ", " + r.subname : "";
    show("Derivatives of the Log Likelihood" + level, {&r.gradstr});
    show("Second Derivatives of the Log Likelihood" + level, {&r.hessustr});
    show("Third Derivatives of the Log Likelihood" + level, {&r.triustr});
    show("Derivatives of the Random-Effects Distribution" + level, {&r.gradrstr});
  }
  for (const auto& e : n.estimates) show("Derivatives of ESTIMATE '" + e.label + "'", {&e.der});
  for (const auto& c : n.contrasts) show("Derivatives of CONTRAST '" + c.label + "'", {&c.der});
  for (const auto& p : n.predictions) show("Derivatives of PREDICT " + p.value->name, {&p.der});
}

} // namespace

void listings(NX& n)
{
  if (n.list) n.host->list_program("Program Statements", engine::cmppprg(*n.gcmp));
  if (n.xref) n.host->list_program("Cross-Reference", engine::cmpxref(*n.gcmp));
  if (n.listcode) n.host->list_program("Code Listing", engine::cmppsts(*n.gcmp));
  if (n.listdep) n.host->list_program("Dependencies", engine::cmppdep(*n.gcmp));
  if (n.listder) list_derivatives(n);
}

} // namespace torvale::run
