#!/usr/bin/env bash
# Builds lumora2-model from scratch and runs every test: the optimised (Release) build's CTest
# suite, a clang build of every target, the address+undefined sanitizer build of the artifact
# toolchain, and each fuzz target for a bounded time. Warnings are errors in all of them. Installs
# missing Debian packages first. Exit status 0 only when everything passed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
fuzz_seconds=${LUMORA2_FUZZ_SECONDS:-60}

echo "== optimised build and tests" >&2
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA2_WERROR=ON >/dev/null
cmake --build build/release -j"$jobs"
ctest --test-dir build/release --output-on-failure -j"$jobs" --timeout 900 | tee build/release/ctest.log

echo "== every target with clang" >&2
CC=clang CXX=clang++ cmake -S . -B build/clang -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DLUMORA2_WERROR=ON >/dev/null
cmake --build build/clang -j"$jobs"

echo "== address+undefined sanitizer build of the artifact toolchain" >&2
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLUMORA2_WITH_ENGINE=OFF \
  -DLUMORA2_SANITIZE=address,undefined -DLUMORA2_WERROR=ON >/dev/null
cmake --build build/asan -j"$jobs"
ctest --test-dir build/asan --output-on-failure -j"$jobs" --timeout 900 | tee build/asan/ctest.log

echo "== fuzz targets, ${fuzz_seconds}s each" >&2
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DLUMORA2_WITH_ENGINE=OFF -DLUMORA2_FUZZ=ON -DLUMORA2_WERROR=ON >/dev/null
cmake --build build/fuzz -j"$jobs" --target fuzzers
fuzz/run.sh build/fuzz "$fuzz_seconds"

# One closing line over both CTest runs.
summary() { grep -E 'tests passed, [0-9]+ tests failed out of' "$1" | tail -n1 |
  sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1 \2/'; }
read -r f1 t1 <<<"$(summary build/release/ctest.log)"
read -r f2 t2 <<<"$(summary build/asan/ctest.log)"
echo "$(( t1 - f1 + t2 - f2 )) passed, $(( f1 + f2 )) failed"
