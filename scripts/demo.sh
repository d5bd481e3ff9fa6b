#!/usr/bin/env bash
# Builds tamber-demo in Release (build-release/) and runs it; installs whatever Debian packages the build needs
# first. Arguments go to the demo unchanged:
#
#   ./scripts/demo.sh                       the default scene (a wall of boxes with switching contacts)
#   ./scripts/demo.sh --scene cloth --threads 0
#   ./scripts/demo.sh --help
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

"$root/scripts/deps.sh" g++ cmake make pkg-config libsuitesparse-dev libmetis-dev libopenthreads-dev libapr1-dev zlib1g-dev

jobs=$(nproc 2>/dev/null || echo 2)
gen=()
if command -v ninja >/dev/null 2>&1; then gen=(-G Ninja); fi

# Only the demo and what it links: no tests, no benchmarks.
# The build's own output is shown only when it fails, so that the demo's report stands alone.
echo "== building tamber-demo (Release, build-release/)" >&2
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake -S "$root" -B "$root/build-release" "${gen[@]}" -DCMAKE_BUILD_TYPE=Release \
         -DKIVTAMBER_BUILD_TESTS=OFF -DKIVTAMBER_BUILD_BENCHMARKS=OFF &&
       cmake --build "$root/build-release" -j "$jobs" --target tamber-demo; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "tamber-demo: the build failed (output above)" >&2
  exit 1
fi
rm -f "$log"
trap - EXIT

exec "$root/build-release/tools/tamber-demo" "$@"
