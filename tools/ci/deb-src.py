#!/usr/bin/python3
"""Makes Debian's source package PACKAGE known to apt, for `apt-get source`.

When no configured source serves it, source entries are added beside the
machine's own binary entries: the same archives, with their options
(Signed-By included), suites of this release only, in the format they are
written in (deb822 .sources files or one-line .list files). Nothing is named
here: the entries are read by apt's own tools, apt-get indextargets and
python3-apt, from apt's configuration (APT_CONFIG is honoured).

Usage: tools/ci/deb-src.py PACKAGE
       tools/ci/deb-src.py --print   (show the entries it would add, change nothing)
"""
import os
import platform
import subprocess
import sys

try:
    import apt_pkg
    from aptsources.sourceslist import Deb822SourceEntry, SourcesList
except ImportError:
    sys.exit("deb-src: needs Debian's python3-apt, run with /usr/bin/python3")


def fail(msg):
    sys.exit("deb-src: " + msg)


def known(package):
    r = subprocess.run(["apt-cache", "showsrc", "--only-source", package], capture_output=True, text=True)
    return r.stdout.strip() != ""


def of_release(suite, codename):
    return suite == codename or suite.startswith(codename + "-")


def derived(codename):
    """The deb-src entries derived from the enabled binary ones of this
    release, as (deb822 stanzas, one-line entries), and whether any source
    entry is configured already."""
    stanzas, lines, has_src = [], [], False
    # deb822 stanzas, read by python3-apt: every field but the types and
    # suites is copied as it is.
    for e in SourcesList(withMatcher=False, deb822=True).list:
        if not isinstance(e, Deb822SourceEntry) or e.disabled or e.invalid:
            continue
        has_src = has_src or "deb-src" in e.types
        suites = [s for s in e.suites if of_release(s, codename)]
        if "deb" not in e.types or not suites:
            continue
        tags = dict(e.section.tags)
        tags["Types"] = "deb-src"
        tags["Suites"] = " ".join(suites)
        stanzas.append("".join(f"{k}: {v}\n" for k, v in tags.items()))
    # One-line entries, as apt itself reads them (python3-apt refuses their
    # options): apt names the line of each, which is copied as written with
    # its type changed.
    r = subprocess.run(["apt-get", "indextargets", "--no-release-info", "--format", "$(TARGET_OF) $(RELEASE) $(SOURCESENTRY)"],
                       capture_output=True, text=True)
    if r.returncode != 0:
        fail("apt cannot read its sources:\n" + r.stderr.strip())
    seen = set()
    for target in r.stdout.splitlines():
        kind, release, entry = target.split(" ", 2)
        path, _, number = entry.rpartition(":")
        if path.endswith(".sources") or entry in seen:
            continue
        seen.add(entry)
        has_src = has_src or kind == "deb-src"
        if kind != "deb" or not of_release(release, codename):
            continue
        with open(path) as f:
            line = f.read().splitlines()[int(number) - 1].strip()
        lines.append("deb-src" + line[len("deb"):])
    return stanzas, lines, has_src


def write(path, text):
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    subprocess.run(sudo + ["tee", path], input=text, text=True, stdout=subprocess.DEVNULL, check=True)


def update():
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    subprocess.run(sudo + ["apt-get", "update", "-qq"], check=True)


def main(argv):
    if len(argv) != 2:
        sys.exit(__doc__)
    package = argv[1]
    printing = package == "--print"
    if not printing and known(package):
        return
    codename = platform.freedesktop_os_release().get("VERSION_CODENAME", "")
    if not codename:
        fail("no release codename in /etc/os-release")
    apt_pkg.init_config()
    parts = apt_pkg.config.find_dir("Dir::Etc::sourceparts")
    stanzas, lines, has_src = derived(codename)

    if has_src and not printing:
        # Source entries are there already; the lists may just be stale.
        update()
        if not known(package):
            fail(f"apt knows no source package {package}")
        return
    if not stanzas and not lines:
        fail(f"no binary entry of {codename} to derive a source entry from")
    files = []
    if stanzas:
        files.append((os.path.join(parts, "qrncam-deb-src.sources"), "\n".join(stanzas)))
    if lines:
        files.append((os.path.join(parts, "qrncam-deb-src.list"), "".join(line + "\n" for line in lines)))
    if printing:
        for path, text in files:
            print(f"# {path}\n{text}")
        return
    for path, text in files:
        write(path, text)
    print(f"deb-src: added source entries for {codename} beside the configured binary ones")
    update()
    if not known(package):
        fail(f"apt still knows no source package {package}")


if __name__ == "__main__":
    main(sys.argv)
