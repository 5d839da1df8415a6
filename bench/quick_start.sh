#!/usr/bin/env bash
# Start-up on the packed reference family, where short inputs spend most of their time:
#  - render-stream's fixed start-up: from spawning the child to its first rendered frame, for 1 s
#    of speech sent right after the header (budget <= 2 s), beside the same with the full warm-up
#    (LUMORA2_WARMUP=full) as the baseline;
#  - lumora2-render on 1 s of speech, whole command (budget <= 3 s);
#  - lumora2-render on 30 s of silence, which starts no child at all.
# Each figure is the median of the timed runs, after one untimed render that fills the compiled-
# model cache. Run it on a quiet machine: the budgets are for 2 idle cores.
#   bench/quick_start.sh [build dir (default build/release)] [timed runs (default 5)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
runs=${2:-5}
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$build" --target lumora2-model lumora2-render lumora2-family -j"$(nproc)" >/dev/null
model=$(realpath "$build/host/lumora2-model")
render=$(realpath "$build/host/lumora2-render")

scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-quick-start.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export LUMORA2_MLMODELC_CACHE=$scratch/cache
family=$scratch/family
"$build/tools/family/lumora2-family" --out "$family" --host "$model" >/dev/null 2>&1
"$model" unpack "$family/vivra.model" "$scratch/engine" >/dev/null
ffmpeg -v error -i "$scratch/engine/warm.wav" -t 1 "$scratch/one.wav"
ffmpeg -v error -f lavfi -i anullsrc=r=16000:cl=mono -t 30 "$scratch/silence.wav"
"$render" "$family/ava.avatar" --engine "$family/vivra.model" --audio "$scratch/one.wav" \
  -o "$scratch/warm-cache.mp4" >/dev/null 2>&1

PYTHONPATH=bench python3 - "$runs" "$model" "$render" "$family" "$scratch" <<'PY'
import os, statistics, subprocess, sys, time
from stream_parent import Child, load_wav, messages
runs, model, render, family, scratch = int(sys.argv[1]), *sys.argv[2:]
payload = messages(load_wav(f"{scratch}/one.wav"))

def first_frame(env):
    child = Child(model, f"{family}/ava.avatar", f"{family}/vivra.model", env)
    _, _, first = child.segment(payload)
    elapsed = child.ready + first
    child.close()
    return elapsed

def wall(cmd):
    start = time.perf_counter()
    subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.perf_counter() - start

full_env = dict(os.environ, LUMORA2_WARMUP="full")
fast = statistics.median(first_frame(None) for _ in range(runs))
full = statistics.median(first_frame(full_env) for _ in range(runs))
common = [f"{family}/ava.avatar", "--engine", f"{family}/vivra.model", "-o", f"{scratch}/out.mp4"]
one_s = statistics.median(wall([render, *common, "--audio", f"{scratch}/one.wav"]) for _ in range(runs))
silent = statistics.median(wall([render, *common, "--audio", f"{scratch}/silence.wav"])
                           for _ in range(runs))
ok_first, ok_one = fast <= 2.0, one_s <= 3.0
print(f"render-stream spawn to first rendered frame  {fast:5.2f} s   budget <= 2 s  ratio {fast / 2.0:.3f}  "
      f"{'PASS' if ok_first else 'FAIL'}  (full warm-up: {full:.2f} s, {fast / full:.2f} of it)")
print(f"lumora2-render, 1 s of speech                {one_s:5.2f} s   budget <= 3 s  ratio {one_s / 3.0:.3f}  "
      f"{'PASS' if ok_one else 'FAIL'}")
print(f"lumora2-render, 30 s of silence (no child)   {silent:5.2f} s   ({30.0 / silent:.1f}x real time)")
print(f"(medians of {runs})")
sys.exit(0 if ok_first and ok_one else 1)
PY
