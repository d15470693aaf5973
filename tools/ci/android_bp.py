#!/usr/bin/python3
"""Reads the library's module from Android.bp and builds it as the device does.

The file is read with Debian's Blueprint parser (mini-soong), never by
pattern matching. Commands:

  sources BP MODULE
      Prints the module's sources, those of its whole_static_libs included,
      one per line.
  device BP MODULE OUTDIR
      Compiles every source of the module exactly as the module says, the
      way the device compiles C++ (clang, libc++, no exceptions and no RTTI
      unless the module opts in, the module's warnings as errors), against
      the host platform's stand-ins for the libraries it names; compiles
      each public header as a client of the module would, with only the
      include paths the module exports; and writes OUTDIR/module.cmake, from
      which the CMake build makes the same library for the tests.

Run it with /usr/bin/python3: Debian's Python modules are not seen by other
Python installations on PATH.
"""
import concurrent.futures
import os
import shlex
import subprocess
import sys

try:
    from mini_soong.parser import soong
except ImportError:
    sys.exit("android_bp.py: needs Debian's mini-soong (apt-get install mini-soong) and /usr/bin/python3")

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))

# Properties this lane knows how to honour. Anything else in the module (an
# arch or target block, a new kind of flag) fails the lane rather than being
# silently ignored.
KNOWN_PROPERTIES = {
    "name", "defaults", "vendor", "compile_multilib", "srcs", "cflags", "cppflags", "local_include_dirs",
    "export_include_dirs", "shared_libs", "export_shared_lib_headers", "whole_static_libs", "version_script",
    "rtti",
}
LIST_PROPERTIES = {
    "defaults", "srcs", "cflags", "cppflags", "local_include_dirs", "export_include_dirs", "shared_libs",
    "export_shared_lib_headers", "whole_static_libs",
}

# Flags that the device's compiler (a clang of early 2019) is known to
# accept. The lane's clang is newer and would take flags that the device's
# rejects, so a flag the module uses must be on this list; add one only after
# checking that the device toolchain has it.
DEVICE_COMPILER_FLAGS = {
    "-Wall", "-Wextra", "-Werror", "-Wformat=2", "-Wformat-security", "-fexceptions", "-fno-exceptions",
    "-Wthread-safety", "-Wthread-safety-beta", "-D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS",
}

# What the platform build adds to every C++ source of an arm64 vendor module
# before the module's own flags: position-independent, optimised code with
# unwind tables, the platform's own error-level warnings, GNU C++17, and no
# exceptions or RTTI unless the module asks for them.
DEVICE_CFLAGS = [
    "-fPIC", "-O2", "-g", "-funwind-tables", "-fstack-protector-strong", "-ffunction-sections", "-fdata-sections",
    "-Werror=return-type", "-Werror=non-virtual-dtor", "-Werror=address", "-Werror=sequence-point",
    "-Werror=format-security", "-Werror=date-time",
]
DEVICE_CPPFLAGS = ["-std=gnu++17", "-fvisibility-inlines-hidden", "-fno-exceptions"]

# The device's clang may bind a call to a default-visibility function of the
# same file locally, or inline it, whatever the interposition rules say; the
# lane's newer clang does the same only when told so. With this the tests
# prove that the library never relies on its own calls being interposable.
DEVICE_COMPILER_BEHAVIOUR = ["-fno-semantic-interposition"]

# The headers each platform library exports on a device, and where the host
# platform keeps its stand-in for them.
HOST_HEADERS = {
    "liblog": ["/usr/include/android"],
    "libcutils": ["host/properties/include", "host/trace/include", "/usr/include/android"],
    "libutils": ["/usr/include/android"],
    "libhidlbase": ["host/hidl/include"],
    "libhidltransport": ["host/hidl/include"],
    "vendor.quarnel.hardware.power@2.0": ["host/power_client/include"],
    "android.hardware.power@1.0": [],
    "libqrncam_ulog": ["host/camera/include"],
    "libqrncam_stdutils": ["host/camera/include"],
}

# The lane's compiler must know every flag too: unknown warning options and
# unused arguments are errors rather than notes.
STRICT = ["-Werror=unknown-warning-option", "-Werror=unused-command-line-argument"]


def fail(msg):
    sys.exit("android_bp.py: " + msg)


def parse(bp):
    with open(bp) as f:
        items = soong.parseString(f.read(), parseAll=True)
    modules = {}
    for item in items:
        args = dict(item.arguments)
        name = args.get("name")
        if not isinstance(name, str):
            fail(f"a {item.name} module without a name")
        if name in modules:
            fail(f"module {name} defined twice")
        modules[name] = (item.name, args)
    return modules


def resolved(modules, name, kinds):
    """The module's properties with its defaults applied: lists are joined
    (defaults first, as Soong does), single values come from the module."""
    if name not in modules:
        fail(f"no module {name}")
    kind, args = modules[name]
    if kind not in kinds:
        fail(f"{name} is a {kind}, expected {' or '.join(sorted(kinds))}")
    unknown = set(args) - KNOWN_PROPERTIES
    if unknown:
        fail(f"{name}: properties this lane does not honour: {', '.join(sorted(unknown))}")
    out = {}
    for d in args.get("defaults", []):
        for key, value in resolved(modules, d, {"cc_defaults"}).items():
            if key == "name":
                continue
            out[key] = out.get(key, []) + list(value) if key in LIST_PROPERTIES else value
    for key, value in args.items():
        if key in LIST_PROPERTIES:
            if not isinstance(value, list):
                fail(f"{name}: {key} must be a list")
            out[key] = out.get(key, []) + list(value)
        else:
            out[key] = value
    return out


def groups(modules, name):
    """The module and its whole static libraries, each with its sources and
    the flags and include directories its sources are compiled with."""
    top = resolved(modules, name, {"cc_library_shared"})
    if top.get("compile_multilib") != "64" or top.get("vendor") is not True:
        fail(f"{name}: expected a 64-bit vendor module")
    out = []
    pending = [(name, top)]
    exported = []
    while pending:
        mod_name, mod = pending.pop(0)
        for flag in mod.get("cflags", []) + mod.get("cppflags", []):
            if flag not in DEVICE_COMPILER_FLAGS:
                fail(f"{mod_name}: {flag} is not known to be accepted by the device's compiler")
        cpp = DEVICE_CPPFLAGS + ([] if mod.get("rtti") is True else ["-fno-rtti"])
        flags = DEVICE_CFLAGS + DEVICE_COMPILER_BEHAVIOUR + mod.get("cflags", []) + cpp + mod.get("cppflags", [])
        includes = mod.get("local_include_dirs", []) + mod.get("export_include_dirs", [])
        exported += mod.get("export_include_dirs", [])
        libs = mod.get("shared_libs", [])
        for lib in libs:
            if lib not in HOST_HEADERS:
                fail(f"{mod_name}: the host platform has no headers for {lib}")
        for lib in mod.get("export_shared_lib_headers", []):
            if lib not in libs:
                fail(f"{mod_name}: exports the headers of {lib}, which it does not link")
        out.append({"name": mod_name, "srcs": mod.get("srcs", []), "flags": flags, "includes": includes,
                    "libs": libs, "export_libs": mod.get("export_shared_lib_headers", [])})
        for lib in mod.get("whole_static_libs", []):
            pending.append((lib, resolved(modules, lib, {"cc_library_static"})))
    return top, out, exported


def platform_includes(libs):
    # The host's stand-ins come before Debian's Android headers, which they
    # complete or replace (Debian's <cutils/properties.h> does not compile
    # on a host).
    dirs = []
    for lib in libs:
        for d in HOST_HEADERS[lib]:
            if d not in dirs:
                dirs.append(d)
    return sorted(dirs, key=os.path.isabs)


def include_flags(dirs):
    return [f for d in dirs for f in ("-I", os.path.join(ROOT, d))]


# Platform headers are system headers on a device too: their own warnings
# are not the module's.
def platform_flags(dirs):
    return [f for d in dirs for f in ("-isystem", d if os.path.isabs(d) else os.path.join(ROOT, d))]


def run_all(jobs):
    def one(job):
        cmd, what = job
        r = subprocess.run(cmd, capture_output=True, text=True)
        return what, cmd, r
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(max_workers=int(os.environ.get("QRNCAM_JOBS", "2"))) as pool:
        for what, cmd, r in pool.map(one, jobs):
            output = (r.stdout + r.stderr).strip()
            if r.returncode != 0 or output:
                failed += 1
                print(f"FAILED {what}:\n  {shlex.join(cmd)}\n{output}\n")
            else:
                print(f"ok     {what}")
    return failed


def cmake_list(values):
    return " ".join('"' + v.replace("\\", "\\\\").replace('"', '\\"') + '"' for v in values)


def device(bp, name, outdir):
    modules = parse(bp)
    top, parts, exported = groups(modules, name)
    cxx = os.environ.get("QRNCAM_DEVICE_CXX", "clang++")
    os.makedirs(outdir, exist_ok=True)

    # 1. Every source, exactly as the module is compiled on the device.
    jobs = []
    for part in parts:
        for src in part["srcs"]:
            obj = os.path.join(outdir, "exact", src + ".o")
            os.makedirs(os.path.dirname(obj), exist_ok=True)
            cmd = ([cxx, "-stdlib=libc++"] + STRICT + part["flags"] + include_flags(part["includes"]) +
                   platform_flags(platform_includes(part["libs"])) + ["-c", os.path.join(ROOT, src), "-o", obj])
            jobs.append((cmd, f"{src} ({part['name']})"))

    # 2. Each public header, as a client of the module includes it: the
    # module's exported directories and the headers of the libraries it
    # exports, nothing else.
    export_libs = [lib for part in parts for lib in part["export_libs"]]
    for d in dict.fromkeys(exported):
        for header in sorted(os.listdir(os.path.join(ROOT, d))):
            if not header.endswith(".h"):
                continue
            cmd = ([cxx, "-stdlib=libc++", "-std=gnu++17", "-fno-exceptions", "-fno-rtti", "-Wall", "-Werror"] +
                   STRICT + include_flags([d]) + platform_flags(platform_includes(export_libs)) +
                   ["-fsyntax-only", "-include", header, "-x", "c++", "/dev/null"])
            jobs.append((cmd, f"{d}/{header} as a client includes it"))
    if run_all(jobs):
        fail("the module does not build as the device builds it")

    # 3. The same library for the tests, through CMake.
    script = top.get("version_script")
    if not isinstance(script, str):
        fail(f"{name}: no version_script")
    lines = ["# Written by tools/ci/android_bp.py from Android.bp; not to be edited.",
             f"set(QRNCAM_DEVICE_VERSION_SCRIPT \"{os.path.join(ROOT, script)}\")"]
    for part in parts:
        for src in part["srcs"]:
            lines.append(f"qrncam_device_source(\"{os.path.join(ROOT, src)}\" FLAGS {cmake_list(part['flags'])} "
                         f"INCLUDES {cmake_list(os.path.join(ROOT, d) for d in part['includes'])})")
    with open(os.path.join(outdir, "module.cmake"), "w") as f:
        f.write("\n".join(lines) + "\n")
    print(f"{name}: {sum(len(p['srcs']) for p in parts)} sources in {len(parts)} modules, "
          f"written to {os.path.join(outdir, 'module.cmake')}")


def main(argv):
    if len(argv) == 4 and argv[1] == "sources":
        _, parts, _ = groups(parse(argv[2]), argv[3])
        for part in parts:
            for src in part["srcs"]:
                print(src)
    elif len(argv) == 5 and argv[1] == "device":
        device(argv[2], argv[3], argv[4])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
