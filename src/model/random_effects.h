#pragma once
// REFFECT: one RANDOM statement: its sizes, symbols, derivative requests, subjects and point set. Constant in an
// evaluation.

#include "engine/engine.h"
#include "model/store.h"
#include "syntax/records.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace torvale::host {
class OutputDataSet;
}

namespace torvale::model {

inline constexpr double failure_objective = 1.1579208923731792e+77;         // an evaluation that failed
inline constexpr double impossible_loglik = -1e20;                          // log likelihoods at or below have failed
inline constexpr double failed_point = -std::numeric_limits<double>::max(); // log integrand of a failed point

// ModelProgram: one specialised program and where what it yields belongs. A result has a place; a place that is
// identically zero is no output of the program.
struct ModelProgram {
  const engine::Program* code = nullptr; // null: was not built
  std::vector<int> outputs;              // per output of the program its place, ascending
  std::vector<int> twins;                // per output: the place of one before it that holds the same numbers, -1: none
  int places = 0;                        // places in all
  // The same sums over records from fewer operations, where that is worth it: a program of terms, and one that makes
  // the outputs' sums of theirs, once for each point (engine::cmptotal).
  const engine::Program* terms = nullptr;
  const engine::Program* totals = nullptr;
  int term_count = 0;
  bool looked_for_totals = false;

  explicit operator bool() const { return code != nullptr; }
};

// FactoredPrograms: the derivatives by parameters that are sums of products of a coefficient (of a lane, shared by many
// parameters) and a factor (of a record): those of a linear predictor. Coefficients are weighted and added up over
// points first; factors come in once per record.
struct FactoredPrograms {
  // As ModelPrograms::gradient and closing without the factored parameters; behind the outputs that have places the
  // programs yield their coefficients.
  ModelProgram gradient, closing;
  const engine::Program* factors = nullptr;          // per record
  int point_coefficients = 0, mode_coefficients = 0; // of the first and of the second
  // What a subject weighs a coefficient by: 0 that of the points; 1 + k the cross derivative by effect k; 1 + ne +
  // packed the third.
  struct Part {
    int source, coefficient; // those of the points first
    bool operator==(const Part&) const = default;
  };
  std::vector<std::vector<Part>> multipliers; // sums of weighted coefficients, per record
  struct Product {
    int parameter, multiplier, factor; // factor: output of `factors`, -1: 1
  };
  std::vector<Product> products;
  std::vector<int> plain; // the other parameters
  explicit operator bool() const { return !products.empty(); }
};

// ModelPrograms: the specialised programs of the log likelihood, and the layout of what they yield. The effects are
// those that a record depends on: of its subject at every level, the outermost level first (with one level simply its
// effects).
struct ModelPrograms {
  int np = 0; // parameters
  int ne = 0; // effects

  // The value alone: one place.
  ModelProgram value;
  static constexpr int ll = 0;

  // Value, derivatives by parameters, derivatives by effects.
  ModelProgram gradient;
  int by_parameter(int j) const { return 1 + j; }
  int by_effect(int k) const { return 1 + np + k; }
  bool parameter_place(int place) const { return place > 0 && place <= np; }

  // Value, first and second derivatives by effects, the second as a packed lower triangle.
  ModelProgram mode;
  int slope(int k) const { return 1 + k; }
  int curve(int packed) const { return 1 + ne + packed; }

  // ne x np cross derivatives (row = effect, raw: the chain through the means is not in them), then, with adscale,
  // third derivatives: a packed triangle for each of the parameters and then each of the effects.
  ModelProgram curvature;
  int cross_place(int k, int j) const { return k * np + j; }
  int third_place(int w, int packed) const { return ne * np + w * (ne * (ne + 1) / 2) + packed; }

  // First order, mean linear in the effects: the value, then with z the derivatives of the mean by the effects, e the
  // residual and r the variance z e / r, and z z' / r as a packed lower triangle. The second program has the
  // derivatives of all these too, of each by the parameters and then the effects.
  ModelProgram linear, linear_gradient;
  int residual(int k) const { return 1 + k; }
  int information(int packed) const { return 1 + ne + packed; }
  int linear_sums() const { return 1 + ne + ne * (ne + 1) / 2; }
  int linear_by(int sum, int w) const { return linear_sums() + sum * (np + ne) + w; }

  // What is wanted at the mode itself, in one pass: the places of `curvature`, then those of `mode`; where the mode is
  // the only point, with one level, also those of `gradient`, behind them. With gradients; then `curvature` has places
  // but no code.
  ModelProgram closing, closing_point;
  // The terms of `closing`, also where its totals do not pay: what they compute once for a record serves all terms.
  const engine::Program* record_terms = nullptr;
  int closing_mode(int place) const { return curvature.places + place; }
  int closing_gradient(int place) const { return curvature.places + mode.places + place; }

  // The cross derivatives alone, for what follows the fit: predictions and the errors of the modes.
  ModelProgram cross;

  FactoredPrograms factored;
  // The response, then the arguments of the MODEL distribution; made when single records are first looked at.
  const engine::Program* records = nullptr;
};

struct REFFECT {
  // --- what the statement says -------------------------------------------------------------------------------------
  const syntax::STMT* stmt = nullptr;   // borrowed
  int distrtype = 0;                    // 0 normal, 8 discrete
  int nd = 0;                           // distribution arguments
  int nr = 0;                           // random effects
  int nrs = 0;                          // nr (nr + 1) / 2
  int npr = 0;                          // nr + number of parameters
  std::vector<std::string> names;       // of the random effects
  int first_effect = 0;                 // place of its first effect on the chain of effects, the outermost level first
  std::string subname;                  // subject variable
  std::vector<std::string> outer_names; // the variables that SUBJECT= puts around it, in parentheses
  int sub_dsvarno = 0;                  // its number in the data set
  bool sub_character = false;
  double alpha = 0.05;                     // confidence level of its predictions
  double dfe = -1.0;                       // degrees of freedom given, -1 none
  const syntax::StItem* outeb = nullptr;   // OUT=; borrowed
  host::OutputDataSet* outebfid = nullptr; // its data set, open to the end of the step; borrowed
  const syntax::StItem* outpp = nullptr;   // OUTP=: posterior probabilities of a discrete distribution; borrowed
  host::OutputDataSet* outppfid = nullptr; // likewise
  engine::CMPLIST ransym;                  // random effects
  engine::CMPLIST distrsym;                // distribution arguments: means, then the lower triangle of G by rows
  engine::CMPLIST prsym;                   // parameters, then the random effects
  engine::CMPDER gradstr;                  // _ll by prsym
  engine::CMPDER hessustr;                 // first derivatives of _ll by random effects, by ransym or prsym
  engine::CMPDER triustr;                  // hessustr by ransym
  // First order: the sums of ModelPrograms::linear, null where identically zero, and their derivatives by prsym;
  // objindex is the place.
  std::vector<engine::CMPSYM*> linearsym;
  engine::CMPDER lineargradstr;
  engine::CMPDER gradrstr; // distribution arguments by parameters
  // nd distribution arguments (nr means, nrs elements of G), then nd x np derivatives by parameters, row = argument.
  ModelProgram setup;        // the same as setup_value where no derivatives are wanted
  ModelProgram setup_value;  // the arguments alone
  bool setup_varies = false; // they differ between subjects
  int argument_derivative(int a, int j, int np) const { return nd + a * np + j; }
  // The derivatives that are not identically zero, those by parameter j at moved[moved_first[j]] to moved[moved_first[j
  // + 1]]: the argument, ascending, and the place in setup.
  struct MovedArgument {
    int argument, place;
  };
  std::vector<MovedArgument> moved;
  std::vector<int> moved_first; // np + 1

  const syntax::StItem* outri = nullptr;   // OUTRI$=; borrowed
  host::OutputDataSet* outrifid = nullptr; // its data set, open to the end of the step; borrowed

  std::vector<int> rhs; // data variables (dsvarno) that its distribution arguments depend on

  // --- what a BY group decides -------------------------------------------------------------------------------------
  std::vector<SUBINFO> SubInfo; // subjects in order of first appearance, unusable ones (badsub) included
  long mode_first = 0;          // where the modes of its subjects begin in GroupState::ebes
  long nsub = 0;                // usable subjects
  double nrepsub = 0.0;         // usable subjects weighted by replicates
  long ntmax = 0;               // most used observations of a subject

  // --- the point set (built by tvlqpts) ------------------------------------------------------------------------------
  long nqpr = 0;              // points: nqp to the power nr
  std::vector<double> points; // standard points: nr x nqpr, row per dimension
  std::vector<double> logw;   // per point: sum of log weights + squared norm (abss + wstar)
};

} // namespace torvale::model
