#include "compartment/fixed_dose.h"

#include "compartment/constants.h"
#include "compartment/partial_fractions.h"
#include "compartment/solution.h"

namespace torvale::compartment {

namespace {

using enum syntax::cmptmodel_slot;

std::string err(const Model& model)
{
  return "@" + std::string(model.family()) + "_err";
}

// Rate and duration of the infusion: one is given, the other follows from the dose.
void write_infusion_course(StatementText& text, const Model& model)
{
  if (model.given(rate)) {
    text.add("@rate = $RATE; if @rate le 0 then @inf_err = 1; @durn = @dose1/@rate;");
  } else {
    text.add("@durn = $DURN; if @durn le 0 then @inf_err = 1; @rate = @dose1/@durn;");
  }
  text.add("if @rate < 0 or @durn < 0 then @inf_err = 1;");
}

// What is in compartment j after doses into the compartments, as an expression; terms of absent doses are left out.
std::string of_doses(const Model& model, const Response& response, int j)
{
  constexpr Option doses[] = {dose, dose2, dose3};
  std::string sum;
  for (int m = 1; m <= model.compartments; ++m) {
    const bool entry = m == 1 && model.administration != Administration::oral;
    if (!entry && !model.given(doses[static_cast<std::size_t>(m - 1)])) continue;
    sum += (sum.empty() ? "" : "+") + ("@dose" + std::to_string(m)) + "*" + response.amount(j, m);
  }
  return sum;
}

// The infusion fills the compartments until it ends or the time is reached; then they empty.
std::vector<std::string> infusion_amounts(StatementText& text, const Model& model)
{
  text.add("@during = $TIME; if @durn < @during then @during = @durn;");
  text.add("@after = $TIME-@during;");
  const Response filling(text, model, Input::infusion, "@during", "@v"),
      emptying(text, model, Input::dose, "@after", "@w");
  std::string sum;
  for (int j = 1; j <= model.compartments; ++j)
    sum += (j == 1 ? "" : "+") + emptying.amount(1, j) + "*" + filling.amount(j, 1);
  return {"", "@rate*(" + sum + ")"};
}

std::vector<std::string> dose_amounts(StatementText& text, const Model& model)
{
  const bool oral = model.administration == Administration::oral;
  const bool direct = !oral || model.given(dose) || (model.compartments > 1 && model.given(dose2)) ||
                      (model.compartments > 2 && model.given(dose3));
  std::vector<std::string> amounts(static_cast<std::size_t>(model.compartments) + 1);
  if (direct) {
    const Response response(text, model, Input::dose, "$TIME", "@w");
    for (int j = 1; j <= model.compartments; ++j) amounts[static_cast<std::size_t>(j)] = of_doses(model, response, j);
  }
  if (!oral) return amounts;
  amounts[0] = "@dose0*exp(-@ka*$TIME)";
  const Response response(text, model, Input::depot, "$TIME", "@v");
  for (int j = 1; j <= model.compartments; ++j) {
    std::string& amount = amounts[static_cast<std::size_t>(j)];
    amount = "@dose0*" + response.amount(j, 1) + (amount.empty() ? "" : "+") + amount;
  }
  return amounts;
}

} // namespace

std::vector<Result> results(const Model& model)
{
  std::vector<Result> wanted;
  for (const Result r : {Result{pconc, 1}, Result{pconc2, 2}, Result{pconc3, 3}, Result{pconc0, 0}})
    if (model.given(r.option)) wanted.push_back(r);
  return wanted;
}

void write_fixed_dose(StatementText& text, const Model& model)
{
  write_flags(text, model);
  write_scales_and_doses(text, model);
  write_rates(text, model);
  if (model.administration == Administration::infusion) write_infusion_course(text, model);
  write_exponents(text, model);
  text.add("if " + err(model) + " eq 0 then do;");
  write_partial_fractions(text, model);
  const std::vector<std::string> amounts =
      model.administration == Administration::infusion ? infusion_amounts(text, model) : dose_amounts(text, model);
  for (const Result& r : results(model))
    text.add(model.text(r.option) + " = (" + amounts[static_cast<std::size_t>(r.compartment)] + ")/@scale" +
             std::to_string(r.compartment) + ";");
  text.add("end;");
  text.add("else do;");
  for (const Result& r : results(model)) text.add(model.text(r.option) + " = .;");
  text.add("end;");
}

} // namespace torvale::compartment
