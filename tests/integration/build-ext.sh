#!/usr/bin/env bash
# Builds corvidine.so for one PHP in a build directory of its own, so that
# the build never touches (or races with) an in-tree build in ext/ or the
# extension tests' build-ext-<flavour>/. The build itself is
# tools/test-ext.sh --build-only; its messages go to stderr.
#
#   tests/integration/build-ext.sh nts|zts [build-dir]
#
# Prints the path of the built module on its last line.
set -euo pipefail

flavour=${1:?usage: build-ext.sh nts|zts [build-dir]}
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${2:-$root/build-ext-integration-$flavour}

case "$flavour" in
  nts | zts) ;;
  *)
    echo "build-ext: unknown flavour '$flavour'" >&2
    exit 2
    ;;
esac

build=$(mkdir -p "$build" && cd "$build" && pwd)
CORVIDINE_EXT_BUILD=$build "$root/tools/test-ext.sh" "$flavour" --build-only >&2
echo "$build/src/ext/modules/corvidine.so"
