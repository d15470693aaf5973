#!/usr/bin/env python3
"""Planted faults: how many do the tests catch?

Plants one fault at a time in a clone of this repository's HEAD, rebuilds
incrementally and looks whether the fault is caught (killed) or not
(survived), then restores the file byte for byte.

    tools/mutants.py tests/mutants/public.tsv              every fault of a set
    tools/mutants.py --only fc-append,jq-lifo tests/mutants/public.tsv
    tools/mutants.py --check tests/mutants/*.tsv           do they all still apply?
    tools/mutants.py --preset clang --caught-by build tests/mutants/locks.tsv

Caught by the tests (the default): the preset's ctest runs once on the
unmutated build, and a fault is killed when a test that passed there fails,
crashes, times out or goes missing. A fault whose build fails is reported
apart. Caught by the build (--caught-by build): a fault is killed when the
build fails with a diagnostic matching --build-error (for locks.tsv, clang's
-Wthread-safety under the clang preset).

A set is tab-separated, one fault a line (lines starting with # are
comments): id, file, line, find, replace, area, description. find and
replace take \\n, \\t and \\\\ escapes. find must occur exactly once in the
file, or, when a line is given, start on that line. When code moves, update
a fault's find text (or line) so that it still plants the same fault.

The clone, its builds and the reports live in build/mutants/ (--work);
uncommitted changes are not in the clone. Exit status: 0 when every fault
applies and is killed, 1 otherwise, 2 on a usage or setup error.
"""
import argparse
import os
import re
import subprocess
import sys
import time
import xml.etree.ElementTree as ET

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
FIELDS = ["id", "file", "line", "find", "replace", "area", "description"]


class SetupError(Exception):
    pass


def unescape(text):
    return re.sub(r"\\(.)", lambda m: {"n": "\n", "t": "\t", "\\": "\\"}.get(m.group(1), "\\" + m.group(1)), text)


def read_set(path):
    faults = []
    with open(path) as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            cells = line.split("\t")
            if cells[: len(FIELDS)] == FIELDS:
                continue
            if len(cells) != len(FIELDS):
                raise SetupError(f"{path}:{number}: {len(cells)} fields, expected {len(FIELDS)}")
            fault = dict(zip(FIELDS, cells))
            fault["find"] = unescape(fault["find"])
            fault["replace"] = unescape(fault["replace"])
            fault["set"] = os.path.basename(path)
            faults.append(fault)
    return faults


def locate(text, fault):
    """The offset at which fault's find text is replaced, or a reason why it
    cannot be."""
    starts = [m.start() for m in re.finditer(re.escape(fault["find"]), text)]
    lines = [text.count("\n", 0, s) + 1 for s in starts]
    if fault["line"]:
        chosen = [s for s, n in zip(starts, lines) if n == int(fault["line"])]
        if len(chosen) == 1:
            return chosen[0], None
        return None, f"find text does not start on line {fault['line']} (it does on lines {lines or 'none'})"
    if len(starts) == 1:
        return starts[0], None
    return None, f"find text occurs {len(starts)} times (must be once, or give its line; lines {lines})"


def run(cmd, cwd, timeout):
    try:
        r = subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, timeout=timeout)
        return r.returncode, r.stdout + r.stderr
    except subprocess.TimeoutExpired as e:
        out = (e.stdout or b"") + (e.stderr or b"")
        return None, out.decode(errors="replace") if isinstance(out, bytes) else out


class Clone:
    def __init__(self, work, preset, jobs):
        self.src = os.path.join(work, "src")
        self.preset = preset
        self.jobs = jobs
        head = subprocess.run(["git", "-C", ROOT, "rev-parse", "HEAD"], capture_output=True, text=True,
                              check=True).stdout.strip()
        if not os.path.isdir(os.path.join(self.src, ".git")):
            os.makedirs(work, exist_ok=True)
            subprocess.run(["git", "clone", "--quiet", "--shared", "--no-checkout", ROOT, self.src], check=True)
        subprocess.run(["git", "-C", self.src, "fetch", "--quiet", ROOT, head], check=True)
        subprocess.run(["git", "-C", self.src, "checkout", "--quiet", "--force", "--detach", head], check=True)
        subprocess.run(["git", "-C", self.src, "clean", "--quiet", "-fd"], check=True)
        self.head = head

    def path(self, rel):
        return os.path.join(self.src, rel)

    def clean(self):
        out = subprocess.run(["git", "-C", self.src, "status", "--porcelain", "--untracked-files=no"],
                             capture_output=True, text=True, check=True).stdout
        return out.strip() == ""

    def configure(self):
        code, out = run(["cmake", "--preset", self.preset, "-DQRNCAM_BUILD_BENCH=OFF"], self.src, 600)
        if code != 0:
            raise SetupError("configure failed:\n" + out[-3000:])

    def build(self, timeout):
        return run(["cmake", "--build", "--preset", self.preset, "-j", str(self.jobs)], self.src, timeout)

    def tests(self, timeout):
        """Outcome of every test ctest ran: name -> passed, failed or skipped;
        None when the run as a whole timed out."""
        junit = os.path.join(self.src, "build", "mutants-junit.xml")
        if os.path.exists(junit):
            os.remove(junit)
        code, _ = run(["ctest", "--preset", self.preset, "-j", str(self.jobs), "--output-junit", junit], self.src,
                      timeout)
        if code is None or not os.path.exists(junit):
            return None
        outcome = {}
        for case in ET.parse(junit).getroot().iter("testcase"):
            status = case.get("status", "")
            if case.find("failure") is not None or case.find("error") is not None or status == "fail":
                outcome[case.get("name")] = "failed"
            elif case.find("skipped") is not None or status in ("disabled", "notrun"):
                outcome[case.get("name")] = "skipped"
            else:
                outcome[case.get("name")] = "passed"
        return outcome


def plant(clone, fault):
    """Plants the fault and returns the file's original bytes, or raises with
    the reason it does not apply."""
    path = clone.path(fault["file"])
    if not os.path.isfile(path):
        raise SetupError(f"{fault['id']}: no file {fault['file']}")
    with open(path, "rb") as f:
        original = f.read()
    text = original.decode()
    at, why = locate(text, fault)
    if at is None:
        raise SetupError(f"{fault['id']} ({fault['file']}): {why}")
    mutated = text[:at] + fault["replace"] + text[at + len(fault["find"]):]
    with open(path, "wb") as f:
        f.write(mutated.encode())
    return original


def restore(clone, fault, original):
    with open(clone.path(fault["file"]), "wb") as f:
        f.write(original)
    if not clone.clean():
        raise SetupError(f"{fault['id']}: the clone is not clean after restoring {fault['file']}")


def report(path, faults, results, caught_by, elapsed):
    killed = [f for f in faults if results[f["id"]]["verdict"] == "killed"]
    lines = [f"# Planted faults: {', '.join(sorted({f['set'] for f in faults}))}", "",
             f"Caught by the {caught_by}: {len(killed)} of {len(faults)} killed, in {elapsed:.0f} s.", "",
             "| id | area | fault | verdict | by | s |", "|---|---|---|---|---|---|"]
    for f in faults:
        r = results[f["id"]]
        by = ", ".join(r["by"][:3]) + (" ..." if len(r["by"]) > 3 else "")
        lines.append(f"| {f['id']} | {f['area']} | {f['description']} | {r['verdict']} | {by} | {r['seconds']:.1f} |")
    others = [f for f in faults if results[f["id"]]["verdict"] != "killed"]
    lines += ["", f"## Not killed ({len(others)})", ""]
    lines += [f"- {f['id']} ({results[f['id']]['verdict']}): {f['description']}" for f in others]
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as out:
        out.write("\n".join(lines) + "\n")


def main(argv):
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("sets", nargs="+", metavar="SET.tsv")
    p.add_argument("--only", help="comma-separated ids to plant")
    p.add_argument("--check", action="store_true", help="only check that every fault applies; build nothing")
    p.add_argument("--preset", default="default", help="CMake configure, build and test preset (default: default)")
    p.add_argument("--caught-by", choices=["tests", "build"], default="tests")
    p.add_argument("--build-error", default="", help="with --caught-by build: a regular expression the build's "
                   "output must match for the fault to count as killed")
    p.add_argument("--work", default=os.path.join(ROOT, "build", "mutants"))
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--build-timeout", type=int, default=1200)
    p.add_argument("--test-timeout", type=int, default=900)
    p.add_argument("--report", help="Markdown report (default: WORK/report-FIRST-SET.md)")
    a = p.parse_args(argv[1:])

    try:
        faults = [f for s in a.sets for f in read_set(s)]
        ids = [f["id"] for f in faults]
        duplicates = sorted({i for i in ids if ids.count(i) > 1})
        if duplicates:
            raise SetupError("ids used twice: " + ", ".join(duplicates))
        if a.only:
            wanted = a.only.split(",")
            unknown = [i for i in wanted if i not in ids]
            if unknown:
                raise SetupError("no such ids: " + ", ".join(unknown))
            faults = [f for f in faults if f["id"] in wanted]

        if a.check:
            # Against the working tree: a fault set is checked with the
            # change that moved the code, before it is committed.
            problems = []
            for f in faults:
                path = os.path.join(ROOT, f["file"])
                if not os.path.isfile(path):
                    problems.append(f"{f['id']}: no file {f['file']}")
                    continue
                with open(path) as src:
                    _, why = locate(src.read(), f)
                if why:
                    problems.append(f"{f['id']} ({f['file']}): {why}")
            for problem in problems:
                print("does not apply: " + problem)
            print(f"mutants: {len(faults) - len(problems)} of {len(faults)} faults apply")
            return 1 if problems else 0

        start = time.time()
        clone = Clone(a.work, a.preset, a.jobs)
        print(f"mutants: {len(faults)} faults in a clone of {clone.head[:12]} ({clone.src}), preset {a.preset}",
              flush=True)
        clone.configure()
        code, out = clone.build(a.build_timeout)
        if code != 0:
            raise SetupError("the unmutated tree does not build:\n" + out[-3000:])
        baseline = {}
        if a.caught_by == "tests":
            baseline = clone.tests(a.test_timeout)
            if baseline is None:
                raise SetupError("the unmutated tree's tests did not finish")
            baseline = {name for name, outcome in baseline.items() if outcome == "passed"}
            print(f"mutants: baseline: {len(baseline)} tests pass", flush=True)

        results = {}
        for n, f in enumerate(faults, 1):
            t0 = time.time()
            original = plant(clone, f)
            by = []
            try:
                code, out = clone.build(a.build_timeout)
                if a.caught_by == "build":
                    matched = code not in (0, None) and re.search(a.build_error, out) is not None
                    verdict = "killed" if matched else ("survived" if code == 0 else "build failed otherwise")
                    if matched:
                        by = sorted(set(re.findall(r"\[-W[^\]]*\]", out)))[:1] or ["build"]
                elif code != 0:
                    verdict = "build failed" if code is not None else "build timed out"
                else:
                    outcome = clone.tests(a.test_timeout)
                    if outcome is None:
                        verdict, by = "killed", ["(the test run timed out)"]
                    else:
                        by = sorted(name for name in baseline if outcome.get(name) != "passed")
                        verdict = "killed" if by else "survived"
            finally:
                restore(clone, f, original)
            results[f["id"]] = {"verdict": verdict, "by": by, "seconds": time.time() - t0}
            print(f"[{n}/{len(faults)}] {f['id']:<28} {verdict:<10} {', '.join(by[:2])}", flush=True)

        clone.build(a.build_timeout)  # leave the clone's build as the tree is
        path = a.report or os.path.join(a.work, "report-" + os.path.splitext(os.path.basename(a.sets[0]))[0] + ".md")
        report(path, faults, results, a.caught_by, time.time() - start)
        killed = sum(1 for r in results.values() if r["verdict"] == "killed")
        print(f"mutants: {killed} of {len(faults)} killed; report in {path}")
        for f in faults:
            if results[f["id"]]["verdict"] != "killed":
                print(f"  not killed: {f['id']} ({results[f['id']]['verdict']}): {f['description']}")
        return 0 if killed == len(faults) else 1
    except SetupError as e:
        print("mutants: " + str(e), file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
