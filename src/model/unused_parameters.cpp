#include "model/unused_parameters.h"

#include <algorithm>

namespace torvale::model {

bool unused(const ModelLists& n, const PARMSTR& p)
{
  const auto depends = [&](const auto* symbol) { return engine::cmpcdep(*n.gcmp, symbol, p.sym); };
  const auto any = [&](const auto& symbols) { return std::any_of(symbols.begin(), symbols.end(), depends); };
  const auto named = [&](const EstimateStatement& e) { return any(e.expr.s); };
  return !p.sym->used && !depends(n.llsym) && std::none_of(n.estimates.begin(), n.estimates.end(), named) &&
         std::none_of(n.contrasts.begin(), n.contrasts.end(), named) &&
         std::none_of(n.reff.begin(), n.reff.end(), [&](const REFFECT& r) { return any(r.distrsym.s); });
}

} // namespace torvale::model
