#pragma once

#include "optimizer/missing_value.h"

#include <cstddef>
#include <vector>

namespace torvale::optimizer {

struct MINSTR;
struct COVSTR;

// TECHNIQUE. The numbers are those of the statement option; numbers without a routine here are refused.
enum Technique : int {
  NONE = 1,
  TRUREG = 2,
  NEWRAP = 3,
  NRRIDG = 4,
  NRLINS = 5, // runs as NEWRAP, with a message
  DBLDOG = 9,
  QUANEW = 10,
  DUQUAN = 11,
  CONGRA = 13,
  NMSIMP = 14,
  NMSIM2 = 15,
};

// The keyword of a technique ("QUANEW"), or "" for a number without a routine.
const char* technique_name(int tech);

// The keyword of a convergence criterion by its termination code 1 to 9 ("ABSCONV", ...), else "".
const char* criterion_name(int code);

// Termination codes. Positive: a usable point. Zero: go on (or nothing was to be done). Negative: failed.
enum TerminationCode : int {
  code_go_on = 0,
  code_absconv = 1,      // objective at or below ABSCONV
  code_absfconv = 2,     // absolute change of the objective
  code_absgconv = 3,     // largest projected gradient element
  code_absxconv = 4,     // absolute change of the parameters
  code_fconv = 5,        // relative change of the objective
  code_gconv = 6,        // relative predicted reduction
  code_xconv = 7,        // relative change of the parameters
  code_fconv2 = 8,       // spread of the simplex (or predicted reduction)
  code_gconv2 = 9,       // second gradient criterion of least squares
  code_all_fixed = 10,   // every parameter is held by an active constraint
  code_reenter = 100,    // the optimality check found a better point: start section again (never returned)
  code_pass_count = 101, // 101 + i: stopped by a limit while criterion i (1 to 8) was met but not often enough
  code_start_objective = -1,
  code_start_derivative = -2,
  code_objective = -3,
  code_gradient = -4,
  code_no_progress = -5,
  code_infeasible = -6,
  code_newton_search = -7,
  code_limit = -8, // MAXITER or MAXFUNC
  code_time = -9,  // MAXTIME
  code_no_feasible_start = -10,
  code_hessian = -11,
};

// Why the objective is called (indf of MINSTR), for callers that treat some calls apart.
enum CallPurpose : int {
  purpose_final = -1,
  purpose_start = 2,
  purpose_constant_probe = 3,
  purpose_iteration = 4,
  purpose_optimality_check = 6,
  purpose_difference_gradient = 7,
  purpose_hessian_by_values = 8,
  purpose_hessian_by_gradients = 9,
  purpose_interval_search = 10,
};

// What cut the last step short (scut of MINSTR). Such a step says nothing of convergence by its length or its decrease.
enum StepCut : int {
  cut_none = 0,
  cut_radius = 1, // the trust radius, a ridge in its place, or MAXSTEP
  cut_bound = 2,
  cut_row = 3,    // a linear constraint
  cut_search = 4, // the line search: less than a tenth of a step whose natural length is 1, or another direction
};

// One row of the iteration history, handed to the history sink. Which of the two last columns mean what is told by
// `layout` (history_layout in termination.h names the columns).
struct HistoryRow {
  int layout = 0;         // 13, 15, 18, 23, 28 or 31: the set of columns
  bool start = false;     // the row before the first iteration
  long iteration = 0;     // "Iter"
  bool skipped = false;   // "Ac1": the last update was skipped (shown as a star)
  long restarts = 0;      // "Rest"
  long calls = 0;         // "NFun"
  long active = 0;        // "Act": active bounds and linear constraints
  int active_change = 0;  // "Ac2": 0 none, +1 one added, -1 one dropped, 2 several
  double objective = 0.0; // "OptCrit", sign of the user's problem
  double decrease = 0.0;  // "DifCrit"; largest double before the first iteration
  double gradient = 0.0;  // "MaxGrad"; "StdDev" in layout 28
  double first = 0.0;     // "Lambda", "Ridge", "Alpha" or "Delta"
  double second = 0.0;    // "Radius", "Slope" or "Size"; unused elsewhere
};

// A row of the table of analytic against difference gradients (GRADCHECK).
struct GradientCheckRow {
  long parameter = 0;      // index from 0
  double analytic = 0.0;   // from the gradient callback
  double difference = 0.0; // central differences of the objective
  double error = 0.0;      // |analytic - difference| / max(1, |analytic|, |difference|)
  double allowed = 0.0;    // error that rounding of the objective explains
  bool agrees = false;     // error <= allowed
};

// Callbacks of the problem: 0 for success. A callback that fails, or that leaves a value that is not finite, makes the
// point a failed one: it never enters a quotient or a test.
using ProblemCallback = int (*)(MINSTR*);

// What a technique calls at the end of an iteration: job 10 before the first, 1 after an iteration, negative when it
// gives up. Returns 0 (go on), 100 (start section again) or a termination code. The caller may put a routine of its own
// in between, which must return what znlptrm returns.
using TerminationCallback = int (*)(MINSTR*, int job);

// Sink of messages: group and number identify the text, values are its numbers in order. severity: 1 note, 2 warning,
// 3 error.
using MessageSink = void (*)(MINSTR*, int group, int number, int severity, const double* values, int count);
using HistorySink = void (*)(MINSTR*, const HistoryRow&);
using GradientCheckSink = void (*)(MINSTR*, const GradientCheckRow&);

// Seconds of a clock that never runs back. Asked only for MAXTIME and for the elapsed time that is reported.
using Clock = double (*)(MINSTR*);

// Delivers row i (from 0) of the linear constraints, n doubles.
using RowCallback = void (*)(MINSTR*, long i, double* row);

// An update of a quasi-Newton matrix; see updates.h.
using UpdateRoutine = int (*)(MINSTR*, int job, int iscl, double* xdif, double* gdif, double* hess, double* w1,
                              double* w2, double* w3);

// A line search; see line_search.h.
using LineSearchRoutine = int (*)(MINSTR*);

// MINSTR: the problem block of the optimizer: what is asked, where it works, what it reports. Everything that the
// library knows of a problem stands here; it reaches its caller only through the callbacks and sinks.
//
// Life: tvlopti marks every option as unset; the caller fills sizes, options and callbacks; tvlopta provides the
// arrays; the caller fills x and the constraints; tvloptc supplies the defaults; znlpdrv runs stage 1 and stage 2. The
// record may be used again and again: arrays only grow.
//
// The problem is always a minimization of `crit`. With `imax` the objective delivers its negative, and reports and user
// tolerances turn the sign back.
//
// Arrays: a null pointer is filled by tvlopta from the record's own storage; an array that the caller has put in
// before (x bound to another record's vector, say) is borrowed and left alone.
struct MINSTR {
  MINSTR() = default;
  MINSTR(const MINSTR&) = delete; // the arrays point into the record's own storage
  MINSTR& operator=(const MINSTR&) = delete;

  // ---- Problem size and kind. Set by the caller. --------------------------------------------------------------
  long nvar = 0;   // number of parameters n
  long nnva = 0;   // n(n+1)/2, length of a packed symmetric matrix; tvlopta sets it, tvloptc checks it
  long mequ = 1;   // residual functions of a least-squares problem; always 1
  long mfun = 1;   // objective functions; always 1
  double dbug = 0; // print level: 0 none, 1 summary, 2 short, 3 initial detail, 4 all. Above 0: history rows
  int imax = 0;    // nonzero: maximization; crit holds the negated objective
  int fqad = 0;    // nonzero: quadratic problem given by its matrices; refused
  int lsqu = 0;    // nonzero: least-squares problem; refused
  int linf = 0;    // L-infinity objective; refused
  int l1nm = 0;    // L1 objective; refused
  int nreb = 0;    // number of random-effect blocks R; from 2 on the gradient tolerances default to looser values
  double fail = 0; // objective value that means a failed evaluation (crit must be below it); 0: the largest double

  // ---- Technique. Options; 0 or missing means the default. -----------------------------------------------------
  int tech = 0;        // TECHNIQUE
  int vers = 0;        // VERSION, 1 to 3, else 2
  int tupd = 0;        // UPDATE: 1 DBFGS, 2 DDFP, 6 BFGS, 7 DFP, 11 to 14 rules of CONGRA; tvloptc maps it to 1 to 4
  int hesc = 0;        // HESCAL plus 1; tvloptc maps it to 0 none, 1 to 3: scaling of trust region or ridge
  int load = 0;        // nonzero: quasi-Newton starts from the Hessian at the start point (INHESSIAN)
  double dhes = 0;     // INHESSIAN=r: start matrix r times the identity; missing: identity
  double nres = 0;     // RESTART: most iterations between restarts
  int start_scale = 0; // nonzero: the quasi-Newton start matrix is scaled for n <= 10 as well

  // ---- Units and metric. Set by the caller; null: none. ---------------------------------------------------------
  // n positive scales, borrowed: the run works on x / scale (rounded to a power of two). Steps, norms, radii and
  // difference intervals are then those of the scaled problem, and so is the gradient that ABSGCONV is compared with
  // unless ABSGCONV was given. Callbacks, sinks and results keep the caller's units. May change between runs, not while
  // one lasts. Root of the inverse curvature is a good scale; 1 leaves a parameter alone.
  const double* scale = nullptr;
  // The start metric of the quasi-Newton techniques in place of the Hessian, asked at each start of the matrix when
  // `load` is set: writes hess (packed, positive semidefinite but for rounding, in the caller's units) for the point x,
  // whose objective and gradient have just been evaluated, and leaves everything else alone. Nonzero: there is none,
  // and the Hessian is formed.
  int (*usmet)(MINSTR*) = nullptr;
  // nonzero: DUQUAN and DBLDOG ask for it after every iteration too, and take it in place of the matrix that has been
  // learnt where it tells the last change of the gradient clearly better.
  int metric_follows = 0;

  // ---- Constraints. Sizes by the caller, tolerances are options. -----------------------------------------------
  int bounds = 0;  // nonzero: there are bounds on parameters
  int lincon = 0;  // nonzero: there are linear constraints
  int nlicon = 0;  // nonzero: nonlinear constraints; refused
  long nbec = 0;   // bound equality constraints (lower equals upper); counted at the start
  long nbic = 0;   // bound inequality constraints; counted at the start
  long ncon = 0;   // linear constraints, the neqc equalities first
  long neqc = 0;   // linear equality constraints
  long ntec = 0;   // all equalities, nbec + neqc
  long ntco = 0;   // all constraints, ntec + ncon
  double ceps = 0; // LCEPS: feasibility tolerance; default 1e-8
  double ldct = 0; // LDCTOL: tolerance of linear dependence; default 1e-8, clamped to 0 to 0.1
  double deat = 0; // LCDEACT: threshold on multipliers below which a constraint is dropped; missing: computed

  // ---- Line search. Options. -----------------------------------------------------------------------------------
  int tlin = 0;    // LINESEARCH, 1 to 8; default 2
  double salf = 0; // INSTEP: largest first step (factor of the first radius in trust-region techniques); default 1
  double smax = 0; // MAXSTEP: bound on the step length; default none
  double damp = 0; // DAMPSTEP: first trial step at most damp times the last one; missing: off
  double sigm = 0; // LSPRECISION: second Wolfe parameter, in (0, 1)
  long smit = 0;   // MAXSTEP's count: smax holds in the first smit line searches
  double sing = 0; // SINGHESS: smallest diagonal element of a factor of the projected Hessian, relative to the largest;
                   // default 1e-8
  double rtop = 0; // OPTCHECK: radius of the optimality neighbourhood check; missing: no check
  double ssin = 0; // INFSTEP: a step length at or above it means an unbounded objective; default 1e20

  // ---- Derivatives. Options. -----------------------------------------------------------------------------------
  int gchk = 0;    // GRADCHECK: 1 to 3 as given; after tvloptc 0 none, 1 fast, 2 detail
  int ider = 0;    // order of derivatives that the technique needs: 0, 1 or 4 (Hessian); set by tvloptc
  int fidi = 0;    // FD: 0 analytic gradient, 1 forward, 2 central differences, 3 forward with a switch to central
  int fihs = 0;    // FDHESSIAN: 0 and 1 Hessian from forward, 2 from central differences of the gradient
  int nfuv = 1;    // nonzero: the objective delivers a single value; always 1
  double swfd = 0; // factor of the switch from forward to central differences; -1: no switch; default 100
  int cfdh = 0;    // FDINT: nonzero: the difference intervals are selected by a search; 1 objective
  double fdig = 0; // FDIGITS: accurate digits of the objective; default 12.65
  double cdig = 0; // CDIGITS: accurate digits of constraints
  int hfrm = 1;    // storage of the Hessian: 1 packed, 2 diagonal only

  // ---- Limits and tolerances. Options. -------------------------------------------------------------------------
  double upti = 0;    // MAXTIME, seconds
  long mini = -1;     // MINITER
  double maxi = 0;    // MAXITER
  double max2 = 0;    // second iteration limit; default 20
  double maxf = 0;    // MAXFUNC
  double atol = 0;    // ABSCONV
  double aftl = 0;    // ABSFCONV
  double ftol = 0;    // FCONV
  double fto2 = 0;    // FCONV2
  double axtl = 0;    // ABSXCONV
  double xtol = 0;    // XCONV
  double agtl = 0;    // ABSGCONV
  double gtol = 0;    // GCONV
  double gto2 = 0;    // GCONV2
  double fsiz = 0;    // FSIZE: floor of |f| in relative tests
  double xsiz = 0;    // XSIZE: floor of |x| in relative tests
  long toln[19] = {}; // [1..8] pass counts of criteria with codes 2 to 9, [11..18] their running counters

  // ---- Callbacks. Set by the caller; tvloptc fills those of the library that are null. --------------------------
  ProblemCallback usfct = nullptr;       // objective at x: writes crit, counts nfct; may write grad too, and hess when
                                         // the technique asks for Hessians
  ProblemCallback usgrd = nullptr;       // gradient at x: writes grad, counts ngrd; null: differences as fidi says
  ProblemCallback ushes = nullptr;       // Hessian at x: writes hess, counts nhes; null: differences
  ProblemCallback usfout = nullptr;      // called first by each termination test; may be null
  TerminationCallback uster = nullptr;   // termination routine; null: znlptrm
  RowCallback acget = nullptr;           // rows of the linear constraints; null: alcn holds them
  MessageSink message = nullptr;         // null: messages are dropped
  HistorySink history = nullptr;         // null: no history
  GradientCheckSink check_row = nullptr; // null: GRADCHECK gives its verdict message only
  Clock clock = nullptr;                 // null: no time limit
  UpdateRoutine updat = nullptr;         // the selected update
  LineSearchRoutine linse = nullptr;     // the selected line search
  void* comstr = nullptr;                // the caller's own record
  COVSTR* covstr = nullptr;              // covariance request; null: none
  const char* const* pnam = nullptr;     // n parameter names for tables, borrowed; may be null

  // ---- Arrays of n doubles or longs unless told otherwise. -------------------------------------------------------
  double* x = nullptr;    // the point
  double* xold = nullptr; // previous point
  double* grad = nullptr; // gradient at x
  double* gold = nullptr; // previous gradient
  double* sdir = nullptr; // search direction
  double* work = nullptr; // scratch of the access layer
  double* hess = nullptr; // n(n+1)/2 packed: Hessian, its approximation, or a factor of either
  double* hpro = nullptr; // n(n+1)/2 packed: projected matrix or its factor, order m; null when not needed
  double* half = nullptr; // n(n+1)/2 packed: Cholesky factor kept beside the Hessian; null when not needed
  double* dsca = nullptr; // scaling vector of HESCAL
  double* wrk2 = nullptr; // scratch of the technique
  double* wfid = nullptr; // mequ + n: element mequ.. saves the gradient while differences move the point
  double* hfwd = nullptr; // forward intervals found by FDINT, relative to 1 + |x|; missing: not found
  double* hcnt = nullptr; // central intervals
  short* ofco = nullptr;  // n flags: the interval search could not judge this parameter
  double* ster = nullptr; // standard errors
  double* lb = nullptr;   // lower bounds; -largest: none
  double* ub = nullptr;   // upper bounds; largest: none
  int* iabc = nullptr;    // n: 0 free, 1 held at the lower bound, -1 held at the upper bound, 2 fixed (lb equals ub)
  long* ifxr = nullptr;   // the free parameters first, then the held ones
  long* iact = nullptr;   // n + ncon: the active constraints in factor order, numbered from 0: bound of parameter i is
                          // i, linear row r is n + r
  long* ldco = nullptr;   // n + ncon: constraints at their limit that depend linearly on the active ones
  double* alcn = nullptr; // ncon times n: rows a of the linear constraints a'x = b or a'x >= b
  double* blcn = nullptr; // ncon: their right sides b
  double* gpro = nullptr; // projected gradient Z'g, m elements
  double* lagm = nullptr; // n + ncon: multipliers, >= 0 at a minimum for inequalities: element i of bound i (of
                          // x >= lb or -x >= -ub), element n + r of linear row r; 0 when not active
  double* qlcn = nullptr; // n times n by columns: orthogonal factor of the active rows, null space last
  double* llcn = nullptr; // n(n+1)/2 packed: triangular factor of the active rows
  double* awrk = nullptr; // 8n + 2 ncon: scratch of the active-set layer
  double det[5] = {};     // determinant mantissa and exponent, positive, negative, zero pivots of the final Hessian

  // ---- Run state. Written by the library, read by callbacks. ----------------------------------------------------
  double tbig = 0; // nonzero: the objective overflowed; every loop tests it after a callback
  int stop = 0;    // nonzero: the user asked to stop; set by a callback, ends the run with code -3
  // Set by the caller. Nonzero: stage 2 goes on from an earlier run of the same fit: nitr, nfct, ngrd, nhes, nhup,
  // nlis, ires and the time in mtim are not cleared but counted on, so that MAXITER, MAXFUNC, MAXTIME and MINITER hold
  // for the sum. For a run on another record copy them there and back.
  int continues = 0;
  // Stage 2 ends before the covariance, for callers that may go on instead: job 3 of znlpdrv computes it. has_point:
  // stage 2 has a point that it can be computed at.
  int covariance_waits = 0, has_point = 0;
  double nitr = 0;  // iterations done
  int indf = 0;     // why the objective is called, see CallPurpose
  int ifdr = 1;     // order asked of the current call: 1 value, 2 gradient, 3 Hessian
  int rcod = 0;     // last termination code
  int ipre = 0;     // power of ten by which ceps was loosened so that the point counts as feasible
  int zmsg = 1;     // severity of the limit messages, 1 to 3
  int job = 0;      // stage of the driver, 1 or 2
  int opro = 0;     // active-set layer: 0 bounds at most, 1 linear constraints
  long nfct = 0;    // objective calls; the callback itself counts
  long ngrd = 0;    // gradient calls; the callback itself counts
  long nhes = 0;    // Hessian calls
  long nhup = 0;    // quasi-Newton or direction updates
  long nlis = 0;    // line searches
  long itre = 0;    // iterations since the last restart
  long ires = 0;    // restarts
  long null = 0;    // nonzero: the last update was skipped
  long nanc = 0;    // active nonlinear constraints; always 0
  long nalc = 0;    // active linear constraints
  long nabc = 0;    // bounds held
  long nldc = 0;    // linearly dependent rows at their limit
  long nlbc = 0;    // dependent bounds among them
  long chac = 0;    // change of the active set in this iteration: added, or minus dropped
  long idac = 0;    // constraint that changed, from 1: bounds, then n + linear rows; negative: dropped;
                    // 2147483647: several
  int cutf = 0;     // nonzero: the last step was cut by failed evaluations (FCONV does not count then)
  int scut = 0;     // what cut the last step short of its technique's own length, see StepCut
  long npev = 0;    // positive eigenvalues of the last test
  long nzev = 0;    // zero eigenvalues
  long nnev = 0;    // negative eigenvalues
  double crit = 0;  // objective at x
  double cold = 0;  // objective at the last iterate
  double gmax = 0;  // largest projected gradient element
  double pred = 0;  // predicted reduction
  double ridg = 0;  // ridge in use
  double delt = 0;  // trust radius; in a simplex its start size
  double lamb = 0;  // Levenberg parameter
  double rhor = 0;  // actual over predicted reduction
  double gcri = 0;  // gradient criterion of CONGRA
  double gihg = 0;  // gradient in the inverse Hessian norm
  double mtim = 0;  // clock at the start of stage 2 less the seconds of the runs it continues; then the elapsed seconds
  double dfes = 0;  // estimate of the decrease of the objective
  double alfa = 0;  // step length
  double stub = 0;  // upper bound on the step length from constraints
  double trial = 0; // first trial step of the next line search when the technique knows one; 0: none
  double scal = 1;  // factor that the last update applied to the quasi-Newton matrix before updating it
  long pnact = 0;   // row of the history in the making: active constraints
  double piter = 0; //   iteration
  double pcrit = 0; //   objective, sign of the user's problem
  double pcdif = 0; //   decrease
  double pgmax = 0; //   largest gradient element
  double ppred = 0; //   predicted reduction

  // ---- Private to the library. --------------------------------------------------------------------------------
  double* xval = nullptr;         // n: the point of the last objective call
  bool xval_current = false;      // xval holds such a point
  bool best_has_gradient = false; // gbes belongs to xbes
  double reentered_at = -1;       // nitr of the last re-entry that the optimality check caused
  long idle_steps = 0;            // cut steps in succession that gained nothing
  bool unbounded_told = false;    // the message of an unbounded objective has been sent
  double* xbes = nullptr;         // n: best point of a line search
  double* gbes = nullptr;         // n: its gradient
  double* hlim = nullptr;         // n: longest central interval that the curvature of the objective allows, absolute;
                                  // missing: not known
  double* unit = nullptr;         // n: the scales in use, powers of two
  bool inner_units = false;       // x and its companions are divided by unit at present
  bool agtl_default = false;      // ABSGCONV was not given
  double inner_gmax = 0;          // gmax of the scaled problem while the caller's is shown
  double* xtmp = nullptr;         // n: scratch of the difference routines
  double* gtmp = nullptr;         // n: scratch of the difference routines
  std::vector<double> problem_block;   // storage of the double arrays that do not depend on the technique
  std::vector<double> technique_block; // storage of those that do
  std::vector<double> hessian_block;   // storage of hess where only somebody else wants one
  std::vector<long> index_block;       // storage of the arrays of long
  std::vector<short> flag_block;       // storage of ofco
  std::vector<int> state_block;        // storage of iabc
};

} // namespace torvale::optimizer
