#pragma once
// The points of the integration: Gauss-Hermite rules, the normal sample of importance sampling.

#include "model/run_record.h"

namespace torvale::integration {

// tvlqpts: builds the point set for n.nqp (at least 1): absc, herm, and each block's nqpr, points, logw. May be called
// again with any other nqp. Follow it by size_contexts. Returns 0, or 1012 after message 503/16: the rule cannot be
// computed, or has more than 5,000 points per dimension or 50 million per subject. Points are then not to be used.
int tvlqpts(model::NX& n);

// GaussHermite: rule of n points for the weight exp(-x^2), by the eigenvalues of the Jacobi matrix (Golub and Welsch
// 1969).
//   absc  out  n abscissas, ascending; those below atol in absolute value are 0
//   herm  out  n log weights; the lowest double where the eigenvector's first component is not above htol
//   dropped    out  number of points without weight
// Returns 0, or 1 when the eigenvalue iteration fails. Allocates n doubles.
int GaussHermite(int n, double* absc, double* herm, double atol, double htol, int& dropped);

// imtql2: eigenvalues of a symmetric tridiagonal matrix by the implicit QL method (Martin and Wilkinson 1968), with the
// first row of the eigenvectors.
//   d  in/out  n: diagonal; on return the eigenvalues, ascending
//   e  in/out  n: subdiagonal in its first n-1 entries; destroyed
//   z  in/out  n: first row of the identity; on return of the eigenvector matrix, in the order of d
// Returns 0, or the index of the eigenvalue that did not settle in 30 sweeps.
int imtql2(int n, double* d, double* e, double* z);

} // namespace torvale::integration
