#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// Active sets. Constraint c, counted from 0, is the bound of parameter c for c < n and linear row c - n above. Its
// normal a points inside: e_i at a lower bound, -e_i at an upper bound, the row itself for a'x >= b. "Held" constraints
// keep their value; the free space is the null space of their normals, of dimension m, with the orthonormal basis Z.
//
// Bounds alone (opro 0): Z picks the free parameters, listed first in ifxr.
// With linear rows (opro 1): N = Q [R; 0] for the matrix N of held normals in the order of iact; qlcn holds Q by
// columns, llcn holds L = R' packed; Z is the last m columns of Q.

// Free dimension m.
inline long free_dimension(const MINSTR& str)
{
  return str.nvar - str.nabc - str.nalc;
}

// True when the record has bounds or linear constraints at all.
inline bool constrained(const MINSTR& str)
{
  return str.bounds != 0 || str.lincon != 0;
}

// The working tolerance of feasibility, ceps times 10^ipre.
double feasibility_tolerance(const MINSTR& str, int ipre);

// residual: how far x is inside constraint c: x - lb, ub - x (the nearer for an inactive bound pair), a'x - b.
// Equalities: minus the absolute residual.
double constraint_violation(const MINSTR& str, const double* x, long c);

// znlpfch: feasibility check, classification. With `rebuild` the marks iabc and the lists start anew: fixed parameters,
// bounds and rows within the tolerance of x, equalities always. Otherwise only counts. Returns the number of
// constraints that x violates by more than (|b| + 1) times the tolerance at the power ipre.
int znlpfch(MINSTR* str, int rebuild, int ipre);

// znlpfta: factors the held constraints, projects the gradient and computes the multipliers at x. Dependent ones go to
// ldco.
void znlpfta(MINSTR* str);

// znlpact: holds every constraint that x touches and that the direction d runs into. Returns how many were
// added; chac and idac tell of them.
int znlpact(MINSTR* str, const double* d);

// first_touched: the first constraint that x touches and that the direction d runs into, or -1. touching: there is one.
long first_touched(const MINSTR& str, const double* d);
inline bool touching(const MINSTR& str, const double* d)
{
  return first_touched(str, d) >= 0;
}

// znlpdac: drops constraints whose multipliers have the wrong sign. Returns the net number dropped; chac, idac tell of
// them.
int znlpdac(MINSTR* str);

// znlpglm: Lagrange multipliers of the held constraints by least squares, N lambda = grad, into lagm by constraint
// number.
void znlpglm(MINSTR* str);

// znlpgmx: gradient of the free space: gpro = Z'grad and gmax = its largest element.
void znlpgmx(MINSTR* str);

// znlpgs: slope of the direction d at the gradient g.
double znlpgs(const MINSTR& str, const double* g, const double* d);

// znlpvre: reduces a full vector, r = Z'v (m elements). znlpvex: expands, v = Z r. Neither may be done in place.
void znlpvre(const MINSTR& str, const double* v, double* r);
void znlpvex(const MINSTR& str, const double* r, double* v);

// znlpsym: the projected matrix Z'BZ (packed, order m) of the packed symmetric B of order n. work: n doubles.
void znlpsym(const MINSTR& str, const double* b, double* projected, double* work);

// znlpstl: the largest step along d from x that keeps all constraints that are not held; largest when none is in the
// way. blocking receives the constraint, or -1.
double znlpstl(const MINSTR& str, const double* x, const double* d, long* blocking);

// move_along: x = xold + a d, kept on the right side of the bounds against rounding. The only place where such a
// point is formed, so that one step has one bit pattern.
void move_along(MINSTR* str, double a, const double* d);

// Clears what one iteration reports of changes of the active set.
inline void reset_change(MINSTR* str)
{
  str->chac = str->idac = 0;
}

// znlpfea: moves x to the nearest feasible point. Returns 0 nothing to do, 1 moved, -1 no feasible point (-3: the
// equalities contradict each other). The lists of held constraints are invalid after a move: call znlpfch and znlpfta.
int znlpfea(MINSTR* str);

// ---- The factor (active_factor.cpp). ------------------------------------------------------------------------------

// clear_factor: holds nothing: Q = I.
void clear_factor(MINSTR* str);

// hold: adds constraint c with the bound state `side` (1, -1, 2; ignored for rows). Returns 0; 1 when its normal
// depends linearly on the held ones (it is noted in ldco and not held).
int hold(MINSTR* str, long c, int side);

// release: stops holding constraint c.
void release(MINSTR* str, long c);

// held: true when constraint c is held.
bool held(const MINSTR& str, long c);

// The normal of constraint c, n doubles; side as in hold.
void constraint_normal(const MINSTR& str, long c, int side, double* a);

// factor_coordinates: w = Q'v, all n elements. Only with linear rows.
void factor_coordinates(const MINSTR& str, const double* v, double* w);

// Rebuilds ifxr from iabc.
void list_free_parameters(MINSTR* str);

} // namespace torvale::optimizer
