#include "evaluation/likelihood_programs.h"

#include "matrix/packed.h"

#include <algorithm>

namespace torvale::evaluation {

using engine::CMPDER;
using engine::CMPSYM;
using model::BadCause;
using model::ModelPrograms;
using model::NX;
using model::REFFECT;

namespace {

// What one program yields: symbols by place; a place without a symbol is identically zero.
struct Outputs {
  std::vector<CMPSYM*> symbols;
  explicit Outputs(int places) : symbols(static_cast<std::size_t>(places), nullptr) {}
  CMPSYM*& at(long place) { return symbols[static_cast<std::size_t>(place)]; }

  // Live marks, the list of live places, and their program.
  const engine::Program* specialise(engine::CMPGLOBAL& gcmp, std::vector<char>& live, std::vector<int>& list) const
  {
    std::vector<CMPSYM*> wanted;
    live.assign(symbols.size(), 0);
    list.clear();
    for (std::size_t k = 0; k < symbols.size(); ++k) {
      if (symbols[k] == nullptr) continue;
      live[k] = 1;
      list.push_back(static_cast<int>(k));
      wanted.push_back(symbols[k]);
    }
    return engine::cmpspec(gcmp, wanted);
  }
};

// Second derivatives of _ll with the meaning of their indices: by random effect `effect`, then by `wrt`, which counts the
// parameters first (0..np-1), then the random effects.
struct SecondDerivative {
  CMPSYM* symbol;
  int effect;
  int wrt;
};

std::vector<SecondDerivative> second_derivatives(const NX& n, const REFFECT& reff)
{
  std::vector<int> effect_of_object; // hessustr's objects are the non-zero first derivatives by random effects
  for (const int w : reff.gradstr.wrtindex)
    if (w >= n.nparm) effect_of_object.push_back(w - n.nparm);
  std::vector<SecondDerivative> result;
  const CMPDER& h = reff.hessustr;
  const int shift = n.needcrossu ? 0 : n.nparm;
  for (std::size_t k = 0; k < h.der.s.size(); ++k)
    result.push_back({h.der.s[k], effect_of_object[static_cast<std::size_t>(h.objindex[k])], h.wrtindex[k] + shift});
  return result;
}

Outputs gradient_outputs(const NX& n, const CMPDER& gradient, int wanted)
{
  Outputs out(1 + wanted);
  out.at(0) = n.llsym;
  for (std::size_t k = 0; k < gradient.der.s.size(); ++k) out.at(1 + gradient.wrtindex[k]) = gradient.der.s[k];
  return out;
}

Outputs mode_outputs(const NX& n, const REFFECT& reff)
{
  Outputs out(1 + reff.nr + reff.nrs);
  out.at(0) = n.llsym;
  for (std::size_t k = 0; k < reff.gradstr.der.s.size(); ++k)
    if (const int w = reff.gradstr.wrtindex[k]; w >= n.nparm) out.at(1 + w - n.nparm) = reff.gradstr.der.s[k];
  for (const auto& d : second_derivatives(n, reff))
    if (d.wrt >= n.nparm) out.at(1 + reff.nr + matrix::packed_index(d.effect, d.wrt - n.nparm)) = d.symbol;
  return out;
}

Outputs cross_outputs(const NX& n, const REFFECT& reff)
{
  Outputs out(reff.nr * n.nparm);
  for (const auto& d : second_derivatives(n, reff))
    if (d.wrt < n.nparm) out.at(d.effect * n.nparm + d.wrt) = d.symbol;
  return out;
}

// Cross derivatives, then third derivatives; both triangles of a request are the same nodes, so the last one found serves.
Outputs curvature_outputs(const NX& n, const REFFECT& reff)
{
  const int np = n.nparm;
  const int third = reff.nr * np;
  Outputs out(third + (n.needtriu ? reff.npr * reff.nrs : 0));
  const auto second = second_derivatives(n, reff);
  for (const auto& d : second)
    if (d.wrt < np) out.at(d.effect * np + d.wrt) = d.symbol;
  if (!n.needtriu) return out;
  for (std::size_t k = 0; k < reff.triustr.der.s.size(); ++k) {
    const auto& d = second[static_cast<std::size_t>(reff.triustr.objindex[k])];
    out.at(third + d.wrt * reff.nrs + matrix::packed_index(d.effect, reff.triustr.wrtindex[k])) = reff.triustr.der.s[k];
  }
  return out;
}

Outputs setup_outputs(const NX& n, const REFFECT& reff, bool derivatives)
{
  Outputs out(reff.nd + (derivatives ? reff.nd * n.nparm : 0));
  for (int a = 0; a < reff.nd; ++a) out.at(a) = reff.distrsym.s[static_cast<std::size_t>(a)];
  if (!derivatives) return out;
  for (std::size_t k = 0; k < reff.gradrstr.der.s.size(); ++k)
    out.at(reff.nd + reff.gradrstr.objindex[k] * n.nparm + reff.gradrstr.wrtindex[k]) = reff.gradrstr.der.s[k];
  return out;
}

// Everything whose missing value makes an observation unusable, by falling precedence of the cause.
void specialise_pass(NX& n, const CMPDER& gradient, const REFFECT* reff)
{
  std::vector<CMPSYM*> outputs;
  n.pass_kind.clear();
  const auto add = [&](CMPSYM* symbol, BadCause cause) {
    if (symbol == nullptr) return;
    outputs.push_back(symbol);
    n.pass_kind.push_back(static_cast<char>(cause));
  };
  add(n.depsym, BadCause::dependent);
  add(n.repsym, BadCause::replicate);
  add(n.llsym, BadCause::log_likelihood);
  if (n.fd == 0)
    for (CMPSYM* s : gradient.der.s) add(s, BadCause::gradient);
  if (reff != nullptr) {
    for (CMPSYM* s : reff->distrsym.s) add(s, BadCause::random_argument);
    if (n.fd == 0)
      for (CMPSYM* s : reff->gradrstr.der.s) add(s, BadCause::random_gradient);
  }
  n.pass_program = engine::cmpspec(*n.gcmp, outputs);
}

// True when some distribution argument, or a derivative of one, differs between records: it reads data or kept values.
bool arguments_vary(const NX& n, const REFFECT& reff)
{
  if (engine::sequential(*n.programs.setup_value)) return true;
  for (const CMPSYM* argument : reff.distrsym.s)
    for (const CMPSYM* input : engine::cmpdeps(*n.gcmp, argument))
      if (input->parameter < 0 && input->random_effect < 0) return true;
  return false;
}

} // namespace

int specialise_programs(NX& n)
{
  ModelPrograms& p = n.programs;
  const bool analytic = n.fd == 0;
  const auto specialise = [&](const Outputs& out, std::vector<char>& live, std::vector<int>& list) {
    return out.specialise(*n.gcmp, live, list);
  };
  std::vector<char> live;
  std::vector<int> list;
  p.value = engine::cmpspec(*n.gcmp, std::vector<CMPSYM*>{n.llsym});
  if (n.nreff() == 0) {
    if (analytic) p.gradient = specialise(gradient_outputs(n, n.gradstr, n.nparm), p.gradient_live, p.gradient_list);
    specialise_pass(n, n.gradstr, nullptr);
  } else {
    const REFFECT& reff = n.reff[0];
    p.setup_value = specialise(setup_outputs(n, reff, false), live, list);
    p.setup = analytic || n.needcrossu ? specialise(setup_outputs(n, reff, true), p.setup_live, p.setup_list) : p.setup_value;
    p.setup_varies = arguments_vary(n, reff);
    if (analytic) p.gradient = specialise(gradient_outputs(n, reff.gradstr, reff.npr), p.gradient_live, p.gradient_list);
    if (n.needhessu) p.mode = specialise(mode_outputs(n, reff), p.mode_live, p.mode_list);
    if (n.needcrossu) p.curvature = specialise(curvature_outputs(n, reff), p.curvature_live, p.curvature_list);
    if (n.wants_effects) p.cross = specialise(cross_outputs(n, reff), p.cross_live, p.cross_list);
    specialise_pass(n, reff.gradstr, &reff);
  }
  return p.value == nullptr || n.pass_program == nullptr ? 1012 : 0;
}

} // namespace torvale::evaluation
