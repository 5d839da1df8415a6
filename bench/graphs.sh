#!/usr/bin/env bash
# Prediction time of the reference family's graphs on one thread, frozen as the engine's cache
# holds them, for the reference and the heavy family, plus the whole chain's real-time factor per
# 1.6 s chunk, and each graph with batches of 1, 2, 4 and 8 chunks' inputs. Usage:
# bench/graphs.sh [build-dir] (default build/release). Timings are medians; run on an otherwise
# idle machine.
#
# On a GPU machine that has LibTorch with CUDA and none of the media libraries, build the bench
# alone (bench/tools/standalone/CMakeLists.txt says how), copy the two generated families over and
# run it with --device cuda: the same tables, the batches going on to 32.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
out=${LUMORA2_BENCH_OUT:-out/bench-graphs}

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target lumora2-family lumora2-graph-bench

family="$build/tools/family/lumora2-family"
bench="$build/bench/tools/lumora2-graph-bench"

"$family" --out "$out/reference" --no-pack >/dev/null
"$family" --out "$out/heavy" --heavy --no-pack >/dev/null

echo "== reference family"
"$bench" --family "$out/reference" --label reference --runs 50 --chunks 10 --batch
echo
echo "== heavy family"
"$bench" --family "$out/heavy" --label heavy --runs 5 --chunks 2 --batch
