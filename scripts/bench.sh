#!/usr/bin/env bash
# The comparison with other sparse direct solvers: installs the optional peers (CHOLMOD from
# libsuitesparse-dev, Eigen from libeigen3-dev) and a plotting tool (gnuplot-nox, else python3-matplotlib)
# from Debian's packages, builds Release in build-release/, runs tamber-bench on the scenes at about 1,000,
# 10,000 and 50,000 blocks and prints its tables. Results go to bench-results/: tamber-bench.md (the
# tables), tamber-bench.csv and tamber-bench-summary.csv (the same as CSV) and factor-times.png (the plot).
# A peer or plotting tool that cannot be installed is left out; the benchmark says what is missing.
#
#   ./scripts/bench.sh                           the default run (under ten minutes on two cores)
#   ./scripts/bench.sh --sizes 1000 --runs 3     any tamber-bench options (--help lists them)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

"$root/scripts/deps.sh" g++ cmake make pkg-config libsuitesparse-dev libmetis-dev libopenthreads-dev \
  libapr1-dev zlib1g-dev
"$root/scripts/deps.sh" libeigen3-dev || echo "== Eigen could not be installed: running without it"
if ! "$root/scripts/deps.sh" gnuplot-nox; then
  "$root/scripts/deps.sh" python3-matplotlib || echo "== no plotting tool could be installed: no plot"
fi

jobs=$(nproc 2>/dev/null || echo 2)
gen=()
if command -v ninja >/dev/null 2>&1; then gen=(-G Ninja); fi
cmake -S "$root" -B "$root/build-release" "${gen[@]}" -DCMAKE_BUILD_TYPE=Release \
  -DKIVTAMBER_BUILD_TESTS=OFF -DKIVTAMBER_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$root/build-release" -j "$jobs" --target tamber-bench

echo "== tamber-bench $*"
"$root/build-release/tools/tamber-bench" --out "$root/bench-results" "$@"
