#!/usr/bin/env bash
# Installs the Debian 12 packages lumora2-model builds and runs with, and only those missing.
# Idempotent: a machine that has everything installs nothing and never touches apt's lists.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang libclang-rt-14-dev            # fuzz targets (libFuzzer)
  libssl-dev nlohmann-json3-dev libutf8proc-dev
  zip unzip                           # legacy zip artifacts
  curl                                # the demo asks the live server for its health
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libtorch-dev                        # neural graphs
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev libswresample-dev ffmpeg
  libsndfile1-dev
  libopencv-core-dev libopencv-imgproc-dev  # the kernels benchmark's measured alternative
  hyperfine                           # benchmarks time whole commands
  libespeak-ng-dev espeak-ng-data     # the embedded voice: text to speech in memory
  libboost1.81-dev                    # lumora2-serve: HTTP and WebSocket (Beast)
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstreamer-plugins-bad1.0-dev
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  gstreamer1.0-plugins-ugly gstreamer1.0-nice     # WebRTC media: webrtcbin, x264, Opus, ICE
  libnice-dev                         # the ICE agent's TURN allocations released before it goes
  chromium                            # the browser test (driven by playwright-core from npm)
  prometheus-cpp-dev                  # lumora2-serve's /metrics
  haproxy iproute2 iptables           # the scale-out and NAT tests: routers and viewers in namespaces
  coturn                              # TURN relay for viewers behind NAT (tests and the image)
  mmdebstrap buildah podman skopeo runc uidmap  # scripts/image.sh builds and runs the image offline
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Node.js may come from elsewhere than Debian (it brings its own npm); Debian's is enough.
command -v npm >/dev/null 2>&1 || missing+=(nodejs npm)

if [ ${#missing[@]} -ne 0 ]; then
  echo "installing: ${missing[*]}" >&2
  sudo_cmd=()
  if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >&2
fi

# The browser test's driver, pinned by package-lock.json; npm ci only when the lock changed.
root=$(cd "$(dirname "$0")/.." && pwd)
stamp="$root/node_modules/.lumora2-installed-lock"
if [ -f "$root/package-lock.json" ] && ! cmp -s "$root/package-lock.json" "$stamp" 2>/dev/null; then
  (cd "$root" && npm ci --no-audit --no-fund --loglevel=error >&2)
  cp "$root/package-lock.json" "$stamp"
fi
