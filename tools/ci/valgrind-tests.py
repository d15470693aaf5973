#!/usr/bin/env python3
"""Runs the test suite of a build under valgrind memcheck, one run per test
binary, with every GoogleTest case that ctest selects for it: all but the
labels `process` (cases that start processes, which valgrind does not follow
well) and `stress`. Fails on any invalid access or definite leak.

Usage: tools/ci/valgrind-tests.py BUILD_DIR
"""
import collections
import json
import os
import re
import subprocess
import sys


def selected(build):
    """GoogleTest cases by binary, as ctest selects them by label."""
    out = subprocess.run(["ctest", "--test-dir", build, "-N", "-LE", "process|stress", "--show-only=json-v1"],
                         capture_output=True, text=True, check=True).stdout
    cases = collections.OrderedDict()
    for test in json.loads(out)["tests"]:
        command = test.get("command", [])
        filters = [a[len("--gtest_filter="):] for a in command[1:] if a.startswith("--gtest_filter=")]
        if filters:  # the other tests (scripts) have no binary of ours to look into
            cases.setdefault(command[0], []).extend(filters)
    return cases


def main(argv):
    if len(argv) != 2:
        sys.exit(__doc__)
    build = argv[1]
    cases = selected(build)
    if not cases:
        sys.exit("valgrind: ctest selects no test in " + build)
    status = 0
    for binary, names in cases.items():
        name = os.path.basename(binary)
        log = os.path.join(build, f"valgrind-{name}.log")
        print(f"valgrind {name:<28} ", end="", flush=True)
        with open(log + ".out", "w") as out:
            r = subprocess.run(["valgrind", "--error-exitcode=99", "--leak-check=full",
                                "--errors-for-leak-kinds=definite", "--show-leak-kinds=definite", "--num-callers=30",
                                f"--log-file={log}", binary, "--gtest_filter=" + ":".join(names)],
                               stdout=out, stderr=subprocess.STDOUT)
        with open(log + ".out") as out:
            text = out.read()
        passed = len(re.findall(r"^\[       OK \]", text, re.M))
        skipped = len(set(re.findall(r"^\[  SKIPPED \] (\S+\.\S+)", text, re.M)))
        if r.returncode == 0 and passed + skipped == len(names):
            print(f"clean ({passed} tests" + (f", {skipped} skipped)" if skipped else ")"))
            continue
        print(f"FAILED ({passed} of {len(names)} tests passed; see {log})")
        with open(log) as f:
            print("".join(f.readlines()[-40:]))
        status = 1
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv))
