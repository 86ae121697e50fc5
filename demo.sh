#!/bin/bash
# Shows the whole road on this machine: identities, a broker with TLS, a virtual CAN bus with three virtual ECUs, the
# agent, and ten requests through quillet-query, each printed with its replies and checked.
#
#   ./demo.sh           asks, checks, and takes everything down again; exit status 0 when every reply is right
#   ./demo.sh --stay    leaves the bench up and prints the commands to talk to it, until Ctrl-C
#
# Listens on 127.0.0.1 only. Writes to the build folder and to one folder under /tmp, which it removes.
set -euo pipefail
cd "$(dirname "$0")"

stay=no
case "${1:-}" in
'') ;;
--stay) stay=yes ;;
*)
	echo "usage: ./demo.sh [--stay]" >&2
	exit 2
	;;
esac

say() { echo "== $*"; }
fail() {
	echo "demo: $*" >&2
	exit 1
}

### Everything that is started is ended again, by its process id, the last first.
pids=()
work=
cleanup() {
	local status=$? pid
	trap - EXIT INT TERM
	for ((index = ${#pids[@]} - 1; index >= 0; index--)); do
		pid=${pids[index]}
		kill -INT "$pid" 2>/dev/null || continue
		for _ in {1..60}; do
			kill -0 "$pid" 2>/dev/null || break
			sleep 0.1
		done
		kill -KILL "$pid" 2>/dev/null || true
	done
	if [ -n "$work" ]; then
		if [ "$status" -eq 0 ] || [ "$status" -eq 130 ]; then
			rm -rf "$work"
		else
			echo "demo: logs are in $work" >&2
		fi
	fi
	exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# A program of its own process group: Ctrl-C reaches this script alone, which then ends them in order.
start() { # NAME COMMAND...
	local name=$1
	shift
	setsid "$@" >"$work/$name.log" 2>&1 </dev/null &
	pids+=($!)
}

await() { # NAME WHAT CONDITION...
	local name=$1 what=$2
	shift 2
	for _ in {1..200}; do
		if "$@"; then return; fi
		kill -0 "${pids[-1]}" 2>/dev/null || break
		sleep 0.05
	done
	local logs=("$work/$name.log")
	[ "$name" != broker ] || logs+=("$pki/broker/data/broker.log") # once it has begun, it tells its own log only
	tail -n 20 "${logs[@]}" >&2 || true # not every log has been begun
	fail "$what did not come up; above is the end of ${logs[*]}"
}

accepts() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

free_port() {
	python3 -c 'import socket; probe = socket.socket(); probe.bind(("127.0.0.1", 0)); print(probe.getsockname()[1])'
}

say "packages: installing what is missing"
packaging/install-deps.sh

say "build: programs and libraries into build/ (the first time takes a while)"
cmake --preset dev >/dev/null
cmake --build --preset dev --target movra-quillet quillet-query quillet-ecu quillet-can quillet-pki tervbus udsutils \
	ecusecalgo quillet_broker_plugin

bin=$PWD/build/bin
lib=$PWD/build/lib
work=$(mktemp -d /tmp/quillet-demo.XXXXXX)
chmod 711 "$work"
pki=$work/pki

port=9133
if accepts "$port"; then
	port=$(free_port)
	say "port 9133 is taken; the broker listens on $port instead"
fi

say "identities: a CA, the agent AGENT-1, the requester TESTER-1, the broker"
# The broker started by root becomes the user mosquitto, who may not be able to look into this folder.
cp "$lib/quillet_broker_plugin.so" "$work/"
broker_user=()
if [ "$(id -u)" -eq 0 ]; then
	broker_user=(--user mosquitto)
fi
{
	"$bin/quillet-pki" --dir "$pki" init
	"$bin/quillet-pki" --dir "$pki" node AGENT-1 --role agent
	"$bin/quillet-pki" --dir "$pki" node TESTER-1 --role requester
	"$bin/quillet-pki" --dir "$pki" broker --port "$port" --plugin "$work/quillet_broker_plugin.so" "${broker_user[@]}"
} >"$work/pki.log"

say "broker: mosquitto with TLS on 127.0.0.1:$port"
mosquitto=$(command -v mosquitto || echo /usr/sbin/mosquitto)
start broker "$mosquitto" -c "$pki/broker/mosquitto.conf"
await broker "the broker" accepts "$port"

say "CAN: a virtual bus can0, with the three virtual ECUs of tools/quillet-ecu/bench.json"
start can "$bin/quillet-can" --port 0 can0
await can "the CAN server" grep -qs '^listening on ' "$work/can.log"
QUILLET_CAN_SERVER=$(sed -n 's/^listening on \([^ ]*\) .*/\1/p' "$work/can.log")
export QUILLET_CAN_SERVER
start ecu "$bin/quillet-ecu" tools/quillet-ecu/bench.json
await ecu "the virtual ECUs" grep -qs '^serving' "$work/ecu.log"

say "agent: movra-quillet as AGENT-1"
start agent "$bin/movra-quillet" -k "$pki/AGENT-1" -u 127.0.0.1 -b "$port"
await agent "the agent's connection" grep -qs 'Movra Bus connection: running' "$work/agent.log"

### The requests.
query=("$bin/quillet-query" --to AGENT-1 --certs "$pki/TESTER-1" --broker "127.0.0.1:$port")

# One line for each reply: what became of each command, what each ECU answered, the version, or an error's text.
outcomes() {
	python3 -c '
import json, sys
for line in sys.stdin:
    body = json.loads(line)["body"]
    if "error" in body:
        print("error:", body["error"]["uds-nrc"])
    elif "version" in body:
        print("version:", body["version"])
    elif "uds" in body:
        print("; ".join(row["phy-req-id"] + " " + row["data"] for row in body["uds"]["data-record"]))
    else:
        print("; ".join(" ".join((row["service"], row["response-data"], row["error"]))
                        for row in body["routine-response"]))'
}

differences=0
ask() { # TITLE STATUS EXPECTED ARGUMENT...
	local title=$1 wanted_status=$2 wanted=$3 status=0 got
	shift 3
	say "$title"
	"${query[@]}" --show-request "$@" >"$work/reply" 2>"$work/request" || status=$?
	sed 's/^/   request: /' "$work/request"
	sed 's/^/   reply:   /' "$work/reply"
	got=$(outcomes <"$work/reply") || got="replies that are no JSON of ours"
	if [ "$status" = "$wanted_status" ] && [ "$got" = "$wanted" ]; then
		echo "   as expected"
	else
		printf '   DIFFERENT: expected status %s and\n%s\n   got status %s and\n%s\n' "$wanted_status" "$wanted" "$status" "$got"
		differences=$((differences + 1))
	fi
}

engine=(routine --ecu 7E0:7E8 --interface can0)
key=(--security-location "$lib" --security-level 1 --security-script bench-engine)

ask "1 of 10: a session change, then the VIN" 0 \
	"0x10 5003003201F4 none; 0x22 62F19057514C544553543042454E434830303031 none" \
	"${engine[@]}" --command 10:03 --command 22:F190
ask "2 of 10: a security access, then an identifier that it protects" 0 \
	"0x10 5003003201F4 none; 0x27 6702 none; 0x22 620102DEADBEEF none" \
	"${engine[@]}" "${key[@]}" --command 10:03 --command 27:01 --command 22:0102
slow_began=${EPOCHREALTIME/[.,]/}
ask "3 of 10: a routine that answers \"pending\" four times over 3 s" 0 \
	"0x31 7101030000 none" \
	"${engine[@]}" --command 31:01:0300
if [ $((${EPOCHREALTIME/[.,]/} - slow_began)) -lt 2900000 ]; then
	echo "   DIFFERENT: the answer came in less than 2.9 s"
	differences=$((differences + 1))
fi
ask "4 of 10: a command that the ECU refuses; the one after it is not executed" 0 \
	"0x31 7F3122 Negative response; 0x22 - Command not executed" \
	"${engine[@]}" --command 31:01:0303 --command 22:F190
ask "5 of 10: an interface that does not exist; two replies" 1 \
	"0x22 - Command not executed
error: can9 is not available" \
	routine --ecu 7E0:7E8 --interface can9 --command 22:F190

one=(--ecu 7E0:7E8 --interface can0)
every=(--bench "$PWD/tools/quillet-ecu/bench.json")
by_mask=(dtc --report by-status-mask)
ask "6 of 10: the trouble codes of one ECU that fail now or are confirmed" 0 \
	"7E0 FF0171002F012345AF" \
	"${by_mask[@]}" --status-mask test-failed,confirmed "${one[@]}"
ask "7 of 10: the same question to all three ECUs at once; 7E1 is silent, 18DA10F1 refuses (conditions not correct, 22)" 0 \
	"7E0 FF012345AF; 18DA10F1 7F1922" \
	"${by_mask[@]}" --status-mask warning-indicator "${every[@]}"
ask "8 of 10: a version by UDS" 0 \
	"version: ENG-4.2.1-bench" \
	version --uds 22F189 "${one[@]}"
ask "9 of 10: a version out of a J1939 broadcast" 0 \
	"version: 1.4.12" \
	version --j1939 18FEDA00 --signal major:0:8 --signal minor:8:8 --signal patch:16:8 --interface can0
cat >"$work/invalid.json" <<'REQUEST'
{ "reply-id": "invalid", "type": "movra.quillet-query", "body": { "targetAddress": "7E0", "mode": "CAN",
  "can": { "ifname": "can0", "phy-req-id": "7E0", "phy-resp-id": "7E8", "st-min": "0", "bsize": "8" },
  "uds": { "SID": "19", "subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK",
    "data-record": { "type": "RECORD", "record": "FFFF" } } } }
REQUEST
ask "10 of 10: a data record of the wrong length, from a file" 1 \
	"error: Invalid UDS Information, check for data-record" \
	--file "$work/invalid.json"

if [ "$differences" -ne 0 ]; then
	fail "$differences of the checks above found a difference"
fi
say "every reply is as expected"

if [ "$stay" = yes ]; then
	trap 'exit 0' INT TERM
	say "the bench stays up until Ctrl-C; talk to it with, for example"
	echo
	echo "   ${query[*]} --pretty ${engine[*]} --command 10:03 --command 22:F190"
	echo "   ${query[*]} --pretty ${engine[*]} ${key[*]} --command 10:03 --command 27:01 --command 22:0102"
	echo "   ${query[*]} --decode ${by_mask[*]} --status-mask all ${every[*]}"
	echo "   ${query[*]} --decode version --uds 22F189 ${one[*]}"
	echo "   ${query[*]} --file request.json"
	echo
	echo "   logs: $work/agent.log, $work/ecu.log, $work/can.log; the broker's: $pki/broker/data/broker.log"
	echo "   the bus for other tools: QUILLET_CAN_SERVER=$QUILLET_CAN_SERVER, or python-can with interface=socketcand"
	while :; do
		for pid in "${pids[@]}"; do
			kill -0 "$pid" 2>/dev/null || fail "process $pid of the bench has ended by itself"
		done
		sleep 0.5
	done
fi
