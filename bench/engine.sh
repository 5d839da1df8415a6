#!/usr/bin/env bash
# Builds and runs the engine's cache benchmark: a cache hit against reading and SHA-256 hashing
# the package's bytes, compile counting, and the optimize_for_inference comparison.
#   bench/engine.sh [build dir (default build/engine)] [weight MiB (default 192)] [runs (default 7)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/engine}
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target lumora2_engine_cache_bench -j"$(nproc)" >/dev/null
"$build/bench/engine/lumora2_engine_cache_bench" "${2:-192}" "${3:-7}" 2>/dev/null
