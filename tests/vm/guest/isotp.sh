# ISO-TP on SocketCAN: the conformance table, and our library against the kernel's ISO-TP sockets. The argument "exact"
# is for a machine on virtual time: the table's times are checked to 3 ms.
. "$SOURCE/tests/vm/guest/bench.sh"

make_vcan can0
say "conformance table"
"$BUILD/tests/isotp_conformance" can0 ${1:+--exact} || failed=yes
say "against the kernel"
"$BUILD/tests/isotp_kernel_peer" can0 || failed=yes
[ -z "$failed" ] || fail "rows"
