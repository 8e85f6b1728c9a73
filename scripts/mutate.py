#!/usr/bin/env python3
"""Single-point mutation check of one core source against the unit tests.

    scripts/mutate.py cmp_ldap/cmn_src/cmp_ldap_socket.cpp [--every K] [--first N]

Copies the committed tree (git archive HEAD) to a scratch directory, builds it once
(Clang, Debug, no POSIX port), then for each mutant of the source (comparison and
logical operators turned, integer literals moved by one, a log line's result-code
argument replaced) rebuilds, runs the unit tests until the first failure and counts
the mutant killed or surviving. Mutants that do not compile are not counted.
Survivors are listed with their line for a person to judge: some are equivalent.
"""
import argparse, os, re, shutil, subprocess, sys, tempfile

TURN = {'==': '!=', '!=': '==', '<=': '<', '>=': '>', '<': '<=', '>': '>=', '&&': '||',
        '||': '&&'}
OPERATOR = re.compile(r'==|!=|<=|>=|&&|\|\||(?<![<>-])[<>](?![<>=])')
NUMBER = re.compile(r'(?<![\w.])(0x[0-9A-Fa-f]+|\d+)[uUlL]*(?![\w.])')
LOG_RC = re.compile(r'CMP_LDAP_LOG\(([^,]+),')


def masked(line):
    """The line with string and character literals and comments blanked out."""
    out, i, quote = list(line), 0, None
    while i < len(line):
        c = line[i]
        if quote:
            if c == '\\':
                out[i:i + 2] = '  '
                i += 2
                continue
            if c == quote:
                quote = None
            else:
                out[i] = ' '
        elif c in '"\'':
            quote = c
        elif line.startswith('//', i) or line.startswith('/*', i):
            return ''.join(out[:i])
        i += 1
    return ''.join(out)


def mutants(lines):
    in_comment = False
    for n, line in enumerate(lines):
        code = line.strip()
        if in_comment or code.startswith(('/*', '*', '#', 'static_assert')):
            in_comment = (in_comment or code.startswith('/*')) and '*/' not in line
            continue
        m = masked(line)
        if 'template' in m or 'static_cast<' in m or 'reinterpret_cast<' in m:
            ops = [o for o in OPERATOR.finditer(m) if o.group() not in '<>']
        else:
            ops = list(OPERATOR.finditer(m))
        for o in ops:
            yield n, line[:o.start()] + TURN[o.group()] + line[o.end():]
        for num in NUMBER.finditer(m):
            value = int(num.group(1), 0) + 1
            yield n, line[:num.start(1)] + (hex(value) if num.group(1).startswith('0x')
                                            else str(value)) + line[num.end(1):]
        rc = LOG_RC.search(m)
        if rc:
            yield n, line[:rc.start(1)] + '-12345' + line[rc.end(1):]


def run(cmd, cwd, timeout=600):
    return subprocess.run(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          timeout=timeout).returncode


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('source')
    ap.add_argument('--every', type=int, default=1, help='take every K-th mutant')
    ap.add_argument('--first', type=int, default=0, help='stop after N mutants (0: all)')
    args = ap.parse_args()
    root = subprocess.check_output(['git', 'rev-parse', '--show-toplevel'], text=True).strip()
    work = tempfile.mkdtemp(prefix='toveistror-mutate-')
    src, build = os.path.join(work, 'src'), os.path.join(work, 'build')
    os.mkdir(src)
    subprocess.run(f'git -C {root} archive HEAD | tar -x -C {src}', shell=True, check=True)
    env = dict(os.environ, CC='clang', CXX='clang++')
    subprocess.run(['cmake', '-S', src, '-B', build, '-G', 'Ninja', '-DCMAKE_BUILD_TYPE=Debug',
                    '-DTOVEISTROR_POSIX_PORT=OFF'], env=env, check=True,
                   stdout=subprocess.DEVNULL)
    test = ['ctest', '--test-dir', build, '-L', 'unit', '--stop-on-failure', '-j2',
            '--timeout', '120']
    if run(['ninja', '-C', build], src) or run(test, src):
        sys.exit('the unmutated tree does not build or pass its unit tests')
    path = os.path.join(src, args.source)
    original = open(path).read()
    lines = original.split('\n')
    todo = list(mutants(lines))[::args.every]
    if args.first:
        todo = todo[:args.first]
    killed, survivors, stillborn = 0, [], 0
    try:
        for i, (n, mutated) in enumerate(todo, 1):
            open(path, 'w').write('\n'.join(lines[:n] + [mutated] + lines[n + 1:]))
            if run(['ninja', '-C', build], src):
                stillborn += 1
            elif run(test, src):
                killed += 1
            else:
                survivors.append((n + 1, mutated.strip()))
            print(f'\r{i}/{len(todo)} killed {killed} survived {len(survivors)}', end='',
                  file=sys.stderr, flush=True)
    finally:
        open(path, 'w').write(original)
    counted = killed + len(survivors)
    print(f'\n{args.source}: {counted} mutants ({stillborn} did not compile), killed {killed} '
          f'({100.0 * killed / max(counted, 1):.1f} %)')
    for n, text in survivors:
        print(f'  survived line {n}: {text}')
    shutil.rmtree(work)


if __name__ == '__main__':
    main()
