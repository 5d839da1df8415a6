#!/usr/bin/env bash
# Installs the Debian 12 packages lumora2-model builds and runs with, and only those missing.
# Idempotent: a machine that has everything installs nothing and never touches apt's lists.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang libclang-rt-14-dev            # fuzz targets (libFuzzer)
  libssl-dev nlohmann-json3-dev libutf8proc-dev
  zip unzip                           # legacy zip artifacts
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libtorch-dev                        # neural graphs
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev libswresample-dev ffmpeg
  libsndfile1-dev
  libopencv-core-dev libopencv-imgproc-dev
  hyperfine                           # benchmarks time whole commands
  espeak-ng                           # the demo's spoken sentence
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}" >&2
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
  "${missing[@]}" >&2
