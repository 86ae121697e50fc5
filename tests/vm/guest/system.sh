# The whole road in one machine: broker, agent and virtual ECUs, and the cases of tests/vm/cases played through
# quillet-query, on a virtual CAN interface of the kernel.
. "$SOURCE/tests/vm/guest/bench.sh"

load_build play_cases
say "bus and virtual ECUs"
make_vcan can0
/bin/ip link add dev can1 type vcan # and stays down
start ecu "$bin/quillet-ecu" "$SOURCE/tools/quillet-ecu/bench.json"
await ecu "the virtual ECUs" logged ecu '^serving'
say "broker and identities"
start_broker
say "agent"
start_agent

say "cases"
"$BUILD/tests/play_cases" --query "$bin/quillet-query" --certs "$pki/TESTER-1" --broker "127.0.0.1:$port" \
	--plugins "$lib" "$SOURCE"/tests/vm/cases/*.json || failed=yes
private_kb=$(awk '/^Private_/ { sum += $2 } END { print sum }' "/proc/$agent_pid/smaps_rollup")
say "the agent has $private_kb kB of private memory, of less than 4096 without a sanitizer"
grep -q 'lib[at]san' "/proc/$agent_pid/maps" || [ "$private_kb" -lt 4096 ] || fail "that is too much for a unit"
stop_agent
stop_ecus
[ -z "$failed" ] || fail "cases differ"
