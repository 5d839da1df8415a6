#!/usr/bin/env bash
# The Kubernetes manifests (deploy/kubernetes) against their strict schema check (check.mjs), one
# case a run: `valid` the manifests as they are; each other case a copy broken in one way that
# the API server would reject, which the check must fail, naming the field. `router` has HAProxy
# check the router's configuration.
#   manifests_test.sh CASE
# Exit status: 0 passed, 1 failed, 77 skipped (no kubectl, node, its npm packages or haproxy).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
check=$root/deploy/kubernetes/check.mjs
skip() { echo "SKIP: $*"; exit 77; }
fail() { echo "FAIL: $*"; exit 1; }

if [ "$1" = router ]; then
  command -v haproxy >/dev/null || skip "haproxy is not installed (scripts/install-deps.sh)"
  POD_NAMESPACE=test haproxy -c -f "$root/deploy/kubernetes/base/haproxy.cfg"
  exit
fi
command -v kubectl >/dev/null || skip "kubectl is not installed"
command -v node >/dev/null || skip "node is not installed"
(cd "$root" && node -e "require.resolve('kubernetes-models/package.json'); require.resolve('yaml')") \
  2>/dev/null || skip "kubernetes-models or yaml missing (scripts/install-deps.sh runs npm ci)"

copy=$(mktemp -d "${TMPDIR:-/tmp}/lumora2-manifests.XXXXXX")
trap 'rm -rf "$copy"' EXIT
cp -r "$root/deploy/kubernetes/." "$copy"
file=base/serve-deployment.yaml
case $1 in
  valid) exec node "$check" "$copy" ;;
  replicas-word) edit='s/^  replicas: 2$/  replicas: two/'
    want='base: Deployment/lumora2-serve: spec.replicas: must be integer' ;;
  unknown-field) edit='s/^  replicas: 2$/  replica: 2/'
    want='base: Deployment/lumora2-serve: spec.replica: unknown field' ;;
  probe-port-list) edit='0,/port: http$/s/port: http$/port: [8080]/'
    want='spec.template.spec.containers[0].readinessProbe.httpGet.port: must be string or integer' ;;
  overlay-patch) file=overlays/gpu/gpu.yaml edit='s/^      tolerations:$/      toleration:/'
    want='overlays/gpu: Deployment/lumora2-serve: spec.template.spec.toleration: unknown field' ;;
  *) fail "no case '$1'" ;;
esac
sed -i "$edit" "$copy/$file"
! cmp -s "$copy/$file" "$root/deploy/kubernetes/$file" || fail "'$edit' changed nothing in $file"
status=0
out=$(node "$check" "$copy" 2>&1) || status=$?
echo "$out"
[ "$status" = 1 ] || fail "the check exited $status on a copy with errors, not 1"
grep -qF -- "$want" <<<"$out" || fail "no '$want'"
