#!/usr/bin/env bash
# How many sessions one machine holds, every one watched and speaking all the time, counted with
# light WebRTC receivers (lumora2-whep-receiver: RTP packets and frames by the marker bit, nothing
# decoded) rather than browsers, which would take the server's own cores. lumora2-serve runs on
# 127.0.0.1 with its default shared render processes; for N = 4, 8, 12, ... up to the maximum it
# adds sessions up to N (ava and bram alternately), gives each newcomer a receiver (which stays
# connected for the rest of the run and is asked for its counts at the start and end of each
# measured span, so that no step reconnects the sessions already there), keeps each speaking
# at real-time pace (a 6 s recording posted again while fewer than two are queued), lets it settle
# 10 s and measures 20 s. Per N: every session's frames a second (>= 19.5 holds) and stalls in the
# measured span (0 holds), the server's and its render processes' processor time (share of a core,
# and ms per session-frame), the receivers' own, the whole machine's (others' work shows there: the
# load average counts this bench's own threads too), and resident memory of the server and of the
# render processes (each, both, and each per session beyond the first step). It stops at the first
# N that does not hold (or that the server refuses) and prints one JSON object with a row per N
# and `sessions_held`, the largest N where every session held. The first session is watched by
# Chromium instead (bench/density_viewer.mjs): its frames a second and freezes count too.
#   bench/serve_density.sh [build dir (default build/release)] [max sessions (default 24)]
# Everything is bounded: each step within about a minute, the whole run within 15 minutes; every
# process it starts is stopped on exit.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
most=${2:-24}
if ! [[ $most =~ ^[0-9]+$ ]] || [ "$most" -lt 4 ] || [ "$most" -gt 64 ]; then
  echo "usage: bench/serve_density.sh [build dir] [max sessions, 4 to 64]" >&2
  exit 2
fi
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$build" --target lumora2-model lumora2-model-render lumora2-serve lumora2-family \
  lumora2-whep-receiver -j2 >/dev/null
scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-density.XXXXXX")
py=
cleanup() {
  if [ -n "$py" ]; then
    kill "$py" 2>/dev/null || true
    wait "$py" 2>/dev/null || true
  fi
  rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
export LUMORA2_MLMODELC_CACHE=$scratch/cache
"$build/tools/family/lumora2-family" --out "$scratch/family" --host "$build/host/lumora2-model" \
  >/dev/null 2>&1
timeout -s TERM 900 python3 - "$build" "$scratch" "$most" <<'PY' &
import json, math, os, signal, struct, subprocess, sys, threading, time, urllib.error
import urllib.request

build, scratch, most = sys.argv[1], sys.argv[2], int(sys.argv[3])
SETTLE, MEASURE, HOLD_FPS = 10, 20, 19.5
signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))

# 6 s of speech-like sound: a voiced tone whose pitch wanders, in syllables of about 200 ms.
# Short, so that what is queued ahead (two at most) holds little: the server keeps every picture
# rendered ahead of its time, and its memory per session grows with that.
rate = 16000
samples = []
for i in range(6 * rate):
    t = i / rate
    pitch = 150 + 40 * math.sin(2 * math.pi * 0.7 * t)
    syllable = abs(math.sin(2 * math.pi * 2.5 * t)) ** 0.5
    v = sum(math.sin(2 * math.pi * pitch * h * t) / h for h in (1, 2, 3))
    samples.append(int(9000 * syllable * v / 1.9))
data = struct.pack(f"<{len(samples)}h", *samples)
wav = (b"RIFF" + struct.pack("<I", 36 + len(data)) + b"WAVEfmt " +
       struct.pack("<IHHIIHH", 16, 1, 1, rate, rate * 2, 2, 16) + b"data" +
       struct.pack("<I", len(data)) + data)

def stat(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return int(fields[1]), (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    except (OSError, IndexError, ValueError):
        return None, 0.0

def machine_busy():
    """Processor seconds every process on the machine has used (all cores)."""
    with open("/proc/stat") as f:
        ticks = [int(v) for v in f.readline().split()[1:9]]
    return (sum(ticks) - ticks[3] - ticks[4]) / os.sysconf("SC_CLK_TCK")

def rss_kib(pid):
    try:
        with open(f"/proc/{pid}/status") as f:
            return next(int(l.split()[1]) for l in f if l.startswith("VmRSS:"))
    except (OSError, StopIteration):
        return 0

def descendants(root):
    parents = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            ppid, _ = stat(int(entry))
            if ppid is not None:
                parents.setdefault(ppid, []).append(int(entry))
    found, todo = [], [root]
    while todo:
        for child in parents.get(todo.pop(), []):
            found.append(child)
            todo.append(child)
    return found

server = subprocess.Popen(
    [f"{build}/host/lumora2-serve", "--engine", f"{scratch}/family/vivra.model", "--avatars",
     f"{scratch}/family", "--listen", "127.0.0.1:0", "--max-sessions", str(most),
     "--host", f"{build}/host/lumora2-model"],
    stdout=subprocess.PIPE, stderr=open(f"{scratch}/serve.log", "w"), text=True,
    start_new_session=True)
receivers = {}  # session id -> its lumora2-whep-receiver, connected for the whole run
stop = threading.Event()

def sample(r, first=False):
    """A receiver's counts so far (its connection line, with `first`); None once it has gone."""
    try:
        if not first:
            r.stdin.write("\n")
            r.stdin.flush()
        line = r.stdout.readline()
        return json.loads(line) if line.strip() else None
    except (OSError, ValueError):
        return None

viewer = None  # the Chromium viewer (bench/density_viewer.mjs)

def look(v):
    """One sample of what the Chromium viewer saw."""
    v.stdin.write("\n")
    v.stdin.flush()
    got = json.loads(v.stdout.readline() or "{}")
    if "decoded" not in got:
        raise SystemExit("the Chromium viewer failed: " + json.dumps(got))
    return got

def finish():
    stop.set()
    if viewer is not None and viewer.poll() is None:
        viewer.stdin.close()
        try:
            viewer.wait(timeout=20)
        except subprocess.TimeoutExpired:
            viewer.kill()
            viewer.wait()
    for r in receivers.values():
        if r.poll() is None:
            try:
                r.stdin.close()  # the receiver deletes its WHEP resource and ends
                r.wait(timeout=10)
            except (OSError, subprocess.TimeoutExpired):
                r.kill()
                r.wait()
    if server.poll() is None:
        os.killpg(server.pid, signal.SIGINT)  # ends at once, render processes included
        try:
            server.wait(timeout=20)
        except subprocess.TimeoutExpired:
            os.killpg(server.pid, signal.SIGKILL)
            server.wait()

def call(method, path, body=None, kind="application/json"):
    req = urllib.request.Request(base + path, data=body, method=method,
                                 headers={"Content-Type": kind})
    with urllib.request.urlopen(req, timeout=30) as r:
        return json.loads(r.read() or b"{}")

sessions = []  # ids, in the order made
whep = {}  # id -> its WHEP URL
lock = threading.Lock()

def feed():
    """Keeps every session's queue at two recordings or more: speaking all the time."""
    while not stop.wait(1.0):
        with lock:
            ids = list(sessions)
        for sid in ids:
            try:
                if call("GET", f"/v1/sessions/{sid}")["utterances_queued"] < 2:
                    call("POST", f"/v1/sessions/{sid}/speech", wav, "audio/wav")
            except (urllib.error.URLError, OSError, KeyError, ValueError):
                pass

def readyz():
    try:
        return call("GET", "/readyz")
    except urllib.error.HTTPError as e:  # 503 when full: the same fields
        return json.loads(e.read() or b"{}")

def statuses():
    return {sid: call("GET", f"/v1/sessions/{sid}") for sid in sessions}

def cpu_seconds(pids):
    return sum(stat(p)[1] for p in pids)

def wait_for(check, seconds):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if check():
            return True
        time.sleep(0.2)
    return False

result = {"machine": {"cores": os.cpu_count(), "load_before": os.getloadavg()},
          "settle_s": SETTLE, "measure_s": MEASURE, "browser_viewer": False, "rows": []}
try:
    banner = server.stdout.readline()
    if "listening on " not in banner:
        raise SystemExit("lumora2-serve did not start: " + open(f"{scratch}/serve.log").read())
    base = banner.split("listening on ")[1].split(" ")[0].rstrip("/")
    threading.Thread(target=feed, daemon=True).start()
    first = None  # (sessions, resident MiB) at the first step
    for n in range(4, most + 1, 4):
        row = {"sessions": n}
        result["rows"].append(row)
        # Sessions up to N; the server's admission may need a moment to measure the newcomers.
        refused = None
        while len(sessions) < n:
            try:
                made = call("POST", "/v1/sessions",
                            json.dumps({"avatar": "ava" if len(sessions) % 2 == 0 else "bram"})
                            .encode())
                whep[made["id"]] = base + made["urls"]["whep"]
                with lock:
                    sessions.append(made["id"])
                refused = None
            except urllib.error.HTTPError as e:
                if e.code != 503:
                    raise
                if refused is None:
                    refused = time.monotonic()
                elif time.monotonic() - refused > 20:
                    row["refused"] = json.loads(e.read() or b"{}")
                    row["render_fps_at_refusal"] = sorted(
                        round(st["render_fps"], 1) for st in statuses().values())
                    break
                time.sleep(1)
        if "refused" in row:
            row["holds"] = False
            break
        if not wait_for(lambda: all(s["child"] == "ready" for s in statuses().values()), 90):
            row["holds"], row["error"] = False, "render processes not ready within 90 s"
            break
        # The first session is watched by Chromium for the whole run; every other by a receiver.
        if viewer is None:
            viewer = subprocess.Popen(
                ["node", "bench/density_viewer.mjs", base, whep[sessions[0]]],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            said = json.loads(viewer.stdout.readline() or "{}")
            if not said.get("connected"):
                raise SystemExit("the Chromium viewer did not connect: " + json.dumps(said))
            result["browser_viewer"] = True
        # Receivers stay connected from step to step: only the newcomers connect now.
        errors, fresh = [], [sid for sid in sessions[1:] if sid not in receivers]
        for sid in fresh:
            receivers[sid] = subprocess.Popen(
                [f"{build}/bench/lumora2-whep-receiver", whep[sid], "--on-demand",
                 "--seconds", "900", "--connect-timeout", "30"],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        for sid in fresh:
            if not sample(receivers[sid], first=True):
                why = receivers[sid].stderr.read().strip().splitlines() or ["no line"]
                errors.append(f"{sid}: {why[-1]}")
        wait_for(lambda: all(s["viewer"] == "connected" for s in statuses().values()), 30)
        at_connect = statuses()
        time.sleep(SETTLE)
        pids = [server.pid] + descendants(server.pid)
        before, cpu0 = statuses(), {p: stat(p)[1] for p in pids}
        recv0, busy0 = cpu_seconds(r.pid for r in receivers.values()), machine_busy()
        got0 = {sid: sample(r) for sid, r in receivers.items()}
        t0, seen0 = time.monotonic(), look(viewer)
        time.sleep(MEASURE)
        got1 = {sid: sample(r) for sid, r in receivers.items()}
        after, t1, seen1 = statuses(), time.monotonic(), look(viewer)
        cpu1 = {p: stat(p)[1] for p in pids}
        recv1, busy1 = cpu_seconds(r.pid for r in receivers.values()), machine_busy()
        span = t1 - t0
        fps, gaps = [], []
        for sid in receivers:
            a, b = got0[sid], got1[sid]
            if not a or not b or not b["connected"]:
                errors.append(f"{sid}: the receiver lost its connection")
                fps.append(0.0)
                continue
            fps.append((b["frames"] - a["frames"]) * 1000 / max(1.0, b["ms"] - a["ms"]))
            gaps.append(b["max_gap_ms"])
        stalls = [after[s]["stalls"] - before[s]["stalls"] for s in sessions]
        settle_stalls = [before[s]["stalls"] - at_connect[s]["stalls"] for s in sessions]
        behind = [after[s]["frames_behind"] - before[s]["frames_behind"] for s in sessions]
        server_cpu = cpu1[server.pid] - cpu0[server.pid]
        render_cpu = sum(cpu1[p] - cpu0[p] for p in pids if p != server.pid)
        server_mib = rss_kib(server.pid) / 1024
        render_mib = sum(rss_kib(p) for p in pids if p != server.pid) / 1024
        total = server_mib + render_mib
        if first is None:
            first = (n, total, server_mib, render_mib)
        extra = (lambda now, then: round((now - then) / (n - first[0]), 1)
                 if n > first[0] else None)
        # What Chromium showed over the span: frames a second and freezes (a frame shown for
        # more than three times the usual, or 150 ms more).
        browser = {"fps": round((seen1["decoded"] - seen0["decoded"]) * 1000 / (seen1["t"] - seen0["t"]), 2),
                   "freezes": seen1["freezes"] - seen0["freezes"],
                   "freeze_ms": round(seen1["freeze_ms"] - seen0["freeze_ms"]),
                   "dropped": seen1["dropped"] - seen0["dropped"], "lost": seen1["lost"] - seen0["lost"]}
        fps.append(browser["fps"])
        row.update({
            "holds": (not errors and min(fps) >= HOLD_FPS and max(stalls) == 0 and
                      browser["freezes"] == 0),
            "browser": browser,
            "fps_min": round(min(fps), 2), "fps_median": round(sorted(fps)[len(fps) // 2], 2),
            "max_frame_gap_ms": round(max(gaps), 1) if gaps else None,
            "stalls": sum(stalls), "sessions_with_stalls": sum(1 for s in stalls if s),
            "stalls_while_settling": sum(settle_stalls), "frames_behind": sum(behind),
            "sessions_speaking": sum(1 for s in sessions if after[s]["speaking"]),
            "utterances_spoken": sum(after[s]["utterances_spoken"] - before[s]["utterances_spoken"]
                                     for s in sessions),
            "server_core_pct": round(100 * server_cpu / span, 1),
            "render_core_pct": round(100 * render_cpu / span, 1),
            "ms_per_session_frame": round(1000 * (server_cpu + render_cpu) / (n * 20 * span), 2),
            "receivers_core_pct": round(100 * (recv1 - recv0) / span, 1),
            # Everything on the machine, this bench included: the rest is others' work.
            "machine_core_pct": round(100 * (busy1 - busy0) / span, 1),
            "render_processes": len(pids) - 1,
            "server_mib": round(server_mib, 1), "render_mib": round(render_mib, 1),
            "total_mib": round(total, 1),
            "mib_per_extra_session": extra(total, first[1]),
            "server_mib_per_extra_session": extra(server_mib, first[2]),
            "render_mib_per_extra_session": extra(render_mib, first[3]),
            # Each render process's speed over each session's last segment, as the server measured
            # it: its admission refuses newcomers while the slowest is below 20 frames a second.
            "render_fps_slowest": round(min(after[s]["render_fps"] for s in sessions), 1),
            "render_fps_median": round(sorted(after[s]["render_fps"] for s in sessions)[n // 2], 1),
            "capacity_claimed": readyz().get("capacity"),
            "load": round(os.getloadavg()[0], 2)})
        if errors:
            row["receiver_errors"] = errors[:4]
        if not row["holds"]:
            break
    held = [r["sessions"] for r in result["rows"] if r.get("holds")]
    result["sessions_held"] = max(held) if held else 0
    result["machine"]["load_after"] = os.getloadavg()
finally:
    finish()
print(json.dumps(result))
PY
py=$!
wait "$py"
