#!/usr/bin/env bash
# lumora2-serve with real viewers: Debian's chromium (through playwright-core) opens the page and
# receives each session over WebRTC on 127.0.0.1, as a person would. Four runs, each printing its
# figures beside their targets as one JSON object (bench/serve_live.mjs has the details):
#   latency   speech file posted -> its first rendered frame sent (<= 300 ms + the first chunk);
#             streamed PCM -> its first rendered frame (<= 1.6 s + 150 ms); a 5-sentence
#             paragraph said -> its first rendered frame sent (<= 400 ms + the first chunk)
#   capacity  1..N sessions at once, each speaking all the time: stalls per session, the
#             server's processor time per frame per session (<= 3 ms), each child's memory
#   soak      one session for M minutes, speaking every 10 s: growth of the server's and the
#             child's resident memory after the first minute (< 5 %), descriptors, stalls
#   sync      sound against pictures where the viewer is, for a recording and for a paragraph
#             said, with the viewer's processor quiet and busy: each within one frame of its
#             median, the median within +45/-125 ms (pictures after/before their sound)
# Run it on a quiet machine. Everything listens on 127.0.0.1 and stops by itself.
#   bench/serve.sh [build dir (default build/release)] [sessions (default 4)] [minutes (default 10)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
sessions=${2:-4}
minutes=${3:-10}
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$build" --target lumora2-model lumora2-serve lumora2-family -j"$(nproc)" >/dev/null
scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-serve-bench.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export LUMORA2_MLMODELC_CACHE=$scratch/cache
node bench/serve_live.mjs "$build" latency
node bench/serve_live.mjs "$build" capacity "$sessions"
node bench/serve_live.mjs "$build" soak "$minutes"
node bench/serve_live.mjs "$build" sync
