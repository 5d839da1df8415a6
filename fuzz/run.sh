#!/usr/bin/env bash
# fuzz/run.sh <build-dir> <seconds>
#
# Runs every fuzz_* binary of a -DLUMORA2_FUZZ=ON build for <seconds> each, starting from a copy
# of its seed corpus fuzz/corpus/<name without fuzz_>/ (the committed seeds never change). Exits
# non-zero when any target crashes; crashing inputs are kept in <build-dir>/fuzz-artifacts/.
#
# The targets do real file work in the system temporary directory; unless TMPDIR says otherwise
# they get /dev/shm, where creating and removing files is several times faster than on a disk.
set -euo pipefail

if [[ $# -ne 2 || ! -d $1 || ! $2 =~ ^[0-9]+$ ]]; then
  echo "usage: $0 <build-dir> <seconds>" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-fuzz-run-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
artifacts=$build/fuzz-artifacts
mkdir -p "$artifacts"

mapfile -t targets < <(find "$build" -type f -name 'fuzz_*' ! -name '*.*' -perm -u+x \
                         -not -path '*/CMakeFiles/*' | sort)
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "no fuzz_* binaries below $build (configure with -DLUMORA2_FUZZ=ON)" >&2
  exit 2
fi

target_tmp=${TMPDIR:-}
if [[ -z $target_tmp && -d /dev/shm && -w /dev/shm ]]; then target_tmp=/dev/shm; fi

status=0
for bin in "${targets[@]}"; do
  name=$(basename "$bin")
  corpus=$scratch/corpus/${name#fuzz_}
  mkdir -p "$corpus"
  if [[ -d $here/corpus/${name#fuzz_} ]]; then
    cp -R "$here/corpus/${name#fuzz_}/." "$corpus/"
  fi
  echo "== $name: ${seconds}s from $(find "$corpus" -type f | wc -l) seeds"
  if ! TMPDIR=${target_tmp:-/tmp} "$bin" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$artifacts/$name-" "$corpus"; then
    echo "FAILED: $name (inputs kept in $artifacts)" >&2
    status=1
  fi
done
exit $status
