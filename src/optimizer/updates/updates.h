#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// Quasi-Newton updates. An UpdateRoutine changes the matrix for the step s = xdif and the change of gradient y = gdif,
// both of the free space (m elements):
//     job 1   packed inverse Hessian H
//     job 2   packed factor L D L' of the Hessian B: unit lower triangle, D on the diagonal
//     job 3   packed triangular factor L of B = L L'
// iscl nonzero: the matrix is scaled first, by a factor that scal of the record reports (of B, also for job 1).
// w1 is m doubles of scratch, w2 and w3 are 2m each (job 2) or m. Returns 0 done (nhup counts it); 1, 2, 3 skipped for
// lack of curvature; negative: the factor is lost.
int znlpbfg(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* hess, double* w1, double* w2,
            double* w3);
int znlpdfp(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* hess, double* w1, double* w2,
            double* w3);

// The single updates, m the order; return codes as above. w, u, v, p: m doubles of scratch; z: 2m.
int bfgsupd(long m, int iscl, const double* s, const double* y, double* h, double* w, double& scale);
int dfpupd(long m, int iscl, double alfa, const double* s, const double* y, double* h, double* w, double& scale);
int dubfgsup(long m, int iscl, const double* s, const double* y, double* ldl, double* w, double* z, double& scale);
int dudfpup(long m, int iscl, double alfa, const double* s, const double* y, double* ldl, double* w, double* v,
            double* z, double& scale);
int uvbfgs(long m, int iscl, const double* s, const double* y, double* l, double* w, double* u, double& scale);
int uvdfp(long m, int iscl, double alfa, const double* s, const double* y, double* l, double* w, double* p,
          double& scale);

// safe_product: s'y without the terms that would underflow.
double safe_product(const double* s, const double* y, long m);

// ldlupd: L D L' := L D L' + sig z z' in packed storage by the composite-t method of Fletcher and Powell (On the
// modification of LDL' factorizations, Mathematics of Computation 28, 1974). z is destroyed, t is n doubles of scratch.
// Returns the rank: n, or less when the change would lose definiteness, and the factor is then as it was.
int ldlupd(long n, double sig, double* ldl, double* z, double* t);

// llupdat: the triangular factor of (L + u w')(L + u w')', packed, by two sweeps of plane rotations (Goldfarb,
// Factorized variable metric methods for unconstrained optimization, Mathematics of Computation 30, 1976). w is
// destroyed.
void llupdat(long n, double* l, const double* u, double* w);

// factor_ldl: packed symmetric a := L D L'. Returns false when a pivot is not above tol (a is then destroyed).
bool factor_ldl(long n, double* a, double tol);

// solve_ldl: b := (L D L')^-1 b.
void solve_ldl(long n, const double* ldl, double* b);

// multiply_ldl: r := L D L' v. multiply_symmetric: r := A v for a packed symmetric A. r and v must not overlap.
void multiply_ldl(long n, const double* ldl, const double* v, double* r, double* work);
void multiply_symmetric(long n, const double* a, const double* v, double* r);

} // namespace torvale::optimizer
