#!/usr/bin/env bash
# The main job: install what the build needs, build everything, and run the example client
# against a fresh platform root.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh" "$here/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
root="$(mktemp -d "${TMPDIR:-/tmp}/hadra-demo-XXXXXX")"
trap 'rm -rf "$root"' EXIT
echo "== example client (platform root $root)"
HADRA_ROOT="$root" HADRA_LOG=stderr "$here/build/tools/hadra_demo_client"
