#!/usr/bin/env python3
"""Writes distributions.csv (needs mpmath): density, lower and upper tail of the language's distributions, 17 digits.

Rows: distribution, x, parameters (a, b; "-" where there is none), pdf, cdf, sdf. Tails of continuous distributions by
quadrature of the density, of discrete ones by sums of probabilities: nothing is shared with the tested code.
"""

from pathlib import Path

from mpmath import beta, binomial, exp, factorial, gamma, inf, log, mp, mpf, ncdf, nstr, pi, quad, sqrt

mp.dps = 40

densities = {
    "normal": (lambda x, m, s: exp(-((x - m) / s) ** 2 / 2) / (s * sqrt(2 * pi)), -inf, inf),
    "t": (lambda x, n, _: gamma((n + 1) / 2) / gamma(n / 2) / sqrt(n * pi) * (1 + x * x / n) ** (-(n + 1) / 2), -inf, inf),
    "chisquare": (lambda x, n, _: x ** (n / 2 - 1) * exp(-x / 2) / (2 ** (n / 2) * gamma(n / 2)), 0, inf),
    "f": (lambda x, n, d: (n / d) ** (n / 2) * x ** (n / 2 - 1) / beta(n / 2, d / 2) * (1 + n * x / d) ** (-(n + d) / 2), 0, inf),
    "beta": (lambda x, a, b: x ** (a - 1) * (1 - x) ** (b - 1) / beta(a, b), 0, 1),
    "gamma": (lambda x, a, s: x ** (a - 1) * exp(-x / s) / (gamma(a) * s ** a), 0, inf),
    "exponential": (lambda x, s, _: exp(-x / s) / s, 0, inf),
    "weibull": (lambda x, a, s: a / s * (x / s) ** (a - 1) * exp(-(x / s) ** a), 0, inf),
    "lognormal": (lambda x, m, s: exp(-((log(x) - m) / s) ** 2 / 2) / (x * s * sqrt(2 * pi)), 0, inf),
    "logistic": (lambda x, m, s: exp(-(x - m) / s) / (s * (1 + exp(-(x - m) / s)) ** 2), -inf, inf),
    "uniform": (lambda x, a, b: 1 / (b - a), None, None),
}
probabilities = {
    "binomial": lambda k, n, p: binomial(n, k) * p ** k * (1 - p) ** (n - k) if k <= n else mpf(0),
    "poisson": lambda k, m, _: m ** k * exp(-m) / factorial(k),
    "negbinomial": lambda k, n, p: gamma(n + k) / (gamma(n) * factorial(k)) * p ** n * (1 - p) ** k,
    "geometric": lambda k, p, _: p * (1 - p) ** k,
    "bernoulli": lambda k, p, _: (p if k == 1 else 1 - p) if k <= 1 else mpf(0),
}
cases = [
    ("normal", 1.25, 0.5, 2.0), ("normal", -30.0, 0.0, 1.5), ("t", -3.5, 2.5, None), ("t", 0.75, 30.0, None),
    ("chisquare", 2.5, 3.0, None), ("chisquare", 40.0, 7.0, None), ("f", 1.5, 4.0, 9.0), ("f", 0.125, 5.0, 2.5),
    ("beta", 0.25, 2.0, 5.5), ("beta", 0.875, 1.5, 1.25), ("gamma", 2.5, 1.75, 0.5), ("gamma", 0.25, 3.0, 2.0),
    ("exponential", 1.5, 2.0, None), ("weibull", 1.5, 1.75, 2.0), ("weibull", 6.0, 2.0, 1.25), ("lognormal", 1.75, 0.25, 0.5),
    ("logistic", -3.0, 0.5, 0.75), ("logistic", 20.0, 0.0, 1.0), ("uniform", 2.25, 2.0, 6.0),
    ("binomial", 3.0, 12.0, 0.375), ("binomial", 12.0, 12.0, 0.375), ("poisson", 4.0, 6.5, None), ("poisson", 0.0, 0.25, None),
    ("negbinomial", 5.0, 2.5, 0.375), ("negbinomial", 0.0, 2.5, 0.375), ("geometric", 6.0, 0.25, None), ("bernoulli", 1.0, 0.25, None),
    ("bernoulli", 0.0, 0.25, None),
]
rows = []
for name, x, a, b in cases:
    arguments = [mpf(v) if v is not None else None for v in (x, a, b)]
    if name in densities:
        f, low, high = densities[name]
        low, high = (arguments[1], arguments[2]) if low is None else (low, high)
        pdf = f(*arguments)
        parts = lambda p, q: [p] + [v for v in (-200, -50, -12, -3, 0, 3, 12, 50, 200, 800) if p < v < q] + [q]
        g = lambda t: f(t, *arguments[1:])
        cdf, sdf = quad(g, parts(low, arguments[0])), quad(g, parts(arguments[0], high))
        if name == "normal":  # far out the quadrature loses digits
            cdf, sdf = ncdf((mpf(x) - a) / b), ncdf((mpf(a) - x) / b)
        assert abs(cdf + sdf - 1) < mpf(10) ** -14, (name, x, cdf + sdf)
    else:
        f = probabilities[name]
        pdf = f(arguments[0], *arguments[1:])
        cdf = sum(f(mpf(k), *arguments[1:]) for k in range(int(x) + 1))
        sdf = sum(f(mpf(k), *arguments[1:]) for k in range(int(x) + 1, 800))
        assert abs(cdf + sdf - 1) < mpf(10) ** -25, (name, x)
    rows.append([name, repr(x), repr(a), "-" if b is None else repr(b)] + [nstr(v, 17) for v in (pdf, cdf, sdf)])

lines = ["distribution,x,a,b,pdf,cdf,sdf"] + [",".join(row) for row in rows]
(Path(__file__).parent / "distributions.csv").write_text("\n".join(lines) + "\n")
