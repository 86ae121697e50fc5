#!/bin/bash
# Installs what is missing, builds, and runs the short tier of the tests: each case once.
#
#   ./test.sh [build folder's preset]     dev by default; asan and tsan are the sanitizer builds; armhf and armhf-asan
#                                         are those for 32-bit ARM, whose unit tests run under qemu-arm-static
set -euo pipefail
cd "$(dirname "$0")"

preset=${1:-dev}
say() { echo "== $*"; }

say "packages"
case "$preset" in
armhf*)
	packaging/install-deps.sh --vm
	tests/vm/sysroot armhf
	;;
*) packaging/install-deps.sh ;;
esac
say "build ($preset)"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
say "tests ($preset)"
exec ctest --preset "$preset" --parallel $((2 * $(nproc))) # most of them wait for most of their time
