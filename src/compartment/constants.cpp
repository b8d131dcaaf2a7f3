#include "compartment/constants.h"

namespace torvale::compartment {

using enum syntax::cmptmodel_slot;

void write_flags(StatementText& text, const Model& model)
{
  text.add("@ivb_err = 0; @inf_err = 0; @oral_err = 0;");
  if (model.records.present || model.events.given) return;
  text.add("if $TIME < 0 then do; @ivb_err = 1; @inf_err = 1; @oral_err = 1; end;"); // a missing time is below 0
}

void write_scales_and_doses(StatementText& text, const Model& model)
{
  const bool oral = model.administration == Administration::oral;
  constexpr Option scales[] = {scale0, scale1, scale2, scale3}, doses[] = {dose0, dose, dose2, dose3};
  for (int k = oral ? 0 : 1; k <= model.compartments; ++k) {
    const auto at = static_cast<std::size_t>(k);
    const std::string number = std::to_string(k);
    text.add("@scale" + number + " = " + (model.given(scales[at]) ? model.text(scales[at]) : "1") + ";");
    if (model.records.present || model.events.given) continue;
    const bool entry = k == (oral ? 0 : 1);
    text.add("@dose" + number + " = " + (model.given(doses[at]) ? model.text(doses[at]) : entry ? "1" : "0") + ";");
  }
}

void write_rates(StatementText& text, const Model& model)
{
  const std::string flag = "@" + std::string(model.family()) + "_err = 1;";
  struct Rate {
    Option rate;
    const char* name;
    Option clearance, volume;
  };
  constexpr Rate rates[] = {{ke, "k10", cl, vol},
                            {k12, "k12", cl2, vol},
                            {k21, "k21", cl2, vol2},
                            {k13, "k13", cl3, vol},
                            {k31, "k31", cl3, vol3}};
  constexpr Option clearances[] = {cl, vol, cl2, vol2, cl3, vol3};
  if (model.clearances)
    for (int k = 0; k < 2 * model.compartments; ++k)
      text.add("if " + model.text(clearances[static_cast<std::size_t>(k)]) + " le 0 then " + flag);
  for (int k = 0; k < 2 * model.compartments - 1; ++k) {
    const Rate& r = rates[static_cast<std::size_t>(k)];
    const std::string name = "@" + std::string(r.name);
    if (model.clearances) {
      text.add(name + " = " + model.text(r.clearance) + "/" + model.text(r.volume) + ";");
    } else {
      text.add(name + " = " + model.text(r.rate) + ";");
      text.add("if " + name + " < 0 then " + flag);
    }
  }
  if (model.administration != Administration::oral) return;
  text.add("@ka = $KA;");
  text.add("if @ka le 0 then " + flag);
}

namespace {

// Elimination from a peripheral compartment: checked like the other rate constants.
std::string elimination(StatementText& text, const Model& model, Option option, const std::string& name)
{
  if (!model.given(option)) return "";
  text.add(name + " = " + model.text(option) + ";");
  text.add("if " + name + " < 0 then @" + std::string(model.family()) + "_err = 1;");
  return name;
}

void two_exponents(StatementText& text, const Model& model)
{
  const std::string out = elimination(text, model, k20, "@k20");
  text.add("@E1 = @k10+@k12;");
  text.add(out.empty() ? "@E2 = @k21;" : "@E2 = @k20+@k21;");
  text.add("@trm1 = @E1+@E2;");
  // Sums of what is never negative: no digit is lost, however far apart or near the exponents are.
  text.add("@trm2 = sqrt((@E1-@E2)**2+4*@k12*@k21);");
  text.add(out.empty() ? "@product = @k10*@E2;" : "@product = @k10*@E2+@k12*@k20;");
  text.add("@lmb1 = 0.5*(@trm1+@trm2);");
  text.add("@lmb2 = 0; if @lmb1 > 0 then @lmb2 = @product/@lmb1;");
}

void three_exponents(StatementText& text, const Model& model)
{
  const std::string second = elimination(text, model, k20, "@k20"), third = elimination(text, model, k30, "@k30");
  text.add("@E1 = @k10+@k12+@k13;");
  text.add(second.empty() ? "@E2 = @k21;" : "@E2 = @k20+@k21;");
  text.add(third.empty() ? "@E3 = @k31;" : "@E3 = @k30+@k31;");
  text.add("@a = @E1+@E2+@E3;");
  text.add("@b = @E2*@E3+@k10*(@E2+@E3)+@k13*@E2+@k12*@E3" + std::string(second.empty() ? "" : "+@k12*@k20") +
           (third.empty() ? "" : "+@k13*@k30") + ";");
  text.add("@c = @k10*@E2*@E3" + std::string(second.empty() ? "" : "+@k12*@k20*@E3") +
           (third.empty() ? "" : "+@k13*@k30*@E2") + ";");
  text.add("@m = (3*@b-@a**2)/3;");
  text.add("@n = (2*@a**3-9*@a*@b+27*@c)/27;");
  text.add("@Q = @n**2/4+@m**3/27;");
  text.add("@alpha = 0; if @Q < 0 then @alpha = sqrt(-@Q);"); // above 0 only by rounding, at a double root
  text.add("@beta = -@n/2;");
  text.add("@gamma = sqrt(@beta**2+@alpha**2);");
  text.add("@theta = atan2(@alpha,@beta);");
  for (const char* const k : {"1", "2", "3"}) text.add("@lmbd" + std::string(k) + " = cubicroot(@a,@b,@c," + k + ");");
}

} // namespace

void write_exponents(StatementText& text, const Model& model)
{
  if (model.compartments == 2) two_exponents(text, model);
  if (model.compartments == 3) three_exponents(text, model);
}

} // namespace torvale::compartment
