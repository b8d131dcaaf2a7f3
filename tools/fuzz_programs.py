#!/usr/bin/env python3
"""Whole programs with small data, changed at random: no crash, no hang, no end without a word.

    tools/fuzz_programs.py BINARY [--minutes M] [--seed S] [--jobs N] [--keep FOLDER] [--only CASE]

Programs of the examples and of the list below are cut into tokens. Half of the cases change what leaves a program: numbers made
extreme, names exchanged, options added; the others also leave tokens out, double them, take some from another program, flip
characters. The data are small and often odd: one row,
no rows, missing values, constant columns, huge numbers, texts. A case is wrong when the program ends by a signal, a sanitizer's
report, after 30 seconds, with an exit code that is none of its own, with a code that is not 0 without a message, or with a
number of no meaning in a table. Case k of a seed is always the same. Build with the asan preset to see more.
Only Python's own library is used. Exit code 1 when something was wrong."""
import argparse, concurrent.futures, glob, json, os, random, re, shutil, subprocess, sys, tempfile, time

HERE = os.path.dirname(os.path.abspath(__file__))
EXIT_CODES = {0, 3, 4, 5, 6, 7}
LIMIT_S = 30

PROGRAMS = [
    'torvale data=d; parms b0=0 b1=0 s2=1; model y ~ normal(b0+b1*x,s2); run;',
    'torvale data=d tech=trureg; parms b0=0 b1=0 s2u=1 s2=1; bounds s2u>=0, s2>0; model y ~ normal(b0+b1*x+u,s2); random u ~ normal(0,s2u) subject=id; predict b0+u out=p; run;',
    'torvale data=d method=firo; parms b0=0 s2u=1 cuv=0 s2v=1 s2=1; model y ~ normal(b0+u+v*x,s2); random u v ~ normal([0,0],[s2u,cuv,s2v]) subject=id out=e; estimate "e" exp(b0) df=3; run;',
    'torvale data=d method=hardy; parms b0=0 s2u=1; eta=b0+u; p=exp(eta)/(1+exp(eta)); model z ~ binary(p); random u ~ normal(0,s2u) subject=id; run;',
    'torvale data=d qpoints=5 noad; parms b0=0 b1=0.1 s=0.5; model k ~ poisson(exp(b0+b1*x+u)); random u ~ normal(0,s*s) subject=id; contrast "c" b0, b1; run;',
    'torvale data=d; by g; parms b0=0 to 1 by 0.5 th=1; model k ~ negbin(th,1/(1+exp(b0))); run;',
    'torvale data=d; array b[3] b1-b3; parms b1-b3=0; eta=0; do i=1 to 3; eta=eta+b[i]*x**(i-1); end; if eta>5 then ll=.; else ll=-(y-eta)**2; model y ~ general(ll); run;',
    'torvale data=d; parms a=1 sa=1 sb=1 s=1; model y ~ normal(a+u+v,s); random u ~ normal(0,sa) subject=g; random v ~ normal(0,sb) subject=id(g); run;',
    'torvale data=d seed=3 method=isamp qpoints=20; parms b=0 s=1; model z ~ binomial(3,1/(1+exp(-b-u))); random u ~ normal(0,s) subject=id; run;',
    'torvale data=d seed=5; parms b=0 s=1; prior -b*b/20; mcmc samples=40 burn=20 out=m; model y ~ normal(b,s); run;',
    'torvale data=d fd=central; parms a=1 k=0.5 s2=1; mu=a*exp(-k*abs(x)); w=y*y+0.1; model w ~ gamma(mu,s2); id mu; replicate r; run;',
    'torvale data=d tech=none outfit=f; parms m=0 p=0.5 h=-1; bounds 0<p<1; model y ~ normal(m+u,1); random u ~ discrete([h,p]) subject=id; run;',
    '%macro q(v=); &v*&v %mend; torvale data=d; parms b=1; lag1=lag(x); s=sum(of x y); put b= s=; model y ~ normal(b*%q(v=x)+0*s,1); run; torvale data=d; model k ~ poisson(exp(c)); run;',
    'torvale data=d; parms cl=1 v=2 s=1; ka=1; h=abs(x); cmptmodel ncomps=1 admtype=oral parmtype=2 pconc=c cl=cl vol=v ka=ka time=h dose0=r; model y ~ normal(c,s); run;',
]
OPTIONS = ('tech=newrap tech=nrridg tech=dbldog tech=congra tech=nmsimp tech=quanew tech=none fd fdhessian hess start cov corr itdetails '
           'maxiter=2 maxiter=0 maxfunc=3 maxtime=1 qpoints=1 qpoints=3 noad noadscale ebzstart ebopt empirical gradcheck optcheck '
           'inhessian singhess=0.1 gconv=0 fconv=1e-2 absconv=1 nthreads=2 nosortsub alpha=0.5 df=2 update=dfp hescal=2 diahes pall '
           'linesearch=3 restart=2 instep=1e-3 damping listall subgradient=w outest=t outr=q xref').split()
NUMBERS = ['0', '1', '-1', '.', '1e308', '-1e308', '1e-308', '1e20', '9223372036854775808', '0.5', '2', '1e-9', '-0', '3.7', '1000000']
NAMES = 'id x y z k g r t u v b0 b1 s2 s2u i _ll _n_ _error_ missing'.split()
TOKEN = re.compile(r'"[^"\n]*"|\'[^\'\n]*\'|[A-Za-z_][A-Za-z_0-9.]*|\d+\.?\d*(?:[eE][-+]?\d+)?|\s+|\*\*|[<>^~]=|.', re.S)


def data(r):
    rows = r.choice([0, 1, 2, 8, 12, 12, 12, 30])
    extreme = lambda v: r.choice(['', '.', '1e300', '-1e300', '0', '-1', '1e-300', v]) if r.random() < odd else v
    odd = r.choice([0, 0, 0, .05, .3])
    lines = ['id,g,x,y,z,k,r,t']
    for i in range(rows):
        value = [str(i // 4 + 1), str(i // 8), '%.3f' % r.gauss(0, 1), '%.3f' % r.gauss(1, 1), str(r.randint(0, 1)), str(r.randint(0, 4)), '1', r.choice('ab')]
        lines.append(','.join(extreme(v) for v in value))
    if r.random() < .05:
        lines[0] = 'id,x'
    return '\n'.join(lines) + '\n'


def changed(r, programs):
    tokens = TOKEN.findall(r.choice(programs))
    places = lambda good: [j for j, t in enumerate(tokens) if good(t)]
    rough = r.random() < .5
    for _ in range(r.choice([0, 1, 1, 2, 3, 6])):
        what = r.randrange(10 if rough else 5)
        i = r.randrange(len(tokens))
        if what < 2:
            numbers = places(lambda t: t[0].isdigit())
            if numbers:
                tokens[r.choice(numbers)] = r.choice(NUMBERS)
        elif what == 2:
            names = places(lambda t: t in NAMES)
            if names:
                tokens[r.choice(names)] = r.choice(NAMES)
        elif what < 5:
            tokens.insert((places(lambda t: t == ';') or [0])[0], ' ' + r.choice(OPTIONS) + ' ')
        elif what == 5:
            del tokens[i]
        elif what == 6:
            tokens.insert(i, tokens[i])
        elif what == 7:
            j = r.randrange(len(tokens))
            tokens[i], tokens[j] = tokens[j], tokens[i]
        elif what == 8:
            other = TOKEN.findall(r.choice(programs))
            j = r.randrange(len(other))
            tokens[i:i + r.randint(0, 3)] = other[j:j + r.randint(1, 12)]
        else:
            t = list(tokens[i])
            t[r.randrange(len(t))] = chr(r.choice([r.randint(32, 126), r.randint(0, 255)]))
            tokens[i] = ''.join(t)
        if not tokens:
            tokens = [' ']
    return ''.join(tokens)


def numbers_of(results):
    for step in results['steps']:
        for group in step['groups']:
            for table in group['tables']:
                for row in table['rows']:
                    for cell in row:
                        if isinstance(cell, float):
                            yield table['name'], cell


def fault(binary, folder):
    """What is wrong with the program in the folder; None when nothing is."""
    with open(os.path.join(folder, 'p.tvl'), errors='replace') as f:
        program = f.read()
    environment = dict(os.environ, ASAN_OPTIONS='detect_leaks=0:allocator_may_return_null=1', UBSAN_OPTIONS='halt_on_error=1:print_stacktrace=1')
    try:
        done = subprocess.run([binary, 'run', 'p.tvl', '--json', 'r.json', '--out', 'out'], cwd=folder, env=environment, capture_output=True, timeout=LIMIT_S, errors='replace', text=True)
    except subprocess.TimeoutExpired:
        return None if '1000000' in program else 'more than %d s' % LIMIT_S    # loops and chains as long as asked for
    report = re.search(r'(ERROR: AddressSanitizer[^\n]*|[^\n]*runtime error:[^\n]*)', done.stderr)
    if report:
        return report.group(1)
    if done.returncode not in EXIT_CODES:
        return 'exit code %d: %s' % (done.returncode, done.stderr[-300:])
    log = ''.join(open(path, errors='replace').read() for path in glob.glob(os.path.join(folder, 'out', '*.log')))
    if done.returncode != 0 and not re.search(r'ERROR|WARNING', done.stderr + log):
        return 'exit code %d without a word' % done.returncode
    try:
        with open(os.path.join(folder, 'r.json')) as f:
            results = json.load(f)
    except FileNotFoundError:
        return None if done.returncode != 0 else 'no results'
    except ValueError as e:
        return 'results are no JSON: %s' % e
    for name, value in numbers_of(results):
        if abs(value) > 1e305 and '1e308' not in program and name not in ('Parameters', 'StartingValues', 'IterHistory'):
            return 'table %s shows %g' % (name, value)
    return None


def case(binary, seed, number, keep, programs):
    r = random.Random('%d/%d' % (seed, number))
    with tempfile.TemporaryDirectory() as folder:
        with open(os.path.join(folder, 'd.csv'), 'w') as f:
            f.write(data(r))
        with open(os.path.join(folder, 'p.tvl'), 'w', errors='replace') as f:
            f.write(changed(r, programs))
        wrong = fault(binary, folder)
        if wrong and keep:
            place = os.path.join(keep, '%d_%d' % (seed, number))
            shutil.copytree(folder, place, dirs_exist_ok=True)
    return number, wrong


def main():
    args = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    args.add_argument('binary')
    args.add_argument('--minutes', type=float, default=1)
    args.add_argument('--seed', type=int, default=1)
    args.add_argument('--jobs', type=int, default=2)
    args.add_argument('--keep', help='folder for the cases that went wrong')
    args.add_argument('--only', type=int)
    args = args.parse_args()
    binary = os.path.abspath(args.binary)
    programs = list(PROGRAMS)
    columns = dict(subject='id', reaction='y', days='x', conc='y', time='x', dose='r', seizures='k', period='z', age='x')
    for path in sorted(glob.glob(os.path.join(HERE, '..', 'examples', '*.tvl'))):
        with open(path) as f:
            text = re.sub(r"(?i)data\s*=\s*('[^']*'|[\w.]+)", 'data=d', f.read())
        programs.append(re.sub(r'\w+', lambda m: columns.get(m.group().lower(), m.group()), text))
    if args.only is not None:
        print(case(binary, args.seed, args.only, args.keep, programs))
        return 0
    end = time.time() + 60 * args.minutes
    count, faults, number = 0, 0, 0
    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        while time.time() < end:
            batch = [pool.submit(case, binary, args.seed, number + i, args.keep, programs) for i in range(50)]
            number += len(batch)
            for done in batch:
                k, wrong = done.result()
                count += 1
                if wrong:
                    faults += 1
                    print('%d: %s' % (k, wrong), flush=True)
    print('%d programs, %d faults' % (count, faults))
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
