#!/usr/bin/env bash
# What a session costs to start and to hold on a shared render process, against a render-stream
# child each. Two parts, each printing one JSON object per line:
#   memory     one `lumora2-model-render render-sessions` process driven directly: N sessions
#              (ava, bram alternately) opened one after another, each speaking a 2 s utterance
#              whose frames are read; the process's resident memory after the first two (one per
#              avatar) and after all, and per session beyond those (target <= 60 MiB; a
#              render-stream child holds 207-310 MiB)
#   ready_ms   lumora2-serve, per mode (--render-processes 1, auto, per-session): sessions
#              created one after another, as many as its admission takes without viewers, each
#              speaking a 3 s recording once ready: POST /v1/sessions -> the session's renderer
#              ready (polled every 2 ms; target on a warm shared process that has seen the
#              avatar: <= 100 ms), and the render processes' and the server's resident memory
#   bench/serve_pool.sh [build dir (default build/release)] [sessions (default 20)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
sessions=${2:-20}
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$build" --target lumora2-model lumora2-serve lumora2-family -j2 >/dev/null
scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-pool-bench.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export LUMORA2_MLMODELC_CACHE=$scratch/cache
"$build/tools/family/lumora2-family" --out "$scratch/family" --host "$build/host/lumora2-model" \
  >/dev/null 2>&1
python3 - "$build" "$scratch" "$sessions" <<'PY'
import json, math, os, struct, subprocess, sys, time, urllib.error, urllib.request
build, scratch, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
rate = 16000
pcm = [0.3 * math.sin(2 * math.pi * 220 * i / rate) for i in range(3 * rate)]
data = b"".join(struct.pack("<h", int(s * 32767)) for s in pcm)
wav = (b"RIFF" + struct.pack("<I", 36 + len(data)) + b"WAVEfmt " +
       struct.pack("<IHHIIHH", 16, 1, 1, rate, rate * 2, 2, 16) + b"data" +
       struct.pack("<I", len(data)) + data)

def rss_kib(pid):
    try:
        with open(f"/proc/{pid}/status") as f:
            return next(int(l.split()[1]) for l in f if l.startswith("VmRSS:"))
    except OSError:
        return 0

def run(mode):
    server = subprocess.Popen(
        [f"{build}/host/lumora2-serve", "--engine", f"{scratch}/family/vivra.model", "--avatars",
         f"{scratch}/family", "--listen", "127.0.0.1:0", "--max-sessions", str(count),
         "--render-processes", mode], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    banner = server.stdout.readline()
    base = banner.split("listening on ")[1].split(" ")[0].rstrip("/")
    def call(method, path, body=None, kind="application/json"):
        req = urllib.request.Request(base + path, data=body, method=method,
                                     headers={"Content-Type": kind})
        with urllib.request.urlopen(req, timeout=30) as r:
            return json.loads(r.read() or b"{}")
    time.sleep(3)
    ready, ids, at_first = [], [], None
    for k in range(count):
        avatar = "ava" if k % 2 == 0 else "bram"
        started = time.monotonic()
        try:
            sid = call("POST", "/v1/sessions", json.dumps({"avatar": avatar}).encode())["id"]
        except urllib.error.HTTPError:
            break  # the admission's measured capacity is reached
        while call("GET", f"/v1/sessions/{sid}")["child"] != "ready":
            time.sleep(0.002)
        ready.append(round((time.monotonic() - started) * 1000, 1))
        ids.append(sid)
        call("POST", f"/v1/sessions/{sid}/speech", wav, "audio/wav")
        pids = {call("GET", f"/v1/sessions/{s}")["child_pid"] for s in ids}
        pool = 1 if mode == "per-session" else int(mode) if mode.isdigit() else os.cpu_count()
        if at_first is None and len(ids) == pool:
            # Every process holds one session that has spoken; later ones are extra.
            time.sleep(3)
            at_first = (len(ids), sum(rss_kib(p) for p in pids) / 1024)
    time.sleep(5)
    pids = {call("GET", f"/v1/sessions/{sid}")["child_pid"] for sid in ids}
    render = sum(rss_kib(p) for p in pids) / 1024
    extra = (render - at_first[1]) / max(1, len(ids) - at_first[0]) if at_first else None
    result = {"part": "ready_ms", "mode": mode, "sessions": len(ids), "render_processes": len(pids),
              "ready_ms": ready, "render_mib": round(render, 1),
              "render_mib_per_extra_session": extra and round(extra, 1),
              "server_mib": round(rss_kib(server.pid) / 1024, 1),
              "load": os.getloadavg()[0]}
    server.terminate()
    server.wait(timeout=60)
    print(json.dumps(result))

def shared_memory():
    proc = subprocess.Popen([f"{build}/host/lumora2-model-render", "render-sessions", "--engine",
                             f"{scratch}/family/vivra.model"], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                            env={**os.environ, "OMP_WAIT_POLICY": "PASSIVE"})
    proc.stdout.readline()
    speech = [0.3 * math.sin(2 * math.pi * 220 * i / rate) for i in range(2 * rate)]
    samples = struct.pack(f"<{len(speech)}f", *speech)
    frame = 416 * 720 * 3
    def record():
        session, word = struct.unpack("<II", proc.stdout.read(8))
        if word in (0xFFFFFFFE, 0xFFFFFFFD):
            extra = proc.stdout.read(4 if word == 0xFFFFFFFD else 8)
            proc.stdout.read(struct.unpack("<I", extra[-4:])[0])
        elif word != 0xFFFFFFFF:
            proc.stdout.read(frame)
        return word
    rss, opened = [], []
    for k in range(1, count + 1):
        path = f"{scratch}/family/{'ava' if k % 2 else 'bram'}.avatar".encode()
        started = time.monotonic()
        proc.stdin.write(struct.pack("<IIII", k, 0xFFFFFFFC, 0, len(path)) + path)
        proc.stdin.flush()
        while record() != 0xFFFFFFFE:
            pass
        opened.append(round((time.monotonic() - started) * 1000, 1))
        proc.stdin.write(struct.pack("<II", k, len(speech)) + samples +
                         struct.pack("<II", k, 0xFFFFFFFF))
        proc.stdin.flush()
        while record() != 0xFFFFFFFF:
            pass
        rss.append(rss_kib(proc.pid) / 1024)
    proc.stdin.close()
    proc.wait(timeout=60)
    print(json.dumps({"part": "memory", "sessions": count, "open_ms": opened,
                      "rss_mib_after_two": round(rss[1], 1), "rss_mib_after_all": round(rss[-1], 1),
                      "mib_per_extra_session": round((rss[-1] - rss[1]) / max(1, count - 2), 1),
                      "load": os.getloadavg()[0]}))

shared_memory()
for mode in ("1", "auto", "per-session"):
    run(mode)
PY
