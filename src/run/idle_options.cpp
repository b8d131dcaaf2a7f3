#include "run/idle_options.h"

#include "host/message_names.h"
#include "run/statement_processing.h"

namespace torvale::run {

namespace {

constexpr IdleOption slot(int number, const char* name)
{
  return {number, -1, name};
}

constexpr IdleOption flag(int number, const char* name)
{
  return {-1, number, name};
}

constexpr IdleOption options[] = {
    // The number of points is chosen when QPOINTS= is absent; there is one optimizer.
    flag(57, "SEARCH"),
    slot(83, "BTOL"),
    flag(100, "MRAND"),
    flag(74, "ZNLP"),
    // Nested modes are found by one method, whose derivatives are asked for at once.
    slot(96, "EBMTOL"),
    flag(95, "EBMGRADTERM"),
    flag(97, "EBITER"),
    flag(70, "EBGN"),
    flag(94, "REOBSINFO"),
    flag(107, "RETFAIL"),
    flag(108, "CMPDERSEQ"),
    // The optimizer writes no pages of its own: its tables are asked for by name (HESS, COV, START, ITDETAILS).
    flag(10, "PNONE"),
    flag(13, "PSHORT"),
    flag(14, "PSUMMARY"),
    flag(15, "PHISTORY"),
    flag(22, "NOEIGNUM"),
    flag(23, "PEIGVAL"),
    // There is one version of each technique.
    slot(12, "VERSION"),
    slot(37, "CDIGITS"),
    slot(52, "GCONV2"),
    flag(49, "DEBUG"),
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
    if (o.slot >= 0 ? procedure.given(o.slot) : procedure.flag(o.flag)) add(o.name);
  if (!n.proc->traces.empty()) add("trace switches");
  if (!names.empty()) n.host->log().xpmlog(message::options_without_effect{.options = names}, place_at(n, "TORVALE", procedure.where));
}

} // namespace torvale::run
