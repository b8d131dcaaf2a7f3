#!/usr/bin/env python3
"""Simulates the data of emax.tvl, litters.tvl and reliability.tvl. The files in this folder came out of it as it stands."""

import math
import random
from pathlib import Path

HERE = Path(__file__).parent


def write(name, header, rows):
    with open(HERE / f"{name}.csv", "w") as file:
        file.write(",".join(header) + "\n")
        for row in rows:
            file.write(",".join(str(value) for value in row) + "\n")


def emax(draw):
    """Two trials of a drug: effect over dose, each patient with an own maximum and an own sensitivity."""
    for trial, (top, log_half) in {"A": (40, math.log(12)), "B": (32, math.log(25))}.items():
        for patient in range(1, 25):
            own_top = top + draw.gauss(0, 6)
            own_half = math.exp(log_half + draw.gauss(0, 0.4))
            for dose in (0, 5, 10, 25, 50, 100):
                effect = 8 + own_top * dose / (own_half + dose) + draw.gauss(0, 2)
                yield trial, f"{trial}{patient}", dose, round(effect, 1)


def litters(draw):
    """Malformed pups per litter at four doses, litters of one outcome counted once with their number."""
    counts = {}
    for dose in (0, 30, 60, 120):
        for _ in range(60):
            size = draw.choice((6, 8, 10))
            eta = -2.6 + 0.02 * dose + draw.gauss(0, 0.9)
            bad = sum(draw.random() < 1 / (1 + math.exp(-eta)) for _ in range(size))
            counts[dose, size, bad] = counts.get((dose, size, bad), 0) + 1
    for kind, ((dose, size, bad), number) in enumerate(sorted(counts.items()), 1):
        yield kind, dose, size, bad, number


def reliability(draw):
    """Hours to failure of valves from twelve makers, read every 100 hours until 1000: only an interval is known."""
    for maker in range(1, 13):
        shift = draw.gauss(0, 0.35)
        for _ in range(15):
            pressure = draw.choice((2, 4, 6))
            scale = math.exp(7.2 - 0.22 * pressure + shift)
            hours = scale * (-math.log(draw.random())) ** (1 / 1.8)
            low = min(1000, 100 * math.floor(hours / 100))
            yield maker, pressure, low, "" if low == 1000 else low + 100


if __name__ == "__main__":
    generator = random.Random(20240607)
    write("emax", ("trial", "patient", "dose", "effect"), emax(generator))
    write("litters", ("kind", "dose", "size", "malformed", "litters"), litters(generator))
    write("reliability", ("maker", "pressure", "low", "high"), reliability(generator))
