"""scapy's UDS layers as the tester of the virtual ECUs, on the bench that is shipped."""

import json
import signal
import time

import pytest
from scapy.contrib.automotive.uds import (
    UDS,
    UDS_DSC,
    UDS_ER,
    UDS_NR,
    UDS_RC,
    UDS_RDBI,
    UDS_SA,
    UDS_TP,
    UDS_WDBI,
)

from processes import BENCH, BENCH_BUS as BUS, CanServer, UdsPeer, VirtualEcus
from scapy_bus import ask, raw, receive

VIN = b"WQLTEST0BENCH0001"
SILENCE_S = 0.3


def calculate_key(seed, script, level):
    """The reference key plug-in's algorithm, written again from its description."""
    mask = 0xFFFFFFFF
    variant = 0x811C9DC5
    for byte in bytes([level]) + script.encode():
        variant = (variant ^ byte) * 0x01000193 & mask

    def scramble(value):
        value = (value ^ value >> 16) * 0x85EBCA6B & mask
        value = (value ^ value >> 13) * 0xC2B2AE35 & mask
        return value ^ value >> 16

    return scramble(scramble(seed ^ variant) + variant & mask)


def expect_negative(answer, service, code):
    assert answer.service == 0x7F, raw(answer)
    assert answer[UDS_NR].requestServiceId == service
    assert answer[UDS_NR].negativeResponseCode == code


def enter_session(socket, session):
    answer = ask(socket, UDS() / UDS_DSC(diagnosticSessionType=session))
    assert answer.service == 0x50, raw(answer)
    return answer


def test_session_change_tells_the_times(engine):
    answer = enter_session(engine, 3)
    assert raw(answer) == "5003003201f4"


def test_vin(engine):
    answer = ask(engine, UDS() / UDS_RDBI(identifiers=[0xF190]))
    assert bytes(answer) == bytes.fromhex("62f190") + VIN


def test_several_identifiers_in_one_request(engine):
    answer = ask(engine, UDS() / UDS_RDBI(identifiers=[0xF190, 0x0100, 0xF195]))
    assert bytes(answer) == bytes.fromhex("62f190") + VIN + bytes.fromhex("01000bb8f195") + b"0042"


def test_29_bit_ecu(body):
    answer = ask(body, UDS() / UDS_RDBI(identifiers=[0x0120]))
    assert bytes(answer) == bytes.fromhex("620120") + bytes(range(32))


def test_security_access_opens_what_was_locked(engine):
    enter_session(engine, 3)
    expect_negative(ask(engine, UDS() / UDS_RDBI(identifiers=[0x0102])), 0x22, 0x33)
    seed = ask(engine, UDS() / UDS_SA(securityAccessType=1))
    assert seed.service == 0x67 and len(seed.securitySeed) == 4, raw(seed)
    key = calculate_key(int.from_bytes(seed.securitySeed, "big"), "bench-engine", 1)
    answer = ask(engine, UDS() / UDS_SA(securityAccessType=2, securityKey=key.to_bytes(4, "big")))
    assert raw(answer) == "6702"
    assert raw(ask(engine, UDS() / UDS_RDBI(identifiers=[0x0102]))) == "620102deadbeef"
    written = ask(engine, UDS() / UDS_WDBI(dataIdentifier=0xF190) / b"NEW00000000000001")
    assert raw(written) == "6ef190"
    assert bytes(ask(engine, UDS() / UDS_RDBI(identifiers=[0xF190])))[3:] == b"NEW00000000000001"


def test_wrong_keys_block_until_the_delay_has_passed(transmission):
    enter_session(transmission, 3)
    for code in (0x35, 0x36):
        seed = ask(transmission, UDS() / UDS_SA(securityAccessType=3))
        assert seed.securitySeed.hex() == "11223344"
        answer = ask(transmission, UDS() / UDS_SA(securityAccessType=4, securityKey=b"\0\0\0\0"))
        expect_negative(answer, 0x27, code)
    blocked = time.monotonic()
    expect_negative(ask(transmission, UDS() / UDS_SA(securityAccessType=3)), 0x27, 0x37)
    time.sleep(max(0, 2.0 + 0.1 - (time.monotonic() - blocked)))
    assert ask(transmission, UDS() / UDS_SA(securityAccessType=3)).service == 0x67


def test_routine_answers_pending_four_times_over_3_s(engine):
    begin = time.monotonic()
    engine.send(UDS() / UDS_RC(routineControlType=1, routineIdentifier=0x0300))
    for _ in range(4):
        expect_negative(receive(engine), 0x31, 0x78)
    assert raw(receive(engine)) == "7101030000"
    assert time.monotonic() - begin > 2.9


def test_endless_pending_ends_with_the_next_request(engine):
    engine.send(UDS() / UDS_RC(routineControlType=1, routineIdentifier=0x0301))
    for _ in range(3):
        expect_negative(receive(engine), 0x31, 0x78)
    enter_session(engine, 3)
    assert receive(engine, 0.8) is None


def test_refused_routine(engine):
    answer = ask(engine, UDS() / UDS_RC(routineControlType=1, routineIdentifier=0x0303))
    expect_negative(answer, 0x31, 0x22)


def test_reset_and_the_silence_after_it(can_server, tester, tmp_path):
    description = json.loads(BENCH.read_text())
    description["ecus"][0]["reset_ms"] = 2000  # so that what is sent next surely falls into it
    path = tmp_path / "slow_reset.json"
    path.write_text(json.dumps(description))
    ecus = VirtualEcus(can_server, path, tmp_path / "requests.log", "--bus", BUS).ready(3, BUS)
    engine = tester(0x7E0, 0x7E8)
    enter_session(engine, 3)
    assert raw(ask(engine, UDS() / UDS_ER(resetType=1))) == "5101"
    engine.send(UDS() / UDS_TP(subFunction=0))
    assert receive(engine, SILENCE_S) is None
    time.sleep(2.0)
    expect_negative(ask(engine, UDS() / UDS_RDBI(identifiers=[0x0101])), 0x22, 0x31)
    assert ecus.end() == 0


def test_s3_ends_the_session(engine):
    enter_session(engine, 3)
    assert raw(ask(engine, UDS() / UDS_RDBI(identifiers=[0x0101]))) == "6201015a"
    time.sleep(5.2)
    expect_negative(ask(engine, UDS() / UDS_RDBI(identifiers=[0x0101])), 0x22, 0x31)


def test_a_suppressed_answer_is_not_sent(engine, bench):
    engine.send(UDS() / UDS_TP(subFunction=0x80))
    assert receive(engine, SILENCE_S) is None
    assert bench.requests("engine") == ["3E80"]


def test_functional_request_reaches_all_ecus(bench, tester, engine, transmission, body):
    functional = tester(0x7DF, 0x7DE)
    functional.send(UDS() / UDS_RDBI(identifiers=[0xF190]))
    for ecu in (engine, transmission, body):
        assert bytes(receive(ecu)) == bytes.fromhex("62f190") + VIN
    for name in ("engine", "transmission", "body"):
        assert bench.requests(name) == ["22F190 functional"]


def test_functional_request_that_nobody_knows_is_not_answered(bench, tester, engine, transmission, body):
    functional = tester(0x7DF, 0x7DE)
    functional.send(UDS() / UDS_RDBI(identifiers=[0x1234]))
    assert receive(engine, SILENCE_S) is None
    assert receive(transmission, 0) is None and receive(body, 0) is None
    assert bench.requests("body") == ["221234 functional"]


def test_every_request_is_logged_once(engine, bench):
    for number in range(20):
        ask(engine, UDS() / UDS_RDBI(identifiers=[0x4000 + number]))
    assert bench.requests("engine") == [f"22{0x4000 + number:04X}" for number in range(20)]


def test_a_tester_that_sends_no_flow_control_does_not_block_the_ecu(bench, uds_peer):
    mute = uds_peer.open(BUS, 0x7E1, 0)
    assert uds_peer.ask(f"send {mute} 22f190") == "sent"
    bench.wait_for_error("transmission: an answer was not delivered: N_TIMEOUT_BS")
    uds_peer.close(mute)
    handle = uds_peer.open(BUS, 0x7E1, 0x7E9)
    assert uds_peer.ask(f"send {handle} 22f190") == "sent"
    assert uds_peer.ask(f"receive {handle} 64 2000") == "pdu 62f190" + VIN.hex()
    uds_peer.close(handle)


def test_the_trace_shows_requests_and_answers(can_server, uds_peer, tmp_path):
    ecus = VirtualEcus(can_server, BENCH, tmp_path / "requests.log", "--bus", BUS, "--trace").ready(3, BUS)
    handle = uds_peer.open(BUS, 0x7E0, 0x7E8)
    assert uds_peer.ask(f"send {handle} 3e00") == "sent"
    assert ecus.line().split(" ", 1)[1] == "engine <- 3E 00"
    assert ecus.line().split(" ", 1)[1] == "engine -> 7E 00"
    uds_peer.close(handle)
    assert ecus.end() == 0


def test_long_values_both_ways(can_server, uds_peer, tester, tmp_path):
    value = bytes(index % 251 for index in range(8188))
    description = {
        "ecus": [
            {
                "name": "store",
                "request_id": "700",
                "response_id": "708",
                "block_size": 8,
                "identifiers": [{"id": "0001", "value": value.hex(), "write": {}}],
            }
        ]
    }
    path = tmp_path / "store.json"
    path.write_text(json.dumps(description))
    ecus = VirtualEcus(can_server, path, tmp_path / "requests.log", "--bus", BUS).ready(1, BUS)
    socket = tester(0x700, 0x708)
    assert bytes(ask(socket, UDS() / UDS_RDBI(identifiers=[1])))[3:] == value
    assert raw(ask(socket, UDS() / UDS_WDBI(dataIdentifier=1) / value[::-1])) == "6e0001"
    assert bytes(ask(socket, UDS() / UDS_RDBI(identifiers=[1])))[3:] == value[::-1]
    assert ecus.end() == 0


def test_serves_again_when_the_can_server_is_back(tmp_path):
    server = CanServer(BUS)
    ecus = VirtualEcus(server, BENCH, tmp_path / "requests.log", "--bus", BUS).ready(3, BUS)
    assert server.end() == 0
    ecus.wait_for_error(f'bus "{BUS}" is gone; trying again until it is back')

    server = CanServer(BUS, port=server.port)
    ecus.ready(3, BUS)
    peer = UdsPeer(server)
    handle = peer.open(BUS, 0x7E0, 0x7E8)
    assert peer.ask(f"send {handle} 3e00") == "sent"
    assert peer.ask(f"receive {handle} 8 2000") == "pdu 7e00"

    assert ecus.end(signal.SIGINT) == 0
    peer.close(handle)
    peer.end()
    assert server.end() == 0


def test_waits_for_a_can_server_that_is_not_there_yet(tmp_path):
    server = CanServer(BUS)
    assert server.end() == 0
    ecus = VirtualEcus(server, BENCH, tmp_path / "requests.log", "--bus", BUS)
    ecus.wait_for_error(f'bus "{BUS}" cannot be opened; trying again until it can')
    server = CanServer(BUS, port=server.port)
    ecus.ready(3, BUS)
    assert ecus.end() == 0
    assert server.end() == 0


@pytest.mark.parametrize(
    "text, error",
    [
        ('{"ecus": [{"name": "a", "request_id": "7G0"}]}', "$.ecus[0].request_id: expected hexadecimal digits"),
        ("{", "line 1: not JSON"),
    ],
)
def test_a_wrong_description_ends_with_a_clear_error(can_server, tmp_path, text, error):
    path = tmp_path / "wrong.json"
    path.write_text(text)
    ecus = VirtualEcus(can_server, path, tmp_path / "requests.log")
    assert ecus.child.wait(timeout=20) == 1
    ecus.end()
    assert len(ecus.errors) == 1 and ecus.errors[0].startswith(f"quillet-ecu: {path}: {error}"), ecus.errors


def test_a_missing_key_plugin_ends_with_a_clear_error(can_server, tmp_path):
    ecus = VirtualEcus(can_server, BENCH, tmp_path / "requests.log", "--key-plugin-dir", tmp_path)
    assert ecus.child.wait(timeout=20) == 1
    ecus.end()
    assert len(ecus.errors) == 1
    assert ecus.errors[0].startswith(f'quillet-ecu: key plug-in of "engine": {tmp_path}/libecusecalgo.so: ')


def test_wrong_arguments_end_with_status_2(can_server, tmp_path):
    ecus = VirtualEcus(can_server, BENCH, tmp_path / "requests.log", "--speed", "1")
    assert ecus.child.wait(timeout=20) == 2
    ecus.end()
    assert any("--speed" in line for line in ecus.errors), ecus.errors
