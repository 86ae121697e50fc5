"""Our ISO-TP against scapy's, in both roles and both directions.

The exchanges are the rows of tests/conformance/peer_rows.def; block size and STmin are announced by both sides. 8191
bytes need the 32-bit length of the first frame, which scapy has in both directions.
"""

import os
import re

import pytest

from processes import SOURCE
from scapy_bus import ISOTP, isotp_socket, receive

BUS = "can0"
SHORT_IDS = (0x7E0, 0x7E8)
LONG_IDS = (0x18DA10F1, 0x18DAF110)
REQUEST_ID, RESPONSE_ID = SHORT_IDS
# Every node's functional identifier, of 11 and of 29 bits, and one that answers would have.
FUNCTIONAL_IDS = [(0x7DF, 0x7E8), (0x18DB33F1, 0x18DAF110)]
TIERS = ("core", "more") if os.environ.get("QUILLET_TIER") == "long" else ("core",)


def rows():
    """(length, block size, STmin, request id, response id); those of 29 bits where they cost little."""
    text = (SOURCE / "tests/conformance/peer_rows.def").read_text()
    found = re.findall(r"^PEER_ROW\((\d+), (\d+), 0x(\w+), (\w+)\)$", text, re.MULTILINE)
    assert len(found) == len(re.findall(r"^PEER_ROW", text, re.MULTILINE))
    for length, block_size, st_min, tier in found:
        if tier in TIERS:
            row = int(length), int(block_size), int(st_min, 16)
            yield *row, *SHORT_IDS
            if int(length) < 100:
                yield *row, *LONG_IDS


def pdu_of(length, first):
    """Bytes that show a frame that is lost, doubled or out of place: the period has no factor 7."""
    return bytes([first] + [(index * 31 + index // 251) % 251 for index in range(1, length)])


def expect_pdu(packet, pdu):
    assert packet is not None, "scapy received nothing"
    received = bytes(packet.data)
    assert len(received) == len(pdu)
    assert received == pdu


def ours_to_scapy(uds_peer, handle, socket, pdu):
    uds_peer.begin_send(handle, pdu)
    expect_pdu(receive(socket), pdu)
    assert uds_peer.line() == "sent"


def scapy_to_ours(uds_peer, handle, socket, pdu):
    uds_peer.begin_receive(handle)
    socket.send(ISOTP(pdu))
    assert uds_peer.received() == pdu


@pytest.mark.parametrize("length, block_size, st_min, request_id, response_id", rows())
def test_scapy_as_the_ecu(can_server, uds_peer, length, block_size, st_min, request_id, response_id):
    socket = isotp_socket(can_server, BUS, response_id, request_id, block_size, st_min)
    try:
        handle = uds_peer.open(BUS, request_id, response_id, block_size, st_min)
        ours_to_scapy(uds_peer, handle, socket, pdu_of(length, 0x22))
        scapy_to_ours(uds_peer, handle, socket, pdu_of(length, 0x62))
        uds_peer.close(handle)
    finally:
        socket.close()


@pytest.mark.parametrize("length, block_size, st_min, request_id, response_id", rows())
def test_scapy_as_the_tester(can_server, uds_peer, length, block_size, st_min, request_id, response_id):
    socket = isotp_socket(can_server, BUS, request_id, response_id, block_size, st_min)
    try:
        handle = uds_peer.open(BUS, response_id, request_id, block_size, st_min)
        scapy_to_ours(uds_peer, handle, socket, pdu_of(length, 0x22))
        ours_to_scapy(uds_peer, handle, socket, pdu_of(length, 0x62))
        uds_peer.close(handle)
    finally:
        socket.close()


@pytest.mark.parametrize("functional_id, answer_id", FUNCTIONAL_IDS)
def test_single_frames_to_all(can_server, uds_peer, functional_id, answer_id):
    socket = isotp_socket(can_server, BUS, answer_id, functional_id)
    try:
        to_all = uds_peer.open(BUS, functional_id, 0)
        for length in range(1, 8):
            ours_to_scapy(uds_peer, to_all, socket, pdu_of(length, 0x3E))
        uds_peer.begin_send(to_all, pdu_of(8, 0x3E))
        assert uds_peer.line().startswith("failed -")
        uds_peer.close(to_all)
    finally:
        socket.close()


@pytest.mark.parametrize("functional_id, answer_id", FUNCTIONAL_IDS)
def test_single_frames_from_scapy_to_all(can_server, uds_peer, functional_id, answer_id):
    socket = isotp_socket(can_server, BUS, functional_id, answer_id)
    try:
        handle = uds_peer.open(BUS, answer_id, functional_id)
        for length in range(1, 8):
            scapy_to_ours(uds_peer, handle, socket, pdu_of(length, 0x3E))
        uds_peer.close(handle)
    finally:
        socket.close()


def test_a_message_that_is_too_long_for_us_ends_at_once(can_server, uds_peer):
    socket = isotp_socket(can_server, BUS, RESPONSE_ID, REQUEST_ID)
    try:
        handle = uds_peer.open(BUS, REQUEST_ID, RESPONSE_ID)
        uds_peer.begin_receive(handle)
        socket.send(ISOTP(pdu_of(8192, 0x62)))
        assert uds_peer.line().startswith("failed -")
        scapy_to_ours(uds_peer, handle, socket, pdu_of(62, 0x62))
        uds_peer.close(handle)
    finally:
        socket.close()


def test_a_receive_without_an_answer_fails_in_its_time(can_server, uds_peer):
    handle = uds_peer.open(BUS, REQUEST_ID, RESPONSE_ID)
    assert uds_peer.ask(f"receive {handle} 8191 100").startswith("failed -")
    uds_peer.close(handle)


def test_a_long_request_that_nobody_takes_fails(can_server, uds_peer):
    handle = uds_peer.open(BUS, REQUEST_ID, RESPONSE_ID)
    assert uds_peer.ask(f"send {handle} {pdu_of(8, 0x22).hex()}").startswith("failed -")
    uds_peer.close(handle)
