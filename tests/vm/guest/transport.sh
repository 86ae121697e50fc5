# The transport library beside the kernel's ISO-TP; see transport_bench.cpp.
. "$SOURCE/tests/vm/guest/bench.sh"

cp "$BUILD/tests/transport_bench" "$lib/libudsutils.so" /tmp/ || fail "not built"
make_vcan vcan0 vcan1
say "Linux $(uname -r) on $(uname -m), one processor of 500 million instructions a second"
LD_LIBRARY_PATH=/tmp /tmp/transport_bench || fail "not everything went as it should"
