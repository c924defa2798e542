#!/bin/sh
# The Pacemaker resource agent (dist/ocf/hadra) against a real daemon: ocf-tester runs every
# action (meta-data against the DTD, validate-all, monitor, start, stop, promote, demote,
# notify, each twice where it must be idempotent), then the return codes a promotable clone
# lives by: monitor says running, promoted, failed promoted and not running when it should.
# Exit 77 (skipped) when ocf-tester or xmllint is not installed.
set -u
daemon=$1
agent_src=$2
for tool in ocf-tester xmllint flock; do
	if ! command -v $tool >/dev/null 2>&1; then
		echo "SKIP: $tool is not installed (packages resource-agents, libxml2-utils, util-linux)"
		exit 77
	fi
done
tmp=$(mktemp -d /tmp/hadra-ocf-XXXXXX) || exit 1
chmod 755 "$tmp"
cleanup() {
	pid=$(head -c 32 "$tmp/sup1/sysmgr/daemon.lock" 2>/dev/null | tr -cd '0-9')
	[ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
	rm -rf "$tmp"
}
trap cleanup EXIT
# ocf-tester reads the agent's meta-data as user nobody: a copy it can reach.
cp "$agent_src" "$tmp/hadra" && chmod 755 "$tmp/hadra"
out=$(ocf-tester -n hadra-test -o root="$tmp/sup1" -o binary="$daemon" -o role_timeout_ms=10000 "$tmp/hadra" 2>&1)
rc=$?
echo "$out"
if [ $rc -ne 0 ] || ! echo "$out" | grep -q "passed all tests"; then
	echo "FAIL: ocf-tester (exit $rc); the daemon's output:"
	cat "$tmp/sup1/sysmgr/daemon.out" 2>/dev/null
	exit 1
fi

export OCF_ROOT=/usr/lib/ocf OCF_RESOURCE_INSTANCE=hadra-test
export OCF_RESKEY_root="$tmp/sup1" OCF_RESKEY_binary="$daemon" OCF_RESKEY_role_timeout_ms=10000
fails=0
expect() {
	want=$1
	shift
	"$tmp/hadra" "$@" >/dev/null 2>&1
	got=$?
	if [ $got -ne $want ]; then
		echo "FAIL: $* returned $got, expected $want"
		fails=$((fails + 1))
	fi
}
expect 7 monitor
expect 0 start
expect 0 monitor
expect 0 promote
expect 8 monitor
# Promoted, but the daemon stepped down by itself (here: told through its request file
# behind the agent's back and then asked for active again while it cannot): failed promoted.
expect 0 demote
echo active >"$tmp/sup1/sysmgr/role-request.hold"
kill -STOP "$(head -c 32 "$tmp/sup1/sysmgr/daemon.lock" | tr -cd '0-9')"
mv "$tmp/sup1/sysmgr/role-request.hold" "$tmp/sup1/sysmgr/role-request"
expect 9 monitor
kill -CONT "$(head -c 32 "$tmp/sup1/sysmgr/daemon.lock" | tr -cd '0-9')"
expect 0 demote
expect 0 stop
expect 7 monitor
OCF_RESKEY_root="" expect 6 validate-all
OCF_RESKEY_binary=/nonexistent/hadra-sysmgrd expect 5 validate-all
expect 3 no-such-action
if [ $fails -ne 0 ]; then
	echo "FAIL: $fails return code(s) differ"
	exit 1
fi
echo "PASS: the resource agent passes ocf-tester and returns the promotable clone's codes"
