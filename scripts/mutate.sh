#!/usr/bin/env bash
# Measures how strong the tests are by mutation sampling: for each source file given, small faults
# (mutants) are put into the code one at a time and the tests of that file's folder are run. A
# mutant the tests notice is "killed"; one they pass with "survived", which points at a gap a new
# test can close. A mutant whose tests hang past the time limit counts as killed but is listed
# apart; one that does not compile is thrown away and another is drawn.
#
#   scripts/mutate.sh [options] FILE...      FILE relative to the repository root, e.g. audio/LxWAVEParser.cpp
#
#   --tests REGEX     CTest regex for the tests to run (default: the folder's tests, audio/X.cpp -> ^audio_)
#   --exclude-label L leave out tests with this CTest label (e.g. slow)
#   --max N           mutants per file (default 12)
#   --timeout S       time limit of one test run in seconds (default 120)
#   --seed K          sampling seed (default 1); the same file, seed and code give the same mutants
#   --commit REV      mutate this commit (default HEAD); uncommitted changes are never used
#   --jobs J          build and test parallelism (default 2)
#   --workdir DIR     private copy and build (default /tmp/lorvex-mutate-<id of this clone>)
#   --keep            keep DIR afterwards, so that a rerun (of this or a later commit) builds incrementally
#   --list            only print every candidate mutant of each file, in sampling order
#
# Mutants: a comparison flipped (< <=, > >=, == !=), an integer constant one off (N+1 or N-1), + and -
# swapped (also += -=), a statement that is a plain call dropped (log calls excepted), an if condition
# negated. Comments, strings and preprocessor lines are never mutated.
#
# The commit is exported into a private folder and built there (plain Debug, no sanitizers, so it is
# fast); the caller's working tree is never touched. The first build takes a few minutes; after that
# each mutant costs one compile, one library link and the test run.
set -euo pipefail
export LORVEX_MUTATE_REPO
LORVEX_MUTATE_REPO=$(git -C "$(dirname "$0")/.." rev-parse --show-toplevel)
exec python3 - "$@" <<'PYTHON'
import argparse
import difflib
import fcntl
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

REPO = os.environ["LORVEX_MUTATE_REPO"]


def say(*parts):
    print(*parts, flush=True)


def run(cmd, **kw):
    return subprocess.run(cmd, check=True, text=True, **kw)


# ---------------------------------------------------------------------------------------------
# Finding mutants

def code_mask(text):
    """The text with comments, string and character literals and preprocessor lines blanked out
    (newlines kept), so that offsets match the original and only code is searched."""
    out = list(text)
    i, n = 0, len(text)
    line_start = True

    def blank(a, b):
        for k in range(a, b):
            if out[k] != "\n":
                out[k] = " "

    while i < n:
        c = text[i]
        if line_start and c == "#":
            j = i
            while j < n and not (text[j] == "\n" and text[j - 1] != "\\"):
                j += 1
            blank(i, j)
            i = j
            continue
        if c == "\n":
            line_start = True
            i += 1
            continue
        if not c.isspace():
            line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(i, j)
            i = j
        elif c == "R" and text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            m = re.match(r'R"([^(\s]*)\(', text[i:])
            if m:
                end = text.find(")" + m.group(1) + '"', i)
                j = n if end < 0 else end + len(m.group(1)) + 2
                blank(i, j)
                i = j
            else:
                i += 1
        elif c == '"' or (c == "'" and not (i > 0 and text[i - 1].isalnum() and text[i - 1] not in "LuU8")):
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            blank(i, min(j + 1, n))
            i = j + 1
        else:
            i += 1
    return "".join(out)


def matching_paren(mask, open_at):
    depth = 0
    for k in range(open_at, len(mask)):
        if mask[k] == "(":
            depth += 1
        elif mask[k] == ")":
            depth -= 1
            if depth == 0:
                return k
    return -1


FLIP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
NOT_CALLS = {"return", "if", "while", "for", "switch", "sizeof", "delete", "throw", "case", "else", "do",
             "static_assert", "assert", "new", "decltype", "alignof", "catch", "co_return", "co_await"}


def candidates(text):
    """Every mutant of the file: dicts with start, end (offsets into text), new text, kind."""
    mask = code_mask(text)
    found = []

    def add(kind, start, end, new):
        found.append({"kind": kind, "start": start, "end": end, "new": new})

    for m in re.finditer(r"(?<=\s)(<=|>=|==|!=|<|>)(?=\s)", mask):
        add("compare", m.start(), m.end(), FLIP[m.group(1)])
    for m in re.finditer(r"(?<=\s)([+-])(=?)(?=\s)", mask):
        add("arith", m.start(), m.end(), ("-" if m.group(1) == "+" else "+") + m.group(2))
    for m in re.finditer(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.'])", mask):
        digits = m.group(1)
        value = int(digits, 0) if digits.lower().startswith("0x") else int(digits, 10)
        add("const", m.start(1), m.end(1), (digits, value))  # direction chosen when sampling
    for m in re.finditer(r"\bif\s*\(", mask):
        open_at = m.end() - 1
        close = matching_paren(mask, open_at)
        if close < 0:
            continue
        inner = mask[open_at + 1:close]
        if ";" in inner:  # if (init; condition): negate the condition only
            semi = open_at + 1 + inner.rindex(";") + 1
            cond = text[semi:close].strip()
            add("negate", semi, close, " !(" + cond + ")")
        else:
            add("negate", open_at, close + 1, "(!(" + text[open_at + 1:close] + "))")
    call = re.compile(r"^[ \t]*((?:[A-Za-z_]\w*(?:::|\.|->))*([A-Za-z_]\w*))\(", re.M)
    for m in call.finditer(mask):
        chain, name = m.group(1), m.group(2)
        first = re.match(r"\w+", chain).group(0)
        if first in NOT_CALLS or name in NOT_CALLS or "LxLog" in chain or name.isupper() or name.endswith("_cast"):
            continue
        before = mask[:m.start(1)].rstrip()
        if before and before[-1] not in ";{}:":
            continue
        # The statement is the call, maybe followed by more calls on its result, then ';'.
        k = m.end() - 1
        while True:
            close = matching_paren(mask, k)
            if close < 0:
                break
            rest = re.match(r"\s*(?:(?:\.|->)\s*[A-Za-z_]\w*\s*\()?", mask[close + 1:])
            if rest.group(0).strip():
                k = close + 1 + rest.end() - 1
                continue
            after = mask[close + 1:].lstrip()
            if after.startswith(";"):
                end = mask.index(";", close + 1) + 1
                add("drop", m.start(1), end, ";")
            break
    return found


def line_of(text, offset):
    return text.count("\n", 0, offset) + 1


def sampled(text, rel, seed):
    """All candidates in sampling order. The order is keyed on the text of the mutated line (not on
    its position), so a change elsewhere in the file leaves the other mutants' order as it was."""
    lines = text.split("\n")
    seen = {}
    out = []
    for c in candidates(text):
        line = line_of(text, c["start"])
        old = text[c["start"]:c["end"]]
        key = "|".join([c["kind"], lines[line - 1].strip(), old])
        seen[key] = seen.get(key, 0) + 1
        digest = hashlib.sha256(f"{seed}|{rel}|{key}|{seen[key]}".encode()).hexdigest()
        if c["kind"] == "const":
            digits, value = c["new"]
            value = value + 1 if (value == 0 or int(digest[-1], 16) % 2 == 0) else value - 1
            c["new"] = hex(value) if digits.lower().startswith("0x") else str(value)
        c.update(line=line, old=old, order=digest)
        out.append(c)
    out.sort(key=lambda c: c["order"])
    return out


def describe(c):
    old = " ".join(c["old"].split())
    new = " ".join(c["new"].split())
    if c["kind"] == "drop":
        return f"drop call `{old[:70]}`"
    if c["kind"] == "negate":
        cond = old[1:-1] if old.startswith("(") else old  # "(condition)" or, after an init, "condition"
        return f"negate `{cond[:70]}`"
    return f"`{old}` -> `{new}`"


def mutated(text, c):
    return text[:c["start"]] + c["new"] + text[c["end"]:]


def diff(text, new, rel):
    return "".join(difflib.unified_diff(text.splitlines(True), new.splitlines(True), f"a/{rel}",
                                        f"b/{rel} (mutant)", n=1))


# ---------------------------------------------------------------------------------------------
# The private tree, its build and the test runs

def export(commit, into):
    os.makedirs(into)
    archive = subprocess.Popen(["git", "-C", REPO, "archive", "--format=tar", commit], stdout=subprocess.PIPE)
    run(["tar", "-x", "-C", into], stdin=archive.stdout)
    if archive.wait() != 0:
        sys.exit("mutate: git archive failed")


def update(src, fresh):
    """Brings src to fresh's content, rewriting only the files that differ, so that the build
    that follows is incremental."""
    for root, dirs, files in os.walk(fresh):
        for name in files:
            new = os.path.join(root, name)
            old = os.path.join(src, os.path.relpath(new, fresh))
            if not os.path.isfile(old) or open(old, "rb").read() != open(new, "rb").read():
                os.makedirs(os.path.dirname(old), exist_ok=True)
                shutil.copyfile(new, old)
    for root, dirs, files in os.walk(src):
        for name in files:
            old = os.path.join(root, name)
            if not os.path.exists(os.path.join(fresh, os.path.relpath(old, src))):
                os.unlink(old)


def prepare(args, commit):
    work = args.workdir
    marker = os.path.join(work, "commit")
    src = os.path.join(work, "src")
    if os.path.isdir(work) and not os.path.exists(marker):
        sys.exit(f"mutate: {work} exists and is not a mutation folder; give another --workdir")
    if not os.path.isdir(work):
        export(commit, src)
    else:
        # A kept folder (of this commit or another, maybe left with a mutant by a killed run):
        # bring it to the commit in place rather than build from scratch.
        say(f"mutate: updating {work} to {commit[:12]}")
        fresh = os.path.join(work, "fresh")
        shutil.rmtree(fresh, ignore_errors=True)
        export(commit, fresh)
        update(src, fresh)
        shutil.rmtree(fresh)
    with open(marker, "w") as f:
        f.write(commit + "\n")
    build = os.path.join(work, "build")
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        say(f"mutate: configuring {build} (plain Debug)")
        generator = ["-G", "Ninja"] if shutil.which("ninja") else []
        # Executables do not relink when only the shared library changed, so a mutant costs one
        # compile and one library link.
        run(["cmake", "-S", os.path.join(work, "src"), "-B", build, *generator, "-DCMAKE_BUILD_TYPE=Debug",
             "-DLORVEX_BUILD_TESTS=ON", "-DLORVEX_KEEP_LOG=ON", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
             "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache"],
            stdout=subprocess.DEVNULL, env=build_env(work))
    else:
        # The commit may add or remove tests: the test list is read from CTest before anything
        # builds, so the kept build is regenerated first.
        run(["cmake", build], stdout=subprocess.DEVNULL, env=build_env(work))
    return os.path.join(work, "src"), build


def build_env(work):
    env = dict(os.environ)
    # Paths under the private folder hash alike whatever the folder is called, so reruns hit ccache.
    env["CCACHE_BASEDIR"] = os.path.join(work, "src")
    return env


def select_tests(build, regex, exclude_label):
    cmd = ["ctest", "--show-only=json-v1", "-R", regex]
    if exclude_label:
        cmd += ["-LE", exclude_label]
    info = json.loads(subprocess.run(cmd, cwd=build, check=True, text=True, capture_output=True).stdout)
    # Before its first build CTest knows no command for a test; every test of ours is built by the
    # target test_<name> (a real-time one runs it through sh).
    tests = [(t["name"], "test_" + t["name"]) for t in info.get("tests", [])
             if not t.get("command") or os.path.basename(t["command"][0]) in ("sh", "test_" + t["name"])]
    return [name for name, _ in tests], sorted({target for _, target in tests})


def compile_targets(args, work, build, targets):
    cmd = ["nice", "-n", "10", "cmake", "--build", build, "-j", str(args.jobs), "--target", *targets]
    result = subprocess.run(cmd, capture_output=True, text=True, env=build_env(work))
    return result.returncode == 0, result.stdout + result.stderr


def kill_leftovers(build):
    """Test processes of our build that outlived a killed ctest (they may sit in their own group)."""
    prefix = os.path.realpath(build) + os.sep
    for pid in os.listdir("/proc"):
        if not pid.isdigit() or int(pid) == os.getpid():
            continue
        try:
            exe = os.readlink(f"/proc/{pid}/exe")
        except OSError:
            continue
        if exe.startswith(prefix):
            try:
                os.kill(int(pid), signal.SIGKILL)
            except OSError:
                pass


def run_tests(args, build, names):
    """Runs the tests; returns ("pass" | "fail" | "timeout", failed test names, seconds, output)."""
    regex = "^(" + "|".join(re.escape(n) for n in names) + ")$"
    cmd = ["nice", "-n", "10", "ctest", "-R", regex, "-j", str(args.jobs), "--stop-on-failure"]
    start = time.monotonic()
    proc = subprocess.Popen(cmd, cwd=build, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            start_new_session=True)
    try:
        out, _ = proc.communicate(timeout=args.timeout)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.communicate()
        kill_leftovers(build)
        return "timeout", [], time.monotonic() - start, ""
    seconds = time.monotonic() - start
    failed = re.findall(r"^\s+\d+ - (\S+) \((?!Not Run)[^)]*\)\s*$", out, re.M)  # ctest's closing list
    failed = failed or [n for n, status in re.findall(r"Test\s+#\d+: (\S+) \.+\s*([^\n]*)", out)
                        if not status.startswith("Passed")]
    if proc.returncode == 0:
        return "pass", [], seconds, out
    if "Timeout" in out and not re.search(r"\*+(Failed|Exception|SEGFAULT|Subprocess)", out):
        return "timeout", failed, seconds, out
    return "fail", failed or ["(ctest)"], seconds, out


# ---------------------------------------------------------------------------------------------

def mutate_file(args, work, src, build, rel):
    path = os.path.join(src, rel)
    if not os.path.isfile(path):
        say(f"mutate: {rel}: no such file in the commit")
        return None
    text = open(path).read()
    regex = args.tests or "^" + (os.path.dirname(rel).replace("/", "_") or "root") + "_"
    order = sampled(text, rel, args.seed)
    names, targets = select_tests(build, regex, args.exclude_label)
    say(f"\n== {rel}: {len(order)} candidate mutants, up to {args.max} drawn with seed {args.seed}; "
        f"tests {regex}: {' '.join(names) or '(none)'}")
    if not names:
        say(f"mutate: {rel}: no tests match {regex}")
        return None
    ok, log = compile_targets(args, work, build, targets)
    if not ok:
        say(f"mutate: {rel}: the unmutated tree does not build:\n{log[-3000:]}")
        return None
    verdict, failed, seconds, out = run_tests(args, build, names)
    say(f"   unmutated: tests {verdict} in {seconds:.1f} s")
    if verdict != "pass":
        say(f"mutate: {rel}: the tests do not pass without a mutant ({' '.join(failed)}); file skipped")
        say("\n".join("      " + line for line in out.splitlines()[-40:]))
        return None
    stats = {"file": rel, "mutants": 0, "killed": 0, "survived": 0, "timeout": 0, "discarded": 0,
             "survivors": [], "timeouts": []}
    started = time.monotonic()
    try:
        for c in order:
            if stats["mutants"] >= args.max:
                break
            new = mutated(text, c)
            with open(path, "w") as f:
                f.write(new)
            ok, _ = compile_targets(args, work, build, targets)
            tag = f"   [{stats['mutants'] + 1}/{args.max}] {rel}:{c['line']} {c['kind']} {describe(c)}"
            if not ok:
                stats["discarded"] += 1
                say(f"   [--] {rel}:{c['line']} {c['kind']} {describe(c)}: does not compile, discarded")
                continue
            stats["mutants"] += 1
            verdict, failed, seconds, _ = run_tests(args, build, names)
            if verdict == "fail":
                stats["killed"] += 1
                say(f"{tag}: killed by {' '.join(failed)} ({seconds:.0f} s)")
            elif verdict == "timeout":
                stats["timeout"] += 1
                stats["timeouts"].append(f"{rel}:{c['line']} {c['kind']} {describe(c)}")
                say(f"{tag}: TIMED OUT after {seconds:.0f} s (counted as killed)")
            else:
                stats["survived"] += 1
                stats["survivors"].append(f"{rel}:{c['line']} {c['kind']} {describe(c)}")
                say(f"{tag}: SURVIVED ({seconds:.0f} s)")
                for d in diff(text, new, rel).splitlines():
                    say("      " + d)
    finally:
        # A fresh timestamp, so that the build never keeps the mutant's object file.
        with open(path, "w") as f:
            f.write(text)
    compile_targets(args, work, build, targets)
    m = stats["mutants"]
    score = 100.0 * (stats["killed"] + stats["timeout"]) / m if m else 0.0
    stats["score"] = score
    stats["minutes"] = (time.monotonic() - started) / 60
    say(f"RESULT {rel}: mutants {m}, killed {stats['killed']}, survived {stats['survived']}, "
        f"timed out {stats['timeout']}, score {score:.0f}% ({stats['discarded']} discarded, "
        f"{stats['minutes']:.1f} min)")
    return stats


def main():
    p = argparse.ArgumentParser(prog="scripts/mutate.sh", description="Mutation sampling of Lorvex sources.")
    p.add_argument("files", nargs="+", metavar="FILE")
    p.add_argument("--tests")
    p.add_argument("--exclude-label")
    p.add_argument("--max", type=int, default=12)
    p.add_argument("--timeout", type=float, default=120)
    p.add_argument("--seed", default="1")
    p.add_argument("--commit", default="HEAD")
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--workdir")
    p.add_argument("--keep", action="store_true")
    p.add_argument("--list", action="store_true")
    args = p.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that the mutated file is restored
    commit = subprocess.run(["git", "-C", REPO, "rev-parse", "--verify", args.commit + "^{commit}"],
                            check=True, text=True, capture_output=True).stdout.strip()
    repo_id = hashlib.sha1(REPO.encode()).hexdigest()[:8]
    args.workdir = os.path.abspath(args.workdir or f"/tmp/lorvex-mutate-{repo_id}")
    files = [os.path.relpath(os.path.abspath(f), REPO) if os.path.isabs(f) else os.path.normpath(f)
             for f in args.files]

    if args.list:
        for rel in files:
            text = subprocess.run(["git", "-C", REPO, "show", f"{commit}:{rel}"], check=True, text=True,
                                  capture_output=True).stdout
            say(f"== {rel}: {len(sampled(text, rel, args.seed))} candidates (seed {args.seed})")
            for c in sampled(text, rel, args.seed):
                say(f"  {rel}:{c['line']} {c['kind']:7} {describe(c)}")
        return 0

    say(f"mutate: commit {commit}, seed {args.seed}, up to {args.max} mutants per file, "
        f"test time limit {args.timeout:.0f} s, work folder {args.workdir}")
    os.makedirs(os.path.dirname(args.workdir), exist_ok=True)
    lock = open(args.workdir + ".lock", "w")
    fcntl.flock(lock, fcntl.LOCK_EX)
    started = time.monotonic()
    results = []
    try:
        src, build = prepare(args, commit)
        say("mutate: building (the first build of a new work folder takes a few minutes)")
        for rel in files:
            stats = mutate_file(args, args.workdir, src, build, rel)
            if stats:
                results.append(stats)
    finally:
        if not args.keep and os.path.isdir(args.workdir):
            shutil.rmtree(args.workdir, ignore_errors=True)
        # The lock file stays: removing it would let a run already waiting on it and a run that
        # creates a new one both hold "the" lock and share the folder.

    say(f"\n== Summary (commit {commit[:12]}, seed {args.seed}, {(time.monotonic() - started) / 60:.0f} min)")
    say(f"{'file':45} {'mutants':>7} {'killed':>6} {'survived':>8} {'timed out':>9} {'score':>6}")
    for s in results:
        say(f"{s['file']:45} {s['mutants']:7} {s['killed']:6} {s['survived']:8} {s['timeout']:9} "
            f"{s['score']:5.0f}%")
    survivors = [x for s in results for x in s["survivors"]]
    if survivors:
        say("Surviving mutants:")
        for x in survivors:
            say("  " + x)
    timeouts = [x for s in results for x in s["timeouts"]]
    if timeouts:
        say("Timed out (counted as killed):")
        for x in timeouts:
            say("  " + x)
    return 0


sys.exit(main())
PYTHON
