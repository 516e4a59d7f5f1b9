#!/usr/bin/env python3
"""Mutation sample: applies one-line faults from a list to a copy of the source tree,
rebuilds, runs the test suite and prints which faults the suite caught.

Each line of the list (default scripts/mutations.txt) reads

    path | exact text to find | replacement | what the fault is

The text to find must occur exactly once in the file; a line whose text is missing or
occurs more than once is reported "stale" (the code moved on: re-anchor the line).
Fields are separated by " | "; write "\\|" for a pipe inside a field. Blank lines and
lines starting with '#' are skipped. Faults are numbered 1, 2, ... in list order.

    python3 scripts/mutate.py [--tree DIR] [--list FILE] [--jobs N] [--only 3,7]
                              [--exclude-label e2e] [--timeout 300] [--keep-going]

The copy lives in <work>/tree and is built in <work>/build (default work folder:
build/mutate of this repository): a plain RelWithDebInfo build without benchmarks,
Ninja and ccache when present. The build folder is kept between runs, so a second run
only rebuilds what changed. The unmutated copy must build and pass its tests first.
Then, for each fault: apply it, rebuild incrementally, run ctest (stopping at the
first failing test unless --keep-going), restore the file.

Verdicts: "caught" (a test failed or timed out), "missed" (every test passed),
"build" (the mutated tree does not build: the list line is not a realistic fault and
wants fixing; not counted as caught), "stale" (the anchor text is not found exactly once).
Exit status: 0 when every fault was caught, 1 otherwise, 2 when the unmutated tree
does not build or fails its tests.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SKIP_DIRS = {".git", "build", "demo-root", "__pycache__"}


def split_fields(line):
    """Splits on " | " that is not written "\\|"; returns the stripped fields."""
    fields, current, i = [], [], 0
    while i < len(line):
        if line.startswith("\\|", i):
            current.append("|")
            i += 2
        elif line.startswith(" | ", i):
            fields.append("".join(current).strip())
            current = []
            i += 3
        else:
            current.append(line[i])
            i += 1
    fields.append("".join(current).strip())
    return fields


def read_list(path):
    faults = []
    with open(path, encoding="utf-8") as f:
        for line_no, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            fields = split_fields(line)
            if len(fields) != 4 or not all(fields[:2]) or not fields[3]:
                sys.exit(f"{path}:{line_no}: want 'path | find | replace | what'")
            rel, find, replace, what = fields
            faults.append({"no": len(faults) + 1, "line": line_no, "rel": rel,
                           "find": find, "replace": replace, "what": what})
    return faults


def source_files(tree):
    """Files of the tree: git's list when the tree is a git work tree, else every file
    outside build folders."""
    try:
        out = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                             cwd=tree, check=True, capture_output=True).stdout
        return [n.decode() for n in out.split(b"\0") if n]
    except (subprocess.CalledProcessError, FileNotFoundError):
        names = []
        for top, dirs, files in os.walk(tree):
            dirs[:] = [d for d in dirs if d not in SKIP_DIRS]
            names += [os.path.relpath(os.path.join(top, f), tree) for f in files]
        return names


def sync_copy(src_tree, dest):
    """Makes dest an exact copy of the source files. Files whose content is unchanged
    keep their time stamps, so the kept build folder does not rebuild them."""
    wanted = set()
    for rel in source_files(src_tree):
        src = os.path.join(src_tree, rel)
        if not os.path.isfile(src) or os.path.islink(src):
            continue
        wanted.add(rel)
        dst = os.path.join(dest, rel)
        if os.path.isfile(dst):
            with open(src, "rb") as a, open(dst, "rb") as b:
                if a.read() == b.read():
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        shutil.copy2(src, dst)
    for top, _, files in os.walk(dest):
        for f in files:
            rel = os.path.relpath(os.path.join(top, f), dest)
            if rel not in wanted:
                os.unlink(os.path.join(top, f))


def run(cmd, cwd, timeout):
    try:
        r = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           text=True, errors="replace", timeout=timeout)
        return r.returncode, r.stdout
    except subprocess.TimeoutExpired as e:
        out = e.stdout.decode(errors="replace") if isinstance(e.stdout, bytes) else (e.stdout or "")
        return -1, out + "\n(timed out)"


def failed_tests(ctest_output):
    """Names ctest lists under "The following tests FAILED"."""
    names, listing = [], False
    for line in ctest_output.splitlines():
        if "The following tests FAILED" in line:
            listing = True
            continue
        if listing:
            m = re.match(r"\s*\d+ - (\S+)", line)
            if m:
                names.append(m.group(1))
            elif line.strip():
                break
    return names


def near_label(rel):
    """The ctest label of the test folder that mirrors a source file's folder
    (drivers/vkt7/x.cpp -> "^drivers/vkt7$"), or "" when there is none."""
    folder = os.path.dirname(rel)
    parts = folder.split("/")
    if parts[0] in ("app", "log", "server", "transport") or (parts[0] == "drivers" and len(parts) > 1):
        return "^" + "/".join(parts[:2] if parts[0] == "drivers" else parts[:1]) + "$"
    return ""


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--tree", default=ROOT, help="source tree to copy (default: this repository)")
    ap.add_argument("--list", default=os.path.join(ROOT, "scripts", "mutations.txt"))
    ap.add_argument("--work", default=os.path.join(ROOT, "build", "mutate"),
                    help="scratch folder for the copy and its build")
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 2,
                    help="build jobs and ctest -j (default: number of cores)")
    ap.add_argument("--only", default="", help="fault numbers to run, e.g. 3,7")
    ap.add_argument("--exclude-label", default="",
                    help="ctest label regex to leave out, e.g. e2e")
    ap.add_argument("--timeout", type=int, default=300, help="per-test timeout in seconds")
    ap.add_argument("--keep-going", action="store_true",
                    help="run the whole suite for each fault and name every test that fails")
    args = ap.parse_args()

    faults = read_list(args.list)
    if args.only:
        wanted = {int(x) for x in args.only.split(",") if x.strip()}
        faults = [f for f in faults if f["no"] in wanted]
    tree = os.path.join(os.path.abspath(args.work), "tree")
    build = os.path.join(os.path.abspath(args.work), "build")
    os.makedirs(tree, exist_ok=True)
    sync_copy(os.path.abspath(args.tree), tree)

    configure = ["cmake", "-S", tree, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                 "-DMCD_BUILD_BENCH=OFF"]
    if shutil.which("ninja") and not os.path.exists(os.path.join(build, "Makefile")):
        configure += ["-G", "Ninja"]
    if shutil.which("ccache"):
        configure.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    build_cmd = ["cmake", "--build", build, "-j", str(args.jobs)]
    ctest = ["ctest", "--test-dir", build, "-j", str(args.jobs), "--timeout", str(args.timeout)]
    if not args.keep_going:
        ctest.append("--stop-on-failure")
    if args.exclude_label:
        ctest += ["-LE", args.exclude_label]

    started = time.time()
    rc, out = run(configure, tree, 600)
    if rc != 0:
        print("configure failed:\n" + out[-3000:])
        return 2
    rc, out = run(build_cmd, tree, 7200)
    if rc != 0:
        print("the unmutated tree does not build:\n" + out[-3000:])
        return 2
    print(f"unmutated build: {time.time() - started:.0f} s", flush=True)
    started = time.time()
    rc, out = run(ctest, tree, 7200)
    if rc != 0:
        print("the unmutated tree fails its tests:\n" + out[-3000:])
        return 2
    m = re.search(r"(\d+)% tests passed, \d+ tests failed out of (\d+)", out)
    count = m.group(2) if m else "?"
    print(f"unmutated suite: {count} tests passed in {time.time() - started:.0f} s "
          f"({' '.join(ctest[3:])})", flush=True)

    results = []
    try:
        for fault in faults:
            results.append(try_fault(fault, tree, build_cmd, ctest, args.keep_going))
            r = results[-1]
            print(f"#{r['no']:<3} {r['verdict']:7s} {r['secs']:5.0f} s  {r['rel']}: {r['what']}"
                  + (f"  [{r['by']}]" if r["by"] else ""), flush=True)
    finally:
        # leave the kept build matching the unmutated copy
        run(build_cmd, tree, 7200)

    print()
    print(f"{'no':>3}  {'verdict':7s}  {'secs':>5}  fault  [caught by]")
    for r in results:
        print(f"{r['no']:>3}  {r['verdict']:7s}  {r['secs']:5.0f}  {r['rel']}: {r['what']}"
              + (f"  [{r['by']}]" if r["by"] else ""))
    totals = {v: sum(1 for r in results if r["verdict"] == v)
              for v in ("caught", "missed", "stale", "build")}
    print(f"mutation sample: {totals['caught']} caught, {totals['missed']} missed, "
          f"{totals['stale']} stale, {totals['build']} build (of {len(results)})")
    return 0 if totals["caught"] == len(results) else 1


def try_fault(fault, tree, build_cmd, ctest, keep_going):
    result = dict(fault, verdict="", by="", secs=0.0)
    path = os.path.join(tree, fault["rel"])
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read()
    except OSError:
        text = ""
    found = text.count(fault["find"])
    if found != 1:
        result.update(verdict="stale", by=f"anchor found {found} times")
        return result
    started = time.time()
    stat = os.stat(path)
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(text.replace(fault["find"], fault["replace"]))
        rc, out = run(build_cmd, tree, 7200)
        if rc != 0:
            errors = [l.strip() for l in out.splitlines() if "error" in l][:1]
            result.update(verdict="build", by=errors[0][:120] if errors else "build failed")
        else:
            # The tests of the mutated file's own folder first: most faults are caught
            # there, in seconds. Only a fault that passes the whole suite is missed.
            near = near_label(fault["rel"])
            phases = [ctest + ["-L", near], ctest + ["-LE", near]] if near else [ctest]
            if near and "-LE" in ctest:
                excluded = ctest[ctest.index("-LE") + 1]
                phases = [ctest + ["-L", near], ctest[:ctest.index("-LE")] + ["-LE", f"{near}|{excluded}"]]
            names, failed = [], False
            for phase in phases:
                rc, out = run(phase, tree, 7200)
                if rc != 0 and "No tests were found" not in out:
                    failed = True
                    names += failed_tests(out)
                    if not keep_going:
                        break
            if failed:
                by = ", ".join(names[:3]) + (" ..." if len(names) > 3 else "")
                result.update(verdict="caught", by=by or "ctest failed")
            else:
                result.update(verdict="missed")
    finally:
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        # a fresh time stamp, so the next build replaces the mutated objects
        os.utime(path, (stat.st_atime, max(time.time(), stat.st_mtime + 1)))
    result["secs"] = time.time() - started
    return result


if __name__ == "__main__":
    sys.exit(main())
