#!/usr/bin/env python3
"""Mutation testing: applies one simple fault at a time to a scratch copy of the named source
files, rebuilds that copy incrementally, runs the test suite, and lists the faults no test caught.

    ./run.sh mutants FILE...          (files relative to the project root)
    MUTANTS_TESTS=regex               only the CTest tests that match (faster, fewer caught)
    MUTANTS_LINES=first-last          only those lines of each file
    MUTANTS_TARGETS="a b"             rebuild only these build targets per fault (faster; pair
                                      with MUTANTS_TESTS naming tests those targets hold)
    MUTANTS_TIMEOUT=seconds           a test that runs longer is stopped, its fault caught (120)

Faults: comparisons turned (< <=, > >=, == !=), && and || swapped, + and - swapped, integer
constants off by one, a condition negated, and a statement that returns early or breaks removed.
A fault that does not compile is not counted, nor one whose object file comes out the same as the
unmutated one (code the preprocessor leaves out on this platform, or a change the compiler undoes);
Python docstrings and comments are left alone.
Slow: a rebuild and a test run per fault.
"""
import glob
import hashlib
import os
import re
import shutil
import signal
import stat
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCRATCH = os.path.join(ROOT, "build-mutants")
SOURCE = os.path.join(SCRATCH, "src")
BUILD = os.path.join(SCRATCH, "build")

# (pattern, replacement) pairs, each applied at one match at a time.
OPERATORS = [
    (r"(?<![<>=!])<(?![<=])", "<="), (r"<=", "<"), (r"(?<![<>=!-])>(?![>=])", ">="), (r">=", ">"),
    (r"==", "!="), (r"!=", "=="), (r"&&", "||"), (r"\|\|", "&&"),
    (r"(?<=[\w)\]] )\+(?= [\w(])", "-"), (r"(?<=[\w)\]] )-(?= [\w(])", "+"),
    (r"(?<![\w.])(\d+)(?![\w.])", lambda m: str(int(m.group(1)) + 1)),
    (r"\bif \((.*)\)(?=\s*\{?\s*$)", lambda m: f"if (!({m.group(1)}))"),
]
DROPPED = re.compile(r"^\s*(return\b[^;]*;|break;|continue;)\s*$")


def mutants(line, comment):
    """Every mutated form of one source line, with a short description; `comment` opens a
    comment in the line's language."""
    code = line.split(comment)[0]
    if code.lstrip().startswith(("#", "*", "/*")) or '"' in code:
        return
    for pattern, replacement in OPERATORS:
        for m in re.finditer(pattern, code):
            new = replacement(m) if callable(replacement) else replacement
            mutated = code[:m.start()] + new + code[m.end():]
            if mutated != code:
                yield f"{m.group(0)!r} -> {new!r}", mutated + line[len(code):]
    if DROPPED.match(code):
        yield "statement removed", "\n"


def python_docstring_lines(lines):
    """The numbers of the lines that lie inside triple-quoted strings: text, not code."""
    inside, numbers = False, set()
    for number, line in enumerate(lines, 1):
        quotes = line.count('"""')
        if inside or quotes:
            numbers.add(number)
        if quotes % 2:
            inside = not inside
    return numbers


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **kw).returncode


def prepare():
    shutil.rmtree(SOURCE, ignore_errors=True)
    # Fresh modification times: a file restored after an interrupted run must be rebuilt.
    shutil.copytree(ROOT, SOURCE, ignore=shutil.ignore_patterns("build*", ".git"), copy_function=shutil.copy)
    if run(["cmake", "-S", SOURCE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release", "-DMERTAX_BUILD_BENCH=OFF"]):
        sys.exit("mutants: cannot configure the scratch build")
    if run(["cmake", "--build", BUILD, f"-j{os.cpu_count()}"]) or tests_fail():
        sys.exit("mutants: the unmutated code does not build or pass its tests")
    if rebuild() != 0:
        sys.exit("mutants: MUTANTS_TARGETS names a target the build does not have")


def rebuild():
    targets = os.environ.get("MUTANTS_TARGETS", "").split()
    cmd = ["cmake", "--build", BUILD, f"-j{os.cpu_count()}"]
    return run(cmd + ["--target", *targets] if targets else cmd)


def object_digests(name):
    """The digests of the object files built from source `name` (none for headers and Python)."""
    if not name.endswith((".c", ".cc", ".cpp")):
        return None
    pattern = os.path.join(BUILD, "**", os.path.basename(name) + ".o")
    paths = sorted(glob.glob(pattern, recursive=True))
    return [hashlib.sha256(open(p, "rb").read()).hexdigest() for p in paths] or None


# Device files the tool's tests write to. Run as root, a fault in the tool's output code can
# rename a file over one of them, which would fail every later run: they are put back.
DEVICES = {"/dev/null": (1, 3), "/dev/full": (1, 7)}


def restore_devices():
    for path, (major, minor) in DEVICES.items():
        if not stat.S_ISCHR(os.lstat(path).st_mode):
            os.remove(path)
            os.mknod(path, 0o666 | stat.S_IFCHR, os.makedev(major, minor))
            os.chmod(path, 0o666)
            print(f"mutants: the fault replaced {path}; it is a device again", flush=True)


def tests_fail():
    timeout = os.environ.get("MUTANTS_TIMEOUT", "120")
    cmd = ["ctest", "--test-dir", BUILD, f"-j{os.cpu_count()}", "--stop-on-failure", "--timeout", timeout]
    if os.environ.get("MUTANTS_TESTS"):
        cmd += ["-R", os.environ["MUTANTS_TESTS"]]
    # A fault that makes a program loop counts as caught; CTest's timeout does not reach the
    # programs a test script starts, so the whole process group goes after a while.
    tests = subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        failed = tests.wait(timeout=3 * int(timeout)) != 0
    except subprocess.TimeoutExpired:
        failed = True
    # Programs of a test that CTest stopped may still run: the whole group goes.
    try:
        os.killpg(tests.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    tests.wait()
    restore_devices()
    return failed


def main(files):
    if not files:
        sys.exit(__doc__)
    first, last = 1, 10**9
    if os.environ.get("MUTANTS_LINES"):
        first, last = map(int, os.environ["MUTANTS_LINES"].split("-"))
    prepare()
    survivors, caught = [], 0
    for name in files:
        path = os.path.join(SOURCE, name)
        original = open(path).read()
        lines = original.splitlines(keepends=True)
        docstrings = python_docstring_lines(lines) if name.endswith(".py") else set()
        # The files mutated before this one are restored, but their objects stay mutated until
        # built again: the digest to compare with is taken after a build.
        rebuild()
        unmutated = object_digests(name)
        for number, line in enumerate(lines, 1):
            if not first <= number <= last or number in docstrings:
                continue
            for what, mutated in mutants(line, "#" if name.endswith(".py") else "//"):
                open(path, "w").write("".join(lines[:number - 1] + [mutated] + lines[number:]))
                if rebuild() != 0:
                    continue  # does not compile: not a mutant
                if unmutated is not None and object_digests(name) == unmutated:
                    continue  # the same machine code: not a mutant
                if tests_fail():
                    caught += 1
                    print(f"caught: {name}:{number}: {what}", flush=True)
                else:
                    survivors.append(f"{name}:{number}: {what}: {line.strip()}")
                    print("survived:", survivors[-1], flush=True)
        open(path, "w").write(original)
    run(["cmake", "--build", BUILD, f"-j{os.cpu_count()}"])
    print(f"{caught} caught, {len(survivors)} survived")
    for s in survivors:
        print(s)
    return 1 if survivors else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
