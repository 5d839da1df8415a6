#!/usr/bin/env bash
# Scale-out behind a router: two lumora2-serve replicas (--max-sessions 1), each in a network
# namespace of its own, joined by veth pairs to a front namespace where HAProxy routes to them
# (haproxy.cfg.in) and where chromium and the client run (router_session.mjs says what is
# checked). The namespaces exist only for this run (10.203.N.0/24 inside them) and are removed on
# any exit, with everything running in them.
#   router_test.sh LUMORA2_SERVE LUMORA2_FAMILY LUMORA2_MODEL
# Exit status: 0 passed, 1 failed, 77 skipped (not root, or no haproxy, chromium, node with
# playwright-core, or `ip netns`).
set -euo pipefail
serve=$1 family_bin=$2 host=$3
here=$(cd "$(dirname "$0")" && pwd)
skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "network namespaces need root"
command -v haproxy >/dev/null || skip "haproxy is not installed (scripts/install-deps.sh)"
[ -x /usr/bin/chromium ] || skip "/usr/bin/chromium is missing (scripts/install-deps.sh)"
(cd "$here" && node -e "require.resolve('playwright-core')" 2>/dev/null) ||
  skip "node with playwright-core is missing (scripts/install-deps.sh runs npm ci)"

run=lumora2-router-$$-$RANDOM
front=$run-front
scratch=$(mktemp -d "${TMPDIR:-/tmp}/$run.XXXXXX")
namespaces=()
cleanup() {
  set +e
  # Everything in the namespaces was started here: ask it to stop, then make sure.
  for ns in "${namespaces[@]}"; do ip netns pids "$ns" | xargs -r kill -TERM 2>/dev/null; done
  for _ in $(seq 20); do
    [ -z "$(for ns in "${namespaces[@]}"; do ip netns pids "$ns"; done)" ] && break
    sleep 0.5
  done
  for ns in "${namespaces[@]}"; do ip netns pids "$ns" | xargs -r kill -KILL 2>/dev/null; done
  wait 2>/dev/null
  for ns in "${namespaces[@]}"; do ip netns del "$ns"; done
  rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

ip netns add "$front" 2>/dev/null || skip "cannot make a network namespace (ip netns add)"
namespaces+=("$front")
ip -n "$front" link set lo up
replicas=() pids=() servers=""
for n in 1 2; do
  ns=$run-$n
  ip netns add "$ns"
  namespaces+=("$ns")
  ip -n "$ns" link set lo up
  ip -n "$front" link add "to$n" type veth peer name eth0 netns "$ns"
  ip -n "$front" addr add "10.203.$n.1/24" dev "to$n"
  ip -n "$front" link set "to$n" up
  ip -n "$ns" addr add "10.203.$n.2/24" dev eth0
  ip -n "$ns" link set eth0 up
done

echo "making the reference family"
"$family_bin" --out "$scratch/family" --host "$host" >/dev/null 2>"$scratch/family.log" ||
  { cat "$scratch/family.log"; exit 1; }
for n in 1 2; do
  mkdir "$scratch/tmp$n"
  TMPDIR=$scratch/tmp$n ip netns exec "$run-$n" "$serve" --engine "$scratch/family/vivra.model" \
    --avatars "$scratch/family" --host "$host" --listen "10.203.$n.2:8080" --max-sessions 1 \
    >"$scratch/replica$n.out" 2>"$scratch/replica$n.err" &
  pids+=($!)
  disown
  replicas+=("http://10.203.$n.2:8080")
  servers+="  server r$n 10.203.$n.2:8080 id $n check"$'\n'
done
for n in 1 2; do
  for _ in $(seq 100); do grep -q 'listening on' "$scratch/replica$n.out" && break; sleep 0.2; done
  grep -q 'listening on' "$scratch/replica$n.out" || { echo "FAIL: replica $n did not start"; cat "$scratch/replica$n.err"; exit 1; }
done

config=$(<"$here/haproxy.cfg.in")
config=${config//@SERVERS@/${servers%$'\n'}}
config=${config//@LISTEN@/127.0.0.1:8080}
config=${config//@ADMIN_SOCKET@/$scratch/admin.sock}
printf '%s\n' "$config" >"$scratch/haproxy.cfg"
haproxy -c -q -f "$scratch/haproxy.cfg"
ip netns exec "$front" haproxy -db -f "$scratch/haproxy.cfg" >"$scratch/haproxy.log" 2>&1 &

status=0
timeout 200 ip netns exec "$front" node "$here/router_session.mjs" --router http://127.0.0.1:8080 \
  --replicas "$(IFS=,; echo "${replicas[*]}")" --pids "$(IFS=,; echo "${pids[*]}")" \
  --admin "$scratch/admin.sock" &
wait $! || status=$?
if [ "$status" != 0 ]; then
  echo "--- the router's log"; tail -n 40 "$scratch/haproxy.log"
  for n in 1 2; do echo "--- replica $n"; tail -n 20 "$scratch/replica$n.err"; done
fi
exit "$status"
