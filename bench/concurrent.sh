#!/usr/bin/env bash
# Several render processes on one machine: 20 s of speech rendered by one render-stream child
# alone, then by four children at once (each its own process, as four renders or four sessions
# are). Budget: the four take at most 4.4 times as long as the one (OpenMP threads that spin while
# they wait took 9.3 times as long), and every child renders the same bytes.
#   bench/concurrent.sh [build dir (default build/release)] [children (default 4)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
children=${2:-4}
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$build" --target lumora2-model lumora2-family -j"$(nproc)" >/dev/null
model=$(realpath "$build/host/lumora2-model")

scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-concurrent.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export LUMORA2_MLMODELC_CACHE=$scratch/cache
family=$scratch/family
"$build/tools/family/lumora2-family" --out "$family" --host "$model" >/dev/null 2>&1
"$model" unpack "$family/vivra.model" "$scratch/engine" >/dev/null

PYTHONPATH=bench python3 - "$children" "$model" "$family" "$scratch" <<'PY'
import sys, threading, time
from stream_parent import Child, load_wav, messages
children, model, family, scratch = int(sys.argv[1]), *sys.argv[2:]
warm = load_wav(f"{scratch}/engine/warm.wav")
payload = messages((warm * (20 * 16000 // len(warm) + 1))[:20 * 16000])

def run(count):
    """Starts `count` children, waits for every header, then renders the speech on all at once:
    (seconds from the first byte sent to the last marker, digests)."""
    kids = [Child(model, f"{family}/ava.avatar", f"{family}/vivra.model") for _ in range(count)]
    digests = [None] * count
    def render(k):
        digests[k] = kids[k].segment(payload)[1]
    threads = [threading.Thread(target=render, args=(k,)) for k in range(count)]
    start = time.perf_counter()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    elapsed = time.perf_counter() - start
    for kid in kids:
        kid.close()
    return elapsed, digests

run(1)  # fills the compiled-model cache
alone, (reference,) = run(1)
together, digests = run(children)
ratio = together / alone
budget = 1.1 * children
same = all(d == reference for d in digests)
ok = ratio <= budget and same
print(f"{children} children at once against one alone: {together:.2f} s / {alone:.2f} s = "
      f"{ratio:.2f}   budget <= {budget:.1f}   frames {'identical' if same else 'DIFFER'}   "
      f"{'PASS' if ok else 'FAIL'}")
sys.exit(0 if ok else 1)
PY
