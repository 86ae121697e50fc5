#!/bin/sh
# Without symbols the agent and the two open libraries stay small enough for a unit's flash: prints and compares.
#   check_sizes.sh STRIP AGENT LIBRARY LIBRARY
set -eu
strip=$1
agent=$2
shift 2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

bytes() {
	"$strip" -o "$folder/stripped" "$1"
	wc -c <"$folder/stripped"
}

agent_bytes=$(bytes "$agent")
library_bytes=0
for library in "$@"; do
	library_bytes=$((library_bytes + $(bytes "$library")))
done
echo "agent: $agent_bytes bytes of at most 150000; libraries together: $library_bytes of at most 300000"
[ "$agent_bytes" -lt 150000 ] && [ "$library_bytes" -lt 300000 ]
