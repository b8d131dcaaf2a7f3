#include "run/statements/idle_options.h"

#include "host/messages/names/fit.h"
#include "run/statements/statement_processing.h"

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

} // namespace

std::span<const IdleOption> idle_options()
{
  return options;
}

void note_idle_options(model::NX& n, const syntax::STMT& procedure)
{
  std::string names;
  const auto add = [&](const char* name) {
    names += names.empty() ? "" : ", ";
    names += name;
  };
  for (const IdleOption& o : options)
    if (o.given_in(procedure)) add(o.name);
  if (!n.proc->traces.empty()) add("trace switches");
  if (!names.empty())
    n.host->log().xpmlog(message::options_without_effect{.options = names}, place_at(n, "TORVALE", procedure.where));
}

} // namespace torvale::run
