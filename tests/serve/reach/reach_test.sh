#!/usr/bin/env bash
# Viewers on other networks: lumora2-serve behind a 1:1 NAT (public address 10.204.3.7), a TURN
# and STUN server (Debian's coturn) outside, and chromium behind a NAT of its own whose firewall
# each case sets (reach_session.mjs says what is checked). Four network namespaces made for this
# run, removed on any exit with everything running in them:
#   server 10.204.1.2 --- router --- 10.204.2.2 viewer
#                            |
#                        10.204.4.2 TURN server
# The router forwards between them: the viewer is masqueraded and unreachable unasked, the server
# is reached only at its public address (DNAT/SNAT).
#   reach_test.sh LUMORA2_SERVE LUMORA2_FAMILY LUMORA2_MODEL [CASE...]
# Exit status: 0 passed, 1 failed, 77 skipped (not root, or no coturn, iptables, chromium, node
# with playwright-core, or `ip netns`). REACH_REPEAT=N plays each case N times (bench/reach.sh).
set -euo pipefail
serve=$1 family_bin=$2 host=$3
shift 3
here=$(cd "$(dirname "$0")" && pwd)
skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "network namespaces need root"
command -v turnserver >/dev/null || skip "coturn is not installed (scripts/install-deps.sh)"
command -v iptables >/dev/null || skip "iptables is not installed"
[ -x /usr/bin/chromium ] || skip "/usr/bin/chromium is missing (scripts/install-deps.sh)"
(cd "$here" && node -e "require.resolve('playwright-core')" 2>/dev/null) ||
  skip "node with playwright-core is missing (scripts/install-deps.sh runs npm ci)"

run=lr-$$-$RANDOM
srv=$run-srv rtr=$run-rtr view=$run-view turn=$run-turn
scratch=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-reach.XXXXXX")
namespaces=()
cleanup() {
  set +e
  for ns in "${namespaces[@]}"; do ip netns pids "$ns" | xargs -r kill -TERM 2>/dev/null; done
  for _ in $(seq 20); do
    [ -z "$(for ns in "${namespaces[@]}"; do ip netns pids "$ns"; done)" ] && break
    sleep 0.5
  done
  for ns in "${namespaces[@]}"; do ip netns pids "$ns" | xargs -r kill -KILL 2>/dev/null; done
  wait 2>/dev/null
  for ns in "${namespaces[@]}"; do ip netns del "$ns"; done
  [ -n "${REACH_KEEP:-}" ] && echo "kept $scratch" || rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

for ns in "$srv" "$rtr" "$view" "$turn"; do
  ip netns add "$ns" 2>/dev/null || skip "cannot make a network namespace (ip netns add)"
  namespaces+=("$ns")
  ip -n "$ns" link set lo up
done
ip netns exec "$rtr" iptables -L -n >/dev/null 2>&1 || skip "iptables does not work in a namespace"
link() {  # link NS ADDRESS ROUTER-SIDE ROUTER-ADDRESS
  ip -n "$rtr" link add "$3" type veth peer name eth0 netns "$1"
  ip -n "$rtr" addr add "$4/24" dev "$3"
  ip -n "$rtr" link set "$3" up
  ip -n "$1" addr add "$2/24" dev eth0
  ip -n "$1" link set eth0 up
  ip -n "$1" route add default via "$4"
}
link "$srv" 10.204.1.2 vsrv 10.204.1.1
link "$view" 10.204.2.2 vview 10.204.2.1
link "$turn" 10.204.4.2 vturn 10.204.4.1
ip netns exec "$rtr" sysctl -qw net.ipv4.ip_forward=1
ipt() { ip netns exec "$rtr" iptables "$@"; }
# The server's 1:1 NAT: 10.204.3.7 outside is 10.204.1.2 inside.
ipt -t nat -A PREROUTING -d 10.204.3.7 -j DNAT --to-destination 10.204.1.2
ipt -t nat -A POSTROUTING -s 10.204.1.2 ! -o vsrv -j SNAT --to-source 10.204.3.7
# The viewer's NAT: nothing from outside reaches it unasked.
ipt -t nat -A POSTROUTING -s 10.204.2.0/24 ! -o vview -j MASQUERADE
ipt -A FORWARD -o vview -m conntrack --ctstate NEW -j DROP
# What the viewer may send: the cases fill this chain (reach_session.mjs).
ipt -N viewer_out
ipt -A FORWARD -i vview -j viewer_out

secret=$(head -c 24 /dev/urandom | base64)
printf '%s\n' "$secret" >"$scratch/turn-secret"
cat >"$scratch/turnserver.conf" <<CONF
listening-ip=10.204.4.2
relay-ip=10.204.4.2
listening-port=3478
min-port=49152
max-port=49300
use-auth-secret
static-auth-secret=$secret
realm=lumora2.test
fingerprint
no-tls
no-dtls
no-cli
no-multicast-peers
pidfile=$scratch/turnserver.pid
log-file=$scratch/turnserver.log
simple-log
CONF
ip netns exec "$turn" turnserver -c "$scratch/turnserver.conf" >/dev/null 2>&1 &
turn_pid=$!

echo "making the reference family"
"$family_bin" --out "$scratch/family" --host "$host" >/dev/null 2>"$scratch/family.log" ||
  { cat "$scratch/family.log"; exit 1; }

# start_server NAME FLAGS...: a server in the server's namespace, its pid in $server_pid.
start_server() {
  local name=$1
  shift
  mkdir -p "$scratch/tmp-$name"
  TMPDIR=$scratch/tmp-$name ip netns exec "$srv" "$serve" --engine "$scratch/family/vivra.model" \
    --avatars "$scratch/family" --host "$host" --listen 10.204.1.2:8080 --max-sessions 3 \
    --allow-host 10.204.3.7 "$@" >"$scratch/$name.out" 2>"$scratch/$name.err" &
  server_pid=$!
  for _ in $(seq 100); do grep -q 'listening on' "$scratch/$name.out" && return; sleep 0.2; done
  echo "FAIL: the server ($name) did not start"
  cat "$scratch/$name.err"
  exit 1
}
stop_server() {
  kill -TERM "$server_pid" 2>/dev/null || true
  wait "$server_pid" 2>/dev/null || true
}

# play SERVER-NAME CASES: the viewer's side, in its namespace.
status=0
play() {
  timeout 400 ip netns exec "$view" node "$here/reach_session.mjs" --server http://10.204.3.7:8080 \
    --router "$rtr" --server-ns "$srv" --server-pid "$server_pid" --turn-pid "$turn_pid" \
    --ports 40000-40001 --repeat "${REACH_REPEAT:-1}" --cases "$1" &
  wait $! || status=1
}
cases=${*:-direct relay-udp relay-tcp ice-tcp no-path ports stun}
public=() stun=()
for c in $cases; do [ "$c" = stun ] && stun+=("$c") || public+=("$c"); done
if [ ${#public[@]} -gt 0 ]; then
  # Announced at its public address, with TURN over UDP and TCP, in a range of two ports.
  start_server public --public-address 10.204.3.7 --udp-ports 40000-40001 \
    --ice-server 'turn:10.204.4.2:3478?transport=udp' \
    --ice-server 'turn:10.204.4.2:3478?transport=tcp' --turn-secret-file "$scratch/turn-secret"
  play "${public[*]}"
  stop_server
  # Every viewer's TURN allocations were released before its ICE agent went (the agent warns of
  # those still alive): left on the TURN server, they delay the next viewer on the same port.
  if grep -q 'alive TURN refreshes' "$scratch/public.err"; then
    echo "FAIL: ICE agents went with their TURN allocations alive"
    status=1
  fi
fi
if [ ${#stun[@]} -gt 0 ]; then
  # No public address given: a STUN server outside the NAT tells the server its own.
  start_server stun --udp-ports 40000-40001 --ice-server stun:10.204.4.2:3478
  play "${stun[*]}"
  stop_server
fi
if [ "$status" != 0 ]; then
  for f in "$scratch"/*.err; do echo "--- $(basename "$f")"; tail -n 20 "$f"; done
  echo "--- the TURN server"; tail -n 30 "$scratch/turnserver.log" 2>/dev/null
fi
exit "$status"
