#!/usr/bin/env python3
"""The samplers against posteriors that are known, simulation-based calibration, and effective draws a second.

    tools/sampling_truth.py known BINARY [--seeds N]         posteriors in closed form, all samplers
    tools/sampling_truth.py calibration BINARY [--sets N]    ranks of true parameters among draws
    tools/sampling_truth.py speed BINARY                     no-U-turn sampler against the adapted walk

known: every mean and every covariance of every run is compared with the truth in Monte Carlo standard errors (by means of
batches). Of all of them at most 0.1 % may lie beyond 4 errors, none beyond 5.5.
calibration: parameters are drawn from proper priors, data from the model, and the posterior is sampled; the rank of the true
value among thinned draws is uniform when the sampler is right (chi-square over 20 bins, p above 0.001).
speed: the worst bulk effective sample size of the parameters by the seconds of the sampling, in one run each; the ratio is to be
at least 30.
Needs numpy. Exit code 1 when a bar is missed."""
import argparse, json, math, os, random, subprocess, sys, tempfile, time
import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

MIXED = ('TORVALE DATA=sleepstudy SEED=%d; PARMS b0=250 b1=10; mu = b0 + u0 + (b1 + u1)*days; MODEL reaction ~ NORMAL(mu, 655);'
         'RANDOM u0 u1 ~ NORMAL([0,0],[565,11,32]) SUBJECT=subject; MCMC %s OUT=draws; RUN;')
NORMAL = ('TORVALE DATA=posterior_normal SEED=%d; PARMS m=10 s2=8; BOUNDS s2 > 0; MODEL y ~ NORMAL(m, s2); MCMC %s OUT=draws; RUN;')

KNOWN = [  # name, program, data file, options; lengths are such that the batches are many autocorrelation times long
    ('mixed, NUTS', MIXED, 'examples/sleepstudy.csv', 'SAMPLER=NUTS SAMPLES=2500 BURN=500'),
    ('mixed, walk', MIXED, 'examples/sleepstudy.csv', 'SAMPLES=20000 BURN=4000 ADJSCALE=3000'),
    ('mixed, effects integrated', MIXED, 'examples/sleepstudy.csv', 'NOINTEGRATE SAMPLES=10000 BURN=1000 ADJSCALE=800'),
    ('normal, NUTS', NORMAL, 'tests/data/programs/posterior_normal.csv', 'SAMPLER=NUTS SAMPLES=5000 BURN=500'),
    ('normal, walk', NORMAL, 'tests/data/programs/posterior_normal.csv', 'SAMPLES=50000 BURN=2000 ADJSCALE=1500'),
    ('normal, one by one', NORMAL, 'tests/data/programs/posterior_normal.csv', 'SINGLE SAMPLES=50000 BURN=2000 ADJSCALE=1500'),
]


def draws(binary, folder, program, data):
    """Columns, draws and exit code of a run; draws are chains x draws x columns."""
    with open(os.path.join(folder, 'p.tvl'), 'w') as out:
        out.write(program)
    arguments = [binary, 'run', 'p.tvl', '--quiet', '--threads', '1'] + [w for pair in data for w in ('--data', '%s=%s' % pair)]
    done = subprocess.run(arguments, cwd=folder, capture_output=True, text=True)
    path = os.path.join(folder, 'draws.csv')
    if not os.path.exists(path):
        sys.exit('no draws:\n' + program + done.stdout + done.stderr)
    with open(path) as lines:
        names = lines.readline().strip().split(',')
        values = np.loadtxt(lines, delimiter=',', ndmin=2)
    os.remove(path)
    chain = values[:, names.index('Chain')]
    chains = [values[chain == c] for c in np.unique(chain)]
    shortest = min(len(c) for c in chains)
    return names, np.array([c[:shortest] for c in chains]), done.returncode


def truth_of(program):
    """Names, means, covariance matrix."""
    if program is NORMAL:
        return ['m', 's2'], np.array([10.9884, 7.2914968]), np.array([[0.291659872, 0.0], [0.0, 5.907325064934471]])
    d = json.load(open(os.path.join(ROOT, 'tests/data/reference/posterior_mixed.json')))
    n = len(d['names'])
    cov = np.zeros((n, n))
    for i, row in enumerate(d['posterior']['covariance_lower']):
        cov[i, :i + 1] = cov[:i + 1, i] = row
    return d['names'], np.array([d['posterior']['mean'][x] for x in d['names']]), cov


def scores(series, truth, batches):
    """Distance of the mean of `series` (chains x draws x quantities) from `truth` in standard errors by batch means."""
    chains, count, quantities = series.shape
    length = count // batches
    means = series[:, :batches * length].reshape(chains * batches, length, quantities).mean(axis=1)
    error = means.std(axis=0, ddof=1) / math.sqrt(len(means))
    return (means.mean(axis=0) - truth) / np.where(error > 0, error, np.inf)


def known(arguments):
    missed = False
    for name, program, data, options in KNOWN:
        names, mean, cov = truth_of(program)
        if 'NOINTEGRATE' in options:
            names, mean, cov = names[:2], mean[:2], cov[:2, :2]
        lower = np.tril_indices(len(names))
        all_scores = []
        for seed in range(1, arguments.seeds + 1):
            with tempfile.TemporaryDirectory() as folder:
                columns, x, _ = draws(arguments.binary, folder, program % (seed, options),
                                      [(os.path.basename(data)[:-4], os.path.join(ROOT, data))])
            x = x[:, :, [columns.index(n) for n in names]]
            all_scores.append(scores(x, mean, 25))
            centred = x - mean
            # A column at a time: the products of all pairs would fill the memory.
            all_scores.extend(scores(centred[:, :, [i]] * centred[:, :, [j]], cov[i, j], 25) for i, j in zip(*lower))
        z = np.abs(np.concatenate([np.atleast_1d(s) for s in all_scores]))
        beyond = float((z > 4).mean())
        print('%-28s %7d figures, %.4f %% beyond 4 errors, largest %.2f, root mean square %.3f'
              % (name, len(z), 100 * beyond, z.max(), math.sqrt((z * z).mean())), flush=True)
        missed |= beyond > 0.001 or z.max() > 5.5
    return missed


def simulated(kind, rng):
    """A data set and the true parameters from the prior: text of the CSV, parameters."""
    rows = []
    if kind == 'poisson':
        b0, b1 = rng.gauss(0.5, 0.5), rng.gauss(0, 0.5)
        for i in range(20):
            x = (i - 9.5) / 6
            mean, k, p = math.exp(b0 + b1 * x), 0, rng.random()
            term = math.exp(-mean)
            while p > term and k < 1000:
                p -= term
                k += 1
                term *= mean / k
            rows.append('%d,%.17g,%d' % (i, x, k))
        return 'id,x,y\n' + '\n'.join(rows) + '\n', {'b0': b0, 'b1': b1}
    m, logs = rng.gauss(0, 2), rng.gauss(0, 0.4)
    for i in range(8):
        u = rng.gauss(0, math.exp(logs))
        for _ in range(4):
            rows.append('%d,0,%.17g' % (i, m + u + rng.gauss(0, 1)))
    return 'id,x,y\n' + '\n'.join(rows) + '\n', {'m': m, 'ls': logs}


CALIBRATED = {
    'poisson': 'PARMS b0=0.5 b1=0; MODEL y ~ POISSON(EXP(b0 + b1*x));'
               "PRIOR LOGPDF('NORMAL', b0, 0.5, 0.5); PRIOR LOGPDF('NORMAL', b1, 0, 0.5);",
    'random intercept': 'PARMS m=0 ls=0; MODEL y ~ NORMAL(m + u, 1); RANDOM u ~ NORMAL(0, EXP(2*ls)) SUBJECT=id;'
                        "PRIOR LOGPDF('NORMAL', m, 0, 2); PRIOR LOGPDF('NORMAL', ls, 0, 0.4);",
}


def chi_square_tail(x, df):
    """P(chi-square with df degrees > x), by the series of the lower incomplete gamma function."""
    a, h = df / 2, x / 2
    term = total = 1 / a
    for k in range(1, 10000):
        term *= h / (a + k)
        total += term
        if term < 1e-15 * total:
            break
    return 1 - total * math.exp(-h + a * math.log(h) - math.lgamma(a)) if h > 0 else 1.0


def calibration(arguments):
    missed = False
    samplers = {'NUTS': ('SAMPLER=NUTS SAMPLES=990 BURN=500', 10), 'walk': ('SAMPLES=19800 BURN=3000 ADJSCALE=2500', 200)}
    for kind, body in CALIBRATED.items():
        for sampler, (options, thin) in samplers.items():
            rng = random.Random(1)
            ranks = {}
            for k in range(arguments.sets):
                text, true = simulated(kind, rng)
                with tempfile.TemporaryDirectory() as folder:
                    with open(os.path.join(folder, 'd.csv'), 'w') as out:
                        out.write(text)
                    program = 'TORVALE DATA=d SEED=%d; %s MCMC CHAINS=1 NOOPTIMIZE %s OUT=draws; RUN;' % (k + 1, body, options)
                    columns, x, _ = draws(arguments.binary, folder, program, [])
                kept = x[0, thin - 1::thin][:99]
                for name, value in true.items():
                    ranks.setdefault(name, []).append(int((kept[:, columns.index(name)] < value).sum()))
            for name, r in ranks.items():
                counts = np.bincount(np.array(r) // 5, minlength=20)
                expected = len(r) / 20
                statistic = float(((counts - expected) ** 2 / expected).sum())
                p = chi_square_tail(statistic, 19)
                print('%-17s %-5s %-3s %d sets, chi-square %.1f on 19, p = %.4f' % (kind, sampler, name, len(r), statistic, p), flush=True)
                missed |= p < 0.001
    return missed


def effective_rate(binary, example, options):
    """Worst bulk effective size of the parameters a second of a whole run, one thread."""
    text = open(os.path.join(ROOT, 'examples', example + '.tvl')).read()
    head, tail = text.rstrip()[:-len('RUN;')], 'RUN;'
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, 'p.tvl')
        with open(path, 'w') as out:
            out.write(head.replace('DATA=', 'SEED=1 DATA=', 1) + 'MCMC %s; ' % options + tail)
        arguments = [binary, 'run', path, '--quiet', '--threads', '1', '--json', '-',
                     '--data', '%s=%s' % (example, os.path.join(ROOT, 'examples', example + '.csv'))]
        begin = time.perf_counter()
        done = subprocess.run(arguments, capture_output=True, text=True)
        seconds = time.perf_counter() - begin
    for table in json.loads(done.stdout)['steps'][0]['groups'][0]['tables']:
        if table['name'] == 'MCMCDiagnostics':
            columns = [c['name'] for c in table['columns']]
            sizes = {row[0]: row[columns.index('ESSBulk')] for row in table['rows'] if row[0] != 'LogPost'}
            return min(sizes.values()) / seconds, min(sizes, key=sizes.get), seconds
    sys.exit('no table of diagnostics: ' + done.stderr)


def speed(arguments):
    missed = False
    for example in ('epil', 'theoph'):
        nuts = effective_rate(arguments.binary, example, 'SAMPLER=NUTS SAMPLES=1000 BURN=500')
        walk = effective_rate(arguments.binary, example, 'SAMPLES=100000 BURN=10000 ADJSCALE=8000')
        print('%-7s NUTS %.1f a second (%s, %.1f s), walk %.2f (%s, %.1f s): ratio %.1f'
              % ((example,) + nuts + walk + (nuts[0] / walk[0],)), flush=True)
        missed |= nuts[0] < 30 * walk[0]
    return missed


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('what', choices=['known', 'calibration', 'speed'])
    parser.add_argument('binary', type=os.path.abspath)
    parser.add_argument('--seeds', type=int, default=20)
    parser.add_argument('--sets', type=int, default=400)
    arguments = parser.parse_args()
    sys.exit(1 if {'known': known, 'calibration': calibration, 'speed': speed}[arguments.what](arguments) else 0)


main()
