#!/usr/bin/env python3
"""Generated nonlinear regressions with bad starts, fitted as likelihoods.

    tools/hard_regressions.py BINARY [--cases N] [--seed S] [--technique T] [--verbose]

y ~ NORMAL(mean, s2), the mean a sum of exponentials, a rational function, a saturating curve or a peak, the start off by factors
of 0.1 to 10 in every parameter, s2 started at the residual mean square of the start. The answer is the best -2 log L that fits from the
truth and from the start reach with any technique. Counted: fits that reach it with exit code 0; wrong successes, which
claim exit code 0 where the fit, started again from its own estimates moved by up to a standard error, finds a point better by
1e-3; and fits that stop at another local minimum. Exit code 1 when there is a wrong success."""
import argparse, collections, math, os, random, sys, tempfile
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from hard_fits import Case, better_point, run


def mean_of(text, parameters, x):
    names = dict(parameters, x=x, exp=lambda v: math.exp(min(v, 700)), atan=math.atan, log=math.log)
    return eval(text.replace('**', '**'), {'__builtins__': {}}, names)


FAMILIES = [
    ('exponentials', 'a*exp(-b*x)+c*exp(-d*x)', lambda r: dict(a=r.uniform(2, 10), b=r.uniform(.8, 2), c=r.uniform(1, 6), d=r.uniform(.05, .25))),
    ('decay', 'a+b*exp(-c*x)', lambda r: dict(a=r.uniform(-5, 5), b=r.uniform(5, 20), c=r.uniform(.2, 1))),
    ('rational', '(a+b*x)/(1+c*x)', lambda r: dict(a=r.uniform(.5, 3), b=r.uniform(2, 10), c=r.uniform(.2, 1))),
    ('quadratic rational', 'a*(x*x+b*x)/(x*x+c*x+d)', lambda r: dict(a=r.uniform(1, 5), b=r.uniform(.5, 2), c=r.uniform(1, 3), d=r.uniform(1, 4))),
    ('saturation', 'a*x/(b+x)', lambda r: dict(a=r.uniform(5, 200), b=r.uniform(.5, 3))),
    ('growth', 'a*(1-exp(-b*x))', lambda r: dict(a=r.uniform(20, 500), b=10 ** r.uniform(-1.5, 0))),
    ('logistic', 'a/(1+exp(b-c*x))', lambda r: dict(a=r.uniform(5, 300), b=r.uniform(2, 5), c=r.uniform(.8, 2))),
    ('peak', 'a+b*exp(-((x-c)/d)**2)', lambda r: dict(a=r.uniform(.5, 2), b=r.uniform(5, 20), c=r.uniform(3, 7), d=r.uniform(.8, 2))),
    ('power', 'a*x**b', lambda r: dict(a=r.uniform(.5, 5), b=r.uniform(.4, 2.5))),
    ('dose', 'a+(b-a)/(1+(x/c)**d)', lambda r: dict(a=r.uniform(0, 2), b=r.uniform(8, 20), c=r.uniform(2, 6), d=r.uniform(1.5, 4))),
]


def regression(r, number):
    kind, text, draw = FAMILIES[number % len(FAMILIES)]
    truth = draw(r)
    n = r.randint(15, 60)
    x = sorted(r.uniform(.1, 10) for _ in range(n))
    clean = [mean_of(text, truth, v) for v in x]
    spread = (max(clean) - min(clean)) or 1.0
    sd = spread * 10 ** r.uniform(-2.5, -1)
    y = [m + r.gauss(0, sd) for m in clean]
    unit = 10.0 ** r.choice([0, 0, 0, -3, 3, 6])    # of the response
    linear = dict(exponentials='ac', decay='ab', rational='ab', saturation='a', growth='a', logistic='a', peak='ab',
                  power='a', dose='ab').get(kind, 'a')
    y = [v * unit for v in y]
    truth = {k: v * unit if k in linear else v for k, v in truth.items()}
    start = {k: v * 10 ** r.uniform(-1, 1) for k, v in truth.items()}
    try:
        rss = sum((v - mean_of(text, start, u)) ** 2 for u, v in zip(x, y))
    except (OverflowError, ZeroDivisionError):
        return regression(r, number)
    start['s2'] = rss / n
    truth['s2'] = sum((v - mean_of(text, truth, u)) ** 2 for u, v in zip(x, y)) / n
    return Case(kind, dict(x=x, y=y), 'mu=%s; MODEL y ~ NORMAL(mu,s2);' % text, start,
                bounds={'saturation': 'b>=0', 'rational': 'c>=0', 'quadratic rational': 'c>=0, d>=0', 'dose': 'c>=0'}.get(kind, ''),
                near=truth)


def main():
    args = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    args.add_argument('binary')
    args.add_argument('--cases', type=int, default=200)
    args.add_argument('--seed', type=int, default=1)
    args.add_argument('--technique', default='')
    args.add_argument('--keep')
    args.add_argument('--verbose', action='store_true')
    args = args.parse_args()
    binary = os.path.abspath(args.binary)
    counts = collections.defaultdict(collections.Counter)
    with tempfile.TemporaryDirectory() as folder:
        for number in range(args.cases):
            r = random.Random('%d/%d' % (args.seed, number))
            case = regression(r, number)
            case.write(folder)
            fit = run(binary, folder, case.program(case.start, args.technique))
            answer = min((f.m2ll for f in (run(binary, folder, case.program(case.near, t)) for t in ('', 'TRUREG'))
                          if f.m2ll is not None), default=None)
            reached = fit.m2ll is not None and answer is not None and fit.m2ll < answer + 1e-3
            if reached:
                word = 'reached' if fit.code == 0 else 'reached, exit %d' % fit.code
            elif fit.code == 0:
                word = 'wrong' if better_point(binary, folder, case, fit, r) is not None else 'other minimum'
            else:
                word = 'exit %d' % fit.code
            counts[case.kind][word] += 1
            counts['all'][word] += 1
            if word == 'wrong' or (args.verbose and word != 'reached'):
                print('%4d %-18s %-16s %s, answer %s' % (number, case.kind, word, fit.m2ll, answer), flush=True)
                if args.keep:
                    place = os.path.join(args.keep, 'r%d_%d' % (args.seed, number))
                    os.makedirs(place, exist_ok=True)
                    case.write(place)
                    with open(os.path.join(place, 'p.tvl'), 'w') as out:
                        out.write(case.program(case.start, args.technique))
    words = sorted(counts['all'])
    print('%-20s' % 'family' + ''.join('%18s' % w for w in words))
    for kind, counter in counts.items():
        print('%-20s' % kind + ''.join('%18d' % counter[w] for w in words))
    return 1 if counts['all']['wrong'] else 0


if __name__ == '__main__':
    sys.exit(main())
