#!/usr/bin/env python3
"""Writes compartment_derivatives.csv: derivatives of amounts in compartment 1 by rate constants and duration, to third order.

Central differences of matrix exponentials at 90 digits. Needs python3-mpmath.
"""
import random
import sys
from itertools import product

from mpmath import matrix, mp, mpf

mp.dps = 90
STEP = mpf(10) ** -18


def amount(n, administration, rates, t):
    """Amount in compartment 1 at time t after a dose of 100, by the exponential of the system with its depot and input."""
    k = lambda name: rates.get(name, mpf(0))
    a = matrix(5, 5)  # compartments 1 to 3, the depot, the constant input
    for i, (out, back, other) in enumerate((("K12", "K21", "K20"), ("K13", "K31", "K30")), start=1):
        if i >= n:
            break
        a[0, 0] -= k(out)
        a[i, 0] += k(out)
        a[0, i] += k(back)
        a[i, i] -= k(back) + k(other)
    a[0, 0] -= k("KE")
    a[3, 3] -= k("KA")
    a[0, 3] += k("KA")
    a[0, 4] = 1
    x = matrix(5, 1)
    if administration == "IVB":
        x[0] = 100
    elif administration == "ORAL":
        x[3] = 100
    else:
        x[4] = 100 / rates["DURN"]
        during = min(mpf(t), rates["DURN"])
        x = mp.expm(a * during) * x
        x[4] = 0
        t = mpf(t) - during
    return (mp.expm(a * t) * x)[0]


def derivative(n, administration, rates, t, by):
    total = mpf(0)
    for signs in product((1, -1), repeat=len(by)):
        moved = {name: mpf(x) for name, x in rates.items()}
        sign = 1
        for s, name in zip(signs, by):
            moved[name] += s * STEP
            sign *= s
        total += sign * amount(n, administration, moved, t)
    return total / (2 * STEP) ** len(by)


def rates_of(kind, n, administration, rng):
    names = ["KE"] + ["K12", "K21", "K20"][: 3 * (n > 1)] + ["K13", "K31", "K30"][: 3 * (n > 2)]
    if administration == "INF":
        names = [x for x in names if x not in ("K20", "K30")]
    rates = {x: round(rng.uniform(0.05, 2), 3) for x in names}
    if administration == "ORAL":
        rates["KA"] = round(rng.uniform(0.3, 3), 3)
    if administration == "INF":
        rates["DURN"] = 1.7
    if kind == "equal":  # no exchange, equal ways out: all exponents are equal
        for x in rates:
            if x != "DURN":
                rates[x] = 0.4 if x in ("KE", "K21", "K31", "KA") else 0.0
    if kind == "near":
        for x in rates:
            if x != "DURN":
                rates[x] = 0.4 * (1 + rng.choice((1e-5, 1e-7, 1e-9))) if x in ("KE", "K21", "K31", "KA") else 1e-9
    if kind == "apart":
        rates["KE"] = 3e-5
        if n > 1:
            rates["K12"] = 25.0
    return rates


def main():
    rng = random.Random(7)
    print("ncomps,admtype,options,time,by,value")
    for n, administration, kind in product((1, 2, 3), ("IVB", "INF", "ORAL"), ("common", "equal", "near", "apart")):
        rates = rates_of(kind, n, administration, rng)
        options = " ".join(f"{name}={x!r}" for name, x in rates.items())
        for t in (0.6, 4.0):
            for order in (1, 2, 3):
                seen = set()
                for _ in range(3 if order > 1 else 2):
                    by = tuple(sorted(rng.choice(sorted(rates)) for _ in range(order)))
                    if by in seen or (by.count("DURN") and t < 1.7):
                        continue
                    seen.add(by)
                    value = derivative(n, administration, rates, t, by)
                    print(f"{n},{administration},{options},{t},{' '.join(by)},{mp.nstr(value, 17)}")


if __name__ == "__main__":
    sys.exit(main())
