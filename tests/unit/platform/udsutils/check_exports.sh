#!/bin/sh
# check_exports.sh <library> <header>: the library defines exactly the functions of its header, under a plain SONAME.
set -eu
library=$1
header=$2

exported=$(nm -D --defined-only "$library" | awk '{ print $3 }' | LC_ALL=C sort)
declared=$(sed -n 's/^[a-z].* \**\([a-z_]*\)(.*);$/\1/p' "$header" | grep -v '^static_assert$' | LC_ALL=C sort)
if [ -z "$declared" ] || [ "$exported" != "$declared" ]; then
	printf 'exported:\n%s\ndeclared:\n%s\n' "$exported" "$declared"
	exit 1
fi

soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
if [ "$soname" != "$(basename "$library")" ]; then
	echo "SONAME is $soname"
	exit 1
fi
