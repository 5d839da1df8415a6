#!/usr/bin/env bash
# The main job on a fresh Debian 12 machine: installs what is missing, builds lumora2-model and the
# reference model family, packs the family's engine and avatars with the project's own pack
# commands, inspects each artifact with `info`, unpacks it with checksum verification, and runs
# `validate` on each avatar: warm-up and a short render through the engine, judged by sharpness.
# It serves a few seconds through `render-stream` to a small parent, and ends by having each
# avatar say a typed text, in its own embedded voice, into a playable MP4 with `lumora2-render`.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build=build/release
out=${LUMORA2_DEMO_OUT:-out/demo}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA2_WERROR=ON >/dev/null
cmake --build "$build" -j"$(nproc)" --target lumora2-model lumora2-family lumora2-render lumora2-serve

host="$build/host/lumora2-model"
rm -rf "$out"
mkdir -p "$out"

echo "== building the reference model family into $out"
"$build/tools/family/lumora2-family" --out "$out" --host "$host"

for artifact in "$out"/vivra.model "$out"/*.avatar; do
  name=$(basename "$artifact")
  echo
  echo "== lumora2-model info $name"
  "$host" info "$artifact"
  echo
  echo "== lumora2-model unpack $name"
  "$host" unpack "$artifact" "$out/unpacked/${name%.*}"
done

for avatar in "$out"/*.avatar; do
  echo
  echo "== lumora2-model validate $(basename "$avatar") --engine vivra.model"
  # The engine's own log (stderr) is kept in a file; the command's report is what shows.
  log="$out/validate-$(basename "${avatar%.*}").log"
  if ! "$host" validate "$avatar" --engine "$out/vivra.model" 2>"$log"; then
    grep '^error: ' "$log" >&2 || tail -n 20 "$log" >&2
    exit 1
  fi
done

echo
echo "== lumora2-model render-stream ava.avatar: a small parent sends the warm-up speech"
# The parent: writes the speech in half-second messages and a flush from one thread, reads frame
# records from another (the child stops taking audio while its frames are not read), and shows
# them arriving. The engine's log is kept in a file.
python3 - "$host" "$out" <<'PY'
import struct, subprocess, sys, threading, time, wave
host, out = sys.argv[1], sys.argv[2]
with wave.open(f"{out}/unpacked/vivra/warm.wav") as w:
    pcm = w.readframes(w.getnframes())
samples = [v / 32768.0 for v in struct.unpack(f"<{len(pcm) // 2}h", pcm)][:16000 * 4]
log = open(f"{out}/render-stream.log", "w")
child = subprocess.Popen([host, "render-stream", f"{out}/ava.avatar", "--engine", f"{out}/vivra.model"],
                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log)
print("  " + child.stdout.readline().decode().strip())
start = time.monotonic()
def send():
    for at in range(0, len(samples), 8000):
        piece = samples[at:at + 8000]
        child.stdin.write(struct.pack(f"<I{len(piece)}f", len(piece), *piece))
    child.stdin.write(struct.pack("<I", 0xFFFFFFFF))
    child.stdin.flush()
threading.Thread(target=send, daemon=True).start()
frames = 0
while True:
    (word,) = struct.unpack("<I", child.stdout.read(4))
    if word == 0xFFFFFFFF:
        break
    child.stdout.read(416 * 720 * 3)
    frames += 1
    if frames % 20 == 0:
        print(f"  frame {word:4d} arrived ({frames / 20:.0f} s of video)", flush=True)
wall = time.monotonic() - start
child.stdin.close()
status = child.wait()
print(f"  {frames} frames (416 x 720, RGB) for {len(samples) / 16000:.1f} s of speech in {wall:.1f} s, "
      f"then the end-of-segment marker; render-stream exited with status {status}")
sys.exit(status)
PY

echo
echo "== lumora2-render: each avatar says a typed text in its own voice"
# The embedded voice speaks it; each blank line is a pause long enough for the avatars to rest in
# their idle clips.
cat >"$out/words.txt" <<'TEXT'
Hello! I am a talking avatar of the lumora family.


Every frame of this video was rendered from my voice.


Between sentences, I rest in my idle clip.
TEXT
videos=()
for avatar in "$out"/*.avatar; do
  name=$(basename "${avatar%.*}")
  "$build/host/lumora2-render" "$avatar" --engine "$out/vivra.model" --text-file "$out/words.txt" \
    -o "$out/$name.mp4"
  videos+=("$out/$name.mp4")
done

echo
echo "== lumora2-serve: the live server starts, offers both avatars and stops"
# Not interactive: the server is asked for its health and its avatars on a free port, then ended.
serve_log="$out/serve.log"
"$build/host/lumora2-serve" --engine "$out/vivra.model" --avatars "$out" --listen 127.0.0.1:0 \
  >"$out/serve.out" 2>"$serve_log" &
serve_pid=$!
for _ in $(seq 100); do grep -q 'listening on' "$out/serve.out" 2>/dev/null && break; sleep 0.1; done
url=$(sed -nE 's/.*listening on (http:[^ ]+).*/\1/p' "$out/serve.out")
echo "  $(head -n1 "$out/serve.out")"
echo "  GET ${url}healthz    -> $(curl -s --max-time 5 "${url}healthz")"
echo "  GET ${url}v1/avatars -> $(curl -s --max-time 5 "${url}v1/avatars" | cut -c1-120)…"
kill -TERM "$serve_pid"
wait "$serve_pid" && echo "  SIGTERM: lumora2-serve exited 0"
echo "  to watch live: $build/host/lumora2-serve --engine $out/vivra.model --avatars $out, then open http://127.0.0.1:8080/"

echo
echo "demo done: artifacts in $out, unpacked and verified in $out/unpacked; both avatars validated;"
echo "render-stream served $out/ava.avatar (its log: $out/render-stream.log)"
echo "videos (H.264 + AAC, 416 x 720 at 20 fps):"
printf '  %s\n' "${videos[@]}"
