#pragma once

#include "optimizer/minstr.h"

#include <vector>

namespace torvale::optimizer {

// A matrix of the covariance step with the determinant and inertia of the matrix that it came from.
struct StoredMatrix {
  bool present = false;         // nothing else means anything while this is false
  long order = 0;               // rows
  double det[5] = {};           // mantissa, decimal exponent, positive, negative, zero pivots
  std::vector<double> elements; // packed, order(order+1)/2; a diagonal request (DIAHES) leaves zeros off the diagonal
};

// A linear dependency among parameters found in a singular Hessian: parameter `dependent` is the sum of
// coefficients[j] times parameter j.
struct DependencyRow {
  long dependent = 0;                   // index from 0
  const double* coefficients = nullptr; // n, zero for parameters that do not take part
};
using DependencySink = void (*)(MINSTR*, const DependencyRow&);

// Receives the n eigenvalues of a singular matrix, largest first.
using EigenvalueSink = void (*)(MINSTR*, const double* eigenvalues, long n);

// COVSTR: the request for a covariance of the estimates and what came of it. Filled by the caller, completed by
// tvloptc's companion covariance_defaults, used by znlpcma at the end of znlpdrv's stage 2. Owns its matrices.
struct COVSTR {
  // ---- Asked. 0 or missing means the default. ------------------------------------------------------------------
  int icov = 0;          // form, 0 to 6: 0 none unless ccov; 2 and 4 inverse Hessian; 1, 3, 5, 6 use a cross-product
  double sigs = missing; // SIGSQ: variance factor from the caller; ignored with a message outside least squares
  char vardef[9] = "N       "; // divisor: "N", "DF"
  double asin = missing;       // ASINGULAR: absolute singularity criterion; default 1.491668147e-154
  double msin = missing;       // MSINGULAR: relative criterion; default 1e-12
  double vsin = missing;       // VSINGULAR: criterion relative to the diagonal element; default 1e-8
  double csin = missing; // COVSING: cut of eigenvalues in the generalized inverse; missing: max(asin, msin * largest)
  long g4li = 0;         // G4=: largest order for the Moore-Penrose (eigenvalue) inverse; default 60
  double cfac = missing; // CFACTOR: factor of the covariance; missing or 0: computed
  double nobs = 0;       // number of observations N
  int hfrm = 1;          // form of the Hessian: 1 packed, 2 diagonal only
  int cfrm = 1;          // form of the cross-product, carried
  int ches = 1;          // nonzero: keep the Hessian
  int ccov = 1;          // nonzero: compute the covariance
  int psho = 0, psum = 0, pall = 0, pini = 0, phis = 0, npri = 0; // print switches of the statement, carried
  int phes = 0, pcov = 0, peig = 0, neig = 0;                     // likewise: Hessian, covariance, eigenvalues, none

  // ---- Overrides of the callbacks in the driver's own start and end evaluations; null: the problem's own. -----------
  ProblemCallback usfct = nullptr;
  ProblemCallback usgrd = nullptr;
  ProblemCallback ushes = nullptr;
  ProblemCallback uscpj = nullptr; // cross-product of the scores into crossproduct.elements; null: none

  // ---- Sinks; null: dropped. -----------------------------------------------------------------------------------
  DependencySink dependency = nullptr;
  EigenvalueSink eigenvalues = nullptr;

  // ---- Reported by the covariance step. -------------------------------------------------------------------------
  int status = 0;            // 0 done, or the reason: -1 no Hessian, -2 no cross-product, -3 inverse failed,
                             // 1 singular on the free space, 2 generalized inverse used
  double vardiv = 0;         // divisor
  double sigm = 0;           // factor applied
  double df = 0;             // degrees of freedom
  StoredMatrix hessian;      // Hessian of the objective at the end point, order n
  StoredMatrix projected;    // Z'HZ on the free space when constraints are active
  StoredMatrix crossproduct; // cross-product of the scores
  StoredMatrix covariance;   // covariance of the estimates, order n; its det is that of the (projected) Hessian
};

} // namespace torvale::optimizer
