#include "run/statements/idle_options.h"

#include "host/messages/names/fit.h"
#include "run/statements/statement_processing.h"

#include <iterator>
#include <string>
#include <utility>

namespace torvale::run {

namespace {

using syntax::torvale_flag;
using syntax::torvale_slot;

constexpr IdleOption options[] = {
    // The number of points is chosen when QPOINTS= is absent; there is one optimizer.
    {torvale_flag::search, "SEARCH"},
    {torvale_slot::btol, "BTOL"},
    {torvale_flag::mrand, "MRAND"},
    {torvale_flag::znlp, "ZNLP"},
    // Nested modes are found by one method, whose derivatives are asked for at once.
    {torvale_flag::ebmgradterm, "EBMGRADTERM"},
    {torvale_flag::ebgn, "EBGN"},
    {torvale_flag::cmpderseq, "CMPDERSEQ"},
    // The optimizer writes no pages of its own: its tables are asked for by name (HESS, COV, START, ITDETAILS).
    {torvale_flag::pnone, "PNONE"},
    {torvale_flag::pshort, "PSHORT"},
    {torvale_flag::psummary, "PSUMMARY"},
    {torvale_flag::phistory, "PHISTORY"},
    {torvale_flag::noeignum, "NOEIGNUM"},
    {torvale_flag::peigval, "PEIGVAL"},
    // There is one version of each technique.
    {torvale_slot::version, "VERSION"},
    {torvale_slot::cdigits, "CDIGITS"},
    {torvale_slot::gconv2, "GCONV2"},
    {torvale_flag::debug, "DEBUG"},
};

// QTOL last: Hardy integration, which has no number of points, ends its halvings by it.
constexpr IdleOption points[] = {
    {torvale_slot::qpoints, "QPOINTS"},
    {torvale_slot::qfac, "QFAC"},
    {torvale_slot::qmax, "QMAX"},
    {torvale_slot::qtol, "QTOL"},
};

std::string names_given(std::span<const IdleOption> list, const syntax::STMT& procedure)
{
  std::string names;
  for (const IdleOption& o : list)
    if (o.given_in(procedure)) names += (names.empty() ? "" : ", ") + std::string(o.name);
  return names;
}

void note(model::NX& n, const syntax::STMT& procedure, std::string names)
{
  if (!names.empty())
    n.host->log().xpmlog(message::options_without_effect{.options = std::move(names)},
                         place_at(n, "TORVALE", procedure.where));
}

} // namespace

std::span<const IdleOption> idle_options()
{
  return options;
}

void note_idle_options(model::NX& n, const syntax::STMT& procedure)
{
  std::string names = names_given(options, procedure);
  if (!n.proc->traces.empty()) names += std::string(names.empty() ? "" : ", ") + "trace switches";
  note(n, procedure, std::move(names));
}

void note_idle_points(model::NX& n, const syntax::STMT& procedure)
{
  const bool has_rule = (n.method == 0 || n.method == 3) && (n.reff.empty() || n.leaf().distrtype == 0);
  constexpr std::size_t all = std::size(points), without_qtol = all - 1;
  if (!has_rule) note(n, procedure, names_given({points, n.method == 2 ? without_qtol : all}, procedure));
}

} // namespace torvale::run
