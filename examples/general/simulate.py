#!/usr/bin/env python3
"""Makes the simulated data sets of this folder (Python's own generator, seed 20240501, so that they can be made again).

Each function is the model of the .tvl file of the same name, read forwards. sleepstudy.csv is not simulated: it is the data
set of the folder above (Belenky and others 2003, J. Sleep Research 12, 1-12).
"""

import math
import random
from pathlib import Path

HERE = Path(__file__).parent


def write(name, header, rows):
    lines = [",".join(header)] + [",".join(str(v) for v in row) for row in rows]
    (HERE / f"{name}.csv").write_text("\n".join(lines) + "\n")


def poisson(rng, mean):
    k, p, u = 0, math.exp(-mean), rng.random()
    while u > p:
        u -= p
        k += 1
        p *= mean / k
    return k


def censored_normal(rng):
    """log10 viral load falls along a line of each patient; the assay reads nothing below 1.7."""
    rows = []
    for patient in range(1, 51):
        level = 4.2 + rng.gauss(0, 0.7)
        for week in (0, 2, 4, 8, 12, 16):
            load = level - 0.17 * week + rng.gauss(0, 0.45)
            below = load < 1.7
            rows.append((patient, week, round(1.7 if below else load, 3), int(below)))
    write("censored_normal", ("patient", "week", "load", "below"), rows)


def mixture(rng):
    """Antibody titres of 250 people, of whom about a third have met the pathogen."""
    rows = []
    for person in range(1, 251):
        met = rng.random() < 0.35
        rows.append((person, round(rng.gauss(3.4, 0.6) if met else rng.gauss(1.1, 0.45), 3)))
    write("mixture", ("person", "titre"), rows)


def zero_inflated(rng):
    """Parasites on fish from 30 lakes; a fish may be of a kind that carries none."""
    rows = []
    for lake in range(1, 31):
        u = rng.gauss(0, 0.5)
        for _ in range(10):
            length = round(rng.uniform(8, 20), 1)
            immune = rng.random() < 0.3
            count = 0 if immune else poisson(rng, math.exp(-0.3 + 0.12 * (length - 8) + u))
            rows.append((lake, length, count))
    write("zero_inflated", ("lake", "length", "count"), rows)


def weibull(rng):
    """Time to relapse of patients of 25 centres, watched for at most 24 months."""
    rows = []
    for centre in range(1, 26):
        u = rng.gauss(0, 0.4)
        for _ in range(12):
            treated = int(rng.random() < 0.5)
            scale = math.exp(2.4 + 0.5 * treated + u)
            time = scale * (-math.log(1 - rng.random())) ** (1 / 1.4)
            seen = min(time, rng.uniform(6, 24))
            rows.append((centre, treated, round(seen, 3), int(time <= seen)))
    write("weibull", ("centre", "treated", "time", "relapse"), rows)


def ordinal(rng):
    """Pain on a scale of 1 to 4 at three visits of 80 patients."""
    rows = []
    cuts = (-1.2, 0.3, 1.8)
    for patient in range(1, 81):
        u = rng.gauss(0, 1.1)
        dose = (patient % 4) * 0.5
        for visit in (1, 2, 3):
            latent = -0.8 * dose - 0.3 * (visit - 1) + u + math.log(1 / rng.random() - 1)
            rows.append((patient, dose, visit, 1 + sum(latent > c for c in cuts)))
    write("ordinal", ("patient", "dose", "visit", "pain"), rows)


rng = random.Random(20240501)
for make in (censored_normal, mixture, zero_inflated, weibull, ordinal):
    make(rng)
