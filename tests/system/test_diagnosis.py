"""DTCs and versions on the whole road: one ECU, all of them, silence, refusal, and answers that come at the wrong time."""

import time

import can as can_bus
import pytest

from diagnosis import (ALL, BODY, ENGINE, TRANSMISSION, answers, by_status, ecu, error, everyone, mask, record, report,
                       request)
from harness import Ecus, bench_with, wait_until
from requester import outcomes, routine

DELAYED = by_status("PENDING_DTC", "CONFIRMED_DTC")  # 19 02 0C
CONFIRMED = by_status("CONFIRMED_DTC")
# Its answers are single frames: the functional request reaches ECUs that nobody listens to as well, and one that waits
# for a flow control is busy.
COUNT = report("NO_DTC_BY_STATUS_MASK", mask("CONFIRMED_DTC"))
LATE = report("NO_DTC_BY_STATUS_MASK", mask("PENDING_DTC"))  # 19 01 04
ENGINES_COUNT = ("7E0", "FF010002")
COUNTS = [ENGINES_COUNT, ("7E1", "7F010001"), ("18DA10F1", "09010002")]
CONFIRMED_OF_ENGINE = [("7E0", "FF0171002F012345AF")]
NO_ANSWER = "send_dtc_response_to_bridge failed"


@pytest.fixture(scope="module")
def ecus(can, folder):
    """The bench, of which every ECU takes a second for one request, and the engine for another longer than the agent
    waits."""
    delayed = [{"request": "19020C", "delay_ms": 1000}]
    late = [{"request": "190104", "delay_ms": 4000}]
    process = Ecus(can.port, folder, bench_with(
        folder, {"engine": delayed + late, "transmission": delayed, "body": delayed}))
    yield process
    process.stop()


def ask(requester, work, can=ENGINE):
    requester.send("AGENT-1", request("asked", work, can))
    reply = requester.next_reply(timeout=20)
    assert reply["reply-to"] == "asked"
    return reply


def timed(requester, work, can):
    began = time.monotonic()
    reply = ask(requester, work, can)
    return reply, time.monotonic() - began


def test_three_ecus_take_the_time_of_one(agent, requester):
    one, alone = timed(requester, DELAYED, ENGINE)
    three, together = timed(requester, DELAYED, everyone())
    assert [row[0] for row in answers(one)] == ["7E0"]
    assert [row[0] for row in answers(three)] == ["7E0", "7E1", "18DA10F1"]
    assert alone >= 1 and together < 2 * alone


def test_one_silent_and_one_refusing_ecu_leave_the_third_its_answer(agent, requester):
    reply = ask(requester, by_status("WARNING_INDICATOR_REQUESTED"), everyone())
    assert answers(reply) == [("7E0", "FF012345AF"), ("18DA10F1", "7F1922")]


def test_the_only_ecu_s_silence_gives_an_error_reply(agent, requester):
    reply = ask(requester, by_status("WARNING_INDICATOR_REQUESTED"), TRANSMISSION)
    assert error(reply) == NO_ANSWER


def test_the_only_ecu_s_refusal_is_its_answer(agent, requester):
    reply = ask(requester, by_status("WARNING_INDICATOR_REQUESTED"), BODY)
    assert answers(reply) == [("18DA10F1", "7F1922")]


def nobody(count):
    """Settings of ECUs that are not there."""
    return [(f"{0x18DB0000 + number:X}", f"{0x18DC0000 + number:X}") for number in range(count)]


@pytest.mark.parametrize("count", [1, 16, 64, 256])
def test_a_list_of_ecus_of_which_few_are_there(agent, requester, ecus, count):
    asked = len(ecus.requests("engine"))
    reply = ask(requester, COUNT, everyone([*ALL, *nobody(count)][:count]))
    assert answers(reply) == COUNTS[:count]
    assert ecus.requests("engine")[asked:] == ["190108"]


def test_a_list_of_no_ecus(agent, requester):
    assert error(ask(requester, COUNT, [])) == NO_ANSWER


def test_a_list_of_300_ecus_ends_at_its_limit(agent, requester):
    seen = len(agent.lines("too many elements in body.can", "ERR"))
    ids = [*nobody(255), ENGINE, TRANSMISSION, *nobody(43)]
    reply = ask(requester, COUNT, everyone(ids))
    assert answers(reply) == [ENGINES_COUNT]
    assert len(agent.lines("too many elements in body.can", "ERR")) == seen + 1


def asked_since(ecus, before=None):
    return {name: ecus.requests(name)[len(before[name]) if before else 0:] for name in ("engine", "body")}


def test_a_shared_functional_address_is_asked_once(agent, requester, ecus):
    before = asked_since(ecus)
    assert answers(ask(requester, COUNT, everyone())) == COUNTS
    assert asked_since(ecus, before) == {"engine": ["190108"], "body": ["190108"]}


def test_every_functional_address_of_the_list_is_asked(agent, requester, ecus):
    before = asked_since(ecus)
    settings = [*everyone((TRANSMISSION,), "7DD"), *everyone((BODY,), "18DB33F1")]  # nobody has 7DD, one ECU the other
    assert answers(ask(requester, COUNT, settings)) == COUNTS[2:]
    assert asked_since(ecus, before) == {"engine": [], "body": ["190108"]}


def test_a_missing_interface_ends_the_list_but_not_the_request(agent, requester):
    seen = len(agent.lines("can9 is not available", "ERR"))
    settings = everyone()
    settings[1]["ifname"] = "can9"
    assert answers(ask(requester, COUNT, settings)) == [ENGINES_COUNT]
    assert len(agent.lines("can9 is not available", "ERR")) == seen + 1


@pytest.mark.parametrize("name, data", [
    ("DTC_BY_STATUS_MASK", record("FFFF")), ("DTC_BY_STATUS_MASK", record("")),
    ("DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER", record("123456")), ("SEVERITY_INFORMATION_OF_DTC", mask("PENDING_DTC")),
    ("USER_DEF_MR_DTC_SNAP_REC_BY_DTC", record("0171000118")),
])
def test_data_of_the_wrong_length_give_an_error_reply(agent, requester, ecus, name, data):
    asked = len(ecus.requests("engine"))
    assert error(ask(requester, report(name, data))) == "Invalid UDS Information, check for data-record"
    assert len(ecus.requests("engine")) == asked


def test_data_that_are_not_hexadecimal_are_zeros(agent, requester, ecus):
    ask(requester, report("DTC_BY_STATUS_MASK", record("ZZ")))
    assert ecus.requests("engine")[-1] == "190200"


def test_unknown_mask_names_count_for_nothing(agent, requester, ecus):
    ask(requester, by_status("NO_SUCH_BIT", "CONFIRMED_DTC", "CONFIRMED_DTC"))
    assert ecus.requests("engine")[-1] == "190208"


@pytest.mark.parametrize("ids, queries, version", [
    (ENGINE, ["22F189"], "ENG-4.2.1-bench"),
    (TRANSMISSION, ["22F189", "22F18C"], "TCU-000456"),
    (BODY, ["22F189"], "021000a5" + "00" * 250),
    (ENGINE, ["1003", "22F195"], "0042"),
    (ENGINE, ["22F189", "22FFFF"], "ENG-4.2.1-bench"),
])
def test_a_uds_version(agent, requester, ids, queries, version):
    assert ask(requester, {"version": {"uds": queries}}, ids)["body"] == {"version": version, "targetAddress": ids[0]}


def test_a_version_of_ten_thousand_requests(agent, requester):
    # The length of the data is their number less 3, of which the low 8 bits count: 9997 is 13.
    reply = ask(requester, {"version": {"uds": ["22F189"] + ["22FFFF"] * 9999}})
    assert reply["body"]["version"] == "ENG-4.2.1-ben"


def test_a_version_that_is_refused_gives_an_error_reply(agent, requester):
    assert error(ask(requester, {"version": {"uds": ["22FFFF"]}})) == "Negative Response 22\n"


def signal(start_bit, bitlength="8"):
    return {"name": "part", "start_bit": start_bit, "bitlength": bitlength, "factor": "1", "offset": "0"}


def broadcast(*signals, identifier="18FEDA00"):
    return {"version": {"j1939": {"ifname": "can0", "id": identifier, "timeout": "5000", "signal": list(signals)}}}


@pytest.mark.parametrize("signals, version", [
    ([signal("0"), signal("8"), signal("16")], "1.4.12"),
    ([signal("0"), signal("64"), signal("16")], "1"),
    ([signal("0"), signal("0", "33")], "1"),
    ([], ""),
])
def test_a_version_from_a_broadcast(agent, requester, signals, version):
    assert ask(requester, broadcast(*signals))["body"] == {"version": version, "targetAddress": "7E0"}


def test_a_broadcast_that_does_not_come_gives_an_error_reply(agent, requester):
    assert error(ask(requester, broadcast(signal("0"), identifier="18FEDA01"))) == "Unable to read Version"


@pytest.fixture
def bus(can):
    node = can_bus.Bus(interface="socketcand", channel="can0", host="127.0.0.1", port=can.port)
    yield node
    node.shutdown()


def say_as_engine(bus, text):
    data = bytes.fromhex(text)
    bus.send(can_bus.Message(arbitration_id=0x7E8, is_extended_id=False, data=data.ljust(8, b"\xCC")))


def wait_for_engine(bus, text):
    """Until a frame of the engine that begins so has been on the bus."""
    start = bytes.fromhex(text)

    def said():
        frame = bus.recv(timeout=0.1)
        return frame is not None and frame.arbitration_id == 0x7E8 and bytes(frame.data).startswith(start)

    wait_until(said, f"{text} on the bus")


@pytest.mark.parametrize("early", [
    ("0562F187AAAA",),                    # the whole answer
    ("101462F187AAAAAA",),                # its first frame
    ("101462F187AAAAAA", "21" + "AA" * 7),  # the beginning of it
    ("037F2231",),                        # a refusal
    ("037F2278",),                        # the promise of one
])
def test_an_answer_that_came_before_its_request_is_not_taken(agent, requester, bus, early):
    requester.send("AGENT-1", routine("early", [("3E", "00", "", "2"), ("22", "", "F187")]))
    wait_for_engine(bus, "027E00")  # the channel stays open over the pause, in which nothing is sent
    for frame in early:
        say_as_engine(bus, frame)
    value = "8K0-906-259-Q".encode().hex().upper()
    assert outcomes(requester.next_reply()) == [("0x3E", "7E00", "none"), ("0x22", "62F187" + value, "none")]


def test_a_second_answer_of_the_same_ecu_changes_nothing(agent, requester, ecus, bus):
    asked = len(ecus.requests("engine"))
    requester.send("AGENT-1", request("doubled", LATE))
    wait_until(lambda: "190104" in ecus.requests("engine")[asked:], "the request")
    say_as_engine(bus, "065901AA123456")  # what comes after the request cannot be told apart
    assert answers(requester.next_reply()) == [("7E0", "AA123456")]
    wait_for_engine(bus, "065901FF")  # its own answer
    assert answers(ask(requester, CONFIRMED)) == CONFIRMED_OF_ENGINE


def test_an_answer_of_one_byte_is_left_out(agent, requester, ecus, bus):
    asked = len(ecus.requests("engine"))
    requester.send("AGENT-1", request("short", LATE, [ecu(ENGINE, functional="7DF"), ecu(BODY, functional="7DF")]))
    wait_until(lambda: "190104" in ecus.requests("engine")[asked:], "the request")
    say_as_engine(bus, "0159")
    assert [row[0] for row in answers(requester.next_reply())] == ["18DA10F1"]
