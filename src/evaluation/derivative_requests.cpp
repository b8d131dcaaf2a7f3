#include "evaluation/likelihood_programs.h"

namespace torvale::evaluation {

using engine::CMPLIST;
using engine::CMPSYM;
using model::NX;
using model::REFFECT;

namespace {

constexpr int most_effects = 64; // of one block: arrays on the stack of the kernels are this long

// What the kernels of the method read. Without analytic gradients nothing is differentiated by the parameters.
void complete_flags(NX& n)
{
  const bool gradient = n.fd == 0;
  const bool searches_modes = n.nreff() > 0 && n.method != 4 && n.adaptive;
  if (searches_modes) n.needhessu = true;
  if (searches_modes && gradient) n.needcrossu = true;
  if (searches_modes && gradient && n.adscale) n.needtriu = true;
  if (n.needtriu || (n.wants_effects && n.nreff() > 0 && n.method != 4)) n.needcrossu = true;
  if (n.needcrossu) n.needhessu = true;
}

int refuse(NX& n, int number, const std::string& name, const syntax::Position& where, int code)
{
  if (n.host != nullptr) {
    const auto place = n.sources != nullptr ? n.sources->place("RANDOM", where) : host::MessagePlace{.statement = "RANDOM"};
    n.host->log().xpmlog(503, number, {{"name", name}}, place);
  }
  n.raise(number == 10 ? 3000 : 1012);
  return code;
}

// First derivatives of _ll by the random effects, in the order of the effects; null where there is none.
std::vector<CMPSYM*> effect_derivatives(const REFFECT& reff, int np)
{
  std::vector<CMPSYM*> result(static_cast<std::size_t>(reff.nr), nullptr);
  for (std::size_t k = 0; k < reff.gradstr.der.s.size(); ++k)
    if (const int w = reff.gradstr.wrtindex[k]; w >= np) result[static_cast<std::size_t>(w - np)] = reff.gradstr.der.s[k];
  return result;
}

// Second derivatives, then third: the second list holds only what the third needs, one triangle in the random effects.
int request_curvature(NX& n, REFFECT& reff)
{
  CMPLIST slopes;
  for (CMPSYM* s : effect_derivatives(reff, n.nparm))
    if (s != nullptr) slopes.s.push_back(s);
  if (engine::cmpder(reff.hessustr, slopes, n.needcrossu ? reff.prsym : reff.ransym, *n.gcmp) != 0) return 1012;
  if (!n.needtriu) return 0;
  CMPLIST curves;
  for (CMPSYM* s : reff.hessustr.der.s) curves.s.push_back(s);
  return engine::cmpder(reff.triustr, curves, reff.ransym, *n.gcmp) != 0 ? 1012 : 0;
}

int request_block(NX& n, REFFECT& reff)
{
  const bool gradient = n.fd == 0;
  if (engine::cmpder(reff.gradstr, CMPLIST{{n.llsym}}, gradient || n.needcrossu ? reff.prsym : reff.ransym, *n.gcmp) != 0)
    return 1012;
  if (!(gradient || n.needcrossu)) {
    for (int& w : reff.gradstr.wrtindex) w += n.nparm; // as if by prsym: the effects follow the parameters
    reff.gradstr.wrt = reff.prsym;
  }
  const auto slopes = effect_derivatives(reff, n.nparm);
  for (std::size_t e = 0; e < slopes.size(); ++e)
    if (slopes[e] == nullptr) return refuse(n, 10, reff.names[e], reff.ransym.s[e]->where, 3000);
  if (n.needhessu && request_curvature(n, reff) != 0) return 1012;

  // Distribution arguments: by parameters for the chain rule; they may not depend on the effects themselves.
  for (CMPSYM* argument : reff.distrsym.s)
    for (std::size_t e = 0; e < reff.ransym.s.size(); ++e)
      if (engine::cmpcdep(*n.gcmp, argument, reff.ransym.s[e])) return refuse(n, 303, reff.names[e], argument->where, 1012);
  if (gradient || n.needcrossu) {
    CMPLIST parameters;
    parameters.s.assign(reff.prsym.s.begin(), reff.prsym.s.begin() + n.nparm);
    if (engine::cmpder(reff.gradrstr, reff.distrsym, parameters, *n.gcmp) != 0) return 1012;
  }
  return 0;
}

// What the kernels do not integrate; null when they do.
const char* unserved(const NX& n)
{
  if (n.nreff() > 1) return "A model with several RANDOM statements";
  if (n.nreff() == 1 && n.leaf().distrtype != 0) return "The DISCRETE distribution of RANDOM";
  if (n.nreff() == 1 && n.leaf().nr > most_effects) return "A RANDOM statement with more than 64 random effects";
  return nullptr;
}

} // namespace

int build_programs(NX& n)
{
  if (const char* what = unserved(n); what != nullptr) {
    if (n.host != nullptr) n.host->log().xpmlog(503, 9330, {{"what", what}});
    n.raise(3000);
    return 3000;
  }
  complete_flags(n);
  if (n.nreff() == 0) {
    if (n.fd != 0) return 0;
    return engine::cmpder(n.gradstr, CMPLIST{{n.llsym}}, n.prsym, *n.gcmp) != 0 ? 1012 : 0;
  }
  for (REFFECT& reff : n.reff)
    if (const int rc = request_block(n, reff); rc != 0) return rc;
  return 0;
}

} // namespace torvale::evaluation
