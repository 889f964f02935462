#!/usr/bin/env bash
# `make run`: shows the agent doing its job. Until the PHP extension is built
# into this demo, it shows the core alone: a small trace written by the file
# reporter and read back with an independent BSON decoder.
set -euo pipefail
build=${1:-build}
out=$(mktemp -d /tmp/corvidine-demo-XXXXXX)
"$build/corvidine_demo" "$out/trace.bson"
echo "== events written by the file reporter to $out/trace.bson, decoded:"
/usr/bin/python3 "$(dirname "$0")/../trace_view.py" "$out/trace.bson"
