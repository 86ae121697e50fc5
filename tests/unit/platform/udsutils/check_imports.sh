#!/bin/sh
# check_imports.sh <library>: the library calls nothing of the C++ runtime, which ends the process when memory runs out.
set -eu
imported=$(nm -D --undefined-only "$1" | awk '{ sub(/@.*/, "", $2); print $2 }')
case $imported in
*calloc*) ;;
*) echo "not the imports of this library: $imported" && exit 1 ;;
esac
if printf '%s\n' "$imported" | grep -E '^_Z|^__cxa_(throw|guard|allocate|bad|rethrow)'; then
	echo "$1 needs the C++ runtime for these"
	exit 1
fi
