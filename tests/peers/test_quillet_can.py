"""quillet-can as a program, and under python-can's socketcand interface, which was not written for it."""

import signal
import subprocess

import can
import pytest

from processes import BUILD, PATIENCE_S, CanServer


def attach(server, channel="can0"):
    return can.Bus(interface="socketcand", channel=channel, host=server.host, port=server.port)


def message(identifier, data, extended=False):
    return can.Message(arbitration_id=identifier, is_extended_id=extended, data=data)


def run(*arguments):
    return subprocess.run([BUILD / "bin/quillet-can", *arguments], capture_output=True, text=True, timeout=PATIENCE_S)


@pytest.mark.parametrize(
    "identifier, extended, data",
    [
        (0x7E0, False, b"\x02\x3e\x00\xcc\xcc\xcc\xcc\xcc"),
        (0x000, False, b"\x0a"),
        (0x123, False, b""),
        (0x18DA10F1, True, b"\x00\xff"),
    ],
)
def test_python_can_sends_and_receives(can_server, identifier, extended, data):
    with attach(can_server) as sender, attach(can_server) as receiver, attach(can_server, "can1") as elsewhere:
        sender.send(message(identifier, data, extended))

        received = receiver.recv(timeout=PATIENCE_S)
        assert (received.arbitration_id, bytes(received.data)) == (identifier, data)
        assert sender.recv(timeout=0) is None
        assert elsewhere.recv(timeout=0) is None


def test_python_can_loses_nothing_of_a_burst(can_server):
    count = 3000  # beyond one read of the client, so that messages arrive in parts
    with attach(can_server) as sender, attach(can_server) as receiver:
        for number in range(count):
            sender.send(message(0x100, number.to_bytes(2, "big")))

        numbers = [int.from_bytes(receiver.recv(timeout=PATIENCE_S).data, "big") for _ in range(count)]

    assert numbers == list(range(count))


def test_python_can_attaches_to_a_bus_in_full_traffic(can_server):
    with attach(can_server) as sender:
        task = sender.send_periodic(message(0x100, b"\x01"), period=0.0005)
        for _ in range(30):
            with attach(can_server) as receiver:
                assert receiver.recv(timeout=PATIENCE_S).arbitration_id == 0x100
        task.stop()


def test_python_can_is_told_that_a_bus_does_not_exist(can_server):
    with pytest.raises(can.CanError):
        attach(can_server, "can7")


@pytest.mark.parametrize("with_signal", [signal.SIGINT, signal.SIGTERM])
def test_ends_with_status_0_on_a_signal_also_with_clients(with_signal):
    server = CanServer("can0")
    with attach(server):
        assert server.end(with_signal) == 0
    assert server.errors == []


def test_ends_with_status_0_on_a_signal_right_after_it_said_that_it_is_ready():
    for _ in range(20):
        assert CanServer("can0").end() == 0


def test_says_where_it_listens_and_which_buses_it_has():
    server = CanServer("vcan0", "powertrain")
    assert server.end() == 0
    line = f"listening on 127.0.0.1:{server.port} buses vcan0 powertrain"

    again = CanServer("vcan0", "powertrain", port=server.port)

    assert again.lines.empty()
    assert again.end() == 0
    assert f"listening on {again.host}:{again.port} buses vcan0 powertrain" == line


def test_a_taken_port_is_an_error_that_says_what_to_do():
    server = CanServer("can0")

    result = run("--port", str(server.port), "can0")

    assert result.returncode == 1
    assert result.stdout == ""
    assert result.stderr == (
        f"quillet-can: 127.0.0.1:{server.port} is taken; give another port with --port, or --port 0 for any free one\n"
    )
    assert server.end() == 0


@pytest.mark.parametrize(
    "arguments, status, error",
    [
        ([], 1, "quillet-can: no bus is named; name at least one, for example: quillet-can vcan0\n"),
        (["can0", "can0"], 1, "quillet-can: the bus can0 is named twice\n"),
        (["--listen", "here", "can0"], 1, '"here" is not an address'),
        (["--drop", "101", "can0"], 2, "--drop: Value 101"),
        (["--port", "70000", "can0"], 2, "--port: Value 70000 not in range 0 to 65535"),
        (["--speed", "1", "can0"], 2, "--speed"),
    ],
)
def test_a_wrong_command_line_is_an_error_that_names_it(arguments, status, error):
    result = run(*arguments)

    assert result.returncode == status
    assert error in result.stderr


def test_its_help_names_every_option():
    result = run("--help")

    assert result.returncode == 0
    for option in ["--port", "--listen", "--bitrate", "--drop", "--delay", "--duplicate", "--seed"]:
        assert option in result.stdout


def test_faults_are_made_on_request():
    server = CanServer("can0", "--drop", "100")
    with attach(server) as sender, attach(server) as receiver:
        sender.send(message(0x100, b"\x01"))
        assert receiver.recv(timeout=0.2) is None
    assert server.end() == 0

    server = CanServer("can0", "--duplicate", "100", "--delay", "50")
    with attach(server) as sender, attach(server) as receiver:
        sender.send(message(0x100, b"\x01"))
        first, second = receiver.recv(timeout=PATIENCE_S), receiver.recv(timeout=PATIENCE_S)
        assert first.data == second.data == b"\x01"
    assert server.end() == 0
