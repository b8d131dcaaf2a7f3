// The options of the TORVALE statement that belong to the optimizer. Only what was given is copied; every default is
// the library's.

#include "integration/objective.h"
#include "optimizer/optimizer.h"
#include "run/statement_processing.h"
#include "solve/solve_step.h"

#include <cmath>

namespace torvale::run {

using model::NX;
using optimizer::MINSTR;
using syntax::STMT;

namespace {

template <class T> void take(const STMT& s, int slot, T& target)
{
  const double value = s.number_or(slot, host::missing);
  if (!std::isnan(value)) target = static_cast<T>(value);
}

// Whole-number choices: 0 leaves the default.
void choose(const STMT& s, int slot, int& target)
{
  const double value = s.number_or(slot, 0);
  if (!std::isnan(value) && value != 0) target = static_cast<int>(value);
}

// tvloptg: copies slot by slot. (tvl procedure, opt options, g get.)
void tvloptg(const STMT& s, MINSTR& str, optimizer::COVSTR& cov)
{
  choose(s, 11, str.tech);
  choose(s, 12, str.vers);
  choose(s, 13, str.tupd);
  if (s.given(14) && s.number_or(14, -1) >= 0) str.hesc = static_cast<int>(s.number_or(14, 0)) + 1;
  if (s.flag(1)) str.load = 1;
  if (s.given(15)) {
    take(s, 15, str.dhes);
    str.load = 0;
  }
  take(s, 16, str.nres);
  take(s, 18, str.ceps);
  take(s, 19, str.ldct);
  take(s, 20, str.deat);
  choose(s, 22, str.tlin);
  take(s, 23, str.salf);
  if (s.flag(2)) str.damp = 2; // DAMPSTEP without a value
  take(s, 24, str.damp);
  take(s, 25, str.sigm);
  take(s, 26, str.smax);
  str.smit = s.given(27) ? static_cast<long>(s.number_or(27, 0)) : (s.given(26) ? 2147483647L : str.smit);
  take(s, 28, str.sing);
  if (s.flag(3)) str.rtop = 0.1;
  take(s, 29, str.rtop);
  take(s, 30, str.ssin);
  if (s.flag(4)) str.gchk = 3;
  choose(s, 31, str.gchk);
  if (s.flag(5)) str.fidi = 3;
  choose(s, 32, str.fidi);
  take(s, 33, str.swfd);
  if (s.flag(6)) str.fihs = 3;
  choose(s, 34, str.fihs);
  choose(s, 35, str.cfdh);
  take(s, 36, str.fdig);
  take(s, 37, str.cdig);
  if (s.flag(7)) str.hfrm = cov.hfrm = cov.cfrm = 2;
  take(s, 40, str.upti);
  if (s.number_or(41, -1) >= 0) str.mini = static_cast<long>(s.number_or(41, 0));
  take(s, 42, str.maxi);
  take(s, 75, str.max2);
  take(s, 43, str.maxf);
  take(s, 44, str.atol);
  take(s, 45, str.aftl);
  take(s, 46, str.ftol);
  take(s, 47, str.fto2);
  take(s, 48, str.axtl);
  take(s, 49, str.xtol);
  take(s, 50, str.agtl);
  take(s, 51, str.gtol);
  take(s, 52, str.gto2);
  take(s, 54, str.fsiz);
  take(s, 55, str.xsiz);
  constexpr int count_slots[] = {57, 62, 60, 58, 63, 61, 59, 64}; // toln 1 to 8 follow the termination codes 2 to 9
  for (int i = 0; i < 8; ++i) str.toln[i + 1] = static_cast<long>(s.number_or(count_slots[i], 0));

  choose(s, 67, cov.icov);
  const auto positive = [&](int slot, double& target) {
    if (const double value = s.number_or(slot, 0); value != 0) target = value;
  };
  positive(68, cov.sigs);
  positive(70, cov.asin);
  positive(71, cov.msin);
  positive(72, cov.vsin);
  positive(73, cov.csin);
  if (s.number_or(74, 0) != 0) cov.g4li = static_cast<long>(s.number_or(74, 0));
  positive(76, cov.cfac);
  cov.npri = s.flag(10);
  cov.pall = s.flag(12);
  cov.psho = s.flag(13);
  cov.psum = s.flag(14);
  cov.phis = s.flag(15);
  cov.neig = s.flag(22);
  cov.pini = cov.pall != 0 || s.flag(16);
  cov.phes = cov.pall != 0 || s.flag(20);
  cov.peig = cov.pall != 0 || s.flag(23);
  cov.pcov = cov.pall != 0 || s.flag(25);
}

// Printing options add tables; the procedure's own are always written.
void printing_options(NX& n)
{
  const auto& cov = *n.covstr;
  if (cov.phes != 0) n.phess = true;
  if (cov.pcov != 0) n.pcov = true;
  if (cov.pini != 0) n.pstart = true;
}

// Where only function values exist, the gradient comes by differences, and a Hessian by differences of it makes no
// sense.
void difference_mode(NX& n)
{
  auto& str = *n.str;
  const bool values_only = (n.method != 0 && n.method != 3 && n.method != 4) || n.nreff() > 1;
  if (values_only) {
    str.fidi = n.fd == 2 ? 2 : 1;
    if (n.fdh != 0) {
      n.host->log().xpmlog(503, n.fd != 0 ? 361 : 362,
                           {{"method", n.method == 1   ? "FIRO"
                                       : n.method == 2 ? "HARDY"
                                                       : "nested RANDOM"}});
      n.raise(4);
    }
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
// therefore that Hessian unless the statement says otherwise.
void start_metric(NX& n, const STMT& procedure)
{
  const bool given = procedure.flag(1) || procedure.given(15);
  if (!given && analytic_gradients(*n.str) && n.nparm <= 100) n.str->load = 1;
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
