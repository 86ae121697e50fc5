# Unit tests inside the machine: those named by the arguments, or all that run nowhere else (see quillet_test).
. "$SOURCE/tests/vm/guest/bench.sh"
cd /tmp || exit
tests=${*:-$(cat "$BUILD/tests/vm_tests.txt")}
load_build $tests
make_vcan vcan0
bring_up_controllers
load_modules slcan sch_plug sch_tbf
failed=
count=0
for test in $tests; do
	began=$(cut -d. -f1 /proc/uptime)
	timeout 600 "$BUILD/tests/$test" >"/tmp/$test.log" 2>&1 # not /out: a write would wait for the host, see load_build
	status=$?
	cp "/tmp/$test.log" /out/
	word=good
	[ "$status" = 0 ] || word="FAILED with status $status"
	echo "   $word: $test, $(sed -n 's/^\[==========\] \(.*\) from .* ran.*/\1/p' "/tmp/$test.log")," \
		"$(($(cut -d. -f1 /proc/uptime) - began)) s"
	[ "$status" = 0 ] || { grep -Ev '^\[( RUN|       OK|-----)' "/tmp/$test.log" | tail -n 60; failed="$failed $test"; }
	count=$((count + 1))
done
echo "== $count test programs; failed: ${failed:-none}"
[ "$count" -gt 0 ] && [ -z "$failed" ]
