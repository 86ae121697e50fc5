import pytest

try:
    import can  # noqa: F401
    import scapy  # noqa: F401
except ImportError as missing:
    pytest.exit(f"{missing}: apt-get install python3-scapy python3-can python3-pytest", returncode=1)

from scapy.contrib.automotive.uds import UDS

from processes import BENCH, BENCH_BUS, CanServer, UdsPeer, VirtualEcus
from scapy_bus import isotp_socket


@pytest.fixture(scope="session")
def can_server():
    server = CanServer("can0", "can1")
    yield server
    assert server.end() == 0


@pytest.fixture
def uds_peer(can_server):
    peer = UdsPeer(can_server)
    yield peer
    peer.child.stdin.close()
    assert peer.child.wait(timeout=20) == 0
    peer.end()


@pytest.fixture
def bench(can_server, tmp_path):
    ecus = VirtualEcus(can_server, BENCH, tmp_path / "requests.log", "--bus", BENCH_BUS).ready(3, BENCH_BUS)
    yield ecus
    assert ecus.end() == 0, ecus.errors


@pytest.fixture
def tester(can_server):
    """Makes a tester for two identifiers; all are closed at the end."""
    open_sockets = []

    def make(request_id, response_id):
        socket = isotp_socket(can_server, BENCH_BUS, request_id, response_id, basecls=UDS)
        open_sockets.append(socket)
        return socket

    yield make
    for socket in open_sockets:
        socket.close()


@pytest.fixture
def engine(bench, tester):
    return tester(0x7E0, 0x7E8)


@pytest.fixture
def transmission(bench, tester):
    return tester(0x7E1, 0x7E9)


@pytest.fixture
def body(bench, tester):
    return tester(0x18DA10F1, 0x18DAF110)
