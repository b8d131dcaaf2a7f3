#pragma once

#include "optimizer/covstr.h"
#include "optimizer/minstr.h"

namespace torvale::optimizer {

// Entry points of the optimization library. See README.md for the order of calls.

// tvlopti: marks every option of the record as unset (missing, or 0 for the whole numbers).
void tvlopti(MINSTR* str);

// tvlopta: provides the arrays that the caller fills (x, bounds, rows of linear constraints, ...) for str->nvar
// parameters and str->ncon rows, and sets nnva. Arrays that the caller has bound are left alone. Bounds are filled with
// "none" when the library owns them. Returns 0, or 1016 when memory is exhausted (the record is then not usable).
int tvlopta(MINSTR* str);

// tvloptc: checks the options, resolves conflicts with a message each, supplies the defaults and provides the arrays of
// the technique. Returns 0; 2000 after a combination that cannot run; 1 when nnva does not belong to nvar; 1016 when
// memory is exhausted.
int tvloptc(MINSTR* str);

// covariance_defaults: fills the unset criteria of a covariance request.
void covariance_defaults(COVSTR* cov);

// znlpdrv: the driver. job 1 is the start stage: feasible point, objective and gradient at the start, GRADCHECK.
// job 2, to be called when stage 1 returned 0, runs the technique, evaluates the objective with its gradient once at
// the returned point, and computes the covariance when covstr is set; with covariance_waits job 3 does that. pfun, dtst
// (1, 2: check derivatives as GRADCHECK does) and ctst (ignored: there are no nonlinear constraints) are 0 in a normal
// run. Returns a termination code (TerminationCode of minstr.h), kept in rcod.
int znlpdrv(MINSTR* str, int job, int pfun, int dtst, int ctst);

// continue_run: makes the record `to` go on counting where `from` is (see MINSTR::continues): iterations, calls and
// time. Call it before a run on another record and, the other way round, after it.
void continue_run(const MINSTR& from, MINSTR* to);

// znlptrm: the termination test; what the caller's own termination routine must end with. See TerminationCallback.
int znlptrm(MINSTR* str, int job);

// make_history_row: the row of the iteration history for the state of the record; also sets pnact ... ppred. Layout and
// columns depend on the technique.
HistoryRow make_history_row(MINSTR* str, int job);

// history_columns: the names of the columns of a history layout (HistoryRow::layout), ended by a null pointer.
const char* const* history_columns(int layout);

// message_text: the words of a message that the library sends, with {0}, {1}, ... where its values go; null for a
// number that it never sends. Groups: 352 options, 549 reports.
const char* message_text(int group, int number);

// ---- Derivatives by differences, in the form of a callback. Each leaves x, crit and grad of the point untouched but
// for its result. Return 0; -2 when the objective fails however small the interval; -3 when a derivative overflows; -10
// when the base point itself fails.
int znlpfig(MINSTR* str);             // gradient, forward differences
int znlpfg2(MINSTR* str);             // gradient, central differences
int znlpfg3(MINSTR* str, double eta); // gradient, forward differences on the base eta
int znlpfih(MINSTR* str);             // Hessian from objective values, three-point
int znlpfh2(MINSTR* str);             // Hessian from objective values, central (five-point diagonal)
int znlpfh3(MINSTR* str);             // Hessian from gradients, forward
int znlpfh4(MINSTR* str);             // Hessian from gradients, central

// znlpfdh: selects the difference intervals (FDINT) into hfwd and hcnt by the method of Gill, Murray, Saunders and
// Wright. Returns 0, or -3 when the objective fails at the base point.
int znlpfdh(MINSTR* str, int job);

// ---- Matrices of the covariance step; usable on their own.

// zcovinv: inverts the packed (cfrm 1) or diagonal (cfrm 2) symmetric matrix cov of order n in place by sweeps. A
// packed matrix is scaled to unit diagonal first. A pivot at or below max(vsin, msin * largest element, asin) counts as
// zero: its row and column of the result are zero (a generalized inverse that satisfies A G A = A). Fills det as
// mantissa, decimal exponent, positive, negative, zero pivots. job 1 marks the singular pivots in iwk (n longs, 1 where
// singular; otherwise iwk may be null). cdia (n) returns the scales, or the diagonal when cfrm is 2; work is n doubles.
// Returns the number of zero pivots.
int zcovinv(int job, int cfrm, long n, double asin, double msin, double vsin, double* cov, double* det, double* cdia,
            double* work, long* iwk);

// zcovgiv: Moore-Penrose inverse of the packed symmetric matrix cov of order n, scaled to unit diagonal and back, by
// its eigenvalues; those at or below max(asin, csin * largest absolute eigenvalue) count as zero. eval receives the n
// eigenvalues of the scaled matrix, largest first; work is n*n + 2n doubles. Returns the number of zero eigenvalues, or
// -1 when the eigenvalue iteration fails.
int zcovgiv(long n, double asin, double csin, double* cov, double* det, double* eval, double* work);

// zcovlid: hands the linear dependencies of the packed singular matrix cov (order n, destroyed) to the sink of the
// covariance request, one row for each singular pivot. work is 2n doubles, iwk n longs. Returns their number.
int zcovlid(MINSTR* str, double asin, double msin, double vsin, long n, double* cov, double* work, long* iwk);

} // namespace torvale::optimizer
