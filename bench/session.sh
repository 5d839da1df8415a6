#!/usr/bin/env bash
# A long render-stream session on the packed reference family, driven like a real parent:
# utterances of one to four seconds in half-second messages, each ended by a flush or (every third)
# by a reset, with pauses between them, for ten minutes (or LUMORA2_SESSION_SECONDS). Budgets: the
# child's resident set grows less than 5 % from the end of the first minute to the end; its open
# file descriptors do not grow; exactly one working directory exists while it runs and none after.
#   bench/session.sh [build dir (default build/release)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
seconds=${LUMORA2_SESSION_SECONDS:-600}
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$build" --target lumora2-model lumora2-family -j"$(nproc)" >/dev/null
model=$(realpath "$build/host/lumora2-model")

scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-session-bench.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/tmp"
export LUMORA2_MLMODELC_CACHE=$scratch/cache
"$build/tools/family/lumora2-family" --out "$scratch/family" --host "$model" >/dev/null

TMPDIR=$scratch/tmp python3 - "$model" "$scratch/family" "$seconds" "$scratch/tmp" <<'PY'
import glob, math, os, random, struct, subprocess, sys, threading, time
model, family, seconds, tmp = sys.argv[1], sys.argv[2], float(sys.argv[3]), sys.argv[4]
child = subprocess.Popen([model, "render-stream", f"{family}/ava.avatar", "--engine",
                          f"{family}/vivra.model"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL)
child.stdout.readline()
FRAME = 416 * 720 * 3
def rss_kib():
    with open(f"/proc/{child.pid}/status") as f:
        return next(int(l.split()[1]) for l in f if l.startswith("VmRSS:"))
def fds():
    return len(os.listdir(f"/proc/{child.pid}/fd"))
def workdirs():
    return len(glob.glob(f"{tmp}/ane-render-*"))
rng = random.Random(7)
def utterance():
    n = rng.randint(16000, 64000)
    f = rng.uniform(120, 260)
    samples = [0.4 * math.sin(2 * math.pi * f * i / 16000) * (0.5 + 0.5 * math.sin(2 * math.pi * 3 * i / 16000))
               for i in range(n)]
    return b"".join(struct.pack(f"<I{len(samples[a:a + 8000])}f", len(samples[a:a + 8000]), *samples[a:a + 8000])
                    for a in range(0, n, 8000))
def segment(payload, end_words):
    def send():
        child.stdin.write(payload + b"".join(struct.pack("<I", w) for w in end_words))
        child.stdin.flush()
    t = threading.Thread(target=send)
    t.start()
    frames = 0
    while True:
        (word,) = struct.unpack("<I", child.stdout.read(4))
        if word == 0xFFFFFFFF:
            break
        child.stdout.read(FRAME)
        frames += 1
    t.join()
    return frames
start = time.monotonic()
first_minute = None
count = frames = 0
dirs_during = set()
while time.monotonic() - start < seconds:
    payload = utterance()
    # Every third utterance ends with a reset; the flush after it then writes only the marker.
    ends = [0xFFFFFFFE, 0xFFFFFFFF] if count % 3 == 2 else [0xFFFFFFFF]
    frames += segment(payload, ends)
    count += 1
    dirs_during.add(workdirs())
    if first_minute is None and time.monotonic() - start >= min(60, seconds / 10):
        first_minute = (rss_kib(), fds())
    time.sleep(rng.uniform(0.2, 1.0))
end = (rss_kib(), fds())
child.stdin.close()
status = child.wait()
after = workdirs()
growth = (end[0] - first_minute[0]) / first_minute[0]
ok_rss, ok_fd, ok_dirs = growth < 0.05, end[1] <= first_minute[1], dirs_during == {1} and after == 0
elapsed = time.monotonic() - start
print(f"render-stream session {elapsed / 60:.1f} min, {count} utterances, {frames} frames, exit {status}")
print(f"  resident set  {first_minute[0] / 1024:7.1f} MiB after the first minute -> {end[0] / 1024:7.1f} MiB "
      f"at the end   growth {growth * 100:+.2f} %   budget < 5 %  {'PASS' if ok_rss else 'FAIL'}")
print(f"  descriptors   {first_minute[1]} -> {end[1]}   budget: no growth  {'PASS' if ok_fd else 'FAIL'}")
print(f"  working dirs  while running {sorted(dirs_during)}, after exit {after}   budget: 1 then 0  "
      f"{'PASS' if ok_dirs else 'FAIL'}")
sys.exit(0 if ok_rss and ok_fd and ok_dirs and status == 0 else 1)
PY
