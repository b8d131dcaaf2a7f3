#include "host/messages/names/fit.h"
#include "host/messages/names/labels.h"
#include "inference/tables/standard_errors.h"
#include "inference/tables/tables.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

InformationCriteria information_criteria(const model::NX& n)
{
  const double c = n.fval;                                               // minimized negative log likelihood
  const double p = n.nparm;                                              // parameters
  const double m = std::max(static_cast<double>(n.store->nobsu), p + 2); // floor: AICC stays finite
  const double q = n.nreff() > 0 ? n.outer().nrepsub : static_cast<double>(n.store->nobsu);
  return {2 * c, 2 * (p + c), 2 * (p * m / (m - p - 1) + c), 2 * c + p * std::log(q)};
}

void write_fit_statistics(model::NX& n)
{
  using host::CellKind;
  const InformationCriteria criteria = information_criteria(n);
  host::Table table("FitStatistics", host::otbmsg(label::fit_statistics),
                    {{"Descr", CellKind::text, host::otbmsg(label::description), "", ""},
                     {"Value", CellKind::number, host::otbmsg(label::value), "D12.7.2", ""}});
  table.row({host::xpmstr(label::minus_two_log_likelihood), criteria.minus2_log_likelihood});
  table.row({host::xpmstr(label::aic), criteria.aic});
  table.row({host::xpmstr(label::aicc), criteria.aicc});
  table.row({host::xpmstr(label::bic), criteria.bic});
  n.host->tables().wobmth(std::move(table));
}

void warn_of_standard_errors(model::NX& n)
{
  warn_without_influence(n);
  if (n.znlprc > 0 && !n.covmat.empty() && !(n.dfe > 0.0))
    n.host->log().xpmlog(message::no_degrees_of_freedom{.df = n.dfe});
}

void write_fit_tables(model::NX& n)
{
  if (n.znlprc > 0) write_fit_statistics(n);
  tvlpest(n, 1);
  if (n.phess && !n.hessmat.empty()) tvlphes(n, 0);
  if (n.znlprc <= 0 || n.covmat.empty()) return;
  const bool singular = n.det[4] != 0;
  if (n.pcov || singular) tvlphes(n, 1);
  if (n.pcorr || singular) tvlphes(n, 2);
}

} // namespace torvale::inference
