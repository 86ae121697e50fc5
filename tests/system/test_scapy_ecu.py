"""The agent asks ECUs that are not this project's: scapy's answering machine, with scapy's ISO-TP under it."""

import sys
import types

import pytest

from harness import SOURCE

sys.path.append(str(SOURCE / "tests" / "peers"))

from scapy_bus import ScapyEcu, isotp_socket  # noqa: E402
from scapy.contrib.automotive.ecu import EcuResponse  # noqa: E402
from scapy.contrib.automotive.uds import UDS, UDS_NR, UDS_RDBIPR, UDS_RDTCIPR  # noqa: E402
from scapy.packet import Raw  # noqa: E402

# Identifiers beside those of the bench, which is on the same bus.
FIRST = ("700", "708")
SECOND = ("701", "709")
FUNCTIONAL = "70F"


@pytest.fixture
def scapy_ecu(can):
    """Makes scapy answer physical requests, or those on another identifier; all ends with the test."""
    server = types.SimpleNamespace(host="127.0.0.1", port=can.port)
    ecus = []

    def answer_with(identifiers, *responses, heard=None):
        socket = isotp_socket(server, "can0", int(identifiers[1], 16), int(heard or identifiers[0], 16), basecls=UDS)
        ecus.append(ScapyEcu(socket, responses))
        return ecus[-1]

    yield answer_with
    for ecu in ecus:
        ecu.end()


def codes_answer(codes):
    return EcuResponse(responses=UDS() / UDS_RDTCIPR(
        reportType=2, DTCStatusAvailabilityMask=0xFF, DTCAndStatusRecord=bytes.fromhex(codes)))


def address(identifiers):
    return {"ifname": "can0", "phy-req-id": identifiers[0], "phy-resp-id": identifiers[1], "st-min": "0", "bsize": "8",
            "func-addr": FUNCTIONAL}


def confirmed_codes(reply_id, target, can):
    record = {"type": "STATUS_MASK", "record": ["UDS_STATUS_MASK_CONFIRMED_DTC"]}
    uds = {"SID": "19", "subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK", "data-record": record}
    body = {"targetAddress": target, "mode": "CAN", "can": can, "uds": uds}
    return {"reply-id": reply_id, "type": "movra.quillet-query", "body": body}


def answers(reply):
    assert reply["body"]["uds"]["resp"] == "0x59"
    assert reply["body"]["uds"]["subfunction"] == "UDS_REPORT_DTC_BY_STATUS_MASK"
    return [(row["phy-req-id"], row["data"]) for row in reply["body"]["uds"]["data-record"]]


def test_codes_from_scapy_in_many_frames(agent, requester, scapy_ecu):
    codes = "0171002F" * 100
    ecu = scapy_ecu(FIRST, codes_answer(codes))
    requester.send("AGENT-1", confirmed_codes("codes", FIRST[0], address(FIRST)))
    assert answers(requester.next_reply()) == [(FIRST[0], "FF" + codes)]
    assert ecu.requests == ["190208"]


def test_a_refusal_from_scapy(agent, requester, scapy_ecu):
    refusal = UDS() / UDS_NR(requestServiceId=0x19, negativeResponseCode=0x22)
    scapy_ecu(FIRST, EcuResponse(responses=refusal, answers=lambda response, request: True))
    requester.send("AGENT-1", confirmed_codes("refused", FIRST[0], address(FIRST)))
    assert answers(requester.next_reply()) == [(FIRST[0], "7F1922")]


def test_codes_after_a_pending_answer_from_scapy(agent, requester, scapy_ecu):
    pending = UDS() / UDS_NR(requestServiceId=0x19, negativeResponseCode=0x78)
    final = UDS() / UDS_RDTCIPR(reportType=2, DTCStatusAvailabilityMask=0xFF, DTCAndStatusRecord=b"\x01\x71\x00\x2f")
    scapy_ecu(FIRST, EcuResponse(responses=[pending, final]))
    requester.send("AGENT-1", confirmed_codes("pending", FIRST[0], address(FIRST)))
    assert answers(requester.next_reply()) == [(FIRST[0], "FF0171002F")]


def test_codes_from_two_scapy_ecus_at_once(agent, requester, scapy_ecu):
    first = scapy_ecu(FIRST, codes_answer("0171002F"), heard=FUNCTIONAL)
    second = scapy_ecu(SECOND, codes_answer("03010024"), heard=FUNCTIONAL)
    requester.send("AGENT-1", confirmed_codes("both", "-1", [address(FIRST), address(SECOND)]))
    assert answers(requester.next_reply()) == [(FIRST[0], "FF0171002F"), (SECOND[0], "FF03010024")]
    assert first.requests == ["190208"] and second.requests == ["190208"]


def test_a_version_from_scapy(agent, requester, scapy_ecu):
    ecu = scapy_ecu(FIRST, EcuResponse(responses=UDS() / UDS_RDBIPR(dataIdentifier=0xF189) / Raw(b"SCAPY-2.5")))
    body = {"targetAddress": FIRST[0], "mode": "CAN", "can": address(FIRST), "version": {"uds": ["22F189"]}}
    requester.send("AGENT-1", {"reply-id": "version", "type": "movra.quillet-query", "body": body})
    assert requester.next_reply()["body"] == {"version": "SCAPY-2.5", "targetAddress": FIRST[0]}
    assert ecu.requests == ["22f189"]
