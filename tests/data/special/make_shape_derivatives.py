#!/usr/bin/env python3
"""Writes shape_derivatives.csv (needs mpmath): derivatives of log tails by shapes, 17 digits.

Rows: function, x, a, b, i, j, lower, upper. gamma: log P(a, x) and log Q(a, x), i-th derivative by a. beta: log I_x(a, b)
and log of its complement, derivative of order i by a and j by b. t: log of both tails at x with a degrees of freedom.
Taylor coefficients come from differences at 120 digits; every value is checked against a second step width.
"""

from pathlib import Path

from mpmath import betainc, binomial, gammainc, log, mp, mpf, nstr

mp.dps = 160


def mixed(f, i, j, h):
    """Central difference of order i in the first and j in the second argument; error h^2."""
    total = mpf(0)
    for k in range(i + 1):
        for l in range(j + 1):
            total += (-1) ** (k + l) * binomial(i, k) * binomial(j, l) * f((mpf(i) / 2 - k) * h, (mpf(j) / 2 - l) * h)
    return total / h ** (i + j)


def derivative(f, i, j):
    first, second = (mixed(f, i, j, mpf(10) ** -e) for e in (25, 26))
    assert abs(first - second) <= abs(second) * mpf(10) ** -24, (first, second)
    return nstr(second, 17)


def tails_gamma(x, a):
    return gammainc(a, 0, x, regularized=True), gammainc(a, x, regularized=True)


def tails_beta(x, a, b):
    return betainc(a, b, 0, x, regularized=True), betainc(b, a, 0, 1 - x, regularized=True)


def tails_t(t, n):
    outer = betainc(n / 2, mpf(1) / 2, 0, n / (n + t * t), regularized=True) / 2
    return (outer, 1 - outer) if t < 0 else (1 - outer, outer)


rows = []
for x, a in [(0.01, 0.02), (0.5, 0.7), (3.0, 1.5), (1.0, 5.0), (12.0, 5.0), (40.0, 5.0), (95.0, 100.0), (1010.0, 1000.0), (2.5, 40.0)]:
    for i in (1, 2, 3):
        f = [lambda s, _, k=k: log(tails_gamma(mpf(x), mpf(a) + s)[k]) for k in (0, 1)]
        rows.append(["gamma", repr(x), repr(a), "0", str(i), "0"] + [derivative(g, i, 0) for g in f])
for x, a, b in [(0.125, 0.5, 0.75), (0.5, 2.0, 3.0), (0.9375, 2.0, 3.0), (0.03125, 8.0, 20.0), (0.25, 30.0, 90.0), (0.6875, 0.5, 12.0)]:
    for i, j in [(1, 0), (0, 1), (2, 0), (1, 1), (0, 2), (3, 0), (2, 1), (1, 2), (0, 3)]:
        f = [lambda s, u, k=k: log(tails_beta(mpf(x), mpf(a) + s, mpf(b) + u)[k]) for k in (0, 1)]
        rows.append(["beta", repr(x), repr(a), repr(b), str(i), str(j)] + [derivative(g, i, j) for g in f])
for t, n in [(-12.0, 3.0), (-1.5, 4.0), (-0.125, 7.0), (0.5, 2.5), (2.0, 12.0), (6.0, 30.0), (-3.0, 200.0)]:
    for i in (1, 2, 3):
        f = [lambda s, _, k=k: log(tails_t(mpf(t), mpf(n) + s)[k]) for k in (0, 1)]
        rows.append(["t", repr(t), repr(n), "0", str(i), "0"] + [derivative(g, i, 0) for g in f])

lines = ["function,x,a,b,i,j,lower,upper"] + [",".join(row) for row in rows]
(Path(__file__).parent / "shape_derivatives.csv").write_text("\n".join(lines) + "\n")
