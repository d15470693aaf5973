#!/usr/bin/env bash
# Builds everything and runs the main program: a camera session on the host
# against the simulated platform. Arguments go to the program (--help).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
tools/ci/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2
exec build/default/bin/qrncam_session "$@"
