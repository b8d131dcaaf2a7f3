// The options of the TORVALE statement that belong to the optimizer. Only what was given is copied; every default is
// the library's.

#include "host/messages/names/methods.h"
#include "host/values/whole_number.h"
#include "integration/objective.h"
#include "optimizer/optimizer.h"
#include "run/statements/statement_processing.h"
#include "solve/course/course.h"
#include "solve/start/start_metric.h"
#include "syntax/statement_names.h"

#include <cmath>
#include <type_traits>

namespace torvale::run {

using model::NX;
using optimizer::MINSTR;
using syntax::STMT;
using syntax::torvale_flag;
using syntax::torvale_slot;

namespace {

template <class T> void take(const STMT& s, torvale_slot slot, T& target)
{
  const double value = s.number_or(slot, host::missing);
  if (std::isnan(value)) return;
  if constexpr (std::is_integral_v<T>)
    target = host::whole_number<T>(value);
  else
    target = value;
}

// Whole-number choices: 0 leaves the default.
void choose(const STMT& s, torvale_slot slot, int& target)
{
  const double value = s.number_or(slot, 0);
  if (!std::isnan(value) && value != 0) target = host::whole_number(value);
}

// tvloptg: copies slot by slot. (tvl procedure, opt options, g get.)
void tvloptg(const STMT& s, MINSTR& str, optimizer::COVSTR& cov)
{
  choose(s, torvale_slot::technique, str.tech);
  choose(s, torvale_slot::version, str.vers);
  choose(s, torvale_slot::update, str.tupd);
  if (s.given(torvale_slot::hescal) && s.number_or(torvale_slot::hescal, -1) >= 0)
    str.hesc = host::whole_number(s.number_or(torvale_slot::hescal, 0)) + 1;
  if (s.flag(torvale_flag::inhessian)) str.load = 1;
  if (s.given(torvale_slot::inhessian)) {
    take(s, torvale_slot::inhessian, str.dhes);
    str.load = 0;
  }
  take(s, torvale_slot::restart, str.nres);
  take(s, torvale_slot::lceps, str.ceps);
  take(s, torvale_slot::lcsingular, str.ldct);
  take(s, torvale_slot::lcdeact, str.deat);
  choose(s, torvale_slot::linesearch, str.tlin);
  take(s, torvale_slot::instep, str.salf);
  if (s.flag(torvale_flag::dampstep)) str.damp = 2; // DAMPSTEP without a value
  take(s, torvale_slot::dampstep, str.damp);
  take(s, torvale_slot::lsprecision, str.sigm);
  take(s, torvale_slot::maxstep, str.smax);
  str.smit = s.given(torvale_slot::maxstep_count)
                 ? host::whole_number<long>(s.number_or(torvale_slot::maxstep_count, 0))
                 : (s.given(torvale_slot::maxstep) ? 2147483647L : str.smit);
  take(s, torvale_slot::singhess, str.sing);
  if (s.flag(torvale_flag::optcheck)) str.rtop = 0.1;
  take(s, torvale_slot::optcheck, str.rtop);
  take(s, torvale_slot::infstep, str.ssin);
  if (s.flag(torvale_flag::gradcheck)) str.gchk = 3;
  choose(s, torvale_slot::gradcheck, str.gchk);
  if (s.flag(torvale_flag::fd)) str.fidi = 3;
  choose(s, torvale_slot::fd, str.fidi);
  take(s, torvale_slot::fd_number, str.swfd);
  if (s.flag(torvale_flag::fdhessian)) str.fihs = 3;
  choose(s, torvale_slot::fdhessian, str.fihs);
  choose(s, torvale_slot::fdint, str.cfdh);
  take(s, torvale_slot::fdigits, str.fdig);
  take(s, torvale_slot::cdigits, str.cdig);
  if (s.flag(torvale_flag::diahes)) str.hfrm = cov.hfrm = cov.cfrm = 2;
  take(s, torvale_slot::maxtime, str.upti);
  if (s.number_or(torvale_slot::miniter, -1) >= 0)
    str.mini = host::whole_number<long>(s.number_or(torvale_slot::miniter, 0));
  take(s, torvale_slot::maxiter, str.maxi);
  take(s, torvale_slot::maxiter_count, str.max2);
  take(s, torvale_slot::maxfunc, str.maxf);
  take(s, torvale_slot::absconv, str.atol);
  take(s, torvale_slot::absfconv, str.aftl);
  take(s, torvale_slot::fconv, str.ftol);
  take(s, torvale_slot::fconv2, str.fto2);
  take(s, torvale_slot::absxconv, str.axtl);
  take(s, torvale_slot::xconv, str.xtol);
  take(s, torvale_slot::absgconv, str.agtl);
  take(s, torvale_slot::gconv, str.gtol);
  take(s, torvale_slot::gconv2, str.gto2);
  take(s, torvale_slot::fsize, str.fsiz);
  take(s, torvale_slot::xsize, str.xsiz);
  // toln 1 to 8 follow the termination codes 2 to 9.
  constexpr torvale_slot count_slots[] = {torvale_slot::absfconv_count, torvale_slot::absgconv_count,
                                          torvale_slot::absxconv_count, torvale_slot::fconv_count,
                                          torvale_slot::gconv_count,    torvale_slot::xconv_count,
                                          torvale_slot::fconv2_count,   torvale_slot::gconv2_count};
  for (int i = 0; i < 8; ++i) str.toln[i + 1] = host::whole_number<long>(s.number_or(count_slots[i], 0));
}

// The covariance of the estimates, and what the optimizer is to print.
void covariance_options(const STMT& s, optimizer::COVSTR& cov)
{
  choose(s, torvale_slot::covariance, cov.icov);
  const auto positive = [&](torvale_slot slot, double& target) {
    if (const double value = s.number_or(slot, 0); value != 0) target = value;
  };
  positive(torvale_slot::sigsq, cov.sigs);
  positive(torvale_slot::asingular, cov.asin);
  positive(torvale_slot::msingular, cov.msin);
  positive(torvale_slot::vsingular, cov.vsin);
  positive(torvale_slot::covsing, cov.csin);
  if (s.number_or(torvale_slot::g4, 0) != 0) cov.g4li = host::whole_number<long>(s.number_or(torvale_slot::g4, 0));
  positive(torvale_slot::cfactor, cov.cfac);
  cov.npri = s.flag(torvale_flag::pnone);
  cov.pall = s.flag(torvale_flag::pall);
  cov.psho = s.flag(torvale_flag::pshort);
  cov.psum = s.flag(torvale_flag::psummary);
  cov.phis = s.flag(torvale_flag::phistory);
  cov.neig = s.flag(torvale_flag::noeignum);
  cov.pini = cov.pall != 0 || s.flag(torvale_flag::pinit);
  cov.phes = cov.pall != 0 || s.flag(torvale_flag::phessian);
  cov.peig = cov.pall != 0 || s.flag(torvale_flag::peigval);
  cov.pcov = cov.pall != 0 || s.flag(torvale_flag::pcov);
}

// Printing options add tables; the procedure's own are always written.
void printing_options(NX& n)
{
  const auto& cov = *n.covstr;
  if (cov.phes != 0) n.phess = true;
  if (cov.pcov != 0) n.pcov = true;
  if (cov.pini != 0) n.pstart = true;
}

// Where the gradient comes by differences, a Hessian by differences of it makes no sense. First-order and Hardy
// integration take no FDHESSIAN.
void difference_mode(NX& n)
{
  auto& str = *n.str;
  const bool simple = n.method == 1 || n.method == 2;
  const bool values_only = (simple || n.nreff() > 1) && n.fd != 0;
  if ((simple || values_only) && n.fdh != 0) {
    if (n.fd != 0)
      n.host->log().xpmlog(message::fdhessian_ignored_with_fd);
    else
      n.host->log().xpmlog(message::fdhessian_ignored_with_method{.method = n.method == 1 ? "FIRO" : "HARDY"});
    n.raise(4);
    n.fdh = 0;
    str.fihs = 0;
  }
  if (values_only) {
    str.fidi = n.fd == 2 ? 2 : 1;
    str.fihs = 0;
  } else if (str.fidi == 0) {
    str.fihs = n.fdh == 2 ? 2 : 1;
  }
}

// FDHESSIAN= needs gradients: beside it FD= is ignored, and the library says so.
bool analytic_gradients(const MINSTR& str)
{
  return str.fidi == 0 || str.fihs != 0;
}

// What the library has to say of the options. Reports of a run wait for its end; these do not.
void post_messages(NX& n)
{
  for (auto& message : n.optimizer_messages) n.host->log().post(std::move(message));
  n.optimizer_messages.clear();
}

// Parameters of a model differ in size by orders of magnitude, and a quasi-Newton run from the identity spends most of
// its iterations on finding that out (sleep study: 40 objective calls and a stop 0.05 above the minimum; 13 calls and
// the minimum with the Hessian at the start, its own calls included). With analytic gradients the start metric is
// therefore one that knows the units, and needs no calls where there are enough subjects, unless the statement says
// otherwise.
void start_metric(NX& n, const STMT& procedure)
{
  const bool given = procedure.flag(torvale_flag::inhessian) || procedure.given(torvale_slot::inhessian);
  if (given || !analytic_gradients(*n.str)) return;
  n.str->load = 1;
  n.str->usmet = solve::start_metric;
}

// Two forms divide by the number of observations, which nobody expects of standard errors of maximum likelihood.
void note_divided_covariance(NX& n, const STMT& procedure)
{
  if ((n.covstr->icov != 3 && n.covstr->icov != 4) || n.covstr->cfac > 0.0) return;
  n.host->log().xpmlog(message::covariance_divided{.form = n.covstr->icov == 3 ? "J" : "B"},
                       place_at(n, "TORVALE", procedure.slot(torvale_slot::covariance).where));
}

} // namespace

void optimizer_setup(NX& n, const STMT& procedure)
{
  n.str = std::make_unique<MINSTR>();
  n.covstr = std::make_unique<optimizer::COVSTR>();
  auto& str = *n.str;
  optimizer::tvlopti(&str);
  str.comstr = &n;
  str.nvar = n.nparm;
  str.nreb = n.nreff();
  str.fail = model::failure_objective;
  tvloptg(procedure, str, *n.covstr);
  covariance_options(procedure, *n.covstr);
  note_divided_covariance(n, procedure);
  difference_mode(n);
  start_metric(n, procedure);
  printing_options(n);
  n.noopt = str.tech == optimizer::NONE || n.nparm == 0;
  if (std::isnan(str.ceps)) str.ceps = 1e-8; // strict bounds need it before the library sets its defaults
  process_bounds(n);

  if (optimizer::tvlopta(&str) != 0) tvlexit(n, 1016);
  for (int j = 0; j < n.nparm; ++j) {
    const auto& p = n.parmstr[static_cast<std::size_t>(j)];
    str.bounds |= static_cast<int>(p.applyl || p.applyh);
    str.lb[j] = p.lowbound;
    str.ub[j] = p.highbound;
  }
  str.usfct = n.loglevel > 2 ? integration::nlpfunclog : integration::nlpfunc;
  str.usgrd = analytic_gradients(str) ? integration::nlpgrad : nullptr;
  str.uster = solve::nlpterm;
  str.message = solve::optimizer_message;
  str.zmsg = 2; // a limit that ends a fit is a warning
  str.check_row = solve::gradient_check_row;
  n.covstr->dependency = solve::dependency_row;
  str.clock = [](MINSTR* s) { return static_cast<NX*>(s->comstr)->host->seconds(); };
  str.covstr = n.covstr.get();
  const int rc = optimizer::tvloptc(&str);
  post_messages(n);
  if (str.fidi == 0) n.fd = 0; // the derivatives that are asked for next follow the library's decision
  if (rc == 1016) tvlexit(n, 1016);
  if (rc != 0) tvlexit(n, 3000);
  optimizer::covariance_defaults(n.covstr.get());
}

} // namespace torvale::run
