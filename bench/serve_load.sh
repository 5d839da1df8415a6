#!/usr/bin/env bash
# How many live sessions a lumora2-serve holds before it says no: sessions opened one by one, each
# watched by a chromium page over WebRTC and speaking all the time at real-time pace, until the
# server refuses one (or the cap, or the time limit); then all of them speak on for a settle
# period. Prints one JSON object (bench/serve_load.mjs has the details): sessions held, those with
# zero stalls, the refusal's status and body, frames received a second per session, speech to
# first frame, resident memory of the server and of its children.
#   bench/serve_load.sh http://HOST:PORT [cap (default 12)] [settle seconds (default 20)]
#       against a running server (run it on this machine's 127.0.0.1 or a namespace of your own)
#   bench/serve_load.sh [build dir (default build/release)] [max sessions: auto|N (default auto)]
#                       [cap (default 12)] [settle seconds (default 20)]
#       starts its own server on 127.0.0.1 with the reference family, --max-sessions as given, on
#       the first half of the processors (the viewers on the other half)
# Everything stops by itself: admissions and the settle period within 10 minutes, each step bounded.
set -euo pipefail
cd "$(dirname "$0")/.."
target=${1:-build/release}
if [[ $target == http://* ]]; then
  exec node bench/serve_load.mjs --url "$target" --cap "${2:-12}" --settle "${3:-20}"
fi
if [ ! -f "$target/build.ninja" ] && [ ! -f "$target/Makefile" ]; then
  cmake -S . -B "$target" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$target" --target lumora2-model lumora2-serve lumora2-family -j"$(nproc)" >/dev/null
scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-serve-load.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export LUMORA2_MLMODELC_CACHE=$scratch/cache
# The server and its children on the first half of the processors, the viewers (node, chromium)
# on the rest: viewers do not run on a server in use, and here they would take its time.
cores=$(nproc)
if [ "$cores" -ge 2 ]; then
  half=$((cores / 2))
  exec taskset -c "$half-$((cores - 1))" node bench/serve_load.mjs --build "$target" \
    --max-sessions "${2:-auto}" --cap "${3:-12}" --settle "${4:-20}" --server-cpus "0-$((half - 1))"
fi
node bench/serve_load.mjs --build "$target" --max-sessions "${2:-auto}" --cap "${3:-12}" --settle "${4:-20}"
