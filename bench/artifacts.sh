#!/usr/bin/env bash
# Artifact-path benchmarks on a 1 GiB engine staging tree, each against a baseline measured in the
# same run with the caches equally warm (dropping caches needs root, so every command gets warm-up
# runs and the median of several timed runs is compared):
#   info on the 1 GiB container         wall <= 20 ms, peak RSS <= 20 MiB
#   unpack --no-verify vs cp -r          <= 1.2x
#   Archive::digest vs openssl dgst      <= 1.05x openssl's time on the same warm file, peak RSS
#                                        flat (<= 16 MiB) on 1 GiB
#   pack-engine vs cp -r + digest        <= 1.5x
# Usage: bench/artifacts.sh [build dir (default build/bench)] [timed runs (default 5)]
# The scratch tree lives under $TMPDIR (or /tmp) and is removed on every exit.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/bench}
runs=${2:-5}
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA2_WITH_ENGINE=OFF \
    >/dev/null
fi
cmake --build "$build" --target lumora2-model digest_file >/dev/null
model=$(realpath "$build/host/lumora2-model")
digest=$(realpath "$build/bench/container/digest_file")
unset UNIFIED_CONTAINER  # the IMX form

scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-artifacts-bench.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
stage=$scratch/stage

mib() { head -c "$(($2 << 20))" /dev/urandom >"$1"; }
mkdir -p "$stage"/{w2v_frontend_cpuAndNE,audiotokenizer_cpuAndNE,student_v4_forward_frame_cpuAndNE}.mlpackage
mib "$stage/student_v4_forward_frame_cpuAndNE.mlpackage/weights.bin" 600
mib "$stage/w2v_frontend_cpuAndNE.mlpackage/model.pt" 250
mib "$stage/audiotokenizer_cpuAndNE.mlpackage/model.pt" 150
mib "$stage/idle_extra.bin" 23
mib "$stage/warm.wav" 1
echo "staging tree: $(du -sh --apparent-size "$stage" | cut -f1) in $(find "$stage" -type f | wc -l) files"

# compare <runs> <prepare A> <command A> <prepare B> <command B>: runs A and B alternately (one
# warm-up pair first, then the order flipped every pair so drifting load on a shared machine hits
# both alike) and prints four medians in seconds: wall A, wall B, CPU A, CPU B (user + system of
# the children).
compare() {
  python3 - "$@" <<'PY'
import resource, statistics, subprocess, sys, time
runs, prep_a, cmd_a, prep_b, cmd_b = int(sys.argv[1]), *sys.argv[2:6]
def once(prep, cmd):
    if prep:
        subprocess.run(prep, shell=True, check=True)
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    subprocess.run(cmd, shell=True, check=True, stdout=subprocess.DEVNULL)
    wall = time.perf_counter() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return wall, (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
once(prep_a, cmd_a); once(prep_b, cmd_b)
a, b = [], []
for i in range(runs):
    order = [(a, prep_a, cmd_a), (b, prep_b, cmd_b)]
    for sink, prep, cmd in (order if i % 2 == 0 else order[::-1]):
        sink.append(once(prep, cmd))
med = lambda xs, k: statistics.median(x[k] for x in xs)
print(med(a, 0), med(b, 0), med(a, 1), med(b, 1))
PY
}

status=0
# report <name> <measured> <baseline-or-limit> <ratio> <ok> [note]
report() {
  local verdict=PASS
  if [ "$5" != 1 ]; then verdict=FAIL; status=1; fi
  printf '%-40s %-12s %-20s ratio %-6s %-4s %s\n' "$1" "$2" "$3" "$4" "$verdict" "${6:-}"
}
ratio() { python3 -c "import sys; print(f'{float(sys.argv[1]) / float(sys.argv[2]):.3f}')" "$1" "$2"; }
le() { python3 -c "import sys; print(int(float(sys.argv[1]) <= float(sys.argv[2])))" "$1" "$2"; }
ms() { python3 -c "import sys; print(f'{float(sys.argv[1]) * 1000:.1f} ms')" "$1"; }
# versus <name> <limit> <higher-is-better 0|1> <wall A> <wall B> <cpu A> <cpu B>: the wall-time
# ratio A/B (B/A for throughput) decides; the CPU ratio is printed beside it for context.
versus() {
  local r c ok
  if [ "$3" = 1 ]; then
    r=$(ratio "$5" "$4"); c=$(ratio "$7" "$6"); ok=$(le "$2" "$r")
  else
    r=$(ratio "$4" "$5"); c=$(ratio "$6" "$7"); ok=$(le "$r" "$2")
  fi
  report "$1" "$(ms "$4")" "baseline $(ms "$5")" "$r" "$ok" "(limit $2; CPU ratio $c)"
}

# pack-engine against copying the tree and digesting its top-level entries, the work it must do.
pack_cmd="$model pack-engine $stage -o $scratch/vivra.model"
base_cmd="cp -r $stage $scratch/copy && for e in $stage/*; do $digest \$e >/dev/null; done"
read -r a b ca cb < <(compare "$runs" "rm -f $scratch/vivra.model" "$pack_cmd" \
  "rm -rf $scratch/copy" "$base_cmd")
versus "pack-engine vs cp -r + digest" 1.5 0 "$a" "$b" "$ca" "$cb"
rm -rf "$scratch/copy"

container=$scratch/vivra.model
echo "container: $(du -h --apparent-size "$container" | cut -f1)"

info=$(hyperfine -N --style none --output null --warmup 5 --runs 30 --export-json "$scratch/info.json" \
  "$model info $container" >/dev/null &&
  python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["results"][0]["median"])' \
  "$scratch/info.json")
report "info wall time (median)" "$(ms "$info")" "limit 20 ms" "$(ratio "$info" 0.020)" \
  "$(le "$info" 0.020)"
rss=$(/usr/bin/time -f %M "$model" info "$container" 2>&1 >/dev/null | tail -1)
report "info peak RSS" "$rss KiB" "limit 20480 KiB" "$(ratio "$rss" 20480)" "$(le "$rss" 20480)"

"$model" unpack "$container" "$scratch/tree" --no-verify >/dev/null
read -r a b ca cb < <(compare "$runs" "rm -rf $scratch/out" \
  "$model unpack $container $scratch/out --no-verify" "rm -rf $scratch/copy" \
  "cp -r $scratch/tree $scratch/copy")
versus "unpack --no-verify vs cp -r" 1.2 0 "$a" "$b" "$ca" "$cb"
rm -rf "$scratch/out" "$scratch/copy" "$scratch/tree"

# The same 1 GiB file for both, read into the page cache before every timed run of either side.
# Without that, one side could leave the file evicted for the other (a sequential mapping marks
# its pages for early reclaim), and the ratio measured the disk instead of the hash.
warm="cat $container >/dev/null"
read -r a b ca cb < <(compare "$runs" "$warm" "$digest $container" "$warm" \
  "openssl dgst -sha256 $container")
versus "digest 1 GiB vs openssl dgst (warm)" 1.05 0 "$a" "$b" "$ca" "$cb"
rss=$(/usr/bin/time -f %M "$digest" "$container" 2>&1 >/dev/null | tail -1)
report "digest 1 GiB peak RSS" "$rss KiB" "limit 16384 KiB" "$(ratio "$rss" 16384)" \
  "$(le "$rss" 16384)"
exit $status
