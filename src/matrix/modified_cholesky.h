#pragma once

namespace torvale::matrix {

// zmchol: modified Cholesky of Schnabel and Eskow (A new modified Cholesky factorization, SIAM J. Sci.
// Stat. Comput. 11, 1990). Factors P (A + E') P' = L L' with E' diagonal and non-negative.
//
//   n           in      order
//   ipiv        out     n; ipiv[i] is the row of A that stands at position i
//   tau1, tau2  in      tolerances of the first phase and of the last block; at or below 0: eps^(1/3)
//   amat        in/out  packed A; L on return
//   emat        out     n, or null; emat[i] is what was added to the diagonal at position i
//   gvec        out     n; Gerschgorin lower bounds of the matrix left when phase one ended, at the
//                       positions of the pivot order, 0 where phase one eliminated
//
// Returns the largest element of E: 0 for a safely positive definite matrix. A matrix of condition
// beyond about 1/tau1 gets a small addition even if positive definite. A matrix that is zero to
// working accuracy gets L = rootmin I, E = dmin I. Order below 1: 0.
double zmchol(int n, int* ipiv, double tau1, double tau2, double* amat, double* emat, double* gvec);

} // namespace torvale::matrix
