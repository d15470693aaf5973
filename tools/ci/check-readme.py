#!/usr/bin/env python3
"""Runs the README's commands that select tests, as written, on the default
build, so that none of them silently selects nothing:

- `ctest --preset default ...` runs with --no-tests=error added;
- `build/default/bin/NAME --gtest_filter=...` must run and pass a test;
- `ctest --preset OTHER ...` must name a test preset that exists (its lane
  runs it);
- `tools/mutants.py ...` runs with --check (do its faults still apply?).

Fails when a command fails, selects nothing, or when the README shows none of
them (the way they are found has broken).
Usage: tools/ci/check-readme.py   (after a build of the default preset)
"""
import glob
import json
import os
import re
import shlex
import subprocess
import sys

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))


def commands(text):
    """Commands shown in inline code and in indented blocks, with the line
    breaks of wrapped inline code undone."""
    found = [" ".join(m.split()) for m in re.findall(r"`([^`]+)`", text)]
    found += [line.strip() for line in text.splitlines() if line.startswith("    ") and line.strip()]
    # A trailing comment of a block line is not part of the command.
    return [re.sub(r"\s+#.*$", "", c) for c in found]


def expand(word):
    """A word with wildcards expands as a shell would, from the top."""
    if "*" not in word:
        return [word]
    return sorted(glob.glob(word, root_dir=ROOT)) or [word]


def run(argv):
    r = subprocess.run(argv, cwd=ROOT, capture_output=True, text=True)
    return r.returncode, r.stdout + r.stderr


def main():
    with open(os.path.join(ROOT, "README.md")) as f:
        shown = commands(f.read())
    with open(os.path.join(ROOT, "CMakePresets.json")) as f:
        presets = {p["name"] for p in json.load(f)["testPresets"]}
    checked, failures = 0, []
    for command in dict.fromkeys(shown):
        try:
            argv = [w for word in shlex.split(command) for w in expand(word)]
        except ValueError:  # not a command line (a quoted text, a format)
            continue
        if not argv:
            continue
        if argv[0] == "ctest" and "--preset" in argv:
            preset = argv[argv.index("--preset") + 1]
            if preset != "default":
                ok = preset in presets
                why = "" if ok else f"no test preset {preset}"
            else:
                code, out = run(argv + ["--no-tests=error"])
                ok, why = code == 0, out[-2000:]
        elif argv[0].startswith("build/default/bin/") and any(a.startswith("--gtest_filter=") for a in argv):
            code, out = run(argv)
            passed = re.search(r"^\[  PASSED  \] (\d+) tests?\.", out, re.M)
            ok = code == 0 and passed is not None and int(passed.group(1)) > 0
            why = out[-2000:]
        elif argv[0] == "tools/mutants.py" and any(a.endswith(".tsv") for a in argv):
            code, out = run(argv[:1] + ["--check"] + [a for a in argv[1:] if a != "--check"])
            ok, why = code == 0, out[-2000:]
        else:
            continue
        checked += 1
        print(("ok      " if ok else "FAILED  ") + command, flush=True)
        if not ok:
            failures.append((command, why))
    for command, why in failures:
        print(f"\n{command}:\n{why}")
    if checked == 0:
        sys.exit("check-readme: the README shows no command that selects tests; has their form changed?")
    print(f"check-readme: {checked - len(failures)} of {checked} commands that select tests work as written")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
