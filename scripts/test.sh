#!/usr/bin/env bash
# Builds the library and runs the whole test suite: a Release build with
# warnings as errors, then the same suite under AddressSanitizer +
# UndefinedBehaviorSanitizer, then the threaded tests under ThreadSanitizer.
# Installs whatever Debian packages are missing first.
#
#   ./scripts/test.sh            everything
#   SKIP_SANITIZERS=1 ./scripts/test.sh   the Release run only
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

"$root/scripts/deps.sh" g++ cmake make pkg-config libgtest-dev libbenchmark-dev \
  libsuitesparse-dev libmetis-dev libopenthreads-dev libapr1-dev zlib1g-dev libeigen3-dev \
  clang libclang-rt-dev python3-dev pybind11-dev python3-numpy python3-scipy python3-pytest

jobs=$(nproc 2>/dev/null || echo 2)
gen=()
if command -v ninja >/dev/null 2>&1; then gen=(-G Ninja); fi

build() { # dir, extra cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$root/$dir" "${gen[@]}" -DKIVTAMBER_WERROR=ON "$@" >/dev/null
  cmake --build "$root/$dir" -j "$jobs"
}

echo "== Release build"
build build -DCMAKE_BUILD_TYPE=Release
echo "== Release tests"
(cd build && ctest --output-on-failure -j "$jobs" --no-tests=error)

# The Python module, built for Debian's interpreter (the one with Debian's NumPy and SciPy): its pytest
# suite on the module of a build folder; extra environment (the sanitizer runtimes) from the arguments.
pytests() { # dir, env assignments...
  local dir=$1; shift
  if [ ! -f "$root/$dir/python/kivtamber/__init__.py" ]; then
    echo "the Python module was not built in $dir (see the CMake output of that build)" >&2
    exit 1
  fi
  env "$@" PYTHONDONTWRITEBYTECODE=1 KIVTAMBER_DATA_DIR="${KIVTAMBER_DATA_DIR:-$root/../shared/data/real}" PYTHONPATH="$root/$dir/python" \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider "$root/python/tests"
}
echo "== Python module tests"
pytests build

if [ "${SKIP_SANITIZERS:-0}" = "1" ]; then exit 0; fi

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
build build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIVTAMBER_SANITIZE=address \
  -DKIVTAMBER_BUILD_BENCHMARKS=OFF
echo "== AddressSanitizer + UndefinedBehaviorSanitizer tests"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --output-on-failure -j "$jobs" --no-tests=error)
# The interpreter is not instrumented: the runtimes are preloaded, and leak checking is off (the interpreter
# keeps its objects at exit by design).
echo "== AddressSanitizer + UndefinedBehaviorSanitizer: Python module tests"
cxx=$(grep -m1 '^CMAKE_CXX_COMPILER:' build-asan/CMakeCache.txt | cut -d= -f2)
pytests build-asan LD_PRELOAD="$("$cxx" -print-file-name=libasan.so):$("$cxx" -print-file-name=libubsan.so)" \
  ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# ---------------------------------------------------------------------------------------------------------
# Fuzz targets of tamber-solve (fuzz/): the seed corpora replayed in the sanitizer build (plain replay
# drivers with g++), then, when clang has libFuzzer, a short timed fuzz of every target (FUZZ_SECONDS each,
# default 12; FUZZ_SECONDS=0 skips it). Long campaigns: scripts/fuzz.sh.
echo "== Fuzz corpus replay (AddressSanitizer + UndefinedBehaviorSanitizer)"
cmake -S "$root" -B "$root/build-asan" "${gen[@]}" -DKIVTAMBER_BUILD_FUZZ=ON >/dev/null
cmake --build "$root/build-asan" -j "$jobs" --target kivtamber-fuzz
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --output-on-failure -L fuzz --no-tests=error)
fuzz_seconds=${FUZZ_SECONDS:-12}
if [ "$fuzz_seconds" != 0 ] && command -v clang++ >/dev/null 2>&1 &&
  echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' |
  clang++ -x c++ -fsanitize=fuzzer - -o /dev/null >/dev/null 2>&1; then
  echo "== Short fuzz with libFuzzer ($fuzz_seconds s per target)"
  SECONDS_EACH=$fuzz_seconds RUNS=-1 TOOL_RUNS=-1 "$root/scripts/fuzz.sh"
else
  echo "== Short fuzz skipped (no clang with libFuzzer, or FUZZ_SECONDS=0)"
fi
# ---------------------------------------------------------------------------------------------------------

# ThreadSanitizer: the tests of the threaded code (labelled by file name). The build has no tools, so the
# tests that need the scene library are left to the other builds: SolverStep_test (the one-call step runs
# one thread; its multifrontal fallback is the code Multifront_test and Solver_test check here).
tsan_tests=$(cd tests && ls *_test.cpp 2>/dev/null | grep -E 'Thread|Multifront|Solver' | grep -v '^SolverStep_test' |
  sed 's/\.cpp$//' || true)
if [ -n "$tsan_tests" ]; then
  echo "== ThreadSanitizer build"
  cmake -S "$root" -B "$root/build-tsan" "${gen[@]}" -DKIVTAMBER_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKIVTAMBER_SANITIZE=thread -DKIVTAMBER_BUILD_BENCHMARKS=OFF -DKIVTAMBER_BUILD_TOOLS=OFF >/dev/null
  # shellcheck disable=SC2086
  cmake --build "$root/build-tsan" -j "$jobs" --target $tsan_tests
  echo "== ThreadSanitizer tests"
  regex=$(echo $tsan_tests | tr ' ' '|')
  (cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j "$jobs" -R "^($regex)\." --no-tests=error)
fi
echo "== all tests passed"
