#include "evaluation/likelihood_programs.h"

#include "evaluation/program_outputs.h"
#include "matrix/packed.h"

#include <algorithm>
#include <utility>

namespace torvale::evaluation {

using engine::CMPDER;
using engine::CMPSYM;
using model::BadCause;
using model::ModelLists;
using model::ModelProgram;
using model::ModelPrograms;
using model::NX;
using model::REFFECT;

namespace {

// Second derivatives of _ll with the meaning of their indices: by random effect `effect`, then by `wrt`, which counts
// the parameters first (0..np-1), then the random effects.
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

Outputs value_outputs(const ModelLists& n)
{
  Outputs out(1);
  out.at(ModelPrograms::ll) = n.llsym;
  return out;
}

// The request is by the parameters, then the effects: the order of the places.
Outputs gradient_outputs(const ModelLists& n, const CMPDER& gradient)
{
  const ModelPrograms& p = n.programs;
  Outputs out(p.by_effect(p.ne));
  out.at(ModelPrograms::ll) = n.llsym;
  for (std::size_t k = 0; k < gradient.der.s.size(); ++k)
    out.at(p.by_parameter(gradient.wrtindex[k])) = gradient.der.s[k];
  return out;
}

Outputs mode_outputs(const NX& n, const REFFECT& reff)
{
  const ModelPrograms& p = n.programs;
  Outputs out(p.curve(p.ne * (p.ne + 1) / 2));
  out.at(ModelPrograms::ll) = n.llsym;
  for (std::size_t k = 0; k < reff.gradstr.der.s.size(); ++k)
    if (const int w = reff.gradstr.wrtindex[k]; w >= n.nparm) out.at(p.slope(w - n.nparm)) = reff.gradstr.der.s[k];
  for (const auto& d : second_derivatives(n, reff))
    if (d.wrt >= n.nparm) out.at(p.curve(static_cast<int>(matrix::packed_index(d.effect, d.wrt - n.nparm)))) = d.symbol;
  return out;
}

Outputs cross_outputs(const NX& n, const REFFECT& reff)
{
  const ModelPrograms& p = n.programs;
  Outputs out(p.cross_place(p.ne, 0));
  for (const auto& d : second_derivatives(n, reff))
    if (d.wrt < p.np) out.at(p.cross_place(d.effect, d.wrt)) = d.symbol;
  return out;
}

// Cross derivatives, then third derivatives; both triangles of a request are the same nodes, so the last one found
// serves.
Outputs curvature_outputs(const NX& n, const REFFECT& reff)
{
  const ModelPrograms& p = n.programs;
  Outputs out(p.third_place(n.needtriu ? p.np + p.ne : 0, 0));
  const auto second = second_derivatives(n, reff);
  for (const auto& d : second)
    if (d.wrt < p.np) out.at(p.cross_place(d.effect, d.wrt)) = d.symbol;
  if (!n.needtriu) return out;
  for (std::size_t k = 0; k < reff.triustr.der.s.size(); ++k) {
    const auto& d = second[static_cast<std::size_t>(reff.triustr.objindex[k])];
    out.at(p.third_place(d.wrt, static_cast<int>(matrix::packed_index(d.effect, reff.triustr.wrtindex[k])))) =
        reff.triustr.der.s[k];
  }
  return out;
}

// First order: the sums, and with derivatives those of each by the parameters, then the effects.
Outputs linear_outputs(const ModelLists& n, const REFFECT& reff, bool derivatives)
{
  const ModelPrograms& p = n.programs;
  Outputs out(derivatives ? p.linear_by(p.linear_sums(), 0) : p.linear_sums());
  for (int k = 0; k < p.linear_sums(); ++k) out.at(k) = reff.linearsym[static_cast<std::size_t>(k)];
  if (!derivatives) return out;
  const CMPDER& d = reff.lineargradstr;
  for (std::size_t k = 0; k < d.der.s.size(); ++k) out.at(p.linear_by(d.objindex[k], d.wrtindex[k])) = d.der.s[k];
  return out;
}

Outputs setup_outputs(const ModelLists& n, const REFFECT& reff, bool derivatives)
{
  Outputs out(reff.argument_derivative(derivatives ? reff.nd : 0, 0, n.nparm));
  for (int a = 0; a < reff.nd; ++a) out.at(a) = reff.distrsym.s[static_cast<std::size_t>(a)];
  if (!derivatives) return out;
  for (std::size_t k = 0; k < reff.gradrstr.der.s.size(); ++k)
    out.at(reff.argument_derivative(reff.gradrstr.objindex[k], reff.gradrstr.wrtindex[k], n.nparm)) =
        reff.gradrstr.der.s[k];
  return out;
}

void list_moved_arguments(REFFECT& reff, int np)
{
  reff.moved.clear();
  reff.moved_first.assign(1, 0);
  std::vector<char> is_output(static_cast<std::size_t>(reff.argument_derivative(reff.nd, 0, np)), 0);
  for (const int place : reff.setup.outputs) is_output[static_cast<std::size_t>(place)] = 1;
  for (int j = 0; j < np; ++j) {
    for (int a = 0; a < reff.nd; ++a)
      if (const int place = reff.argument_derivative(a, j, np); is_output[static_cast<std::size_t>(place)] != 0)
        reff.moved.push_back({a, place});
    reff.moved_first.push_back(static_cast<int>(reff.moved.size()));
  }
}

// Everything whose missing value makes an observation unusable, by falling precedence of the cause.
void specialise_pass(NX& n, const CMPDER& gradient)
{
  std::vector<CMPSYM*> outputs;
  n.pass_kind.clear();
  const auto add = [&](CMPSYM* symbol, BadCause cause) {
    if (symbol == nullptr) return;
    outputs.push_back(symbol);
    n.pass_kind.push_back(static_cast<char>(cause));
  };
  add(engine::cmpsyms(*n.gcmp, "_cmpt_used"), BadCause::event);
  add(n.depsym, BadCause::dependent);
  add(n.repsym, BadCause::replicate);
  add(n.llsym, BadCause::log_likelihood);
  if (needs_gradient(n))
    for (CMPSYM* s : gradient.der.s) add(s, BadCause::gradient);
  for (const REFFECT& reff : n.reff) {
    for (CMPSYM* s : reff.distrsym.s) add(s, BadCause::random_argument);
    if (needs_gradient(n))
      for (CMPSYM* s : reff.gradrstr.der.s) add(s, BadCause::random_gradient);
  }
  n.pass_program = engine::cmpspec(*n.gcmp, outputs, engine::Visits::once);
}

// True when some distribution argument, or a derivative of one, differs between records: it reads data or kept values.
bool arguments_vary(const ModelLists& n, const REFFECT& reff)
{
  if (engine::sequential(*reff.setup_value.code)) return true;
  for (const CMPSYM* argument : reff.distrsym.s)
    for (const CMPSYM* input : engine::cmpdeps(*n.gcmp, argument))
      if (input->parameter < 0 && input->random_effect < 0) return true;
  return false;
}

} // namespace

Abilities can_evaluate(const NX& n)
{
  const ModelPrograms& p = n.programs;
  Abilities can;
  can.value = static_cast<bool>(p.value);
  can.modes = n.nreff() > 0 && p.mode;
  can.curvature = can.modes && (p.curvature || p.closing);
  if (n.method == 1)
    can.gradient = p.linear_gradient && (!n.lb || can.curvature);
  else
    can.gradient = p.gradient && (!n.adaptive || can.curvature || n.method == 2);
  return can;
}

int specialise_programs(NX& n)
{
  ModelPrograms& p = n.programs;
  p = ModelPrograms{};
  p.np = n.nparm;
  for (const REFFECT& reff : n.reff) p.ne += reff.nr;
  const bool analytic = needs_gradient(n);
  p.value = value_outputs(n).specialise(*n.gcmp);
  if (n.nreff() == 0) {
    if (analytic) p.gradient = gradient_outputs(n, n.gradstr).specialise(*n.gcmp);
    specialise_pass(n, n.gradstr);
  } else {
    for (REFFECT& reff : n.reff) {
      reff.setup_value = setup_outputs(n, reff, false).specialise(*n.gcmp);
      reff.setup = analytic || n.needcrossu ? setup_outputs(n, reff, true).specialise(*n.gcmp) : reff.setup_value;
      reff.setup_varies = arguments_vary(n, reff);
      list_moved_arguments(reff, n.nparm);
    }
    const REFFECT& reff = n.leaf();
    if (analytic) p.gradient = gradient_outputs(n, reff.gradstr).specialise(*n.gcmp);
    if (n.method == 1) {
      p.linear = linear_outputs(n, reff, false).specialise(*n.gcmp);
      if (analytic) p.linear_gradient = linear_outputs(n, reff, true).specialise(*n.gcmp);
    }
    if (n.needhessu) p.mode = mode_outputs(n, reff).specialise(*n.gcmp);
    const bool by_points = n.method == 0 || n.method == 3;
    Outputs closing(0);
    if (n.needcrossu) {
      closing = curvature_outputs(n, reff);
      p.curvature.places = static_cast<int>(closing.symbols.size());
      if (by_points && p.gradient && n.adaptive)
        p.closing = closing.append(mode_outputs(n, reff)).specialise(*n.gcmp);
      else
        p.curvature = closing.specialise(*n.gcmp);
    }
    if (by_points && n.nreff() == 1 && p.gradient && !engine::sequential(*p.gradient.code))
      factor_programs(n, gradient_outputs(n, reff.gradstr), n.adaptive ? closing : Outputs(0));
    if (n.wants_effects) p.cross = cross_outputs(n, reff).specialise(*n.gcmp);
    specialise_pass(n, reff.gradstr);
  }
  return !p.value || n.pass_program == nullptr ? 1012 : 0;
}

void specialise_single_point(NX& n)
{
  ModelPrograms& p = n.programs;
  if (!p.closing || p.closing_point || p.factored) return;
  const REFFECT& reff = n.leaf();
  p.closing_point = curvature_outputs(n, reff)
                        .append(mode_outputs(n, reff))
                        .append(gradient_outputs(n, reff.gradstr))
                        .specialise(*n.gcmp);
}

namespace {

// Whether the terms of so many records and their totals are less work than the outputs, by the operations of
// machine code: an output of a lane is read, added to and stored.
bool totals_pay(const ModelProgram& p, double records)
{
  if (p.terms == nullptr) return false;
  constexpr double of_output = 2.0, ahead = 1.1;
  const auto of_lane = [&](const engine::Program& code, std::size_t outputs) {
    return engine::program_size(code).lane + of_output * static_cast<double>(outputs);
  };
  const auto of_point = [](const engine::Program& code) { return engine::program_size(code).point; };
  const double plain = records * of_lane(*p.code, p.outputs.size()) + of_point(*p.code);
  const double by_totals = records * of_lane(*p.terms, static_cast<std::size_t>(p.term_count)) + of_point(*p.terms) +
                           of_lane(*p.totals, p.outputs.size());
  return plain > ahead * by_totals;
}

// Whether that can be, by the formulas alone and with room for what they do not tell: most programs that would not be
// taken are not made.
bool totals_may_pay(NX& n, const ModelProgram& p, const Outputs& outputs, double records)
{
  if (!p || p.looked_for_totals || engine::sequential(*p.code)) return false;
  std::vector<CMPSYM*> wanted;
  for (CMPSYM* const s : outputs.symbols)
    if (s != nullptr) wanted.push_back(s);
  const engine::TotalForms forms = engine::cmptotal(*n.gcmp, wanted, {&n.llsym, 1});
  if (forms.terms.empty()) return false;
  constexpr double of_output = 2.0, ahead = 1.05;
  const double of_outputs = engine::lane_nodes(*n.gcmp, wanted), of_terms = engine::lane_nodes(*n.gcmp, forms.terms);
  const double lane = engine::program_size(*p.code).lane, point = engine::program_size(*p.code).point;
  const double lane_of_terms = of_outputs > of_terms ? lane * of_terms / of_outputs : lane;
  const auto count = static_cast<double>(p.outputs.size()), terms = static_cast<double>(forms.terms.size());
  return records * (lane + of_output * count) + point >
         ahead * (records * (lane_of_terms + of_output * terms) + point + of_output * count);
}

} // namespace

void specialise_totals(NX& n, double records)
{
  ModelPrograms& p = n.programs;
  if (n.nreff() == 0) return;
  const REFFECT& reff = n.leaf();
  const auto make = [&](ModelProgram& program, const Outputs& outputs, bool anyway = false) {
    if (!program || program.looked_for_totals) return;
    program.looked_for_totals = true;
    if (engine::sequential(*program.code)) return;
    const ModelProgram with = outputs.by_totals(*n.gcmp, n.llsym, program, p.record_terms);
    if (&program == &p.closing) p.record_terms = with.terms;
    if (with.terms != nullptr && (anyway || totals_pay(with, records))) program = with;
  };
  if (n.method == 1) { // the value is the same with and without the gradient
    make(p.linear_gradient, linear_outputs(n, reff, true));
    make(p.linear, linear_outputs(n, reff, false), p.linear_gradient.terms != nullptr);
  }
  // What closes a subject comes first: the others have part in its records.
  const std::pair<ModelProgram*, Outputs> all[] = {
      {&p.closing, curvature_outputs(n, reff).append(mode_outputs(n, reff))},
      {&p.closing_point,
       curvature_outputs(n, reff).append(mode_outputs(n, reff)).append(gradient_outputs(n, reff.gradstr))},
      {&p.mode, mode_outputs(n, reff)},
      {&p.gradient, gradient_outputs(n, reff.gradstr)}};
  if (std::none_of(std::begin(all), std::end(all),
                   [&](const auto& one) { return totals_may_pay(n, *one.first, one.second, records); })) {
    for (const auto& [program, outputs] : all) program->looked_for_totals = program->looked_for_totals || *program;
    return;
  }
  for (const auto& [program, outputs] : all) make(*program, outputs);
}

} // namespace torvale::evaluation
