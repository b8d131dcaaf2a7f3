#!/usr/bin/env python3
"""Where the time of whole fits goes.

    tools/stage_times.py BINARY [PROGRAM ...] [--rounds N] [--data NAME=PATH] [--threads N]

Runs each program (those of examples/ when none is named) N times with --timing and prints a row for each: milliseconds of
every stage, the least of the rounds, and evaluations of the objective. Only Python's own library is used."""
import argparse, glob, os, re, subprocess, sys, tempfile

STAGES = ['load', 'parse', 'compile', 'read', 'data pass', 'starting values', 'optimizer', 'covariance', 'report', 'all']


def run(binary, program, options, folder):
    command = [binary, 'run', program, '--timing', '--quiet', '--out', folder] + options
    words = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    times, evaluations = {}, {}
    for line in words.stderr.splitlines():
        found = re.match(r'(.+?)\s+([0-9.]+) s(?:\s+(\d+) evaluations?)?$', line)
        if found and found.group(1) in STAGES:
            times[found.group(1)] = 1000 * float(found.group(2))
            evaluations[found.group(1)] = int(found.group(3) or 0)
    if len(times) != len(STAGES):
        sys.exit('%s: no times of stages (exit code %d)\n%s' % (program, words.returncode, words.stderr))
    return times, evaluations


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('binary')
    parser.add_argument('programs', nargs='*')
    parser.add_argument('--rounds', type=int, default=5)
    parser.add_argument('--data', action='append', default=[])
    parser.add_argument('--threads', default='0')
    a = parser.parse_intermixed_args()
    here = os.path.dirname(os.path.abspath(__file__))
    programs = a.programs or sorted(glob.glob(os.path.join(here, '..', 'examples', '*.tvl')))
    options = ['--threads', a.threads]
    for binding in a.data:
        options += ['--data', binding]
    width = max(len(os.path.basename(p)) for p in programs)
    print('%-*s' % (width, 'program'), ''.join('%17s' % s for s in STAGES), ' evaluations: start, fit, covariance')
    for program in programs:
        least = None
        for _ in range(a.rounds):
            with tempfile.TemporaryDirectory() as folder:
                times, evaluations = run(a.binary, program, options, folder)
            least = times if least is None else {s: min(least[s], times[s]) for s in STAGES}
        print('%-*s' % (width, os.path.basename(program)), ''.join('%17.2f' % least[s] for s in STAGES),
              ' %d, %d, %d' % tuple(evaluations[s] for s in ('starting values', 'optimizer', 'covariance')))


if __name__ == '__main__':
    main()
