#pragma once
// Models for tests and benchmarks, built from typed trees and columns of numbers: no parser, no data set.

#include "model/run_record.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace torvale::tests {

// A term of a programming statement. Operators and functions build the tree; numbers become literals.
class Term {
public:
  Term(double number);
  Term(const char* name);
  static Term call(const char* function, std::vector<Term> arguments);
  static Term binary(syntax::Op op, const Term& a, const Term& b);
  static Term choose(const Term& condition, const Term& yes, const Term& no);
  syntax::Expr* build(syntax::Arena& arena) const;

private:
  struct Node;
  std::shared_ptr<const Node> node_;
};

inline Term operator+(const Term& a, const Term& b) { return Term::binary(syntax::Op::add, a, b); }
inline Term operator-(const Term& a, const Term& b) { return Term::binary(syntax::Op::subtract, a, b); }
inline Term operator*(const Term& a, const Term& b) { return Term::binary(syntax::Op::multiply, a, b); }
inline Term operator/(const Term& a, const Term& b) { return Term::binary(syntax::Op::divide, a, b); }
inline Term operator-(const Term& a) { return Term(0.0) - a; }
inline Term exp(const Term& a) { return Term::call("exp", {a}); }
inline Term log(const Term& a) { return Term::call("log", {a}); }
inline Term lgamma(const Term& a) { return Term::call("lgamma", {a}); }

// One level of random effects.
struct Level {
  std::string subject;  // column that names its subjects, within those of the level around it
  std::vector<std::string> effects;
  std::vector<Term> prior; // means, then the lower triangle of G by rows; with method 4 support points
};

// What a model is. Assignments are in order and must assign _ll.
struct ModelText {
  std::vector<std::string> parameters;
  std::vector<std::string> effects;
  std::vector<std::pair<std::string, Term>> assignments; // with method 1 of mean eta and variance var of y too
  std::vector<Term> prior;                                          // means, then the lower triangle of G by rows
  std::vector<std::pair<std::string, std::vector<double>>> columns; // "subject" names the subjects and is no variable
  std::vector<double> weights;                                      // replicate count per row; empty: none
  std::vector<Level> levels; // several levels, the outermost first; empty: the one of effects, prior and "subject"

  std::vector<Level> all_levels() const
  {
    if (!levels.empty() || effects.empty()) return levels;
    return {{"subject", effects, prior}};
  }
};

// How it is integrated.
struct Rule {
  bool adaptive = true, adscale = true;
  int points = 5;
  int method = 0;
  int fd = 0;
  int threads = 1;
  bool effects_wanted = false; // with what find_posterior needs
  bool take_turns = false;     // EBITER$
};

// A run record that is ready for tvllike. Rows may stand in any order.
std::shared_ptr<model::NX> make_run(const ModelText& text, const Rule& rule);

// tvllike at n.parm, also where the last evaluation was there.
int evaluate_anew(model::NX& n);
// The objective at theta; with gradient when asked.
double objective(model::NX& n, const std::vector<double>& theta, bool gradient = false);

} // namespace torvale::tests
