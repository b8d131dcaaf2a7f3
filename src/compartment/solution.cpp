#include "compartment/solution.h"

namespace torvale::compartment {

namespace {

// The call of the engine's function for a response: s**power / (s**input (s + ka)**depot P(s)).
std::string response_call(const Model& model, Input input, int power, const std::string& time)
{
  const bool constant = input == Input::infusion || input == Input::depot_infusion;
  const bool depot = input == Input::depot || input == Input::depot_infusion;
  const int which = model.compartments + (constant ? 10 : 0) + (depot ? 100 : 0) + 1000 + 10000 * power;
  const std::string ka = depot ? "@ka" : "0";
  const std::string polynomial = model.compartments == 1   ? "@k10,0,0,@k10,0,0"
                                 : model.compartments == 2 ? "@trm1,@product,0,@lmb1,@lmb2,0"
                                                           : "@a,@b,@c,@lmbd1,@lmbd2,@lmbd3";
  return "_response(" + std::to_string(which) + "," + time + "," + ka + "," + polynomial + ")";
}

} // namespace

Response::Response(StatementText& text, const Model& model, Input input, const std::string& time,
                   const std::string& name)
    : model_(model), name_(name), factor_(input == Input::depot || input == Input::depot_infusion ? "@ka*" : "")
{
  if (model.compartments == 1) {
    one_compartment(text, input, "(" + time + ")");
    return;
  }
  for (int k = 0; k < model.compartments; ++k) text.add(w(k) + " = " + response_call(model, input, k, time) + ";");
}

void Response::one_compartment(StatementText& text, Input input, const std::string& time)
{
  switch (input) {
  case Input::dose:
    return text.add(w(0) + " = exp(-@k10*" + time + ");");
  case Input::infusion:
    return text.add(w(0) + " = " + time + "*expmean(@k10*" + time + ");");
  case Input::depot:
    return text.add(w(0) + " = " + time + "*expmean(@k10*" + time + ",@ka*" + time + ");");
  case Input::depot_infusion:
    return text.add(w(0) + " = " + response_call(model_, input, 0, time) + ";");
  }
}

std::string Response::amount(int in, int into) const
{
  return factor_ + (model_.compartments == 1 ? w(0) : model_.compartments == 2 ? two(in, into) : three(in, into));
}

std::string Response::two(int in, int into) const
{
  if (in == into) return "(" + w(1) + "+@E" + (in == 1 ? "2" : "1") + "*" + w(0) + ")";
  return (in == 1 ? "@k21*" : "@k12*") + w(0);
}

std::string Response::three(int in, int into) const
{
  const auto square = [&](const std::string& linear, const std::string& constant) {
    return "(" + w(2) + "+(" + linear + ")*" + w(1) + "+(" + constant + ")*" + w(0) + ")";
  };
  const std::string second = model_.given(Option::k20) ? "+@k12*@k20" : "";
  const std::string third = model_.given(Option::k30) ? "+@k13*@k30" : "";
  switch (10 * in + into) {
  case 11:
    return square("@E2+@E3", "@E2*@E3");
  case 22:
    return square("@E1+@E3", "(@k10+@k12)*@E3" + third);
  case 33:
    return square("@E1+@E2", "(@k10+@k13)*@E2" + second);
  case 12:
  case 21:
    return (in == 1 ? "@k21*(" : "@k12*(") + w(1) + "+@E3*" + w(0) + ")";
  case 13:
  case 31:
    return (in == 1 ? "@k31*(" : "@k13*(") + w(1) + "+@E2*" + w(0) + ")";
  case 23:
    return "@k31*@k12*" + w(0);
  default:
    return "@k21*@k13*" + w(0);
  }
}

// With f_ij what goes from j to i within an interval and s_j what leaves from j for good, the balance
//     (s_j + sum_i f_ij) x_j - sum_i f_ji x_i = arrivals_j
// is solved by elimination of compartments from the last: in these terms it only adds (W. Grassmann, M. Taksar and
// D. Heyman, 1985), so that slow rates lose no digits. What lies where nothing leaves, never comes back.
namespace {

std::string pair(const char* stem, int i, int j)
{
  return std::string(stem) + std::to_string(i) + std::to_string(j);
}
std::string one(const std::string& stem, int i)
{
  return stem + std::to_string(i);
}

void eliminate(StatementText& text, int n, const std::string& name)
{
  for (int k = n; k > 1; --k) {
    std::string leaves = one("@s", k);
    for (int i = 1; i < k; ++i) leaves += "+" + pair("@f", i, k);
    text.add(one("@d", k) + " = " + leaves + ";");
    text.add(one("@i", k) + " = 0; if " + one("@d", k) + " > 0 then " + one("@i", k) + " = 1/" + one("@d", k) + ";");
    for (int j = 1; j < k; ++j) {
      const std::string share = pair("@f", k, j) + "*" + one("@i", k);
      text.add(one("@s", j) + " = " + one("@s", j) + "+" + one("@s", k) + "*" + share + ";");
      for (int i = 1; i < k; ++i)
        if (i != j) text.add(pair("@f", i, j) + " = " + pair("@f", i, j) + "+" + pair("@f", i, k) + "*" + share + ";");
      text.add(one(name, j) + " = " + one(name, j) + "+" + pair("@f", j, k) + "*" + one("@i", k) + "*" + one(name, k) +
               ";");
    }
  }
  text.add("if @s1 > 0 then " + one(name, 1) + " = " + one(name, 1) + "/@s1; else " + one(name, 1) + " = .;");
  for (int k = 2; k <= n; ++k) {
    std::string arrives = one(name, k);
    for (int j = 1; j < k; ++j) arrives += "+" + pair("@f", k, j) + "*" + one(name, j);
    text.add(one(name, k) + " = (" + arrives + ")*" + one("@i", k) + ";");
  }
}

} // namespace

void write_steady_state(StatementText& text, const Model& model, const std::string& interval, const std::string& name)
{
  const int n = model.compartments;
  const Response passed(text, model, Input::dose, interval, "@f"), lost(text, model, Input::infusion, interval, "@g");
  for (int j = 1; j <= n; ++j) {
    std::string leaves = "@k10*" + lost.amount(1, j);
    if (n > 1 && model.given(Option::k20)) leaves += "+@k20*" + lost.amount(2, j);
    if (n > 2 && model.given(Option::k30)) leaves += "+@k30*" + lost.amount(3, j);
    text.add(one("@s", j) + " = " + leaves + ";");
    for (int i = 1; i <= n; ++i)
      if (i != j) text.add(pair("@f", i, j) + " = " + passed.amount(i, j) + ";");
  }
  eliminate(text, n, name);
}

void write_balance(StatementText& text, const Model& model, const std::string& name)
{
  const auto rate = [&](Option o, const char* k) { return std::string(model.given(o) ? k : "0"); };
  text.add("@s1 = @k10;");
  if (model.compartments > 1) text.add("@s2 = " + rate(Option::k20, "@k20") + "; @f21 = @k12; @f12 = @k21;");
  if (model.compartments > 2)
    text.add("@s3 = " + rate(Option::k30, "@k30") + "; @f31 = @k13; @f13 = @k31; @f23 = 0; @f32 = 0;");
  eliminate(text, model.compartments, name);
}

} // namespace torvale::compartment
