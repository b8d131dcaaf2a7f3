#include "engine/program_models.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace torvale::bench {

namespace {

constexpr const char* normal_tail = R"(
  resid = dv - conc;
  if dv = . then ll = .;
  else if conc = . then ll = .;
  else do;
    if (abs(resid) > 1.3407807929943e154) or (s2 < 1.1e-12) then ll = -1e20;
    else ll = -0.5*(1.8378770664093456 + resid**2/s2 + log(s2));
  end;
)";

const std::string one_compartment = std::string(R"(
  ka = exp(b1 + u1);  cl = exp(b2 + u2);  ke = exp(b3 + u3);
  conc = 100*ke*ka*(exp(-ke*time) - exp(-ka*time))/(cl*(ka - ke));
)") + normal_tail;

const std::string two_compartment = std::string(R"(
  k10 = exp(b1 + u1);  k12 = exp(b2 + u2);  k21 = exp(b3);  v = exp(b4 + u3);
  e1 = k10 + k12;
  trm1 = e1 + k21;
  trm2 = sqrt(trm1**2 - 4*(e1*k21 - k12*k21));
  l1 = 0.5*(trm1 + trm2);  l2 = 0.5*(trm1 - trm2);
  c1 = (k21 - l1)/(l2 - l1);  c2 = (k21 - l2)/(l1 - l2);
  if time <= 2 then conc = 50/v*(c1*(1 - exp(-l1*time))/l1 + c2*(1 - exp(-l2*time))/l2);
  else conc = 50/v*(c1*(1 - exp(-l1*2))*exp(-l1*(time - 2))/l1 + c2*(1 - exp(-l2*2))*exp(-l2*(time - 2))/l2);
)") + normal_tail;

const std::string three_compartment = std::string(R"(
  ka = exp(b1 + u1);  k10 = exp(b2 + u2);  k12 = exp(b3);  k21 = exp(b4);  k13 = exp(b5);  k31 = exp(b6);  v = exp(b7 + u3);
  a = k10 + k12 + k13 + k21 + k31;
  b = (k10 + k12 + k13)*k21 + k31*(k10 + k12 + k13 + k21) - k12*k21 - k13*k31;
  c = (k10 + k12 + k13)*k21*k31 - k31*k12*k21 - k21*k13*k31;
  m = (3*b - a**2)/3.0;
  n = (2*a**3 - 9*a*b + 27*c)/27.0;
  q = n**2/4.0 + m**3/27.0;
  alpha = sqrt(-1*q);  beta = -1.0*(n/2.0);
  gam = sqrt(beta**2 + alpha**2);
  theta = atan2(alpha, beta);
  l1 = a/3.0 + gam**(1.0/3.0)*(cos(theta/3.0) + sqrt(3.0)*sin(theta/3.0));
  l2 = a/3.0 + gam**(1.0/3.0)*(cos(theta/3.0) - sqrt(3.0)*sin(theta/3.0));
  l3 = a/3.0 - 2*gam**(1.0/3.0)*cos(theta/3.0);
  t1 = (k21 - l1)*(k31 - l1)/((l2 - l1)*(l3 - l1)*(ka - l1))*exp(-l1*time);
  t2 = (k21 - l2)*(k31 - l2)/((l1 - l2)*(l3 - l2)*(ka - l2))*exp(-l2*time);
  t3 = (k21 - l3)*(k31 - l3)/((l1 - l3)*(l2 - l3)*(ka - l3))*exp(-l3*time);
  t4 = (k21 - ka)*(k31 - ka)/((l1 - ka)*(l2 - ka)*(l3 - ka))*exp(-ka*time);
  conc = 100*ka*(t1 + t2 + t3 + t4)/v;
)") + normal_tail;

constexpr const char* logistic = R"(
  eta = b1 + b2*time + u1;
  p = 1/(1 + exp(-eta));
  r = dv > 1;
  if (r>0) and (p<=1.110223024625157e-16) then ll = -1e20;
  else if (r<1) and (p>=0.9999999999999999) then ll = -1e20;
  else do; ll = 0; if r > 0 then ll = ll + r*log(p); if r < 1 then ll = ll + (1-r)*log(1-p); end;
)";

constexpr const char* poisson = R"(
  y = floor(dv*3);
  lambda = exp(b1 + b2*time + u1);
  if (lambda < 1.110223024625157e-16) or (lambda > 1.3407807929943e+154) then ll = -1e20;
  else ll = -lambda - lgamma(1 + y) + y*log(lambda);
)";

} // namespace

const std::vector<ModelText>& models()
{
  static const std::vector<ModelText> all = {
      {"logistic", logistic, {"b1", "b2"}, {"u1"}, {0.2, -0.1}},
      {"Poisson", poisson, {"b1", "b2"}, {"u1"}, {0.9, -0.1}},
      {"one-compartment oral",
       one_compartment.c_str(),
       {"b1", "b2", "b3", "s2"},
       {"u1", "u2", "u3"},
       {0.4, 1.0, -1.5, 0.3}},
      {"two-compartment infusion",
       two_compartment.c_str(),
       {"b1", "b2", "b3", "b4", "s2"},
       {"u1", "u2", "u3"},
       {-1.0, -0.7, -1.2, 2.0, 0.3}},
      {"three-compartment oral",
       three_compartment.c_str(),
       {"b1", "b2", "b3", "b4", "b5", "b6", "b7", "s2"},
       {"u1", "u2", "u3"},
       {0.3, -1.2, -0.5, -1.0, -1.4, -2.5, 2.2, 0.3}},
  };
  return all;
}

const std::vector<double>& record_times()
{
  static const std::vector<double> times = [] {
    std::vector<double> t;
    for (int i = 0; i < engine::max_lanes; ++i) t.push_back(0.25 + 0.37 * (i % 41));
    return t;
  }();
  return times;
}

const std::vector<double>& record_values()
{
  static const std::vector<double> values = [] {
    std::vector<double> y;
    for (int i = 0; i < engine::max_lanes; ++i) y.push_back(1.5 + 1.4 * std::sin(1.7 * i));
    return y;
  }();
  return values;
}

CompiledModel::CompiledModel(const ModelText& text, Wanted wanted)
{
  using namespace engine;
  language::ParseRequest request;
  request.sources = &sources_;
  request.arena = &arena_;
  request.program = sources_.add("model.tvl", std::string("torvale;\n") + text.statements + "\nrun;\n");
  language::Parser parser(std::move(request));
  step_ = parser.parse_step();
  compiler_ = cmpinit({});
  cmpprogram(*compiler_, step_.proc.program);
  cmprslv(*compiler_, {{"time", false, 8}, {"dv", false, 8}});
  CMPLIST all, effects;
  for (const char* const name : text.parameters) {
    all.s.push_back(cmpsymd(*compiler_, name, 'v', 'n'));
    cmpparm(*compiler_, all.s.back(), static_cast<int>(all.s.size()) - 1);
  }
  for (const char* const name : text.effects) {
    effects.s.push_back(cmpsymd(*compiler_, name, 'v', 'n'));
    cmpran(*compiler_, effects.s.back(), effects.n() - 1);
    all.s.push_back(effects.s.back());
  }
  CMPSYM* const ll = cmpsyms(*compiler_, "ll");
  std::vector<CMPSYM*> outputs{ll};
  meaning_.emplace_back(-1, -1);
  const int np = static_cast<int>(text.parameters.size());
  if (wanted != Wanted::value) {
    CMPDER first, second;
    const CMPLIST& by = wanted == Wanted::gradient ? all : effects;
    const int shift = wanted == Wanted::gradient ? 0 : np;
    if (cmpder(first, CMPLIST{{ll}}, by, *compiler_) != 0) std::abort();
    for (std::size_t k = 0; k < first.der.s.size(); ++k) {
      outputs.push_back(first.der.s[k]);
      meaning_.emplace_back(first.wrtindex[k] + shift, -1);
    }
    if (wanted == Wanted::mode) {
      if (cmpder(second, first.der, effects, *compiler_) != 0) std::abort();
      for (std::size_t k = 0; k < second.der.s.size(); ++k)
        if (second.wrtindex[k] <= second.objindex[k]) {
          outputs.push_back(second.der.s[k]);
          meaning_.emplace_back(second.objindex[k] + np, second.wrtindex[k] + np);
        }
    }
  }
  for (const Diagnostic& d : cmpdiagnostics(*compiler_))
    if (d.severity == Diagnostic::Severity::error) std::fprintf(stderr, "%s: %s\n", text.name, d.text.c_str());
  program_ = cmpspec(*compiler_, outputs);
  outputs_ = static_cast<int>(outputs.size());
  DataView view;
  view.rows = max_lanes;
  view.columns = {{1, record_times().data(), nullptr, nullptr}, {2, record_values().data(), nullptr, nullptr}};
  frame_ = std::make_unique<Frame>(*compiler_, cmpbind(*compiler_, view));
  frame_->set_parameters(text.theta.data());
  frame_->set_range(0, max_lanes);
  frame_->set_points(effect_values, 1, 1);
}

void CompiledModel::run(int lanes)
{
  engine::Tile tile; // the records from the first on, at point 0
  tile.lanes = lanes;
  if (frame_->run(*program_, tile) != 0) std::abort();
}

} // namespace torvale::bench
