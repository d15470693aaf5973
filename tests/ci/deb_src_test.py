#!/usr/bin/python3
"""tools/ci/deb-src.py against an apt configuration of its own: the source
entries it derives are read back by apt itself, which refuses them when they
are malformed or when their Signed-By differs from their binary twin's.

Usage: deb_src_test.py DEB_SRC_PY
"""
import os
import platform
import subprocess
import sys
import tempfile

KEY = "/usr/share/keyrings/debian-archive-keyring.gpg"


def setup(root, release):
    etc = os.path.join(root, "etc")
    os.makedirs(os.path.join(etc, "apt.conf.d"))
    os.makedirs(os.path.join(etc, "sources.list.d"))
    os.makedirs(os.path.join(root, "lists", "partial"))
    with open(os.path.join(etc, "sources.list"), "w") as f:
        f.write(f"# a comment\n"
                f"deb [signed-by={KEY} arch=amd64] http://one.invalid/debian {release} main contrib\n"
                f"  deb http://one.invalid/debian {release}-updates main\n"
                f"deb http://one.invalid/debian older main\n")
    with open(os.path.join(etc, "sources.list.d", "two.sources"), "w") as f:
        f.write(f"Types: deb\nURIs: http://two.invalid/debian\nSuites: {release} {release}-security older\n"
                "Components: main\nSigned-By:\n -----BEGIN PGP PUBLIC KEY BLOCK-----\n .\n abc\n"
                " -----END PGP PUBLIC KEY BLOCK-----\n\n"
                f"Types: deb\nEnabled: no\nURIs: http://off.invalid/debian\nSuites: {release}\nComponents: main\n")
    conf = os.path.join(root, "apt.conf")
    with open(conf, "w") as f:
        f.write(f'Dir::Etc "{etc}";\nDir::Etc::sourcelist "sources.list";\nDir::Etc::sourceparts "sources.list.d";\n'
                f'Dir::State::lists "{root}/lists";\n')
    return dict(os.environ, APT_CONFIG=conf)


def targets(env):
    r = subprocess.run(["apt-get", "indextargets", "--no-release-info", "--format",
                        "$(TARGET_OF) $(REPO_URI) $(RELEASE) $(SOURCESENTRY)"], env=env, capture_output=True, text=True)
    assert r.returncode == 0 and not r.stderr.strip(), "apt cannot read the sources: " + r.stderr
    found = set()
    for line in r.stdout.splitlines():
        kind, uri, release, entry = line.split(" ")
        found.add((kind, uri, release, os.path.basename(entry.rpartition(":")[0])))
    return found


def main(argv):
    script = argv[1]
    release = platform.freedesktop_os_release()["VERSION_CODENAME"]
    with tempfile.TemporaryDirectory() as root:
        env = setup(root, release)
        r = subprocess.run([script, "--print"], env=env, capture_output=True, text=True)
        assert r.returncode == 0, r.stderr
        # The entries it would add, each under the name of its file.
        files, current = {}, None
        for line in r.stdout.splitlines(keepends=True):
            if line.startswith("# /"):
                current = line[2:].strip()
                files[current] = ""
            elif current:
                files[current] += line
        assert sorted(os.path.basename(p) for p in files) == ["qrncam-deb-src.list", "qrncam-deb-src.sources"], files
        for path, text in files.items():
            with open(path, "w") as f:
                f.write(text)
        got = {t for t in targets(env) if t[0] == "deb-src"}
        want = {("deb-src", "http://one.invalid/debian/", release, "qrncam-deb-src.list"),
                ("deb-src", "http://one.invalid/debian/", release + "-updates", "qrncam-deb-src.list"),
                ("deb-src", "http://two.invalid/debian/", release, "qrncam-deb-src.sources"),
                ("deb-src", "http://two.invalid/debian/", release + "-security", "qrncam-deb-src.sources")}
        assert got == want, f"derived source entries: {sorted(got)}, expected {sorted(want)}"
        # The options go with them: the same Signed-By (which apt must find
        # on both to verify the archive), and one-line entries as written.
        # python3-apt reads its configuration once, when it is loaded.
        os.environ["APT_CONFIG"] = env["APT_CONFIG"]
        from aptsources.sourceslist import Deb822SourceEntry, SourcesList

        keys = {tuple(e.types): e.section.tags.get("Signed-By") for e in SourcesList(withMatcher=False, deb822=True).list
                if isinstance(e, Deb822SourceEntry) and not e.disabled and e.uri == "http://two.invalid/debian"}
        assert keys[("deb-src",)] == keys[("deb",)] and "abc" in keys[("deb",)], keys
        lines = files[next(p for p in files if p.endswith(".list"))].splitlines()
        assert lines[0] == f"deb-src [signed-by={KEY} arch=amd64] http://one.invalid/debian {release} main contrib", lines

        # Nothing of this release to derive from: a clear refusal.
        os.remove(os.path.join(root, "etc", "sources.list"))
        for path in files:
            os.remove(path)
        os.remove(os.path.join(root, "etc", "sources.list.d", "two.sources"))
        r = subprocess.run([script, "--print"], env=env, capture_output=True, text=True)
        assert r.returncode != 0 and f"no binary entry of {release}" in r.stderr, (r.returncode, r.stderr)
    print("deb-src: derived entries read back by apt as expected")


if __name__ == "__main__":
    main(sys.argv)
