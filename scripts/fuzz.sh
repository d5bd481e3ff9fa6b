#!/usr/bin/env bash
# Fuzz campaigns of tamber-solve's readers and of the whole tool with clang's libFuzzer, under
# AddressSanitizer + UndefinedBehaviorSanitizer (build dir build-fuzz). One target at a time, niced.
#
#   ./scripts/fuzz.sh [TARGET...]       TARGET: matrix blocks vector gzip tool (default: all five)
#   RUNS=10000000 ./scripts/fuzz.sh matrix       stop after RUNS executions (default: 10 million;
#                                                the tool: TOOL_RUNS, default 1 million)
#   SECONDS_EACH=600 ./scripts/fuzz.sh          stop after that many seconds instead (whichever first)
#   JOBS=2 ...                                   parallel fuzzing jobs per target (default 1)
#
# New inputs go to build-fuzz/corpus/<target>, crashes to build-fuzz/artifacts/. The seeds stay in
# fuzz/corpus/<target>; copy an interesting new input there by hand to keep it. Exits non-zero on the
# first target that reports a crash, a leak, a timeout or an out-of-memory.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
if ! command -v clang++ >/dev/null 2>&1; then
  echo "fuzz.sh: clang++ is needed (Debian packages clang and libclang-rt-dev)" >&2
  exit 2
fi
gen=()
if command -v ninja >/dev/null 2>&1; then gen=(-G Ninja); fi
CC=clang CXX=clang++ cmake -S "$root" -B "$root/build-fuzz" "${gen[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKIVTAMBER_SANITIZE=address -DKIVTAMBER_BUILD_FUZZ=ON -DKIVTAMBER_BUILD_TESTS=OFF \
  -DKIVTAMBER_BUILD_BENCHMARKS=OFF -DKIVTAMBER_WERROR=ON >/dev/null
cmake --build "$root/build-fuzz" -j "${BUILD_JOBS:-2}" --target kivtamber-fuzz

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then targets=(matrix blocks vector gzip tool); fi
mkdir -p "$root/build-fuzz/artifacts"
for t in "${targets[@]}"; do
  case $t in
    matrix) bin=MatrixFuzz ;; blocks) bin=BlocksFuzz ;; vector) bin=VectorFuzz ;;
    gzip) bin=GzipFuzz ;; tool) bin=ToolFuzz ;;
    *) echo "fuzz.sh: unknown target '$t' (matrix blocks vector gzip tool)" >&2; exit 2 ;;
  esac
  runs=${RUNS:-10000000}
  if [ "$t" = tool ]; then runs=${TOOL_RUNS:-1000000}; fi
  work="$root/build-fuzz/corpus/$t"
  mkdir -p "$work"
  echo "== fuzzing $t: $runs runs${SECONDS_EACH:+ or $SECONDS_EACH s}"
  # -close_fd_mask=3: the tool's report lines would flood the terminal; libFuzzer's own output survives.
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    nice -n 10 "$root/build-fuzz/fuzz/$bin" -runs="$runs" ${SECONDS_EACH:+-max_total_time=$SECONDS_EACH} \
    ${JOBS:+-jobs=$JOBS -workers=$JOBS} -dict="$root/fuzz/dict/$t.dict" -max_len=4096 -timeout=10 \
    -rss_limit_mb=2048 -malloc_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1 \
    -artifact_prefix="$root/build-fuzz/artifacts/$t-" "$work" "$root/fuzz/corpus/$t"
done
echo "== fuzzing done: no crash, leak, timeout or out-of-memory"
