#pragma once
// REFFECT: one RANDOM statement: its sizes, symbols, derivative requests, subjects and point set. Constant in an evaluation.

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

inline constexpr double failure_objective = 1.1579208923731792e+77; // an evaluation that failed
inline constexpr double impossible_loglik = -1e20;                  // log likelihoods at or below have failed
inline constexpr double failed_point = -std::numeric_limits<double>::max(); // log integrand of a failed point

// ModelPrograms: the specialised programs of one model and the places of what they yield. Packed lower triangles by rows.
// Places that are identically zero are marked 0 in `live` and no output of the program: output j is at place list[j].
struct ModelPrograms {
  // nd distribution arguments (nr means, nrs elements of G), then nd x np derivatives by parameters, row = argument.
  const engine::Program* setup = nullptr;
  std::vector<char> setup_live;
  // setup without derivatives
  const engine::Program* setup_value = nullptr;
  // _ll
  const engine::Program* value = nullptr;
  // _ll, its np derivatives by parameters, its nr derivatives by random effects
  const engine::Program* gradient = nullptr;
  std::vector<char> gradient_live;
  // _ll, nr derivatives, nrs second derivatives by random effects
  const engine::Program* mode = nullptr;
  std::vector<char> mode_live;
  // nr x np cross derivatives (row = random effect, raw: the chain through the means is not in them), then, with
  // adscale, (np + nr) x nrs third derivatives: row w (parameters, then random effects) of d(second derivatives)/dw.
  const engine::Program* curvature = nullptr;
  std::vector<char> curvature_live;
  // the response, then the arguments of the MODEL distribution; made when single records are first looked at
  const engine::Program* records = nullptr;
  // The cross derivatives alone, for what follows the fit: predictions and the errors of the modes.
  const engine::Program* cross = nullptr;
  std::vector<char> cross_live;
  // The live places above, in order.
  std::vector<int> setup_list, gradient_list, mode_list, curvature_list, cross_list;
  bool setup_varies = false; // distribution arguments differ between subjects
};

struct REFFECT {
  // --- what the statement says -------------------------------------------------------------------------------------
  const syntax::STMT* stmt = nullptr;  // borrowed
  int distrtype = 0;                   // 0 normal, 8 discrete
  int nd = 0;                          // distribution arguments
  int nr = 0;                          // random effects
  int nrs = 0;                         // nr (nr + 1) / 2
  int npr = 0;                         // nr + number of parameters
  std::vector<std::string> names;      // of the random effects
  std::string subname;                 // subject variable
  int sub_dsvarno = 0;                 // its number in the data set
  bool sub_character = false;
  double alpha = 0.05;                 // confidence level of its predictions
  double dfe = -1.0;                   // degrees of freedom given, -1 none
  const syntax::StItem* outeb = nullptr; // OUT=; borrowed
  host::OutputDataSet* outebfid = nullptr; // its data set, open to the end of the step; borrowed
  engine::CMPLIST ransym;              // random effects
  engine::CMPLIST distrsym;            // distribution arguments: means, then the lower triangle of G by rows
  engine::CMPLIST prsym;               // parameters, then the random effects
  engine::CMPDER gradstr;              // _ll by prsym
  engine::CMPDER hessustr;             // first derivatives of _ll by random effects, by ransym or prsym
  engine::CMPDER triustr;              // hessustr by ransym
  engine::CMPDER gradrstr;             // distribution arguments by parameters

  // --- what a BY group decides -------------------------------------------------------------------------------------
  std::vector<SUBINFO> SubInfo;        // subjects in order of first appearance, unusable ones (badsub) included
  long nsub = 0;                       // usable subjects
  double nrepsub = 0.0;                // usable subjects weighted by replicates
  long ntmax = 0;                      // most used observations of a subject

  // --- the point set (built by tvlqpts) ------------------------------------------------------------------------------
  long nqpr = 0;                       // points: nqp to the power nr
  std::vector<double> points;          // standard points: nr x nqpr, row per dimension
  std::vector<double> logw;            // per point: sum of log weights + squared norm (abss + wstar)
};

} // namespace torvale::model
