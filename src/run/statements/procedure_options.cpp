// The options of the TORVALE statement: slot and flag numbers are those of the language's tables.

#include "engine/functions/functions.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/statements.h"
#include "host/values/whole_number.h"
#include "run/statements/statement_processing.h"
#include "syntax/statement_names.h"
#include "syntax/walk.h"

namespace torvale::run {

using model::NX;
using model::RunOptions;
using syntax::STMT;
using syntax::torvale_flag;
using syntax::torvale_slot;

bool draws_numbers(const NX& n)
{
  bool draws = n.method == 3;                                                    // importance samples
  const bool residuals = n.proc->statements.front().given(torvale_slot::outfit); // of counts: a random place on a jump
  for (const STMT& statement : n.proc->statements) {
    draws = draws || statement.name == "MCMC";
    if (statement.name != "MODEL" || !residuals) continue;
    const auto code = static_cast<int>(statement.number_or(syntax::model_slot::distribution, 0));
    draws = draws || code == 2 || code == 3 || code == 4 || code == 6; // BINARY, BINOMIAL, POISSON, NEGBIN
  }
  syntax::each_expression(n.proc->program, [&](const syntax::Expr& e) {
    const auto* function = e.kind == syntax::ExprKind::call ? engine::find_function(e.name) : nullptr;
    draws = draws || (function != nullptr && function->cls == engine::FunctionClass::random);
  });
  return draws;
}

namespace {

void set_seed(NX& n, const STMT& s)
{
  auto& log = n.host->log();
  constexpr double limit = 9007199254740992.0;
  const double given =
      s.number_or(torvale_slot::seed, static_cast<double>(n.seed)); // n.seed: --seed of the command line, or 0
  if (given >= limit) {
    log.xpmlog(message::seed_too_large{.limit = limit}, place_at(n, "TORVALE", s.slot(torvale_slot::seed).where));
    tvlexit(n, 3000);
  }
  if (given < 0) log.xpmlog(message::seed_negative, place_at(n, "TORVALE", s.slot(torvale_slot::seed).where));
  n.seed = static_cast<long>(given);
  if (n.seed >= 1 && n.seed <= 2147483646) return;
  if (given > 2147483646.0)
    log.xpmlog(message::seed_above_range{.seed = given}, place_at(n, "TORVALE", s.slot(torvale_slot::seed).where));
  n.seed = static_cast<long>(n.host->clock_seed());
  if (draws_numbers(n)) log.xpmlog(message::seed_from_clock{.seed = n.seed});
}

double default_qmax(const RunOptions& n)
{
  if (n.method == 0) return n.adaptive ? 31 : 61;
  return n.adaptive ? 160 : 310;
}

// Tables and listings that were asked for.
void output_options(NX& n, const STMT& s)
{
  if (s.given(torvale_slot::outfit)) n.fitted.out = &s.slot(torvale_slot::outfit).list.at(0);
  if (s.given(torvale_slot::outest)) n.outest = &s.slot(torvale_slot::outest).list.at(0);
  n.pecov = s.flag(torvale_flag::ecov);
  n.pecorr = s.flag(torvale_flag::ecorr);
  n.itdetails = s.flag(torvale_flag::itdetails);
  n.pcov = s.flag(torvale_flag::cov);
  n.pcorr = s.flag(torvale_flag::corr);
  n.phess = s.flag(torvale_flag::hess);
  n.pstart = s.flag(torvale_flag::start);
  n.peder = s.flag(torvale_flag::eder);
  n.debug = s.flag(torvale_flag::debug);
  n.list = s.flag(torvale_flag::list);
  n.listcode = s.flag(torvale_flag::listcode);
  n.listdep = s.flag(torvale_flag::listdep);
  n.xref = s.flag(torvale_flag::xref);
  n.listder = s.flag(torvale_flag::listder);
}

} // namespace

void procedure_options(NX& n, const STMT& s)
{
  auto& log = n.host->log();
  n.lognote = s.flag(torvale_flag::lognote);
  if (n.lognote) {
    n.loglevel = host::whole_number(s.number_or(torvale_slot::lognote, 1));
    log.xpmlog(message::statements_read);
  }

  n.method = host::whole_number(s.number_or(torvale_slot::method, 0));
  n.nqpspec = s.given(torvale_slot::qpoints);
  n.nqp = host::whole_number(s.number_or(torvale_slot::qpoints, -1));
  n.qscale = s.number_or(torvale_slot::qscalefac, 1.0);
  n.qtol = s.number_or(torvale_slot::qtol, 1e-4);
  n.adaptive = !s.flag(torvale_flag::noad);
  n.adscale = n.adaptive && !s.flag(torvale_flag::noadscale);
  n.qfac = s.number_or(torvale_slot::qfac, n.method == 0 ? 10.0 : 50.0);
  n.qmax = s.number_or(torvale_slot::qmax, -1);
  if (n.qmax < 0) n.qmax = default_qmax(n);
  if (n.qtol < 1.110223024625157e-15) {
    log.xpmlog(message::qtol_too_small{.value = n.qtol}, place_at(n, "TORVALE", s.slot(torvale_slot::qtol).where));
    tvlexit(n, 1012);
  }
  n.search = s.flag(torvale_flag::search);

  n.ebtol = s.number_or(torvale_slot::ebtol, 1.110223024625157e-12);
  n.ebsstol = s.number_or(torvale_slot::ebsstol, 1e-8);
  n.ebstep = host::whole_number(s.number_or(torvale_slot::ebstep, 50));
  n.ebsubstep = host::whole_number(s.number_or(torvale_slot::ebsubstep, 20));
  n.ebssfrac = s.number_or(torvale_slot::ebssfrac, 0.8);
  n.ebmtol = s.number_or(torvale_slot::ebmtol, 1e-5);
  n.ebopt = s.flag(torvale_flag::ebopt);
  n.ebzstart = s.flag(torvale_flag::ebzstart);
  n.ebgn = s.flag(torvale_flag::ebgn);
  n.ebiter = s.flag(torvale_flag::ebiter);

  n.btol = s.number_or(torvale_slot::btol, 0.01);
  n.singvar = s.number_or(torvale_slot::singvar, 1.110223024625157e-12);
  n.variance_floor = s.number_or(torvale_slot::singvar, 0.0);
  n.singchol = s.number_or(torvale_slot::singchol, 1.110223024625157e-12);
  n.singsweep = s.number_or(torvale_slot::singsweep, 1.110223024625157e-12);

  n.fd = !s.flag(torvale_flag::fd) ? 0 : host::whole_number(s.number_or(torvale_slot::fd, 3));
  n.fdh = !s.flag(torvale_flag::fdhessian) ? 0 : host::whole_number(s.number_or(torvale_slot::fdhessian, 3));
  n.empirical = s.flag(torvale_flag::empirical);
  n.subgrad = s.flag(torvale_flag::subgradient);
  n.lb = n.method == 1 && s.flag(torvale_flag::lb);
  if (n.method == 1 ||
      n.method == 2) { // no rule of points; modes where they are expanded around, or where a peak is looked for
    n.adaptive = n.method == 2 || n.lb;
    n.adscale = false;
    n.nqp = 0;
  }

  n.alpha = s.number_or(torvale_slot::alpha, 0.05);
  n.dfespec = s.given(torvale_slot::df);
  n.dfe_option = s.number_or(torvale_slot::df, -1);
  output_options(n, s);
  n.nosort = s.flag(torvale_flag::nosortsub);
  n.retfail = s.flag(torvale_flag::retfail);
  n.reobsinfo = s.flag(torvale_flag::reobsinfo);

  n.nthreads = host::whole_number(s.number_or(torvale_slot::nthreads, 0));
  n.runThreads = n.nthreads != 0;
  if (n.runThreads && n.nosort) {
    log.xpmlog(message::threads_exclude_nosortsub, place_at(n, "TORVALE", s.slot(torvale_slot::nthreads).where));
    n.runThreads = false;
  }
  if (!n.runThreads) n.nthreads = 0;

  for (const auto& item : s.slot(torvale_slot::by).list) n.bylist.push_back({item.text, item.descending});
  n.notsorted = s.slot(torvale_slot::by).mode == 1;
  set_seed(n, s);
}

} // namespace torvale::run
