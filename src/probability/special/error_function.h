#pragma once

namespace torvale::probability {

// calerf: the error function of x into result (jint 0) or its complement (jint 1). (cal calculate, erf.)
// W. J. Cody's rational Chebyshev approximations, Math. Comp. 23 (1969): relative error a few units of 1e-16,
// for the complement as long as it is a normal number; below that it is 0.
void calerf(double x, double* result, int jint);

// zferf, zferfc: erf(x) and 1 - erf(x). (z numeric, f function.)
double zferf(double x);
double zferfc(double x);

} // namespace torvale::probability
