#!/usr/bin/env python3
"""What a fit leaves must belong to its estimates, and to it alone.

    tools/same_twice.py BINARY [--folder examples] [--verbose]

Runs the programs of a folder with options that end their fits in different ways, and each of them again:
  at its estimates, with TECHNIQUE=NONE and central differences: standard errors, additional estimates and contrasts must be
  the same (they are, when nothing is left of another point, of other coordinates or of another number of points);
  with two threads, and as the second step of a program: every number must be the same to the last bit.
Only Python's own library is used. Exit code 1 when something differs."""
import argparse, glob, json, os, re, subprocess, sys, tempfile

OPTIONS = ['', 'GCONV=0.1', 'GCONV=1e-3 TECHNIQUE=TRUREG', 'FD', 'ABSGCONV=1', 'TECHNIQUE=CONGRA']
TOLERANCE = 2e-3    # of a standard error: forward differences and hard curvatures
CHECKED = {'ParameterEstimates': 'StandardError', 'AdditionalEstimates': 'StandardError', 'Contrasts': 'FValue'}


def run(binary, text, folder, threads='0'):
    """The groups of the last step, and the exit code."""
    with tempfile.TemporaryDirectory() as out:
        path = os.path.join(folder, '.same_twice.tvl')
        with open(path, 'w') as program:
            program.write(text)
        try:
            done = subprocess.run([binary, 'run', path, '--json', '-', '--quiet', '--out', out, '--threads', threads, '--seed', '7'],
                                  capture_output=True, text=True, timeout=120)
        except subprocess.TimeoutExpired:
            return -1, []
        finally:
            os.remove(path)
    try:
        return done.returncode, json.loads(done.stdout)['steps'][-1]['groups']
    except (ValueError, LookupError):
        return done.returncode, []


def column(group, table, name):
    for t in reversed(group['tables']):
        names = [c['name'] for c in t['columns']]
        if t['name'] == table and name in names:
            return [row[names.index(name)] for row in t['rows']]
    return []


def points(group):
    for t in reversed(group['tables']):
        if t['name'] == 'Dimensions':
            return next((int(value) for what, value in t['rows'] if 'uadrature' in what), None)


def at_estimates(text, group):
    there = ' '.join('%s=%.17g' % item for item in group['estimates'].items())
    text = re.sub(r'(?is)\bPARM(S|ETERS?|AMETERS?)?\b.*?;', 'PARMS %s;' % there, text, count=1)
    q = points(group)
    options = 'TECHNIQUE=NONE FDHESSIAN=CENTRAL' + (' QPOINTS=%d' % q if q else '')
    return re.sub(r'(?i)\b(TECHNIQUE|GCONV|ABSGCONV|QPOINTS|FDHESSIAN)=\S+?(?=[\s;])', '', text), options


def with_options(text, options):
    return re.sub(r'(?i)\bTORVALE\b([^;]*);', lambda m: 'TORVALE%s %s;' % (m.group(1), options), text, count=1)


def compare(first, second):
    """The largest difference of what is checked, relative; where."""
    worst, where = 0.0, ''
    for table, name in CHECKED.items():
        for a, b in zip(column(first, table, name), column(second, table, name)):
            if a is None or b is None or not isinstance(a, float):
                continue
            difference = abs(a - b) / max(abs(a), 1e-300)
            if difference > worst:
                worst, where = difference, '%s: %.6g, %.6g' % (table, a, b)
    return worst, where


def main():
    p = argparse.ArgumentParser(usage=__doc__)
    p.add_argument('binary')
    p.add_argument('--folder', default='examples')
    p.add_argument('--verbose', action='store_true')
    a = p.parse_args()
    binary, folder = os.path.abspath(a.binary), os.path.abspath(a.folder)
    fits = different = 0
    for path in sorted(glob.glob(os.path.join(folder, '*.tvl'))):
        with open(path) as program:
            source = program.read()
        if len(re.findall(r'(?im)^\s*TORVALE\b', source)) != 1 or re.search(r'(?i)\b(MCMC|BY|ISAMP)\b', source):
            continue
        for options in OPTIONS:
            text = with_options(source, options)
            code, groups = run(binary, text, folder)
            if code != 0 or not groups:
                continue
            fits += 1
            found = []
            if run(binary, text, folder, '2')[1] != groups:
                found.append('two threads')
            if run(binary, source.rstrip() + '\n' + text, folder)[1][-1:] != groups[-1:]:
                found.append('second step')
            there, none = at_estimates(text, groups[0])
            other, again = run(binary, with_options(there, none), folder)
            if again and other in (0, 6):
                worst, where = compare(groups[0], again[0])
                if worst > TOLERANCE:
                    found.append('at the estimates: %.2g, %s' % (worst, where))
            different += bool(found)
            if found or a.verbose:
                print('%s %s: %s' % (os.path.basename(path), options, '; '.join(found) or 'the same'), flush=True)
    print('%d of %d fits differ' % (different, fits))
    return 1 if different else 0


if __name__ == '__main__':
    sys.exit(main())
