// The options of the TORVALE statement: slot and flag numbers are those of the language's tables.

#include "host/text.h"
#include "run/statement_processing.h"

namespace torvale::run {

using model::NX;
using syntax::STMT;

namespace {

void set_seed(NX& n, const STMT& s)
{
  auto& log = n.host->log();
  constexpr double limit = 9007199254740992.0;
  const double given = s.number_or(86, static_cast<double>(n.seed)); // n.seed: --seed of the command line, or 0
  if (given >= limit) {
    log.xpmlog(503, 140, {{"limit", limit}}, place_at(n, "TORVALE", s.slot(86).where));
    tvlexit(n, 3000);
  }
  if (given < 0) log.xpmlog(503, 139, {}, place_at(n, "TORVALE", s.slot(86).where));
  n.seed = static_cast<long>(given);
  if (n.seed >= 1 && n.seed <= 2147483646) return;
  if (given > 2147483646.0) log.xpmlog(503, 9302, {{"seed", given}}, place_at(n, "TORVALE", s.slot(86).where));
  n.seed = static_cast<long>(n.host->clock_seed());
  n.seed_from_clock = true;
}

double default_qmax(const NX& n)
{
  if (n.method == 0) return n.adaptive ? 31 : 61;
  return n.adaptive ? 160 : 310;
}

} // namespace

void procedure_options(NX& n, const STMT& s)
{
  auto& log = n.host->log();
  n.lognote = s.flag(73);
  if (n.lognote) {
    n.loglevel = host::whole_number(s.number_or(92, 1));
    log.xpmlog(503, 400, {});
  }

  n.method = host::whole_number(s.number_or(5, 0));
  n.nqpspec = s.given(6);
  n.nqp = host::whole_number(s.number_or(6, -1));
  n.qscale = s.number_or(7, 1.0);
  n.qtol = s.number_or(81, 1e-4);
  n.adaptive = !s.flag(56);
  n.adscale = n.adaptive && !s.flag(59);
  n.qfac = s.number_or(87, n.method == 0 ? 10.0 : 50.0);
  n.qmax = s.number_or(88, -1);
  if (n.qmax < 0) n.qmax = default_qmax(n);
  if (n.qtol < 1.110223024625157e-15) {
    log.xpmlog(503, 134, {{"value", n.qtol}}, place_at(n, "TORVALE", s.slot(81).where));
    tvlexit(n, 1012);
  }
  n.search = s.flag(57);

  n.ebtol = s.number_or(82, 1.110223024625157e-12);
  n.ebsstol = s.number_or(84, 1e-8);
  n.ebstep = host::whole_number(s.number_or(8, 50));
  n.ebsubstep = host::whole_number(s.number_or(9, 20));
  n.ebssfrac = s.number_or(10, 0.8);
  n.ebmtol = s.number_or(96, 1e-5);
  n.ebopt = s.flag(67);
  n.ebzstart = s.flag(69);
  n.ebgn = s.flag(70);

  n.btol = s.number_or(83, 0.01);
  n.singvar = s.number_or(85, 1.110223024625157e-12);
  n.singchol = s.number_or(3, 1.110223024625157e-12);
  n.singsweep = s.number_or(4, 1.110223024625157e-12);

  n.fd = !s.flag(5) ? 0 : host::whole_number(s.number_or(32, 3));
  n.fdh = !s.flag(6) ? 0 : host::whole_number(s.number_or(34, 3));
  n.empirical = s.flag(8);
  n.subgrad = s.flag(9);
  n.lb = s.flag(72);

  n.alpha = s.number_or(90, 0.05);
  n.dfespec = s.given(91);
  n.dfe_option = s.number_or(91, -1);
  n.pecov = s.flag(60);
  n.pecorr = s.flag(61);
  n.itdetails = s.flag(62);
  n.pcov = s.flag(63);
  n.pcorr = s.flag(64);
  n.phess = s.flag(65);
  n.pstart = s.flag(66);
  n.peder = s.flag(71);
  n.debug = s.flag(49);
  n.list = s.flag(51);
  n.listcode = s.flag(52);
  n.listdep = s.flag(53);
  n.xref = s.flag(54);
  n.listder = s.flag(55);
  n.nosort = s.flag(99);
  n.retfail = s.flag(107);

  n.nthreads = host::whole_number(s.number_or(101, 0));
  n.runThreads = n.nthreads != 0;
  if (n.runThreads && n.nosort) {
    log.xpmlog(503, 651, {}, place_at(n, "TORVALE", s.slot(101).where));
    n.runThreads = false;
  }
  if (n.runThreads && n.method != 0) {
    log.xpmlog(503, 652, {}, place_at(n, "TORVALE", s.slot(101).where));
    n.runThreads = false;
  }
  if (!n.runThreads) n.nthreads = 0;

  for (const auto& item : s.slot(0).list) n.bylist.push_back({item.text, item.descending});
  n.notsorted = s.slot(0).mode == 1;
  set_seed(n, s);
}

} // namespace torvale::run
