#!/usr/bin/env bash
# Reaching viewers on other networks: offer → first decoded frame in chromium for a direct pair
# to the server's public address, a pair relayed by the TURN server over UDP and over TCP, and
# ICE-TCP, each the median of N runs; and, for one session relayed over UDP, the TURN server's
# processor time beside the server's own per frame. The network is the namespace test's
# (tests/serve/reach/reach_test.sh: a 1:1 NAT, a viewer behind a NAT, coturn outside); the figures
# are its "figure:" lines. Needs root. Run it when the machine is quiet (say `uptime` beside it).
#   bench/reach.sh [build dir (default build/release)] [runs (default 5)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
cmake --build "$build" --target lumora2-model lumora2-serve lumora2-family -j2 >/dev/null
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
REACH_REPEAT=${2:-5} bash tests/serve/reach/reach_test.sh "$build/host/lumora2-serve" \
  "$build/tools/family/lumora2-family" "$build/host/lumora2-model" \
  direct relay-udp relay-tcp ice-tcp | grep -E '^(figure|FAIL)'
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
