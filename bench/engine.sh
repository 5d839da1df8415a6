#!/usr/bin/env bash
# Builds and runs the engine's cache benchmark: a cache hit against reading and SHA-256 hashing
# the package's bytes, compile counting, and the optimize_for_inference comparison; then the frame
# conversion and time-compression kernels against their budgets (lumora2_engine_kernels_bench);
# then the whole engine on generated families (lumora2_engine_render_bench): the real-time factor
# of the reference family, the share of the heavy family's time spent outside graph predictions,
# and resident set size over a loop of utterances.
#   bench/engine.sh [build dir (default build/engine)] [weight MiB (default 192)] [runs (default 7)]
#                   [utterance loop seconds (default 300)]
# Every benchmark runs; the exit status is 1 when any of them misses a budget or cannot run.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/engine}
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target lumora2_engine_cache_bench lumora2_engine_kernels_bench \
  lumora2_engine_render_bench -j"$(nproc)" >/dev/null
# The render host runs its graphs with passive waiting threads (lumora2-model starts it so); a
# benchmark that let them spin would measure the machine's other load more than the engine.
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-PASSIVE}
status=0
"$build/bench/engine/lumora2_engine_cache_bench" "${2:-192}" "${3:-7}" 2>/dev/null || status=1
"$build/bench/engine/lumora2_engine_kernels_bench" || status=1
"$build/bench/engine/lumora2_engine_render_bench" "${4:-300}" || status=1
exit $status
