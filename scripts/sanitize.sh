#!/usr/bin/env bash
# The address+undefined sanitizer build with everything in it: the engine, the render commands,
# lumora2-render and lumora2-serve, and every CTest case that drives them (the reference family
# included). scripts/test.sh sanitizes the artifact toolchain only, to keep CI short; this build
# takes about 20 minutes to compile and 15 to run on two cores, so it is run on its own:
#   scripts/sanitize.sh [extra ctest arguments, e.g. -L serve]
# LibTorch itself is not instrumented; leaks inside it are not ours to report, so LeakSanitizer is
# off for the processes that load it. Exit status 0 only when every case passed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
cmake -S . -B build/asan-engine -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLUMORA2_WITH_ENGINE=ON \
  -DLUMORA2_SANITIZE=address,undefined -DLUMORA2_WERROR=ON >/dev/null
cmake --build build/asan-engine -j"$jobs"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
# The two-hour fast-clock timeline takes a minute in the optimised build and over a quarter of an
# hour here; the five-minute one beside it covers the same code under the sanitizers. The render
# children run several times slower here, so cases that expect real-time speed (label `timing`:
# no stall at 20 frames a second) and the browser's (label `browser`) are left to the optimised
# build.
ctest --test-dir build/asan-engine --output-on-failure -j"$jobs" --timeout 1800 -LE 'browser|timing' \
  -E 'TwoHoursFastRenderer' "$@" |
  tee build/asan-engine/ctest.log
