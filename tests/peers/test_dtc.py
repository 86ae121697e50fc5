"""Trouble codes: scapy's UDS layers as the tester of the virtual ECUs, and as an ECU that our transport asks."""

import can
import pytest
from scapy.contrib.automotive.ecu import EcuResponse
from scapy.contrib.automotive.uds import (
    UDS,
    UDS_CDTCI,
    UDS_CDTCIPR,
    UDS_NR,
    UDS_RDBIPR,
    UDS_RDTCI,
    UDS_RDTCIPR,
)
from scapy.packet import Raw

from processes import BENCH_BUS, PATIENCE_S
from scapy_bus import ScapyEcu, ask, isotp_socket, raw, receive

# The codes of the bench's engine with their status.
FUEL = "017100" + "2f"
HEAT = "012345" + "af"
MISFIRE = "030100" + "24"
BUS_OFF = "c10000" + "50"


def code(number):
    high, middle, low = bytes.fromhex(number)
    return {"DTCHighByte": high, "DTCMiddleByte": middle, "DTCLowByte": low}


def read_dtc(report, **fields):
    return UDS() / UDS_RDTCI(reportType=report, **fields)


@pytest.mark.parametrize(
    "request_fields, availability, count",
    [
        ({"report": 0x01, "DTCStatusMask": 0x08}, 0xFF, 2),
        ({"report": 0x07, "DTCSeverityMask": 0x20, "DTCStatusMask": 0xFF}, 0xFF, 2),
        ({"report": 0x11, "DTCStatusMask": 0x08}, 0xFF, 1),
        ({"report": 0x12, "DTCStatusMask": 0x04}, 0xFF, 3),
    ],
)
def test_scapy_reads_numbers_of_codes(engine, request_fields, availability, count):
    request = read_dtc(**request_fields)
    answer = ask(engine, request)
    assert answer.answers(request), raw(answer)
    assert answer.DTCStatusAvailabilityMask == availability
    assert answer.DTCFormatIdentifier == 1
    assert answer.DTCCount == count


@pytest.mark.parametrize(
    "request_fields, codes",
    [
        ({"report": 0x02, "DTCStatusMask": 0x08}, FUEL + HEAT),
        ({"report": 0x0A}, FUEL + HEAT + MISFIRE + BUS_OFF),
        ({"report": 0x0B}, FUEL),
        ({"report": 0x0C}, FUEL),
        ({"report": 0x0D}, MISFIRE),
        ({"report": 0x0E}, HEAT),
        ({"report": 0x0F, "DTCStatusMask": 0x08}, "01710028"),
        ({"report": 0x13, "DTCStatusMask": 0x80}, HEAT),
        ({"report": 0x15}, FUEL),
    ],
)
def test_scapy_reads_lists_of_codes(engine, request_fields, codes):
    request = read_dtc(**request_fields)
    answer = ask(engine, request)
    assert answer.answers(request), raw(answer)
    assert answer.DTCStatusAvailabilityMask == 0xFF
    assert answer.DTCAndStatusRecord.hex() == codes


@pytest.mark.parametrize(
    "request_fields, record",
    [
        ({"report": 0x04, **code("017100"), "DTCSnapshotRecordNumber": 2}, FUEL + "02" + "01" + "01000960"),
        ({"report": 0x05, "DTCSnapshotRecordNumber": 1}, "01" + FUEL + "01" + "f190" + b"WQLTEST0BENCH0001".hex()),
        ({"report": 0x06, **code("017100"), "DTCExtendedDataRecordNumber": 0xFF}, FUEL + "0105" + "900028"),
        ({"report": 0x08, "DTCSeverityMask": 0x80, "DTCStatusMask": 0x08}, "ff" + "8010" + HEAT),
        ({"report": 0x09, **code("c10000")}, "ff" + "2033" + BUS_OFF),
        ({"report": 0x10, **code("017100"), "DTCExtendedDataRecordNumber": 1}, "01710028" + "0109"),
        ({"report": 0x14}, "03010032"),
    ],
)
def test_scapy_reads_records(engine, request_fields, record):
    request = read_dtc(**request_fields)
    answer = ask(engine, request)
    assert answer.answers(request), raw(answer)
    assert answer.dataRecord.hex() == record


@pytest.mark.parametrize(
    "request_bytes, answer_bytes",
    [
        # scapy gives this request a code, which the standard does not have, and the other two have no layer.
        ("1903", "5903" + "01710001" + "01710002" + "01234501"),
        ("191601", "591601" + FUEL + "05" + HEAT + "02"),
        ("19170818", "591718ff" + "01710008" + "9a4b162c"),
    ],
)
def test_reports_that_scapy_has_no_layer_for(engine, request_bytes, answer_bytes):
    assert raw(ask(engine, UDS(bytes.fromhex(request_bytes)))) == answer_bytes


def test_scapy_is_refused_a_code_that_does_not_exist(engine):
    answer = ask(engine, read_dtc(0x04, **code("123456"), DTCSnapshotRecordNumber=1))
    assert answer.service == 0x7F
    assert (answer[UDS_NR].requestServiceId, answer[UDS_NR].negativeResponseCode) == (0x19, 0x31)


def test_scapy_clears_one_code_and_then_all(engine):
    clear_one = UDS() / UDS_CDTCI(groupOfDTCHighByte=0x01, groupOfDTCMiddleByte=0x71, groupOfDTCLowByte=0x00)
    answer = ask(engine, clear_one)
    assert answer.service == 0x54 and raw(answer) == "54"
    assert ask(engine, read_dtc(0x02, DTCStatusMask=0x08)).DTCAndStatusRecord.hex() == HEAT
    clear_all = UDS() / UDS_CDTCI(groupOfDTCHighByte=0xFF, groupOfDTCMiddleByte=0xFF, groupOfDTCLowByte=0xFF)
    assert raw(ask(engine, clear_all)) == "54"
    assert ask(engine, read_dtc(0x01, DTCStatusMask=0xAF)).DTCCount == 0
    assert ask(engine, read_dtc(0x0F, DTCStatusMask=0x08)).DTCAndStatusRecord.hex() == "01710028"


def test_scapy_asks_all_ecus_at_once(tester, engine, transmission, body):
    functional = tester(0x7DF, 0x7DE)
    functional.send(read_dtc(0x02, DTCStatusMask=0x08))
    assert raw(receive(engine)) == "5902ff" + FUEL + HEAT
    assert raw(receive(transmission)) == "59027f" + "0730002b"
    assert raw(receive(body)) == "590209" + "9a4b1609" + "c1408708"


def test_one_ecu_is_silent_and_one_refuses(bench, tester, engine, transmission, body):
    functional = tester(0x7DF, 0x7DE)
    functional.send(read_dtc(0x02, DTCStatusMask=0x80))
    assert raw(receive(engine)) == "5902ff" + HEAT
    assert raw(receive(body)) == "7f1922"
    assert receive(transmission, 0.3) is None
    assert bench.requests("transmission") == ["190280 functional"]


def test_a_broadcast_comes_with_its_period(bench, can_server):
    with can.Bus(interface="socketcand", channel=BENCH_BUS, host=can_server.host, port=can_server.port) as bus:
        frames = []
        while len(frames) < 6:
            frame = bus.recv(timeout=PATIENCE_S)
            assert frame is not None, "no frame"
            frames.append(frame)
    for frame in frames:
        assert (frame.arbitration_id, frame.is_extended_id) == (0x18FEDA00, True)
        assert bytes(frame.data).hex() == "01040cffffffffff"
    # Six frames are five periods of 200 ms, by the bus's own clock; the ECU may have been late with some.
    assert 0.7 < frames[-1].timestamp - frames[0].timestamp < 3


@pytest.fixture
def scapy_ecu(can_server):
    """Makes scapy answer on the engine's identifiers; it ends with the test."""
    ecus = []

    def answer_with(*responses):
        socket = isotp_socket(can_server, BENCH_BUS, 0x7E8, 0x7E0, basecls=UDS)
        ecus.append(ScapyEcu(socket, responses))

    yield answer_with
    for ecu in ecus:
        ecu.end()


def ask_as_ours(uds_peer, handle, request):
    uds_peer.begin_send(handle, bytes.fromhex(request))
    assert uds_peer.line() == "sent"
    uds_peer.begin_receive(handle)
    return uds_peer.received().hex()


def dtc_response(report, **fields):
    return UDS() / UDS_RDTCIPR(reportType=report, **fields)


def test_our_transport_asks_scapy_for_codes_and_identifiers(uds_peer, scapy_ecu):
    codes = bytes.fromhex((FUEL + HEAT) * 100)  # 800 bytes, in many frames
    scapy_ecu(
        EcuResponse(
            responses=dtc_response(0x01, DTCStatusAvailabilityMask=0xFF, DTCFormatIdentifier=1, DTCCount=200)
        ),
        EcuResponse(responses=dtc_response(0x02, DTCStatusAvailabilityMask=0xFF, DTCAndStatusRecord=codes)),
        EcuResponse(responses=dtc_response(0x14, dataRecord=bytes.fromhex("03010032"))),
        EcuResponse(responses=UDS() / UDS_RDBIPR(dataIdentifier=0xF189) / Raw(b"ENG-4.2.1-bench")),
        EcuResponse(responses=UDS() / UDS_CDTCIPR()),
    )
    handle = uds_peer.open(BENCH_BUS, 0x7E0, 0x7E8, block_size=8)
    assert ask_as_ours(uds_peer, handle, "190108") == "5901ff0100c8"
    assert ask_as_ours(uds_peer, handle, "190208") == "5902ff" + codes.hex()
    assert ask_as_ours(uds_peer, handle, "1914") == "591403010032"
    assert ask_as_ours(uds_peer, handle, "22f189") == "62f189" + b"ENG-4.2.1-bench".hex()
    assert ask_as_ours(uds_peer, handle, "14ffffff") == "54"
    uds_peer.close(handle)


def test_our_transport_is_refused_by_scapy(uds_peer, scapy_ecu):
    refusal = UDS() / UDS_NR(requestServiceId=0x19, negativeResponseCode=0x22)
    scapy_ecu(EcuResponse(responses=refusal, answers=lambda response, request: request.service == 0x19))
    handle = uds_peer.open(BENCH_BUS, 0x7E0, 0x7E8)
    assert ask_as_ours(uds_peer, handle, "190208") == "7f1922"
    assert ask_as_ours(uds_peer, handle, "22f190") == "7f2210"  # its answer to what it does not know
    uds_peer.close(handle)


def test_our_transport_waits_for_scapy_s_pending_answers(uds_peer, scapy_ecu):
    pending = UDS() / UDS_NR(requestServiceId=0x19, negativeResponseCode=0x78)
    final = dtc_response(0x0A, DTCStatusAvailabilityMask=0xFF, DTCAndStatusRecord=bytes.fromhex(FUEL))
    scapy_ecu(EcuResponse(responses=[pending, pending, final]))
    handle = uds_peer.open(BENCH_BUS, 0x7E0, 0x7E8)
    assert ask_as_ours(uds_peer, handle, "190a") == "7f1978"
    for expected in ("7f1978", "590aff" + FUEL):
        uds_peer.begin_receive(handle)
        assert uds_peer.received().hex() == expected
    uds_peer.close(handle)
