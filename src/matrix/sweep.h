#pragma once

// The sweep operator on a packed symmetric matrix, reversible in any order of pivots.
namespace torvale::matrix {

// qkzsweep: sweep x on pivot k, or take an earlier sweep back.
//
//   x     in/out  packed symmetric, order n
//   k     in      pivot, 0 <= k < n
//   df    in/out  n characters: '1' when the pivot has been swept, '0' when not; df[k] toggles
//   w     scratch n doubles
//   sing  in      sing >= 0: the pivot must be greater than sing; sing < 0: its absolute value must
//                 be greater than -sing (a swept negative pivot is taken back only in this way)
//
// With S the swept and U the other indices, x holds
//     (S, S)  the inverse A_SS^-1
//     (U, S)  the coefficients A_US A_SS^-1, with a plus sign
//     (U, U)  the rest A_UU - A_US A_SS^-1 A_SU
// whatever the order of the sweeps, so the border of [H g; g' c] holds H^-1 g once H is swept.
//
// Returns 0; or 1 when the pivot was refused (NaN included): x and df are unchanged.
int qkzsweep(double* x, int k, int n, char* df, double* w, double sing);

// zsweep: the same sweep, the arguments in the order of the numeric services. work: dim doubles.
int zsweep(double sing, double* a, int k, int dim, char* df, double* work);

} // namespace torvale::matrix
