#!/usr/bin/env python3
"""Writes polygamma.csv, polygamma_difference.csv, log_gamma_ratio.csv and log_tails.csv (needs mpmath)."""

import random
from pathlib import Path

from mpmath import exp, expm1, log, log1p, loggamma, mp, mpf, nstr, psi, quad, sqrt

mp.dps = 250
random.seed(20)
HERE = Path(__file__).parent


def log_uniform(low, high):
    return float(10 ** random.uniform(low, high))


def write(name, header, rows):
    lines = [header] + [",".join(x if isinstance(x, str) else repr(x) if isinstance(x, (int, float)) else nstr(x, 20)
                                 for x in row) for row in rows]
    (HERE / (name + ".csv")).write_text("\n".join(lines) + "\n")


def log_beta(a, b):
    return loggamma(a) + loggamma(b) - loggamma(a + b)


def log_lower_beta(x, y, a, b):
    """log I_x(a, b) by the series with positive terms, quick for x below 1/2."""
    term = total = mpf(1)
    n = 0
    while term > total * mpf(10) ** -200 or x * (a + b + n) > a + 1 + n:
        term *= x * (a + b + n) / (a + 1 + n)
        total += term
        n += 1
    return a * log(x) + b * log(y) - log_beta(a, b) - log(a) + log(total)


def log_lower_gamma(z, a):
    """log P(a, z) by the series with positive terms."""
    term = total = mpf(1)
    n = 0
    while term > total * mpf(10) ** -200 or n < z - a:
        n += 1
        term *= z / (a + n)
        total += term
    return a * log(z) - z - loggamma(a + 1) + log(total)


def complement(t):
    return log1p(-exp(t)) if t < -1 else log(-expm1(t))


def tails_by_quadrature(x, a, b):
    """Both log tails for shapes too large for the series."""
    mp.dps = 50
    deviation = sqrt(a * b / (a + b)) / (a + b)

    def density(t):
        return exp((a - 1) * log(t) + (b - 1) * log(1 - t) - log_beta(a, b))

    lower = quad(density, [x - k * deviation for k in range(40, -1, -4)])
    upper = quad(density, [x + k * deviation for k in range(0, 41, 4)])
    assert abs(lower + upper - 1) < mpf(10) ** -30
    mp.dps = 250
    return log(lower), log(upper)


arguments = [log_uniform(-4, 4) for _ in range(20)] + [random.uniform(1.3, 1.6) for _ in range(8)] + [1.4616321449683622, 0.5, 1.0]
arguments += [-random.uniform(0.05, 20) for _ in range(6)]
write("polygamma", "n,x,value", [(n, x, psi(n, mpf(x))) for n in range(4) for x in arguments])

pairs = [(log_uniform(-2, 8), log_uniform(-12, 3)) for _ in range(20)] + [(log_uniform(-2, 8), 0.5) for _ in range(12)]
pairs += [(a, -a * random.uniform(0.01, 0.99)) for a, _ in pairs[:8]]
write("polygamma_difference", "n,a,b,value",
      [(n, a, b, psi(n, mpf(a) + mpf(b)) - psi(n, mpf(a))) for n in range(4) for a, b in pairs])
write("log_gamma_ratio", "a,b,value", [(a, b, loggamma(mpf(a) + mpf(b)) - loggamma(mpf(a))) for a, b in pairs])

rows = []
for a, b, deviations in [(1e-8, 3.5, 0.4), (0.3, 1e7, 3), (4.5, 0.02, -0.5), (2.5, 40.0, 5), (90.0, 99.0, -12), (150.0, 2e4, -9), (1e5, 3e3, 30),
                         (3e6, 5e6, 2), (1e8, 2e8, -7), (4e8, 60.0, -1.5), (0.7, 0.9, 1)]:
    mean = a / (a + b)
    x = mean + deviations * (a * b / (a + b + 1)) ** 0.5 / (a + b)
    x = min(max(x, mean / 100), 1 - (1 - mean) / 100)
    X, Y, A, B = mpf(x), 1 - mpf(x), mpf(a), mpf(b)
    if X <= Y:
        lower = log_lower_beta(X, Y, A, B)
        upper = complement(lower)
    else:
        upper = log_lower_beta(Y, X, B, A)
        lower = complement(upper)
    rows.append(("beta", x, a, b, lower, upper, (A - 1) * log(X) + (B - 1) * log(Y) - log_beta(A, B)))
for x, a, b in [(0.25000003, 1e12 + 0.3, 3e12 + 0.7), (0.7500001, 3e10 + 0.7, 1e10 + 0.3), (0.1, 1e15 + 0.375, 9e15)]:
    X, A, B = mpf(x), mpf(a), mpf(b)
    lower, upper = tails_by_quadrature(X, A, B)
    rows.append(("beta", x, a, b, lower, upper, (A - 1) * log(X) + (B - 1) * log(1 - X) - log_beta(A, B)))
for z, a in [(1e-5, 1e-9), (3.0, 1e-6), (1.2, 0.8), (0.01, 20.0), (400.0, 95.0), (60.0, 101.0), (1.1e4, 1e4), (9.9e5, 1e6),
             (100030000.0, 1e8), (30.0, 2.5)]:
    Z, A = mpf(z), mpf(a)
    lower = log_lower_gamma(Z, A)
    rows.append(("gamma", z, a, 0, lower, complement(lower), (A - 1) * log(Z) - Z - loggamma(A)))
write("log_tails", "distribution,x,a,b,log_lower,log_upper,log_density", rows)
