#include "compartment/partial_fractions.h"

#include <functional>

namespace torvale::compartment {

namespace {

using Numerator = std::function<std::string(const std::string& exponent)>;

std::vector<std::string> exponents(const Model& model)
{
  return model.compartments == 2 ? std::vector<std::string>{"@lmb1", "@lmb2"}
                                 : std::vector<std::string>{"@lmbd1", "@lmbd2", "@lmbd3"};
}

std::string product_of_differences(const std::vector<std::string>& poles, const std::string& pole)
{
  std::string product;
  for (const std::string& other : poles)
    if (other != pole) product += (product.empty() ? "(" : "*(") + other + "-" + pole + ")";
  return product;
}

// @t<first>, ...: numerator * exp(-pole*t) / product of (other poles - pole), a term for each pole.
void write_terms(StatementText& text, const std::vector<std::string>& poles, int& number, const Numerator& numerator)
{
  for (const std::string& pole : poles)
    text.add("@t" + std::to_string(number++) + " = (" + numerator(pole) + ")/(" + product_of_differences(poles, pole) +
             ")*exp(-" + pole + "*$TIME);");
}

// Numerators of the transform at s = -l: what a dose into compartment 1 gives in compartment j.
std::string from_first(const Model& model, int j, const std::string& l)
{
  if (model.compartments == 2) return j == 1 ? "(@E2-" + l + ")" : "@k12";
  if (j == 1) return "(@E2-" + l + ")*(@E3-" + l + ")";
  return j == 2 ? "@k12*(@E3-" + l + ")" : "@k13*(@E2-" + l + ")";
}

void two_compartments(StatementText& text, const Model& model)
{
  int number = 1;
  if (model.administration == Administration::oral) {
    const std::vector<std::string> poles = {"@ka", "@lmb1", "@lmb2"};
    write_terms(text, poles, number, [&](const std::string& l) { return from_first(model, 1, l); });
    text.add("@t4 = ((@dose1*(@E2-@lmb1)+@dose2*@k21)*exp(-@lmb1*$TIME)-(@dose1*(@E2-@lmb2)+@dose2*@k21)"
             "*exp(-@lmb2*$TIME))/(@lmb2-@lmb1);");
    number = 5;
    write_terms(text, poles, number, [&](const std::string& l) { return from_first(model, 2, l); });
    text.add("@t8 = ((@dose2*(@E1-@lmb1)+@dose1*@k12)*exp(-@lmb1*$TIME)-(@dose2*(@E1-@lmb2)+@dose1*@k12)"
             "*exp(-@lmb2*$TIME))/(@lmb2-@lmb1);");
  } else if (model.administration == Administration::bolus) {
    write_terms(text, exponents(model), number, [&](const std::string& l) { return from_first(model, 1, l); });
  }
}

void three_compartments(StatementText& text, const Model& model)
{
  const bool oral = model.administration == Administration::oral;
  const std::vector<std::string> direct = exponents(model);
  std::vector<std::string> poles = direct;
  if (oral) poles.insert(poles.begin(), "@ka");
  int number = 1;
  write_terms(text, poles, number, [&](const std::string& l) { return from_first(model, 1, l); });
  if (model.administration == Administration::infusion) return;
  text.add("@BB = @dose2*@k21+@dose3*@k31;");
  text.add("@CC = @dose2*@k21*@E3+@dose3*@k31*@E2;");
  text.add("@I = @dose1*@k12*@E3-@dose2*@k13*@k31+@dose3*@k31*@k12;");
  text.add("@J = @dose1*@k13*@E2-@dose3*@k12*@k21+@dose2*@k13*@k21;");
  const Numerator numerators[] = {
      [](const std::string& l) { return "@CC-@BB*" + l; },
      [](const std::string& l) { return "@dose2*(@E1-" + l + ")*(@E3-" + l + ")-@dose1*@k12*" + l + "+@I"; },
      [](const std::string& l) { return "@dose3*(@E1-" + l + ")*(@E2-" + l + ")-@dose1*@k13*" + l + "+@J"; }};
  write_terms(text, direct, number, numerators[0]);
  for (int j = 2; j <= 3; ++j) {
    if (oral) write_terms(text, poles, number, [&](const std::string& l) { return from_first(model, j, l); });
    write_terms(text, direct, number, numerators[j - 1]);
  }
}

// The weights of the exponents in an infusion, with the terms during it or after its end.
void infusion_terms(StatementText& text, const Model& model)
{
  const std::vector<std::string> poles = exponents(model);
  for (std::size_t k = 0; k < poles.size(); ++k) {
    const std::string number = std::to_string(k + 1), &l = poles[k];
    text.add("@C" + number + " = " + from_first(model, 1, l) + "/(" + product_of_differences(poles, l) + ");");
    const std::string term = "@inf_t" + number, head = " = @C" + number + "*";
    text.add("if $TIME le @durn then " + term + head + "(1-exp(-" + l + "*$TIME))/" + l + ";");
    text.add("else " + term + head + "(1-exp(-" + l + "*@durn))*exp(-" + l + "*($TIME-@durn))/" + l + ";");
  }
}

} // namespace

void write_partial_fractions(StatementText& text, const Model& model)
{
  if (model.compartments == 1) return;
  if (model.administration == Administration::infusion) return infusion_terms(text, model);
  if (model.compartments == 2)
    two_compartments(text, model);
  else
    three_compartments(text, model);
}

} // namespace torvale::compartment
