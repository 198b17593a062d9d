#!/usr/bin/python3
# Applies each fault of faults.tsv in turn, rebuilds, runs the suite until the
# first failure and restores the file: reports which faults the suite misses.
import argparse, os, signal, subprocess, sys, time

here = os.path.dirname(os.path.abspath(__file__))
ap = argparse.ArgumentParser(description="mutant run: does the suite catch each deliberate fault?")
ap.add_argument("--source", default=os.path.dirname(os.path.dirname(here)), help="source tree (default: this one)")
ap.add_argument("--build", help="build directory (default: SOURCE/build-mutants)")
ap.add_argument("--only", nargs="*", default=[], help="fault numbers or words of file/description to run")
ap.add_argument("--check", action="store_true", help="only check that every original text occurs once")
args = ap.parse_args()
src = os.path.abspath(args.source)
build = os.path.abspath(args.build or os.path.join(src, "build-mutants"))

faults = []
with open(os.path.join(here, "faults.tsv")) as f:
    for line in f:
        if line.startswith("#") or not line.strip():
            continue
        path, old, new, what = line.rstrip("\n").split("\t")
        faults.append((path, old.replace("\\n", "\n"), new.replace("\\n", "\n"), what))

def chosen(i, fault):
    return not args.only or any(w == str(i) if w.isdigit() else w in fault[0] or w in fault[3] for w in args.only)

bad = 0
for i, (path, old, _, what) in enumerate(faults, 1):
    n = open(os.path.join(src, path)).read().count(old)
    if n != 1:
        print(f"fault {i} ({path}: {what}): original text occurs {n} times", file=sys.stderr)
        bad += 1
if bad or args.check:
    print(f"{len(faults)} faults, {bad} unusable")
    sys.exit(1 if bad else 0)

def run(cmd, timeout=900):
    try:
        return subprocess.run(cmd, cwd=build, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return -1  # a hang is a failure the suite's time limit reports

def suite_fails():
    # The gtest binary first (one process, stops at the first failure), then
    # the interop scripts, crash replays and export check through ctest (every
    # gtest case has a dot in its name, they do not).
    if run(["./tests/brivanta_tests", "--gtest_fail_fast", "--gtest_brief=1"], 600):
        return True
    return run(["ctest", "-j2", "--stop-on-failure", "--timeout", "600", "-E", r"\."]) != 0

signal.signal(signal.SIGTERM, lambda *_: sys.exit(130))
if not os.path.exists(os.path.join(build, "build.ninja")):
    subprocess.run(["cmake", "-S", src, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo"],
                   check=True, stdout=subprocess.DEVNULL)
if run(["cmake", "--build", ".", "-j2"], 3600):
    sys.exit("the unchanged tree does not build")

caught, survived, broken = [], [], []
for i, fault in enumerate(faults, 1):
    if not chosen(i, fault):
        continue
    path, old, new, what = fault
    full = os.path.join(src, path)
    original = open(full).read()
    start = time.time()
    try:
        with open(full, "w") as f:
            f.write(original.replace(old, new))
        if run(["cmake", "--build", ".", "-j2"], 1800):
            verdict, into = "does not build", broken
        elif suite_fails():
            verdict, into = "caught", caught
        else:
            verdict, into = "SURVIVED", survived
    finally:
        with open(full, "w") as f:
            f.write(original)
    into.append(f"{i} {path}: {what}")
    print(f"{i:3} {verdict:15} {time.time() - start:5.0f}s  {path}: {what}", flush=True)

print(f"{len(caught)} caught, {len(survived)} survived" + (f", {len(broken)} did not build" if broken else ""))
for s in survived + broken:
    print("  " + s)
sys.exit(1 if survived or broken else 0)
