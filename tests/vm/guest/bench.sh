# A bench inside a virtual machine: what the plans share. Read by them with `.`; SOURCE and BUILD are set.
# busybox has an applet `ip` of its own that knows no vcan; /bin/ip is the real one.
bin=$BUILD/bin
lib=$BUILD/lib
pki=/tmp/pki
port=9133

say() { echo "== $*"; }
fail() {
	echo "FAILED: $*"
	exit 1
}

# The logs leave the machine with the results, whatever the end.
started=
finish() {
	status=$?
	trap - EXIT
	for pid in $started; do kill -INT "$pid" 2>/dev/null; done
	mkdir -p /out/logs
	cp /tmp/*.log "$pki/broker/data/broker.log" /out/logs/ 2>/dev/null
	exit "$status"
}
trap finish EXIT

start() { # NAME COMMAND...
	name=$1
	shift
	"$@" >"/tmp/$name.log" 2>&1 </dev/null &
	eval "${name}_pid=$!"
	started="$! $started"
}

await() { # NAME WHAT CONDITION...
	name=$1 what=$2
	shift 2
	eval "pid=\$${name}_pid"
	for _ in $(seq 200); do
		"$@" && return
		kill -0 "$pid" 2>/dev/null || break
		sleep 0.1
	done
	tail -n 20 "/tmp/$name.log"
	fail "$what did not come up"
}

logged() { grep -qs "$2" "/tmp/$1.log"; }
accepts() { grep -q ":$(printf %04X "$1") 00000000:0000 0A" /proc/net/tcp; } # listens, that is

# Copies what is run into memory and puts it in the place of the build folder. The host's files come at the host's
# speed: in virtual time such a wait can be long enough for a time-out.
load_build() { # TEST-PROGRAM...
	mkdir /tmp/build
	(
		cd "$BUILD" || exit
		tests=
		for test in "$@"; do tests="$tests tests/$test"; done
		for more in fake_plugins tests/stub_lib; do [ ! -e "$more" ] || tests="$tests $more"; done
		tar -cf - bin/movra-quillet bin/quillet-* lib/*.so $tests
	) | tar -xf - -C /tmp/build || fail "the build is not in memory"
	mount -o bind /tmp/build "$BUILD" || fail "the build is not in its place"
}

make_vcan() { # NAME...
	for name in "$@"; do
		/bin/ip link add dev "$name" type vcan && /bin/ip link set "$name" up || fail "no $name"
	done
}

load_modules() { # NAME...
	for name in "$@"; do insmod "/mod/$name.ko" || fail "the module $name is not loaded"; done
}

# The emulated controllers that the machine has, can0 and on, all on one bus.
bring_up_controllers() {
	load_modules sja1000 kvaser_pci
	for folder in /sys/bus/pci/drivers/kvaser_pci/*/net/can*; do
		[ -e "$folder" ] || continue
		name=${folder##*/}
		/bin/ip link set "$name" type can bitrate 500000 && /bin/ip link set "$name" up || fail "no $name"
	done
}

start_broker() {
	cp "$lib/quillet_broker_plugin.so" /tmp/
	{
		"$bin/quillet-pki" --dir "$pki" init &&
			"$bin/quillet-pki" --dir "$pki" node AGENT-1 --role agent &&
			"$bin/quillet-pki" --dir "$pki" node TESTER-1 --role requester &&
			"$bin/quillet-pki" --dir "$pki" broker --port "$port" --plugin /tmp/quillet_broker_plugin.so --user mosquitto
	} >/tmp/pki.log 2>&1 || fail "quillet-pki: $(cat /tmp/pki.log)"
	start broker /usr/sbin/mosquitto -c "$pki/broker/mosquitto.conf"
	await broker "the broker" accepts "$port"
}

start_agent() {
	start agent "$bin/movra-quillet" -k "$pki/AGENT-1" -u 127.0.0.1 -b "$port"
	await agent "the agent's connection" logged agent 'Movra Bus connection: running'
}

# Ends the agent as its unit would and looks at how it ended: an orderly stop is status 255.
stop_agent() {
	kill -INT "$agent_pid"
	wait "$agent_pid"
	status=$?
	[ "$status" = 255 ] || fail "the agent ended with $status: $(tail -n 5 /tmp/agent.log)"
}

# Ends the virtual ECUs and looks at what a sanitizer may have said of any program.
stop_ecus() {
	kill -INT "$ecu_pid"
	wait "$ecu_pid"
	if grep -E 'Sanitizer|runtime error:' /tmp/*.log; then fail "a sanitizer found something"; fi
}
