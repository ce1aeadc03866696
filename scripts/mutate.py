#!/usr/bin/env python3
"""Mutation run: puts one small fault at a time into the sources of a directory, rebuilds what
the change touches, runs the fast tests and records whether they caught it.

    /usr/bin/python3 scripts/mutate.py src --seed 1 --sample 200 --build build-mutate
    /usr/bin/python3 scripts/mutate.py hosts/calculix --seed 1 --sample 100 --tests 'ccx|calculix'

A mutant is killed (a test failed), survived (every test passed), timed out (the tests ran past
the limit) or not compiling. The score counts a timeout as caught: (killed + timed out) over
(killed + survived + timed out). The source is restored after every mutant, also when the run is
interrupted; the restored file is written anew, so that its time is newer than the mutant's
objects and the next build compiles it again.
"""
import argparse
import os
import random
import re
import signal
import subprocess
import sys
import time

# One rule a kind of fault: a pattern found on a code line and what it becomes. Comparisons and
# arithmetic need spaces on both sides, which keeps template brackets, shifts, pointers and
# includes out of reach.
RULES = [
    ('< to <=', re.compile(r'(?<=\s)<(?=\s)'), '<='),
    ('<= to <', re.compile(r'(?<=\s)<=(?=\s)'), '<'),
    ('> to >=', re.compile(r'(?<=\s)>(?=\s)'), '>='),
    ('>= to >', re.compile(r'(?<=\s)>=(?=\s)'), '>'),
    ('== to !=', re.compile(r'(?<=\s)==(?=\s)'), '!='),
    ('!= to ==', re.compile(r'(?<=\s)!=(?=\s)'), '=='),
    ('+ to -', re.compile(r'(?<=\s)\+(?=\s)'), '-'),
    ('- to +', re.compile(r'(?<=\s)-(?=\s)'), '+'),
    ('&& to ||', re.compile(r'(?<=\s)&&(?=\s)'), '||'),
    ('|| to &&', re.compile(r'(?<=\s)\|\|(?=\s)'), '&&'),
    ('0 to 1', re.compile(r'(?<![\w.])0(?![\w.])'), '1'),  # also an index [0] to [1]
    ('1 to 0', re.compile(r'(?<![\w.])1(?![\w.])'), '0'),
]
CONDITION = re.compile(r'\b(if|while) \((.*)\)(\s*(\{|return\b.*|continue;|break;)?)\s*$')
STATEMENT = re.compile(r'^\s+[\w:.\->\[\]()*&, ]+\(.*\);\s*$')
SOURCES = ('.cpp', '.cc', '.h', '.hpp')


def code_part(line):
    """The line without its comment and with string and character literals blanked."""
    out, i, n = [], 0, len(line)
    while i < n:
        c = line[i]
        if line.startswith('//', i):
            break
        if c in '"\'':
            j = i + 1
            while j < n and line[j] != c:
                j += 2 if line[j] == '\\' else 1
            out.append(c + ' ' * max(0, min(j, n) - i - 1) + (c if j < n else ''))
            i = j + 1
            continue
        out.append(c)
        i += 1
    return ''.join(out)


def sites_of_line(path, number, line):
    """Every mutant of one line: (path, line number, description, new line)."""
    stripped = line.strip()
    if (not stripped or stripped.startswith(('#', '//', '/*', '*')) or 'static_assert' in line
            or 'NOLINT' in line):
        return []
    code = code_part(line)
    found = []
    for name, pattern, repl in RULES:
        # The second and later places of one kind on a line are named by their rank, so that a
        # results file names each mutant once.
        for rank, m in enumerate(pattern.finditer(code), 1):
            new = line[:m.start()] + repl + line[m.end():]
            found.append((path, number, name if rank == 1 else f'{name} #{rank}', new))
    m = CONDITION.search(code)
    if m and code.count('(') == code.count(')'):
        start, end = m.start(2), m.end(2)
        new = line[:start] + '!(' + line[start:end] + ')' + line[end:]
        found.append((path, number, 'condition negated', new))
    if stripped in ('break;', 'continue;'):
        found.append((path, number, stripped + ' dropped', line[:len(line) - len(line.lstrip())] + ';\n'))
    elif STATEMENT.match(code) and not stripped.startswith(('return', 'case', 'delete')):
        indent = line[:len(line) - len(line.lstrip())]
        found.append((path, number, 'statement dropped', indent + ';\n'))
    return found


def collect_sites(root):
    sites = []
    for folder, _, files in sorted(os.walk(root)):
        for name in sorted(files):
            if not name.endswith(SOURCES):
                continue
            path = os.path.join(folder, name)
            with open(path, encoding='utf-8') as f:
                lines = f.readlines()
            in_block_comment = False
            for number, line in enumerate(lines, 1):
                if in_block_comment:
                    in_block_comment = '*/' not in line
                    continue
                if line.lstrip().startswith('/*'):
                    in_block_comment = '*/' not in line
                    continue
                sites.extend(sites_of_line(path, number, line))
    return sites


def from_results(path, sites):
    """The mutants named by the lines of a results file, found again among the sites, each with
    the tests that caught it then. A line that moved since that run is found by its file, its
    change and its original text (the nearest one to its old place where the text repeats)."""
    by_name = {f'{p}:{n}: {name}': (p, n, name, new) for p, n, name, new in sites}
    texts = {}

    def text_of(site):
        if site[0] not in texts:
            with open(site[0], encoding='utf-8') as f:
                texts[site[0]] = [line.strip() for line in f]
        return texts[site[0]][site[1] - 1]
    chosen = []
    with open(path, encoding='utf-8') as f:
        for line in f:
            fields = line.rstrip('\n').split('\t')
            if len(fields) < 2:
                continue
            site = by_name.get(fields[1])
            text = fields[3] if len(fields) > 3 else None
            killers = fields[2].split() if len(fields) > 2 else []
            if site is not None and (text is None or text_of(site) == text):
                chosen.append((site, killers))
                continue
            where, name = fields[1].split(': ', 1)
            file, number = where.rsplit(':', 1)
            moved = [s for s in sites if s[0] == file and s[2] == name and text is not None
                     and text_of(s) == text]
            if not moved:
                print(f'{path}: no longer in the sources, left out: {fields[1]}')
                continue
            chosen.append((min(moved, key=lambda s: abs(s[1] - int(number))), killers))
    return chosen


def original_line(path, number):
    with open(path, encoding='utf-8') as f:
        return f.readlines()[number - 1].strip()


class Restorer:
    """Holds the original text of the file under mutation and puts it back on every way out."""

    def __init__(self):
        self.path = None
        self.text = None

    def hold(self, path, text):
        self.path, self.text = path, text

    def restore(self):
        if self.path is not None:
            with open(self.path, 'w', encoding='utf-8') as f:
                f.write(self.text)
            self.path = None


def run(cmd, timeout, cwd, output=None):
    """Runs cmd; 'ok', 'failed' or 'timeout'. The whole process group goes on a timeout. With
    output (a list), the command's standard output is appended to it."""
    proc = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE if output is not None
                            else subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            start_new_session=True, text=True)
    try:
        out, _ = proc.communicate(timeout=timeout)
        if output is not None:
            output.append(out)
        return 'ok' if proc.returncode == 0 else 'failed'
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.communicate()
        return 'timeout'


FAILED_TEST = re.compile(r'^\s*\d+ - (\S+) \((Failed|Timeout|SEGFAULT|Subprocess aborted|Exception|'
                         r'Child aborted|Not Run)\)', re.M)


def run_tests(args, root, pattern):
    """ctest on the build: 'ok', 'failed' or 'timeout', and the tests that failed."""
    test = ['ctest', '--test-dir', args.build, '-j', str(args.jobs), '--timeout',
            str(args.timeout)]
    if not args.every_test:
        test.append('--stop-on-failure')
    if pattern:
        test += ['-R', pattern]
    if args.exclude:
        test += ['-E', args.exclude]
    output = []
    result = run(test, args.timeout * 3, root, output)
    return result, sorted(set(m.group(1) for m in FAILED_TEST.finditer(''.join(output))))


def try_mutant(site, args, restorer, root, earlier_killers=()):
    """The mutant's outcome and the tests that failed on it. The tests that caught it in an
    earlier run, when given, run first and alone: if they catch it again, the others do not run."""
    path, number, _, new = site
    with open(path, encoding='utf-8') as f:
        lines = f.readlines()
    restorer.hold(path, ''.join(lines))
    lines[number - 1] = new
    with open(path, 'w', encoding='utf-8') as f:
        f.writelines(lines)
    try:
        build = run(['cmake', '--build', args.build, '-j', str(args.jobs)], args.build_timeout, root)
        if build != 'ok':
            return 'not compiling', []
        outcomes = {'ok': 'survived', 'failed': 'killed', 'timeout': 'timed out'}
        if earlier_killers:
            pattern = '^(' + '|'.join(re.escape(k) for k in earlier_killers) + ')$'
            result, killers = run_tests(args, root, pattern)
            if result == 'failed' and killers:
                return 'killed', killers
        result, killers = run_tests(args, root, args.tests)
        return outcomes[result], killers
    finally:
        restorer.restore()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('directory', help='source directory to mutate (src, hosts/calculix)')
    parser.add_argument('--seed', type=int, default=1)
    parser.add_argument('--sample', type=int, default=200, help='mutants to try')
    parser.add_argument('--build', default='build-mutate', help='configured build directory')
    parser.add_argument('--tests', default='', help='ctest -R pattern of the tests to run')
    parser.add_argument('--exclude', default='', help='ctest -E pattern of tests left out')
    parser.add_argument('--timeout', type=int, default=120, help='seconds per test')
    parser.add_argument('--build-timeout', type=int, default=600)
    parser.add_argument('--jobs', type=int, default=os.cpu_count() or 2)
    parser.add_argument('--survivors', help='file to write the surviving mutants to')
    parser.add_argument('--every-test', action='store_true',
                        help='run every test on each mutant instead of stopping at the first '
                        'failure, so that the results name every test that catches it')
    parser.add_argument('--results', help='file to write every mutant\'s outcome to, one line '
                        'each with the tests that caught it')
    parser.add_argument('--from-results', help='try again only the mutants of an earlier '
                        'results file (or of the lines kept from it), instead of a sample')
    parser.add_argument('--killers-first', action='store_true',
                        help='with --from-results, run first the tests that caught each mutant '
                        'then, and the others only when those no longer catch it')
    parser.add_argument('--list', action='store_true', help='list the sample and stop')
    args = parser.parse_args()

    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    os.chdir(root)
    sites = collect_sites(args.directory)
    sample = random.Random(args.seed).sample(sites, min(args.sample, len(sites)))
    earlier = {}
    if args.from_results:
        chosen = from_results(args.from_results, sites)
        sample = [site for site, _ in chosen]
        if args.killers_first:
            earlier = {site: killers for site, killers in chosen}
    sample.sort(key=lambda s: (s[0], s[1]))
    print(f'{args.directory}: {len(sites)} mutants, {len(sample)} sampled (seed {args.seed})')
    if args.list:
        for path, number, name, _ in sample:
            print(f'{path}:{number}: {name}')
        return 0
    if run(['cmake', '--build', args.build, '-j', str(args.jobs)], args.build_timeout, root) != 'ok':
        print(f'the unmutated build in {args.build} fails: configure and build it first')
        return 2

    restorer = Restorer()

    def interrupted(signum, _frame):
        restorer.restore()
        print(f'\ninterrupted by signal {signum}; source restored')
        sys.exit(130)
    signal.signal(signal.SIGINT, interrupted)
    signal.signal(signal.SIGTERM, interrupted)

    counts = {'killed': 0, 'survived': 0, 'timed out': 0, 'not compiling': 0}
    survivors = []
    results = open(args.results, 'w', encoding='utf-8') if args.results else None
    start = time.time()
    try:
        for i, site in enumerate(sample, 1):
            outcome, killers = try_mutant(site, args, restorer, root, earlier.get(site, ()))
            counts[outcome] += 1
            if outcome == 'survived':
                survivors.append(site)
            print(f'[{i}/{len(sample)}] {site[0]}:{site[1]}: {site[2]}: {outcome}', flush=True)
            if results:
                results.write(f'{outcome}\t{site[0]}:{site[1]}: {site[2]}\t{" ".join(killers)}\t'
                              f'{original_line(site[0], site[1])}\n')
                results.flush()
    finally:
        restorer.restore()
        if results:
            results.close()
        run(['cmake', '--build', args.build, '-j', str(args.jobs)], args.build_timeout, root)

    judged = counts['killed'] + counts['survived'] + counts['timed out']
    score = 100.0 * (counts['killed'] + counts['timed out']) / judged if judged else 0.0
    print(f'\n{args.directory}: killed {counts["killed"]}, survived {counts["survived"]}, '
          f'timed out {counts["timed out"]}, not compiling {counts["not compiling"]}; '
          f'score {score:.1f}% in {time.time() - start:.0f} s')
    lines = [f'{p}:{n}: {name}: {original_line(p, n)} -> {new.strip() or "(nothing)"}'
             for p, n, name, new in survivors]
    for line in lines:
        print('survived ' + line)
    if args.survivors:
        with open(args.survivors, 'w', encoding='utf-8') as f:
            f.write(''.join(line + '\n' for line in lines))
    return 0


if __name__ == '__main__':
    sys.exit(main())
