#!/usr/bin/env python3
"""Turns the examples in installed headers into GoogleTest cases.

An example is a run of comment lines indented three spaces ("//   code"),
blank comment lines ("//") inside it included; text indented four spaces or
more that does not follow such a line (list items, transcript text) is not
code. Each header becomes one source file that includes GoogleTest, the
example's own #include lines and the header itself, with the alias
qt = qrnhost::testing that the harness's examples use. An example with a
TEST or a main() of its own stands in a namespace of its own; any other
becomes the body of a test named after the header.

Usage: header_examples.py OUT_DIR INCLUDE_ROOT:HEADER...
(each header given by the directory it is included from and its path below
it, e.g. host/testing/include:qrnhost/testing.h)."""
import os
import re
import sys


def examples(lines):
    """The examples of a header, each a list of code lines."""
    found, block, gap = [], None, 0
    for line in lines:
        if block is None:
            if re.match(r"^//   \S", line):
                block = [line[5:]]
            continue
        if line.startswith("//   "):
            block += [""] * gap + [line[5:]]
            gap = 0
        elif line.rstrip() == "//":
            gap += 1
        else:
            found.append(block)
            block, gap = None, 0
    if block:
        found.append(block)
    return found


def source(header, blocks):
    stem = re.sub(r"\W", "_", os.path.splitext(header)[0])
    includes, parts = [], []
    for n, block in enumerate(blocks, 1):
        code = [l for l in block if not l.startswith("#include")]
        includes += [l for l in block if l.startswith("#include") and l not in includes]
        where = f'// {header}, example {n}'
        if any(re.match(r"^(TEST\w*\(|int main\()", l) for l in code):
            parts.append(f"{where}\nnamespace example_{n} {{\n" + "\n".join(code) + f"\n}}  // namespace example_{n}\n")
        else:
            body = "\n".join("    " + l if l else "" for l in code)
            parts.append(f"{where}\nTEST(HeaderExample, {stem}_{n}) {{\n{body}\n}}\n")
    head = [f"// Generated from {header} by tests/examples/header_examples.py: its examples, as written.",
            "#include <gtest/gtest.h>"] + includes + [f"#include <{header}>", ""]
    if blocks:
        head.append("namespace qt = qrnhost::testing;\n")
    return "\n".join(head) + "\n".join(parts)


def main():
    out = sys.argv[1]
    os.makedirs(out, exist_ok=True)
    total = 0
    for arg in sys.argv[2:]:
        root, header = arg.split(":", 1)
        with open(os.path.join(root, header), encoding="utf-8") as f:
            blocks = examples(f.read().splitlines())
        total += len(blocks)
        name = os.path.join(out, re.sub(r"\W", "_", header) + ".cpp")
        text = source(header, blocks)
        old = open(name, encoding="utf-8").read() if os.path.exists(name) else None
        if text != old:  # unchanged sources keep their objects
            with open(name, "w", encoding="utf-8") as f:
                f.write(text)
    if total == 0:
        sys.exit("header_examples.py: no example found in any header; has the way they are written changed?")


if __name__ == "__main__":
    main()
