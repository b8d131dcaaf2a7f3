#pragma once
// The solution of a linear system of compartments as statements: what is in compartment j some time after a unit dose
// into compartment m.
//
// With P(s) the characteristic polynomial the Laplace transform of that amount is N_jm(s) / P(s), N_jm of degree below
// the number of compartments; a constant input divides by s, a depot by (s + ka). The engine's node for such functions
// takes the coefficients and the roots of P, and holds at equal rates and at rates of 0; one compartment needs
// exponentials alone.

#include "compartment/statement_text.h"

namespace torvale::compartment {

enum class Input : std::uint8_t {
  dose,           // a dose at time 0
  infusion,       // a constant input of rate 1 from time 0 on
  depot,          // a dose at time 0 into the depot, from which ka carries it into compartment m
  depot_infusion, // a constant input of rate 1 into the depot
};

// Response: the variables NAME0, NAME1, ... that hold the response and its derivatives by time.
class Response {
public:
  // Writes the statements that compute them at the time that the expression gives (0 or later).
  Response(StatementText& text, const Model& model, Input input, const std::string& time, const std::string& name);
  // The amount in compartment `in` for a unit into compartment `into`, as an expression.
  std::string amount(int in, int into) const;

private:
  std::string w(int k) const { return name_ + std::to_string(k); }
  void one_compartment(StatementText& text, Input input, const std::string& time);
  std::string two(int in, int into) const;
  std::string three(int in, int into) const;

  const Model& model_;
  std::string name_, factor_;
};

// Steady state of amounts: replaces the variables NAME1 ... of what arrives within an interval, by what is there at its
// end when it has arrived in every interval for ever. `interval` is an expression. Where nothing leaves the system
// there is no steady state, and the values are missing.
void write_steady_state(StatementText& text, const Model& model, const std::string& interval, const std::string& name);

// The variables NAME1 ... of constant inputs become the amounts that they keep up.
void write_balance(StatementText& text, const Model& model, const std::string& name);

} // namespace torvale::compartment
