#!/usr/bin/env bash
# The main job on a fresh Debian 12 machine: installs what is missing, builds lumora2-model and the
# reference model family, packs the family's engine and avatars with the project's own pack
# commands, then inspects each artifact with `info` and unpacks it with checksum verification.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build=build/release
out=${LUMORA2_DEMO_OUT:-out/demo}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target lumora2-model lumora2-family

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

echo
echo "demo done: artifacts in $out, unpacked and verified in $out/unpacked"
