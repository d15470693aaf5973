#!/usr/bin/env bash
# Builds the main program (only what it needs, so a first run is quick) and
# runs it: a camera session on the host against the simulated platform.
# Arguments go to the program (--help).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
tools/ci/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target qrncam_session
exec build/default/bin/qrncam_session "$@"
