#!/usr/bin/env python3
"""Writes event_histories.csv: random dosing histories with what is in the central compartment at every record.

The doses are laid out one by one (steady state as the limit of 2**60 intervals) and the linear system is advanced by matrix
exponentials of its whole state between all the times where something begins or ends. Needs numpy and scipy.
"""
import random
import sys

import numpy as np
from scipy.linalg import expm

RATES = ["KE", "K12", "K21", "K13", "K31", "KA"]


def system(n, oral, k):
    a = np.zeros((4, 4))
    for i, (out, back) in enumerate((("K12", "K21"), ("K13", "K31")), start=1):
        if i >= n:
            break
        a[0, 0] -= k[out]; a[i, 0] += k[out]; a[0, i] += k[back]; a[i, i] -= k[back]
    a[0, 0] -= k["KE"]
    if oral:
        a[3, 3] -= k["KA"]; a[0, 3] += k["KA"]
    return a


def advance(x, a, inputs, t0, t1):
    """Inputs: (start, end, rate vector) and, for a bolus, (time, time, amount vector), after t0 (or at it, see below)."""
    cuts = sorted({t0, t1} | {min(max(c, t0), t1) for s, e, _ in inputs for c in (s, e)})
    for lo, hi in zip(cuts, cuts[1:] + [None]):
        for s, e, v in inputs:
            if s == e == lo and t0 < s <= t1:
                x = x + v
        if hi is None or hi == lo:
            continue
        u = sum((v for s, e, v in inputs if e > s and s <= lo and e >= hi), np.zeros(4))
        big = np.zeros((5, 5)); big[:4, :4] = a; big[:4, 4] = u
        x = (expm(big * (hi - lo)) @ np.append(x, 1.0))[:4]
    return x


def history(rng, n, oral, features):
    t, rows, k0 = 0.0, [], {r: round(rng.uniform(0.08, 0.9), 3) for r in RATES}
    k0["KA"] = round(rng.uniform(0.5, 2), 3)
    for _ in range(rng.randint(6, 14)):
        t = round(t + rng.choice([0, 0.5, 1, 3, 7.25]), 3)
        r = dict(time=t, amt=0.0, evid=0, cmt=0, rate=0.0, ii=0.0, addl=0, ss=0, mdv=0, lag=0.0, bio=1.0)
        kind = rng.random()
        if kind < 0.55 or not rows:
            r["evid"], r["amt"] = 1, float(rng.randint(20, 200))
            r["bio"] = round(rng.uniform(0.5, 1), 2) if "bio" in features else 1.0
            r["cmt"] = rng.randint(0, n + (1 if oral else 0))
            if "rate" in features and rng.random() < 0.6:
                r["rate"] = float(rng.choice([10, 25, 60, -1, -2]))
            if "lag" in features:
                r["lag"] = round(rng.uniform(0, 9.5 if "late" in features else 1.9), 2)
            if "addl" in features and rng.random() < 0.5:
                r["addl"], r["ii"] = rng.randint(1, 5), rng.choice([2.0, 3.5, 6.0])
            if "ss" in features and rng.random() < 0.4:
                r["ss"], r["ii"] = rng.choice([1, 2]), rng.choice([2.5, 6.0])
                if "rate" in features and rng.random() < 0.2:
                    r.update(amt=0.0, rate=12.0, ii=0.0, addl=0, lag=0.0, bio=1.0)
        elif kind < 0.65:
            r["evid"] = 2
        elif kind < 0.72:
            r["evid"] = rng.choice([3, 4])
            if r["evid"] == 4:
                r["amt"] = 50.0
        elif kind < 0.8:
            r["mdv"] = 1
        if "vary" in features:
            r.update({x: round(k0[x] * rng.uniform(0.7, 1.4), 3) for x in RATES})
        else:
            r.update(k0)
        rows.append(r)
    return rows


def amounts(rows, n, oral, option_rate=30.0, option_durn=1.6):
    x, inputs, out, last = np.zeros(4), [], [], None
    for r in rows:
        a, t = system(n, oral, r), r["time"]
        reset = r["evid"] in (3, 4)
        if reset:
            x, inputs = np.zeros(4), []
        elif last is not None:
            x = advance(x, a, inputs, last, t)
        if r["evid"] in (1, 4):
            c = r["cmt"] if r["cmt"] else 1
            where = (c - 2) % 4 if oral else c - 1
            unit = np.eye(4)[where]
            size = r["amt"] * r["bio"]
            rate = option_rate if r["rate"] == -1 else size / option_durn if r["rate"] == -2 else r["rate"]
            endless = r["ss"] and r["amt"] == 0
            length = np.inf if endless else size / rate if rate else 0.0
            vector = unit * (rate if rate else size)
            if r["ss"] == 1:
                x, inputs = np.zeros(4), []
            if endless:
                full = 4 if oral else n
                keep = [0, 1, 2][:n] + ([3] if oral else [])
                level = np.zeros(4)
                level[keep] = np.linalg.solve(-a[np.ix_(keep, keep)], vector[keep])
                x = x + level
            elif r["ss"]:
                every, late = r["ii"], int(r["lag"] // r["ii"])  # late: doses still to come
                since = (late + 1) * every - r["lag"]
                older = int(np.ceil(length / every)) if length else 0  # doses whose infusion may still run
                train = [(-j * every, length - j * every, vector) for j in range(older)] if length else []
                step, plus = expm(a * every), advance(vector * (not length), a, train, 0.0, every)
                for _ in range(60):
                    plus, step = step @ plus + plus, step @ step
                x = x + advance(plus + vector * (not length), a, train, 0.0, since)
                inputs += [(s + t - since, e + t - since, v) for s, e, v in train if e + t - since > t]
                inputs += [(t + r["lag"] - j * every, t + r["lag"] - j * every + length, vector) for j in range(1, late + 1)]
            for j in range(r["addl"] + 1):
                s = t + r["lag"] + j * r["ii"]
                if s == t and not length:
                    x = x + vector
                else:
                    inputs.append((s, s + length, vector))
        last = t
        out.append(x.copy())
    return out


def main():
    rng = random.Random(11)
    names = ["id", "n", "oral", "time", "amt", "evid", "cmt", "rate", "ii", "addl", "ss", "mdv", "lag", "bio"] + RATES
    print(",".join(names + ["a1", "a2", "a3", "a0"]))
    everything = ["rate", "lag", "addl", "ss", "vary", "bio"]
    for i in range(230):
        n, oral = 1 + i % 3, i // 3 % 2 == 1
        features = [f for f in everything if rng.random() < 0.5]
        if i >= 200:  # lags of several intervals
            features = ["lag", "ss", "late"] + [f for f in ("rate", "addl", "vary") if f in features]
        rows = history(rng, n, oral, features)
        for r, x in zip(rows, amounts(rows, n, oral)):
            values = [i + 1, n, int(oral)] + [r[c] for c in names[3:]]
            print(",".join(f"{v:.12g}" for v in values) + "," + ",".join(f"{v:.13g}" for v in x))


if __name__ == "__main__":
    sys.exit(main())
