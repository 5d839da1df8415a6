#!/usr/bin/env bash
# Builds the lumora2-serve container image without a registry: mmdebstrap makes a Debian 12 root
# file system from Debian's mirror with only the runtime packages, buildah adds the install tree of
# an existing build and the reference model family generated from it, sets what
# deploy/Containerfile sets (entrypoint, arguments, user, port, stop signal, labels) and the image
# is saved as an OCI archive. With --run it starts that image under podman, its port published on
# 127.0.0.1 only, checks that GET /, /healthz, /readyz and /metrics answer and that a session's
# render child gets ready and its voice speaks, stops it with SIGTERM and expects exit status 0.
#
#   scripts/image.sh [BUILD_DIR]   build from BUILD_DIR (default build/release, built already)
#   scripts/image.sh --run         run and check the image built before
#
# LUMORA2_IMAGE_OUT (default out/lumora2-serve.oci.tar) names the archive, LUMORA2_IMAGE_PORT
# (default: a free one) the port on 127.0.0.1. Buildah and podman use a configuration and a store
# of their own under out/image/ (vfs storage, runc, cgroupfs, no default ulimits; docs/DEPLOY.md
# says why), so nothing in /etc/containers changes. The root file system is kept there and made
# again when the package list changes; remove out/image/rootfs.tar for Debian's latest updates.
set -euo pipefail
cd "$(dirname "$0")/.."

run=0
if [ "${1:-}" = "--run" ]; then run=1; shift; fi
build=${1:-build/release}
archive=${LUMORA2_IMAGE_OUT:-out/lumora2-serve.oci.tar}
port=${LUMORA2_IMAGE_PORT:-$(python3 -c 'import socket; s = socket.socket()
s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')}
image=localhost/lumora2-serve:latest
work=$PWD/out/image
uid=10001

mkdir -p "$work/storage" "$work/run" "$work/tmp"
cat >"$work/containers.conf" <<'EOF'
[containers]
# Podman's default nofile/nproc limits cannot be set inside this machine's sandbox.
default_ulimits = []
[engine]
runtime = "runc"
cgroup_manager = "cgroupfs"
events_logger = "file"
EOF
cat >"$work/storage.conf" <<EOF
[storage]
driver = "vfs"
graphroot = "$work/storage"
runroot = "$work/run"
EOF
export CONTAINERS_CONF=$work/containers.conf CONTAINERS_STORAGE_CONF=$work/storage.conf
export TMPDIR=$work/tmp
podman=(podman --runtime runc --cgroup-manager cgroupfs --storage-driver vfs)
fail() { echo "FAIL: $*" >&2; exit 1; }

if [ "$run" -eq 1 ]; then
  if ! "${podman[@]}" image exists "$image"; then
    "${podman[@]}" load -q -i "$archive" >/dev/null
  fi
  name=lumora2-serve-check
  "${podman[@]}" rm -f -i "$name" >/dev/null
  cleanup() {
    local status=$?
    if [ "$status" -ne 0 ]; then "${podman[@]}" logs "$name" 2>&1 | tail -n 20 >&2 || true; fi
    "${podman[@]}" rm -f -t 0 "$name" >/dev/null 2>&1 || true
  }
  trap cleanup EXIT
  "${podman[@]}" run -d --name "$name" -p "127.0.0.1:$port:8080" "$image" >/dev/null
  base=http://127.0.0.1:$port
  for _ in $(seq 1 60); do
    if curl -fsS --max-time 2 "$base/healthz" >/dev/null 2>&1; then break; fi
    sleep 1
  done
  echo "== GET /healthz"; curl -fsS --max-time 5 "$base/healthz"; echo
  echo "== GET /"; curl -fsS --max-time 5 -o /dev/null -w '%{http_code} %{content_type} %{size_download} bytes\n' "$base/"
  # A session proves the rest of the image: its render-stream child (LibTorch) and the voice.
  echo "== POST /v1/sessions {\"avatar\":\"ava\"}, then its child's state"
  id=$(curl -fsS --max-time 10 -X POST -H 'Content-Type: application/json' -d '{"avatar":"ava"}' \
         "$base/v1/sessions" | sed -nE 's/.*"id":"([0-9a-f]{32})".*/\1/p')
  child=none
  for _ in $(seq 1 60); do
    child=$(curl -fsS --max-time 2 "$base/v1/sessions/$id" | sed -nE 's/.*"child":"([a-z]+)".*/\1/p')
    if [ "$child" != warming ]; then break; fi
    sleep 1
  done
  echo "session $id: child $child"
  echo "== POST /v1/sessions/$id/say"
  curl -fsS --max-time 10 -X POST -H 'Content-Type: application/json' \
    -d '{"text":"Hello from the image."}' "$base/v1/sessions/$id/say"; echo
  curl -fsS --max-time 5 -X DELETE "$base/v1/sessions/$id"
  [ "$child" = ready ] || fail "the session's render child is $child, not ready"
  echo "== GET /readyz"; curl -fsS --max-time 5 "$base/readyz"; echo
  echo "== GET /metrics"
  curl -fsS --max-time 5 "$base/metrics" | grep -E '^lumora2_sessions_(active|capacity|admitted_total) ' ||
    fail "no session gauges in /metrics"
  echo "== SIGTERM"
  start=$(date +%s)
  "${podman[@]}" stop -t 40 "$name" >/dev/null
  status=$("${podman[@]}" inspect -f '{{.State.ExitCode}}' "$name")
  echo "exit status $status after $(( $(date +%s) - start )) s"
  "${podman[@]}" logs "$name" 2>&1 | tail -n 5
  [ "$status" = 0 ] || fail "exit status $status after SIGTERM"
  echo "== image check passed"
  exit 0
fi

start=$(date +%s)
echo "== install tree of $build"
rm -rf "$work/install" "$work/family"
cmake --install "$build" --prefix "$work/install" --strip >/dev/null
bin=$work/install/bin

echo "== reference model family"
"$bin/lumora2-family" --out "$work/family" --host "$bin/lumora2-model" >/dev/null 2>&1
rm -rf "$work/family/staging"

# The Debian packages that hold the libraries the executables load, found on this (Debian 12)
# build machine, and what they load at run time without linking it: GStreamer's plugins (webrtcbin,
# ICE, x264, Opus, RTP) and the voice's data; and the TURN server the manifests run from the same
# image (deploy/kubernetes/overlays/turn).
runtime=(gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
         gstreamer1.0-plugins-ugly gstreamer1.0-nice espeak-ng-data coturn)
for exe in "$bin"/*; do
  while read -r lib; do
    pkg=$(dpkg -S "$lib" 2>/dev/null || dpkg -S "$(readlink -f "$lib")" 2>/dev/null || true)
    [ -n "$pkg" ] && runtime+=("${pkg%%:*}")
  done < <(ldd "$exe" | awk '$2 == "=>" && $3 ~ /^\// { print $3 }' |
           grep -F -f <(readelf -d "$exe" | sed -n 's/.*Shared library: \[\(.*\)\]/\/\1/p'))
done
mapfile -t runtime < <(printf '%s\n' "${runtime[@]}" | sort -u)
echo "== root file system: ${runtime[*]}"
if [ -f "$work/rootfs.tar" ] && [ "$(cat "$work/rootfs.packages" 2>/dev/null)" = "${runtime[*]}" ]; then
  echo "   (unchanged: $work/rootfs.tar)"
else
  rm -f "$work/rootfs.tar" "$work/rootfs.packages"
  mmdebstrap --quiet --variant=minbase --format=tar --include="$(IFS=,; echo "${runtime[*]}")" \
    --dpkgopt='path-exclude=/usr/share/man/*' --dpkgopt='path-exclude=/usr/share/locale/*' \
    --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-include=/usr/share/doc/*/copyright' \
    --customize-hook="chroot \"\$1\" useradd --uid $uid --user-group --no-create-home \
      --home-dir /var/lib/lumora2 --shell /usr/sbin/nologin lumora2" \
    --customize-hook="install -d -o $uid -g $uid \"\$1\"/var/lib/lumora2 \"\$1\"/var/cache/lumora2" \
    bookworm "$work/rootfs.tar.part" \
    "deb http://deb.debian.org/debian bookworm main" \
    "deb http://deb.debian.org/debian bookworm-updates main" \
    "deb http://deb.debian.org/debian-security bookworm-security main"
  mv "$work/rootfs.tar.part" "$work/rootfs.tar"
  echo "${runtime[*]}" >"$work/rootfs.packages"
fi

echo "== image"
version=$(sed -n 's/^project(lumora2-model VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
ctr=$(buildah from scratch)
trap 'buildah rm "$ctr" >/dev/null 2>&1 || true' EXIT
buildah add --quiet "$ctr" "$work/rootfs.tar" / >/dev/null
buildah add --quiet --chown 0:0 "$ctr" "$work/install" /usr/local >/dev/null
buildah add --quiet --chown 0:0 "$ctr" "$work/family" /var/lib/lumora2/family >/dev/null
buildah config \
  --user "$uid:$uid" --workingdir /var/lib/lumora2 \
  --env HOME=/var/lib/lumora2 --env XDG_CACHE_HOME=/var/cache/lumora2 \
  --port 8080/tcp --stop-signal SIGTERM \
  --entrypoint '["/usr/local/bin/lumora2-serve"]' \
  --cmd '["--engine", "/var/lib/lumora2/family/vivra.model", "--avatars", "/var/lib/lumora2/family",
          "--listen", "0.0.0.0:8080", "--max-sessions", "auto", "--drain-seconds", "30"]' \
  --label org.opencontainers.image.title=lumora2-serve \
  --label org.opencontainers.image.description="Live talking-avatar sessions over WebRTC" \
  --label org.opencontainers.image.version="$version" \
  "$ctr"
buildah commit --quiet --rm "$ctr" "$image" >/dev/null
trap - EXIT
buildah rmi --prune >/dev/null 2>&1 || true  # the image this one replaces
mkdir -p "$(dirname "$archive")"
rm -f "$archive"
buildah push --quiet "$image" "oci-archive:$archive:lumora2-serve:latest"
echo "== $archive: $(du -h "$archive" | cut -f1), built in $(( $(date +%s) - start )) s"
