#!/usr/bin/env python3
"""Simulates infusion.csv, doses.csv and courses.csv. The same numbers at every run."""
import csv
import math
import os
import random

FOLDER = os.path.dirname(os.path.abspath(__file__))


def write(name, header, rows):
    with open(os.path.join(FOLDER, name + ".csv"), "w", newline="") as out:
        lines = csv.writer(out, lineterminator="\n")
        lines.writerow(header)
        lines.writerows(rows)


def infusion(draw):
    """One infusion of an hour in 48 patients, two compartments; clearance by kidney function, volume by weight."""
    for patient in range(1, 49):
        weight = round(draw.gauss(75, 12), 1)
        kidney = round(max(25, draw.gauss(90, 25)))
        cl = math.exp(math.log(5) + 0.6 * math.log(kidney / 90) + draw.gauss(0, 0.25))
        v1 = math.exp(math.log(14) + math.log(weight / 75) + draw.gauss(0, 0.2))
        q, v2 = 4.0, 22.0
        k10, k12, k21 = cl / v1, q / v1, q / v2
        total, product = k10 + k12 + k21, k10 * k21
        big = (total + math.sqrt(total * total - 4 * product)) / 2
        small = product / big
        for time in (0.5, 1, 1.5, 3, 6, 10, 16, 24):
            during, after = min(time, 1.0), max(time - 1.0, 0.0)
            amount = 500 * sum((k21 - a) / (b - a) * (1 - math.exp(-a * during)) / a * math.exp(-a * after)
                               for a, b in ((big, small), (small, big)))
            y = amount / v1 * math.exp(draw.gauss(0, 0.12))
            yield patient, weight, kidney, time, 500, round(y, 3), int(y < 0.5)


def doses(draw):
    """Tablets twice a day, absorbed after a delay; two visits, each with three days of doses before the samples."""
    for patient in range(1, 41):
        own = draw.gauss(0, 0.25)
        for visit in (1, 2):
            cl = math.exp(math.log(3) + own + draw.gauss(0, 0.15))
            v, ka, lag = math.exp(math.log(30) + draw.gauss(0, 0.1)), 1.2, 0.4
            k = cl / v
            begin = 0 if visit == 1 else 336
            yield patient, visit, begin, 4, 200, 12, 6, ""
            for time in (24.5, 49, 72.5, 74, 76, 80, 84):
                since = [time - 12 * j - lag for j in range(7) if time - 12 * j - lag > 0]
                c = sum(200 / v * ka / (ka - k) * (math.exp(-k * s) - math.exp(-ka * s)) for s in since)
                yield patient, visit, begin + time, 0, 0, 0, 0, round(c * math.exp(draw.gauss(0, 0.1)), 3)


def courses(draw):
    """A steady state of injections, then an infusion of three hours, twelve hours apart; every kind of event variable."""
    for patient in range(1, 7):
        k, v = math.exp(math.log(0.15) + draw.gauss(0, 0.1)), 20
        yield patient, 0, 1, 1, 200, 0, 12, 0, 1, 1, ""
        for time in (1, 6, 11.5, 13.5, 16, 22, 27, 34):
            if time == 13.5:
                yield patient, 12, 1, 1, 300, 100, 12, 1, 0, 1, ""
            c = 200 / v * math.exp(-k * time) / (1 - math.exp(-12 * k))
            for begin in (12, 24):
                since = time - begin
                if since > 0:
                    c += 100 / (k * v) * (1 - math.exp(-k * min(since, 3))) * math.exp(-k * max(since - 3, 0))
            yield patient, time, 0, 1, 0, 0, 0, 0, 0, 0, round(c * math.exp(draw.gauss(0, 0.1)), 3)
        yield patient, 48, 2, 1, 0, 0, 0, 0, 0, 1, ""


if __name__ == "__main__":
    generator = random.Random(20261)
    write("infusion", ("patient", "weight", "kidney", "time", "dose", "conc", "below"), infusion(generator))
    write("doses", ("patient", "visit", "time", "evid", "amt", "ii", "addl", "conc"), doses(generator))
    write("courses", ("patient", "time", "evid", "cmt", "amt", "rate", "ii", "addl", "ss", "mdv", "conc"), courses(generator))
