#pragma once
// NX: the record of one step, split by who may write it when.
//
//   RunOptions   what statements decide: written by statement processing (tvlinit), constant afterwards
//   ModelLists   symbols, requests, programs: as above
//   GroupState   what a BY group decides: constant during an evaluation
//   FitState     what the optimizer's callbacks and the steps after the fit keep between evaluations (main thread only)
//
// What an evaluation writes lies in TVLThreadCtx (thread_context.h), never here.

#include "engine/engine.h"
#include "host/host.h"
#include "model/parameters.h"
#include "model/random_effects.h"
#include "model/store.h"
#include "model/thread_context.h"
#include "model/verdict.h"
#include "optimizer/covstr.h"
#include "optimizer/minstr.h"
#include "syntax/records.h"
#include "syntax/source.h"

#include <memory>
#include <string>
#include <vector>

namespace torvale::parallel {
class WorkerPool;
}

namespace torvale::model {

struct RunOptions {
  // Integration
  int method = 0;       // 0 quadrature, 1 first order, 2 Hardy, 3 importance sampling, 4 discrete random effects
  bool adaptive = true; // points centred at the mode; cleared by NOAD and without random effects
  bool adscale = true;  // points scaled by the curvature at the mode; cleared by NOADSCALE and NOAD
  bool search = false;  // SEARCH
  bool nqpspec = false; // QPOINTS= given
  double qscale = 1.0;  // scale factor of the points
  double qtol = 1e-4;   // relative change at which the number of points settles
  double qfac = 10.0;   // growth of the number of points from 10 on
  double qmax = -1.0;   // largest number of points tried
  // Mode search
  int ebstep = 50;                      // most Newton steps
  int ebsubstep = 20;                   // most shrinking sub-steps at one step; 0 switches the safeguard off
  double ebssfrac = 0.8;                // share of the trial point kept at a sub-step
  double ebsstol = 1e-8;                // allowed rise of the function between steps
  double ebtol = 1.110223024625157e-12; // bound on the largest step component
  double ebmtol = 1e-5;                 // of nested searches
  bool ebopt = false;                   // try the optimization library when Newton did not converge
  bool ebzstart = false;                // always start at the mean
  bool ebgn = false;                    // Gauss-Newton Hessian in nested searches
  bool ebiter = false;                  // EBITER$: the levels of nested searches take turns
  // Tolerances
  double singvar = 1.110223024625157e-12;
  double variance_floor = 0.0; // variances of random effects below it count as 0: SINGVAR= where it is given
  double singchol = 1.110223024625157e-12;
  double singsweep = 1.110223024625157e-12;
  double btol = 0.01;
  // Derivatives
  int fd = 0;                 // gradient: 0 analytic, 1 forward, 2 central, 3 chosen by the library
  int fdh = 0;                // the same for the Hessian
  bool needhessu = false;     // second derivatives by random effects are wanted
  bool needcrossu = false;    // cross derivatives by random effects and parameters are wanted
  bool needtriu = false;      // third derivatives are wanted
  bool wants_effects = false; // modes and their derivatives are wanted after the fit: PREDICT, RANDOM OUT=
  bool empirical = false;     // EMPIRICAL: sandwich covariance
  bool subgrad = false;       // SUBGRADIENT=
  // Inference and output
  double alpha = 0.05;      // confidence level
  double dfe_option = -1.0; // DF=; -1 none
  bool dfespec = false;     // DF= given
  int nbest = 1;            // BEST= or 1
  bool bestspec = false;    // BEST= given
  bool noopt = false;       // TECHNIQUE=NONE
  bool pcov = false, pcorr = false, pecov = false, pecorr = false, peder = false, phess = false, pstart = false;
  bool itdetails = false; // ITDETAILS: history columns, and notes about failed evaluations
  bool lognote = false;   // LOGNOTE
  int loglevel = 0;       // detail of log notes, 0 to 3
  bool lb = false;        // LB
  bool debug = false;
  bool pictures = false; // somebody will look at pictures of the fit
  bool list = false, listcode = false, listdep = false, xref = false, listder = false;
  bool nosort = false;     // NOSORTSUB
  bool sortwarn = false;   // no memory to sort by subject: as with NOSORTSUB
  bool retfail = false;    // RETFAIL$: a failed evaluation of a nested model returns 1
  bool reobsinfo = false;  // REOBSINFO$: tables of the subjects
  bool runThreads = false; // NTHREADS= not 0
  int nthreads = 0;        // threads the program asked for
  int command_threads = 0; // threads the command line asked for (--threads); 0 serial, negative all cores
  long seed = 0;           // after zranms
  bool bydata = false;     // PARMS / BYDATA
};

struct EstimateStatement {
  std::string label;
  engine::CMPLIST expr;                     // value symbols: one, or the rows of a CONTRAST
  engine::CMPDER der;                       // by parameters
  const engine::Program* program = nullptr; // values, then rows x np derivatives
  double alpha = -1.0;                      // ALPHA= or -1
  double df = -1.0;                         // DF= or -1
  bool derivatives = false;                 // DER
  syntax::Position where;
};

// PREDICT: an expression evaluated at every record, over parameters and random effects.
struct PredictStatement {
  engine::CMPSYM* value = nullptr;
  engine::CMPDER der;                       // by the parameters, then the random effects
  const engine::Program* program = nullptr; // the value, then the derivatives at the places `list`
  std::vector<int> list; // places of the derivatives: parameters first, then effects; the ID variables follow them
  const syntax::StItem* out = nullptr;   // OUT=; borrowed
  host::OutputDataSet* output = nullptr; // open from statement processing to the end of the step; borrowed
  double alpha = -1.0;                   // ALPHA= or -1
  double df = -1.0;                      // DF= or -1
  bool derivatives = false;              // DER
  syntax::Position where;
};

// OUTFIT=: fitted values and residuals.
struct FittedRequest {
  const syntax::StItem* out = nullptr;      // borrowed
  host::OutputDataSet* output = nullptr;    // open from statement processing to the end of the step; borrowed
  engine::CMPLIST arguments;                // of the MODEL distribution
  engine::CMPDER der;                       // by the parameters, then the random effects
  const engine::Program* program = nullptr; // the response, the arguments, their derivatives
};

// MCMC and PRIOR: posterior sampling after the fit.
struct SamplingStatements {
  const syntax::STMT* mcmc = nullptr;     // borrowed; null: no sampling
  host::OutputDataSet* output = nullptr;  // OUT=; open to the end of the step; borrowed
  engine::CMPLIST priors;                 // log prior densities: they add up
  engine::CMPDER prior_der;               // by the parameters
  const engine::Program* prior = nullptr; // their values, then the derivatives at the places `list`
  std::vector<int> list;                  // parameter of each derivative
  std::vector<double> covariance;         // COVDATA=: packed
};

// PARMS data set: what it is and how its rows become grid points.
struct StartingData {
  std::shared_ptr<const host::DataSet> data; // null: no PARMS / DATA=
  bool wide = false;                         // one column per parameter; else rows of Parameter, Estimate
  bool by = false;                           // rows are matched to BY groups
  host::ByGroups groups;                     // its BY groups, when by is set
  std::vector<std::string> names;            // parameters that it gives, in order
};

struct ModelLists {
  syntax::PROCSTR* proc = nullptr;            // parsed statements; borrowed
  const syntax::StItem* outr = nullptr;       // OUTR=; borrowed
  host::OutputDataSet* eboutfid = nullptr;    // its data set, open to the end of the step; borrowed
  const syntax::StItem* outest = nullptr;     // OUTEST=; borrowed
  host::OutputDataSet* outestfid = nullptr;   // likewise
  engine::CMPLIST idsym;                      // variables of the program that ID adds to predictions
  const host::DataSet* fid = nullptr;         // input data set; borrowed from the driver
  std::string data_name;                      // its name for people: library and member
  StartingData pdata;                         // PARMS / DATA=
  std::string repname;                        // REPLICATE variable; empty without one
  const syntax::SourceMap* sources = nullptr; // borrowed
  std::shared_ptr<engine::CMPGLOBAL> gcmp;    // the compiled model
  int disttype = 0;                           // MODEL distribution code
  std::string depname;                        // dependent variable
  engine::CMPSYM* depsym = nullptr;
  engine::CMPSYM* llsym = nullptr;   // _ll
  engine::CMPSYM* meansym = nullptr; // first order: mean and variance of the response
  engine::CMPSYM* variancesym = nullptr;
  engine::CMPSYM* repsym = nullptr; // REPLICATE variable, or null
  int nparm = 0;                    // parameters
  std::vector<PARMSTR> parmstr;     // one per parameter
  long npoints = 1;                 // points of the starting grid
  bool noprod = false;              // the grid is a list of rows, not a product
  std::vector<REFFECT> reff;        // RANDOM statements, deepest level first
  int nreff() const { return static_cast<int>(reff.size()); }
  // With random effects only; the same with one level.
  // outer: the level whose subjects are dealt to workers: unit of batches, slots, replicates, degrees of freedom,
  // failures. leaf: the deepest level: unit of sums over records and of quadrature points.
  const REFFECT& outer() const { return reff.back(); }
  REFFECT& outer() { return reff.back(); }
  const REFFECT& leaf() const { return reff.front(); }
  REFFECT& leaf() { return reff.front(); }
  int nlag = 0;             // lag depth of the program
  engine::CMPLIST prsym;    // parameters
  engine::CMPLIST mransym;  // random effects of all levels, the outermost first
  engine::CMPLIST mrnprsym; // parameters, then these
  engine::CMPDER gradstr;   // _ll by parameters, without random effects
  ModelPrograms programs;   // of the log likelihood
  // Data pass: _ll, the gradient cells that the method uses, distribution arguments, their derivatives, dependent,
  // replicate.
  const engine::Program* pass_program = nullptr;
  std::vector<char> pass_kind;               // per output of pass_program: a BadCause to report when missing
  std::vector<EstimateStatement> estimates;  // ESTIMATE
  std::vector<EstimateStatement> contrasts;  // CONTRAST
  std::vector<PredictStatement> predictions; // PREDICT
  const syntax::StItem* outq = nullptr;      // OUTQ=; borrowed
  host::OutputDataSet* outqfid = nullptr;    // open from statement processing to the end of the step; borrowed
  const syntax::StItem* outsg = nullptr;     // SUBGRADIENT=; borrowed
  host::OutputDataSet* sgradfid = nullptr;   // likewise
  FittedRequest fitted;                      // OUTFIT=
  SamplingStatements sampling;               // MCMC, PRIOR
  std::vector<host::ByVariable> bylist;      // BY variables
  bool notsorted = false;
};

struct GroupState {
  const host::ByGroups* by_groups = nullptr; // of the input data set; borrowed from the driver
  int group = 0;                             // number of the BY group, from 0
  host::ByGroup rows;                        // its rows in the input data set
  std::unique_ptr<Store> store;
  bool response_told = false;                     // a warning has told of responses outside their distribution
  std::shared_ptr<const engine::BoundData> bound; // data-only values of all programs
  int nqp = -1; // quadrature points per dimension; -1 until chosen; 1 without random effects
  int nqpold = -1;
  std::vector<double> absc; // abscissas, ascending, nqp of them
  std::vector<double> herm; // logs of the weights
  // Modes of the random effects: level by level (REFFECT::mode_first), nr per subject, subjects in order.
  std::vector<double> ebes;     // accepted: every evaluation starts its searches here
  std::vector<char> ebes_known; // per outermost subject: accepted modes of it and all nested in it are stored
  std::vector<double> ebtrial;  // written by the last evaluation
  std::vector<char> ebtrial_known;
  std::vector<double> ebtrial_point; // parameter vector that ebtrial belongs to; empty when none
  enum class Evaluated : char { nothing, sums, value, gradient };
  Evaluated evaluated = Evaluated::nothing; // what the slots hold of that point; sums: they have been overwritten since
  double evaluated_objfun = 0.0;            // the objective there
  std::vector<double> kept_products;        // of sums: outer products of the gradients there, packed; or empty
  // Derivatives of the modes by the parameters; empty: not kept. They tell where the modes of a nearby point are. With
  // one level nr x np rows of subjects, with several nr x np a subject, in the order of the modes.
  std::vector<float> ebes_by, ebtrial_by; // of the accepted modes, and of the last evaluation's
  // Beside them, with up to three effects, the third derivatives of the log likelihood by these at the modes: packed
  // tetrahedra (modes/packed.h), laid out in the same way; empty: not kept. They bend the first Newton step of a search
  // nearby.
  std::vector<float> ebes_bend, ebtrial_bend;
  bool ebtrial_by_known = false;  // that one had a gradient
  std::vector<double> ebes_point; // point of ebes_by; empty: there are none
  bool prediction_stands = false; // modes that are where they were predicted are taken as they are
  std::vector<double> ebesold;    // modes of the best grid point
  std::vector<char> ebesold_known;
  std::vector<std::unique_ptr<TVLThreadCtx>> ctx;  // one per worker
  std::vector<Batch> batches;                      // subjects that share tiles, in order; rebuilt by size_contexts
  std::vector<std::vector<NestNodes>> batch_nodes; // by batch and level, with several levels
  std::vector<int> batch_subjects;                 // usable subjects by batch, in a batch those with more records first
  std::vector<std::int32_t> batch_records;         // store rows by batch and level
  std::vector<std::int32_t>
      batch_levels; // by batch: places of batch_records, from the batch's first, where levels begin
  std::vector<std::int32_t> record_rows;  // store rows that the tiles visit: the used ones (all, when records carry
                                          // state); empty with random effects where these are all rows
  std::vector<std::int32_t> record_first; // per subject: its first entry in record_rows; one more closes the last
  // Slots: one per subject (or per block of observations): value, gradient, status. Summed in the order of slot_tree.h.
  std::int32_t record_row(std::size_t record) const
  {
    return record_rows.empty() ? static_cast<std::int32_t>(record) : record_rows[record];
  }
  std::vector<double> slot_value;
  std::vector<double> slot_grad;      // slots x grad_stride
  std::vector<int> slot_status;       // 0 good, else the message number of the failure
  std::vector<std::int64_t> slot_row; // store row that the failure names, or -1
  long grad_stride = 0;               // doubles between gradients of two slots
  std::vector<double> tree_sums;      // room of their sum
};

struct FitState {
  std::vector<double> parm;                 // current parameters
  std::vector<double> parmstart;            // where the optimizer began
  std::vector<double> parmlast;             // point that str.grad belongs to; empty when none
  std::vector<double> metric, metric_point; // a Hessian that a run may start from (packed), and its point; empty: none
  bool dograd = false;                      // gradient wanted from the objective
  double objfun = 0.0;                      // objective at parm
  std::vector<double> objgrad;              // its gradient, nparm doubles
  std::vector<double> lift;                 // per random effect, all levels: what counts as the variance left where G
                                            // leaves none (its gradient is a limit, see integration); empty: none
  bool failed = false;                      // the last evaluation failed
  std::vector<double> failed_parm;          // parameters of the last evaluation of this fit that failed; empty: none
  double failed_iteration = 0.0;            // and its iteration
  std::vector<double> goodgrad;             // last gradient of a good evaluation
  std::vector<POINT> savepoint;             // best grid points, best first
  double cold = 0.0;                        // objective of the last accepted iterate, for the history table
  bool converged = false;
  bool havemeat = false;
  std::vector<double> meat;                      // np(np+1)/2: sum of outer products of subject gradients
  int znlprc = 0;                                // result of the optimizer; above 0 the fit stands
  std::vector<host::Message> optimizer_messages; // of the optimizer's present run; logged when it is the last one
  double fval = 0.0;                             // objective at the estimates
  std::vector<double> hessmat;                   // Hessian at the estimates, packed
  std::vector<double> covmat;                    // covariance of the estimates, packed
  double det[5] = {0, 0, 0, 0, 0};               // determinant record of the Hessian
  std::vector<double> finalgrad;                 // gradient at the estimates
  double ndf = 0.0, ddf = 0.0, dfe = -1.0;       // degrees of freedom in use
  int tvlrc = 0;                                 // worst return code: 0, 4, 1012, 1016; only grows
  long ncmprun = 0;                              // program runs (lanes) of the group
  Verdict verdict;                               // what the fit has come to
};

struct NX : RunOptions, ModelLists, GroupState, FitState {
  host::Host* host = nullptr;                    // borrowed
  std::unique_ptr<optimizer::MINSTR> str;        // the optimizer's problem block
  std::unique_ptr<optimizer::COVSTR> covstr;     // its covariance block
  std::shared_ptr<parallel::WorkerPool> workers; // threads of the run; null: one context
  host::Table* ithis = nullptr;                  // open iteration history, or null
  host::Table* gradient_check = nullptr;         // open table of GRADCHECK, or null
  std::vector<std::pair<std::string, std::string>>
      dependencies;                      // of a singular Hessian: parameter, combination of others
  int (*starting_tables)(NX&) = nullptr; // writes "StartingValues" before the first iteration (START); may be null
  void raise(int code);                  // keeps the worst return code in tvlrc
};

} // namespace torvale::model
