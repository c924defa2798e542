#!/usr/bin/env bash
# The main job: install what the build needs, build everything, run the example client
# against a fresh platform root, then run two supervisors, each a system-manager daemon and a
# sample service, and show the service's state surviving a gsync, live changes and a
# takeover after the active is killed (hadra_pair, docs/pair.md).
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh" "$here/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
root="$(mktemp -d "${TMPDIR:-/tmp}/hadra-demo-XXXXXX")"
trap 'rm -rf "$root"' EXIT
echo "== example client (platform root $root)"
HADRA_ROOT="$root" HADRA_LOG=stderr "$here/build/tools/hadra_demo_client"
echo
echo "== two supervisors on their daemons (hadra_pair)"
# A fresh directory of its own under /tmp, removed at the end: see hadra_pair --help.
"$here/build/tools/hadra_pair"
