#!/usr/bin/env python3
"""Writes compartment_responses.csv: responses of systems of compartments at 30 digits, for the kernel's test.

A response is a divided difference of (-x)**power exp(-x t) over its rates. Equal rates are set apart by 1e-60 and the
partial fractions summed at 1500 digits. Needs python3-mpmath.
"""
import random
import sys

from mpmath import mp, mpf

mp.dps = 1500
GAP = mpf(10) ** -60


def rates_with_multiplicity(n, inputs, depot, system, ka, roots):
    rates = [mpf(0)] * inputs + [mpf(ka)] * depot + [mpf(r) for r in roots[:n] for _ in range(system)]
    return sorted(x + k * GAP for k, x in enumerate(rates))


def divided_difference(rates, power, t):
    """Of (-x)**power exp(-x t), its sign such that it is positive for power 0."""
    total = mpf(0)
    for i, x in enumerate(rates):
        product = mpf(1)
        for j, y in enumerate(rates):
            if j != i:
                product *= y - x
        total += (-x) ** power * mp.exp(-x * mpf(t)) / product
    return total


def complete_symmetric(degree, rates):
    h = [mpf(1)] + [mpf(0)] * degree
    for x in rates:
        for k in range(1, degree + 1):
            h[k] += x * h[k - 1]
    return h[degree]


def size_of_terms(rates, power, t):
    """Leibniz' rule for the product of (-x)**power and exp(-x t), the signs left out: rounding is relative to this."""
    return sum(
        complete_symmetric(power - k, rates[: k + 1]) * divided_difference(rates[k:], 0, t)
        for k in range(min(power, len(rates) - 1) + 1)
    )


def rates_of(kind, rng):
    if kind == "apart":
        return [10 ** rng.uniform(-3, 3) for _ in range(4)]
    base = 10 ** rng.uniform(-1.5, 1)
    if kind == "near":
        return [base * (1 + rng.uniform(0, 1) * 10 ** rng.uniform(-12, -2)) for _ in range(4)]
    if kind == "equal":
        return [base] * 4
    if kind == "pair":
        far = base * 10 ** rng.uniform(0, 6)
        return [base, base * (1 + 10 ** rng.uniform(-10, -4)), far, base]
    if kind == "zero":
        return [base, 0.0, base * rng.uniform(0.5, 2), base * 10 ** rng.uniform(-2, 2)]
    return [rng.uniform(0.05, 3) for _ in range(4)]


def main():
    rng = random.Random(20)
    print("which,t,ka,l1,l2,l3,value,size")
    for kind in ("apart", "near", "equal", "pair", "zero", "common") * 12:
        n, inputs, depot = rng.randint(1, 3), rng.randint(0, 1), rng.randint(0, 3)
        system = rng.randint(1, 4)
        power = rng.randint(0, n * system)
        if power >= inputs + depot + n * system:
            power = 0
        values = rates_of(kind, rng)
        roots = sorted(values[:n], reverse=True) + [0.0] * (3 - n)
        ka, t = values[3], 10 ** rng.uniform(-2, 1.5)
        which = n + 10 * inputs + 100 * depot + 1000 * system + 10000 * power
        rates = rates_with_multiplicity(n, inputs, depot, system, ka, roots)
        value = divided_difference(rates, power, t)
        size = size_of_terms(rates, power, t)
        print(f"{which},{t!r},{ka!r},{roots[0]!r},{roots[1]!r},{roots[2]!r},{mp.nstr(value, 20)},{mp.nstr(size, 3)}")


if __name__ == "__main__":
    sys.exit(main())
