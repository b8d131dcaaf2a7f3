#include "evaluation/likelihood_programs.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/methods.h"
#include "host/messages/names/statements.h"

#include <algorithm>

namespace torvale::evaluation {

using engine::CMPDER;
using engine::CMPLIST;
using engine::CMPSYM;
using model::NX;
using model::REFFECT;

namespace {

constexpr int most_effects = 64; // of a model: arrays on the stack of the kernels are this long

// What the kernels of the method read. Without analytic gradients nothing is differentiated by the parameters.
void complete_flags(NX& n)
{
  const bool gradient = needs_gradient(n);
  const bool searches_modes = n.nreff() > 0 && n.method != 4 && n.adaptive;
  const bool follows_modes = searches_modes && gradient && n.method != 2; // the trapezoidal rule stands where it stands
  if (searches_modes) n.needhessu = true;
  if (follows_modes) n.needcrossu = true;
  if (follows_modes && n.adscale) n.needtriu = true;
  const bool modes_wanted = n.wants_effects && n.nreff() > 0 && n.method != 4 && (n.method != 1 || n.lb);
  if (n.needtriu || modes_wanted) n.needcrossu = true;
  if (n.needcrossu) n.needhessu = true;
}

int refuse(NX& n, const host::NumberedMessage& problem, const syntax::Position& where, int code)
{
  if (n.host != nullptr) {
    const auto place =
        n.sources != nullptr ? n.sources->place("RANDOM", where) : host::MessagePlace{.statement = "RANDOM"};
    n.host->log().xpmlog(problem, place);
  }
  n.raise(code);
  return code;
}

// First derivatives of _ll by the random effects, in the order of the chain; null where there is none.
std::vector<CMPSYM*> effect_derivatives(const NX& n)
{
  const auto& request = n.leaf().gradstr;
  std::vector<CMPSYM*> result(n.mransym.s.size(), nullptr);
  for (std::size_t k = 0; k < request.der.s.size(); ++k)
    if (const int w = request.wrtindex[k]; w >= n.nparm)
      result[static_cast<std::size_t>(w - n.nparm)] = request.der.s[k];
  return result;
}

// Second derivatives, then third: the second list holds only what the third needs, one triangle in the random effects.
int request_curvature(NX& n)
{
  REFFECT& leaf = n.leaf();
  CMPLIST slopes;
  for (CMPSYM* s : effect_derivatives(n))
    if (s != nullptr) slopes.s.push_back(s);
  if (engine::cmpder(leaf.hessustr, slopes, n.needcrossu ? n.mrnprsym : n.mransym, *n.gcmp) != 0) return 1012;
  if (!n.needtriu) return 0;
  CMPLIST curves;
  for (CMPSYM* s : leaf.hessustr.der.s) curves.s.push_back(s);
  return engine::cmpder(leaf.triustr, curves, n.mransym, *n.gcmp) != 0 ? 1012 : 0;
}

// _ll by the parameters and the effects of all levels: the requests stand at the leaf, which has all of them on its
// chain.
int request_likelihood(NX& n)
{
  const bool by_parameters = needs_gradient(n) || n.needcrossu;
  REFFECT& leaf = n.leaf();
  if (engine::cmpder(leaf.gradstr, CMPLIST{{n.llsym}}, by_parameters ? n.mrnprsym : n.mransym, *n.gcmp) != 0)
    return 1012;
  if (!by_parameters) {
    for (int& w : leaf.gradstr.wrtindex) w += n.nparm; // as if by mrnprsym: the effects follow the parameters
    leaf.gradstr.wrt = n.mrnprsym;
  }
  const auto slopes = effect_derivatives(n);
  for (const REFFECT& reff : n.reff)
    for (std::size_t e = 0; e < reff.names.size(); ++e) {
      if (slopes[static_cast<std::size_t>(reff.first_effect) + e] != nullptr) continue;
      message::likelihood_without_random_effect words{.name = reff.names[e]};
      const auto& all = leaf.gradstr.der.s;
      if (std::all_of(all.begin(), all.end(), [](const CMPSYM* s) { return s == nullptr; }))
        words.reason = "it is the same, or missing, whatever the effects are; an argument of the distribution may be "
                       "out of its range";
      return refuse(n, words, reff.ransym.s[e]->where, 3000);
    }
  return n.needhessu ? request_curvature(n) : 0;
}

// First order: the sums of the linearized model as symbols, and their derivatives. What the mean does not depend on is
// zero.
int request_linearized(NX& n)
{
  REFFECT& leaf = n.leaf();
  const auto combine = [&](syntax::Op op, const CMPSYM* a, const CMPSYM* b) {
    return engine::cmpcombine(*n.gcmp, op, a, b);
  };
  CMPDER slopes;
  if (engine::cmpder(slopes, CMPLIST{{n.meansym}}, n.mransym, *n.gcmp) != 0) return 1012;
  std::vector<CMPSYM*> z(n.mransym.s.size(), nullptr);
  for (std::size_t k = 0; k < slopes.der.s.size(); ++k)
    z[static_cast<std::size_t>(slopes.wrtindex[k])] = slopes.der.s[k];
  const CMPSYM* const residual =
      combine(syntax::Op::divide, combine(syntax::Op::subtract, n.depsym, n.meansym), n.variancesym);
  leaf.linearsym = {n.llsym};
  for (const CMPSYM* zk : z)
    leaf.linearsym.push_back(zk == nullptr ? nullptr : combine(syntax::Op::multiply, zk, residual));
  for (std::size_t i = 0; i < z.size(); ++i)
    for (std::size_t k = 0; k <= i; ++k)
      leaf.linearsym.push_back(
          z[i] == nullptr || z[k] == nullptr
              ? nullptr
              : combine(syntax::Op::divide, combine(syntax::Op::multiply, z[i], z[k]), n.variancesym));
  if (!needs_gradient(n)) return 0;
  CMPLIST objects;
  std::vector<int> place;
  for (std::size_t k = 0; k < leaf.linearsym.size(); ++k) {
    if (leaf.linearsym[k] == nullptr) continue;
    objects.s.push_back(leaf.linearsym[k]);
    place.push_back(static_cast<int>(k));
  }
  const int rc = engine::cmpder(leaf.lineargradstr, objects, n.mrnprsym, *n.gcmp);
  for (int& object : leaf.lineargradstr.objindex) object = place[static_cast<std::size_t>(object)];
  return rc != 0 ? 1012 : 0;
}

// Distribution arguments: by parameters for the chain rule; they may not depend on random effects, whatever their
// level.
int request_arguments(NX& n, REFFECT& reff)
{
  for (CMPSYM* argument : reff.distrsym.s)
    for (CMPSYM* effect : n.mransym.s)
      if (engine::cmpcdep(*n.gcmp, argument, effect))
        return refuse(n, message::random_argument_depends_on_effect{.name = effect->name}, argument->where, 1012);
  if (!(needs_gradient(n) || n.needcrossu)) return 0;
  CMPLIST parameters;
  parameters.s.assign(n.mrnprsym.s.begin(), n.mrnprsym.s.begin() + n.nparm);
  return engine::cmpder(reff.gradrstr, reff.distrsym, parameters, *n.gcmp) != 0 ? 1012 : 0;
}

// What the kernels do not integrate; null when they do.
const char* unserved(const NX& n)
{
  if (n.mransym.n() > most_effects) return "A model with more than 64 random effects";
  return nullptr;
}

// With one level a caller may have left the lists of all levels to us.
void complete_lists(NX& n)
{
  if (n.mransym.n() == 0)
    for (auto it = n.reff.rbegin(); it != n.reff.rend(); ++it) {
      it->first_effect = n.mransym.n();
      n.mransym.s.insert(n.mransym.s.end(), it->ransym.s.begin(), it->ransym.s.end());
    }
  n.mrnprsym.s.assign(n.prsym.s.begin(), n.prsym.s.end());
  n.mrnprsym.s.insert(n.mrnprsym.s.end(), n.mransym.s.begin(), n.mransym.s.end());
}

} // namespace

int build_programs(NX& n)
{
  complete_lists(n);
  if (const char* what = unserved(n); what != nullptr) {
    if (n.host != nullptr) n.host->log().xpmlog(message::not_available{.what = what});
    n.raise(3000);
    return 3000;
  }
  complete_flags(n);
  if (n.nreff() == 0) {
    if (!needs_gradient(n)) return 0;
    return engine::cmpder(n.gradstr, CMPLIST{{n.llsym}}, n.prsym, *n.gcmp) != 0 ? 1012 : 0;
  }
  if (const int rc = request_likelihood(n); rc != 0) return rc;
  if (n.method == 1)
    if (const int rc = request_linearized(n); rc != 0) return rc;
  for (REFFECT& reff : n.reff)
    if (const int rc = request_arguments(n, reff); rc != 0) return rc;
  return 0;
}

} // namespace torvale::evaluation
