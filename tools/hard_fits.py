#!/usr/bin/env python3
"""Generated fits that are hard to end well, and a judge who was not at the fit.

    tools/hard_fits.py BINARY [--cases N] [--seed S] [--only CLASS] [--keep FOLDER] [--units] [--verbose]

Each case is a data set, a model and a start of one of the classes below. The binary fits it with one of the techniques.
When it claims success (exit code 0), the fit is started again from its own estimates, moved by up to a standard error,
with other techniques: a point that is better by 1e-3 in -2 log L (and by more than the
verdict says that more quadrature points would change) is a wrong success. When it does not (5 or 7), other
starts and techniques look for an optimum that can be confirmed: if there is one, the failure was needless.
With --units, each case is fitted again with its response, a covariate or its effects in units of 1e-3 and 1e3, and, without
strict bounds, of 1e-6 and 1e6: no exit code may change.
Only Python's own library is used. Exit code 1 when a wrong success was found, or an exit code that changed."""
import argparse, collections, json, math, os, random, re, subprocess, sys, tempfile

# What multiplies a parameter when response, covariates or effects are in other units.
UNITS = dict(b0='y', b1='y/x', b2='y/z', b3='y/w', s2='y*y', s2u='y*y*u*u', cuv='y*y/x', s2v='(y/x)**2')

TECHNIQUES = ['', 'QUANEW', 'TRUREG', 'NEWRAP', 'NRRIDG', 'DBLDOG', 'CONGRA', 'NMSIMP']


class Case:
    """columns: name -> values; body: statements behind PARMS; start: name -> value; bounds: text or ''."""

    def __init__(self, kind, columns, body, start, bounds='', near=None, options='', optimum=True, units=None):
        self.kind, self.columns, self.body, self.start, self.bounds = kind, columns, body, dict(start), bounds
        self.near = near or {}    # another start, nearer to the truth
        self.options = options
        self.optimum = optimum    # False: the likelihood has no maximum at finite parameters, or several
        self.units = units or {}  # of parameters, where they are not those of UNITS

    def in_units(self, what, factor):
        """The same case with 'y', 'u' or a covariate in another unit; None where it has no such thing."""
        normal = 'NORMAL(' in self.body.split('MODEL')[1].split(';')[0]
        effects = not normal and '+u' in self.body
        if (what == 'y' and not normal) or (what == 'u' and not effects) or (what not in 'yu' and what not in self.columns):
            return None
        unit = dict.fromkeys('yuxzwt', 1.0)
        unit[what] = factor
        scaled = lambda values: {k: v * eval(self.units.get(k, UNITS.get(k, '1')), {}, unit) for k, v in values.items()}
        columns = {k: [v * factor for v in values] if k == what else values for k, values in self.columns.items()}
        body = self.body.replace('+u', '+u/%g' % factor) if what == 'u' else self.body
        return Case(self.kind, columns, body, scaled(self.start), self.bounds, scaled(self.near), self.options, self.optimum, self.units)

    def program(self, start, technique, points=None):
        parms = ' '.join('%s=%.17g' % item for item in start.items())
        tech = ' TECHNIQUE=' + technique if technique else ''
        bounds = ' BOUNDS %s;' % self.bounds if self.bounds else ''
        return 'TORVALE DATA=d%s %s; PARMS %s;%s %s RUN;\n' % (tech, self.options + (' QPOINTS=%d' % points if points else ''), parms, bounds, self.body)

    def write(self, folder):
        names = list(self.columns)
        with open(os.path.join(folder, 'd.csv'), 'w') as out:
            out.write(','.join(names) + '\n')
            for row in zip(*self.columns.values()):
                out.write(','.join('%.17g' % v for v in row) + '\n')


class Fit:
    def __init__(self, code, m2ll=None, estimates=None, errors=None, messages=(), points=None, integral=0.0):
        self.code, self.m2ll, self.messages, self.points = code, m2ll, messages, points
        self.integral = integral    # what more quadrature points change, as the verdict says
        self.estimates, self.errors = estimates or {}, errors or {}


def table(group, name):
    for t in reversed(group['tables']):    # the last one counts
        if t['name'] == name:
            return [dict(zip([c['name'] for c in t['columns']], row)) for row in t['rows']]
    return []


def run(binary, folder, program):
    path = os.path.join(folder, 'p.tvl')
    with open(path, 'w') as out:
        out.write(program)
    try:
        done = subprocess.run([binary, 'run', path, '--quiet', '--json', '-'], capture_output=True, text=True, timeout=60)
    except subprocess.TimeoutExpired:
        return Fit(-99)
    try:
        step = json.loads(done.stdout)['steps'][0]
        group = step['groups'][0]
    except (ValueError, LookupError):
        return Fit(done.returncode)
    rows = table(group, 'ParameterEstimates')
    estimates = {r['Parameter']: r['Estimate'] for r in rows}
    errors = {r['Parameter']: r.get('StandardError') for r in rows}
    m2ll = (group.get('fit') or {}).get('minus2_log_likelihood')
    if m2ll is None and table(group, 'FitStatistics'):
        m2ll = table(group, 'FitStatistics')[0]['Value']
    points = [r['Value'] for r in table(group, 'Dimensions') if 'Quadrature' in r['Descr']]
    told = [re.search(r'by (-?[\d.e+-]+[\de])', r['Finding']) for r in table(group, 'FitVerdict') if r['Item'] == 'Quadrature']
    integral = abs(float(told[0].group(1))) if told and told[0] else 0.0
    return Fit(done.returncode, m2ll, estimates, errors, ['%d/%d' % (m['group'], m['number']) for m in step['messages']],
               points[-1] if points else None, integral)


# ---- The classes ----------------------------------------------------------------------------------------------------

def poisson(r, mean):
    limit, k, p = math.exp(-min(mean, 600)), 0, 1.0
    while True:
        p *= r.random()
        if p <= limit:
            return k
        k += 1


def logistic(x):
    return 1 / (1 + math.exp(-max(-700, min(700, x))))


def grouped(r, groups, size, effect=0.0):
    """id, x, u of a grouped design."""
    ids, xs, us = [], [], []
    for g in range(groups):
        u = r.gauss(0, 1) * effect
        for j in range(size):
            ids.append(g + 1), xs.append(j - (size - 1) / 2 if r.random() < .9 else r.gauss(0, 1)), us.append(u)
    return ids, xs, us


BERNOULLI = 'eta=%s; p=1/(1+exp(-eta)); MODEL y ~ BINARY(p);'
VARIANCE_BOUND = ['', 's2u>=0', 's2u>0']


def variance_at_zero(r):
    ids, x, u = grouped(r, r.randint(5, 20), r.randint(2, 6), r.choice([0, 0, .1, 2]))
    start_variance = r.choice([0.01, 1, 1, 50, 1000])
    bound = r.choice(VARIANCE_BOUND)
    if bound == 's2u>=0' and r.random() < .4:
        start_variance = 0
    family = r.randrange(3)
    random_part = ' RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;'
    if family == 0:
        y = [1 + .5 * a + b + r.gauss(0, 1) for a, b in zip(x, u)]
        bound = (bound + ', s2>0') if bound else r.choice(['', 's2>0'])
        return Case('variance 0', dict(id=ids, x=x, y=y), 'MODEL y ~ NORMAL(b0+b1*x+u,s2);' + random_part,
                    dict(b0=0, b1=0, s2u=start_variance, s2=r.choice([1, 1, 20])), bound)
    if family == 1:
        y = [poisson(r, math.exp(.5 + .1 * a + .5 * b)) for a, b in zip(x, u)]
        return Case('variance 0', dict(id=ids, x=x, y=y), 'MODEL y ~ POISSON(exp(b0+b1*x+u));' + random_part,
                    dict(b0=0, b1=0, s2u=min(start_variance, 10)), bound)
    y = [int(r.random() < logistic(.2 + .3 * a + b)) for a, b in zip(x, u)]
    return Case('variance 0', dict(id=ids, x=x, y=y), BERNOULLI % 'b0+b1*x+u' + random_part,
                dict(b0=0, b1=0, s2u=min(start_variance, 10)), bound, optimum=False)


def edge_of_covariance(r):
    groups, size = r.randint(6, 15), r.randint(3, 7)
    ids, x, y = [], [], []
    for g in range(groups):
        u = r.gauss(0, 1)
        v = r.choice([0, .3, -.3]) * u + r.gauss(0, 1) * r.choice([0, 0, .2])
        for j in range(size):
            ids.append(g + 1), x.append(j), y.append(5 + u + (1 + v) * j + r.gauss(0, 1))
    bounds = r.choice(['', 's2u>=0, s2v>=0, s2>0', 's2u>0, s2v>0, s2>0', 's2>0'])
    start = dict(b0=r.choice([0, 5]), b1=0, s2u=r.choice([1, 1, 10]), cuv=0, s2v=r.choice([1, .1, 1]), s2=1)
    return Case('edge of G', dict(id=ids, x=x, y=y),
                'MODEL y ~ NORMAL(b0+u+(b1+v)*x,s2); RANDOM u v ~ NORMAL([0,0],[s2u,cuv,s2v]) SUBJECT=id;', start, bounds)


def separation(r):
    n = r.randint(6, 40)
    x = [r.gauss(0, 1) for _ in range(n)]
    z = [r.randint(0, 1) for _ in range(n)]
    kind = r.randrange(4)
    if kind == 0:      # complete
        y = [int(a > 0) for a in x]
    elif kind == 1:    # one group without events
        y = [0 if b else r.randint(0, 1) for b in z]
    elif kind == 2:    # nearly
        y = [int(a + .3 * r.gauss(0, 1) > 0) for a in x]
    else:              # counts, a group of zeros
        y = [0 if b else poisson(r, 2) for b in z]
        return Case('separation', dict(x=x, z=z, y=y), 'MODEL y ~ POISSON(exp(b0+b1*z));', dict(b0=0, b1=0), optimum=False,
                    units=dict(b1='y/z'))
    return Case('separation', dict(x=x, z=z, y=y), BERNOULLI % 'b0+b1*x+b2*z', dict(b0=0, b1=0, b2=0), optimum=False)


def collinear(r):
    n = r.randint(10, 60)
    x = [r.gauss(0, 1) for _ in range(n)]
    z = [r.gauss(0, 1) for _ in range(n)]
    w = [2 * a - b for a, b in zip(x, z)] if r.random() < .6 else [1.0] * n
    if r.random() < .3:    # nearly
        w = [a + 1e-3 * r.gauss(0, 1) for a in w]
    c = dict(x=x, z=z, w=w)
    start = dict(b0=0, b1=0, b2=0, b3=0)
    if r.random() < .5:
        c['y'] = [1 + a + r.gauss(0, 1) for a in x]
        return Case('collinear', c, 'MODEL y ~ NORMAL(b0+b1*x+b2*z+b3*w,s2);', dict(start, s2=1), r.choice(['', 's2>0']))
    c['y'] = [poisson(r, math.exp(.3 * a + .5)) for a in x]
    return Case('collinear', c, 'MODEL y ~ POISSON(exp(b0+b1*x+b2*z+b3*w));', start)


def one_record(r):
    n = r.randint(8, 60)
    x = [r.gauss(0, 1) for _ in range(n)]
    u = [r.gauss(0, 1) * r.choice([0, .7]) for _ in range(n)]
    c = dict(id=list(range(1, n + 1)), x=x)
    bound = r.choice(VARIANCE_BOUND)
    if r.random() < .4:
        c['y'] = [1 + .5 * a + r.gauss(0, 1) for a in x]
        return Case('one record', c, 'MODEL y ~ NORMAL(b0+b1*x+u,s2); RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;',
                    dict(b0=0, b1=0, s2u=1, s2=1), bound)
    c['y'] = [poisson(r, math.exp(.5 + .3 * a + b)) for a, b in zip(x, u)]
    return Case('one record', c, 'MODEL y ~ POISSON(exp(b0+b1*x+u)); RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;',
                dict(b0=0, b1=0, s2u=1), bound)


def scales(r):
    ids, x, u = grouped(r, r.randint(6, 15), r.randint(3, 6), 1)
    sx, sy = 10.0 ** r.randint(-8, 8), 10.0 ** r.randint(-8, 8)
    if r.random() < .5:
        x = [a * sx for a in x]
        y = [poisson(r, math.exp(.7 + .2 * a / sx + .5 * b)) for a, b in zip(x, u)]
        return Case('scales', dict(id=ids, x=x, y=y), 'MODEL y ~ POISSON(exp(b0+b1*x+u)); RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;',
                    dict(b0=0, b1=0, s2u=1), r.choice(VARIANCE_BOUND))
    sy = 10.0 ** r.randint(-4, 8)
    y = [sy * (3 + .5 * a + b + r.gauss(0, 1)) for a, b in zip(x, u)]
    f = r.choice([.1, 1, 10])
    return Case('scales', dict(id=ids, x=x, y=y), 'MODEL y ~ NORMAL(b0+b1*x+u,s2); RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;',
                r.choice([dict(b0=0, b1=0, s2u=1, s2=1), dict(b0=f * sy, b1=0, s2u=f * sy * sy, s2=f * sy * sy)]),
                near=dict(b0=3 * sy, b1=.5 * sy, s2u=sy * sy, s2=sy * sy))


def far_start(r):
    ids, t, u = [], [], []
    for g in range(r.randint(5, 14)):
        e = r.gauss(0, .3)
        for j in range(r.randint(5, 8)):
            ids.append(g + 1), t.append(j * .7 + .1), u.append(e)
    f = [10 ** r.uniform(-1, 1) for _ in range(3)]
    bounds = r.choice(['s2u>=0, s2>0', 's2u>0, s2>0', ''])
    kind = r.randrange(3)
    if kind == 0:
        y = [(10 + 3 * b) * math.exp(-.5 * a) + r.gauss(0, .4) for a, b in zip(t, u)]
        body, truth, units = 'MODEL y ~ NORMAL((a+u)*exp(-k*t),s2);', dict(a=10, k=.5, s2u=.8, s2=.16), dict(k='1/t')
    elif kind == 1:
        y = [10 * a / (1.5 + a) * math.exp(b) + r.gauss(0, .4) for a, b in zip(t, u)]
        body, truth = 'MODEL y ~ NORMAL(a*exp(u)*t/(k+t),s2);', dict(a=10, k=1.5, s2u=.1, s2=.16)
        units = dict(k='t', s2u='1')
    else:
        y = [(10 + 3 * b) / (1 + math.exp(-(a - 2) / .6)) + r.gauss(0, .4) for a, b in zip(t, u)]
        body, truth = 'MODEL y ~ NORMAL((a+u)/(1+exp(-(t-m)/k)),s2);', dict(a=10, m=2, k=.6, s2u=.8, s2=.16)
        units = dict(m='t', k='t')
    start = {name: value * f[i % 3] for i, (name, value) in enumerate(truth.items())}
    if r.random() < .4:
        start['s2u'] = start['s2'] = 1
    return Case('far start', dict(id=ids, t=t, y=y), body + ' RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;', start, bounds, near=truth,
                units=dict(units, a='y'))


def constant(r):
    ids, x, _ = grouped(r, r.randint(3, 8), r.randint(2, 5))
    value = r.choice([0, 1, 3])
    kind = r.randrange(3)
    if kind == 0:
        return Case('constant response', dict(id=ids, x=x, y=[min(value, 1)] * len(x)), BERNOULLI % 'b0+u' +
                    ' RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;', dict(b0=0, s2u=1), r.choice(VARIANCE_BOUND), optimum=False)
    return Case('constant response', dict(id=ids, x=x, y=[value] * len(x)), 'MODEL y ~ POISSON(exp(b0+b1*x+u));'
                ' RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;', dict(b0=0, b1=0, s2u=1), r.choice(VARIANCE_BOUND),
                optimum=value != 0)


def outlier(r):
    n = r.randint(15, 60)
    x = [r.gauss(0, 1) for _ in range(n)]
    if r.random() < .5:
        y = [poisson(r, math.exp(1 + .3 * a)) for a in x]
        y[r.randrange(n)] = r.choice([300, 2000])
        return Case('outlier', dict(x=x, y=y), 'MODEL y ~ POISSON(exp(b0+b1*x+b2*x*x));',
                    dict(b0=r.choice([0, 1, 5]), b1=r.choice([0, 1, -1]), b2=0), units=dict(b2='y/x/x'))
    ids = [i // 4 + 1 for i in range(n)]
    y = [1 + .5 * a + r.gauss(0, 1) for a in x]
    y[r.randrange(n)] = r.choice([1e3, -1e4])
    return Case('outlier', dict(id=ids, x=x, y=y), 'MODEL y ~ NORMAL(b0+b1*x+u,s2); RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;',
                dict(b0=0, b1=0, s2u=1, s2=1), r.choice(['', 's2u>=0', 's2u>0, s2>0']))


def tiny(r):
    n = r.randint(4, 7)
    x = [r.gauss(0, 1) for _ in range(n)]
    ids = [i // 2 + 1 for i in range(n)]
    if r.random() < .5:
        y = [poisson(r, math.exp(1 + .3 * a)) + (i == 0) for i, a in enumerate(x)]
        return Case('tiny sample', dict(id=ids, x=x, y=y), 'MODEL y ~ POISSON(exp(b0+b1*x+u)); RANDOM u ~ NORMAL(0,s2u) SUBJECT=id;',
                    dict(b0=0, b1=0, s2u=1), r.choice(VARIANCE_BOUND), optimum=False)
    y = [1 + .5 * a + r.gauss(0, 1) for a in x]
    return Case('tiny sample', dict(id=ids, x=x, y=y), 'MODEL y ~ NORMAL(b0+b1*x,s2);', dict(b0=0, b1=0, s2=r.choice([1, .01, 100])),
                r.choice(['', 's2>0']))


CLASSES = [variance_at_zero, edge_of_covariance, separation, collinear, one_record, scales, far_start, constant, outlier, tiny]


# ---- The judge ------------------------------------------------------------------------------------------------------

def better_point(binary, folder, case, fit, r):
    """The best -2 log L that restarts from within a standard error reach, when it is better; else None."""
    if fit.m2ll is None:
        return None
    best = fit.m2ll
    if 'NORMAL(' not in case.body.split('MODEL')[1].split(';')[0] and abs(best) < 1e-2:
        return 0.0    # the likelihood of counts has 1 as its limit, which no estimates reach
    for technique in r.sample(['TRUREG', 'QUANEW', 'NMSIMP', 'NRRIDG'], 3):
        start = {}
        for name, value in fit.estimates.items():
            error = fit.errors.get(name)
            if error is None:
                error = .1 * abs(value) if value else 1e-2 if name.startswith('s2') else 0.0
            start[name] = value + error * r.uniform(-1, 1)
            if name.startswith('s2'):
                start[name] = max(start[name], .3 * value, 1e-6 * abs(value), 1e-7)
        again = run(binary, folder, case.program(start, technique, fit.points))  # the same integral
        if again.m2ll is not None and again.m2ll < best:
            best = again.m2ll
    # Where more points change the integral, the one that was computed has ripples of that size.
    return best if best < fit.m2ll - max(1e-3, fit.integral) else None


def confirmed_elsewhere(binary, folder, case, r):
    """An optimum that some start and technique reach with exit code 0."""
    for start in (dict(case.start, **case.near), case.start):
        for technique in ('QUANEW', 'TRUREG', 'NRRIDG', 'NMSIMP'):
            fit = run(binary, folder, case.program(start, technique))
            if fit.code == 0:
                return fit
    return None


def changed_by_units(binary, folder, case, technique, code):
    """[(what, factor, exit code)] where the exit code is another in other units."""
    changed = []
    for what in 'yuxzwt':
        for factor in (1e-3, 1e3) if '>0' in case.bounds else (1e-3, 1e3, 1e-6, 1e6):
            other = case.in_units(what, factor)
            if other is None:
                continue
            other.write(folder)
            fit = run(binary, folder, other.program(other.start, technique))
            if fit.code != code:
                changed.append((what, factor, fit.code))
    return changed


def main():
    args = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    args.add_argument('binary')
    args.add_argument('--cases', type=int, default=200)
    args.add_argument('--seed', type=int, default=1)
    args.add_argument('--only', help='one class, by the name of its function')
    args.add_argument('--technique', help='one technique for all')
    args.add_argument('--keep', help='folder for the cases that went wrong')
    args.add_argument('--units', action='store_true', help='also in other units')
    args.add_argument('--verbose', action='store_true')
    args = args.parse_args()
    binary = os.path.abspath(args.binary)
    counts = collections.defaultdict(collections.Counter)
    classes = [c for c in CLASSES if args.only in (None, c.__name__)]
    with tempfile.TemporaryDirectory() as folder:
        for number in range(args.cases):
            r = random.Random('%d/%d' % (args.seed, number))
            case = classes[number % len(classes)](r)
            technique = r.choice(TECHNIQUES)
            if args.technique is not None:
                technique = args.technique
            case.write(folder)
            program = case.program(case.start, technique)
            fit = run(binary, folder, program)
            word = {0: 'confirmed', 6: 'singular', 5: 'refused', 7: 'refused'}.get(fit.code, 'error')
            note = ''
            if word in ('confirmed', 'singular') and fit.m2ll is not None:
                best = better_point(binary, folder, case, fit, r)
                if best is not None:
                    word = 'wrong' if word == 'confirmed' else 'singular, better near'
                    note = '%.6g better' % (fit.m2ll - best)
            elif word == 'refused':
                other = confirmed_elsewhere(binary, folder, case, r)
                if other is not None:
                    word, note = 'needless', 'exit %d, %s elsewhere with exit %d' % (fit.code, other.m2ll, other.code)
            changed = changed_by_units(binary, folder, case, technique, fit.code) if args.units else []
            for kind in (case.kind, 'all'):
                counts[kind][word] += 1
                counts[kind]['units'] += bool(changed)
            if changed:
                note += ' exit %d, in units of %s' % (fit.code, ', '.join('%s*%g: %d' % c for c in changed))
            if args.verbose or changed or word in ('wrong', 'needless', 'error', 'singular, better near'):
                print('%4d %-18s %-8s %-10s %s %s' % (number, case.kind, technique or 'default', word, fit.m2ll, note), flush=True)
                if args.keep and (changed or word != 'confirmed'):
                    place = os.path.join(args.keep, '%d_%d' % (args.seed, number))
                    os.makedirs(place, exist_ok=True)
                    case.write(place)
                    with open(os.path.join(place, 'p.tvl'), 'w') as out:
                        out.write(program)
    words = ['confirmed', 'singular', 'refused', 'wrong', 'singular, better near', 'needless', 'error', 'units']
    print('%-18s' % 'class' + ''.join('%23s' % w for w in words))
    for kind, counter in counts.items():
        print('%-18s' % kind + ''.join('%23d' % counter[w] for w in words))
    return 1 if counts['all']['wrong'] or counts['all']['units'] else 0


if __name__ == '__main__':
    sys.exit(main())
