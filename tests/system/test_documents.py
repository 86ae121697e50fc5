"""What the documents say: every example is valid, is sent, and gets the reply that stands below it."""

import json
import re
import subprocess

import pytest

from diagnosis import answers, error, report, request
from documents import DOCS, REPLY, REQUEST, agent_names, examples, mask_rows, report_rows
from harness import BIN, BUILD
from requester import changed, routine

VALID = routine("valid", [("27", "01")], security={"level": "1", "script": "s", "location": "/l"})
INVALID_DATA = "Invalid UDS Information, check for data-record"


def without_times(document):
    copy = json.loads(json.dumps(document))
    for row in copy["body"].get("routine-response", []):
        for key in ("requested-time", "responded-time"):
            row[key] = bool(row[key])
    return copy


@pytest.mark.parametrize("request_document, replies", examples(), ids=[row[0]["reply-id"] for row in examples()])
def test_an_example_gets_the_replies_below_it(agent, requester, request_document, replies):
    REQUEST.validate(request_document)
    assert replies
    text = json.dumps(request_document).replace("/opt/quillet/keys", str(BUILD / "lib"))
    requester.send("AGENT-1", text)
    for reply in replies:
        REPLY.validate(reply)
        assert without_times(requester.next_reply(timeout=15)) == without_times(reply)


def test_every_kind_of_request_and_of_reply_has_an_example():
    kinds = {key for document, _ in examples() for key in document["body"]} - {"targetAddress", "mode", "can"}
    assert kinds == {"routine", "uds", "version"}
    bodies = {next(iter(reply["body"])) for _, replies in examples() for reply in replies}
    assert bodies == {"routine-response", "uds", "version", "error"}


def test_the_tables_have_the_agent_s_names_in_its_order():
    assert [row[0] for row in report_rows()] == agent_names("UDS_REPORT_")
    assert [row[1] for row in report_rows()] == list(range(1, 26))
    assert [row[0] for row in mask_rows()] == agent_names("UDS_STATUS_MASK_")
    assert [row[1] for row in mask_rows()] == [1 << bit for bit in range(8)]


@pytest.mark.parametrize("name, number, record, data", report_rows(), ids=[row[0] for row in report_rows()])
def test_a_report_is_asked_and_answered_as_in_its_row(agent, requester, ecus, name, number, record, data):
    document = request(name, report(name.removeprefix("UDS_REPORT_"), record))
    assert REQUEST.is_valid(document) == (data is not None)
    asked = len(ecus.requests("engine"))
    requester.send("AGENT-1", document)
    reply = requester.next_reply()
    if data is None:
        assert error(reply) == INVALID_DATA
        assert len(ecus.requests("engine")) == asked
    else:
        assert reply["body"]["uds"]["subfunction"] == name
        assert answers(reply) == [("7E0", data)]
        assert ecus.requests("engine")[asked:][0].startswith(f"19{number:02X}")


@pytest.mark.parametrize("name, bit, data", mask_rows(), ids=[row[0] for row in mask_rows()])
def test_a_status_bit_selects_as_in_its_row(agent, requester, ecus, name, bit, data):
    document = request(name, report("DTC_BY_STATUS_MASK", {"type": "STATUS_MASK", "record": [name]}))
    REQUEST.validate(document)
    requester.send("AGENT-1", document)
    assert answers(requester.next_reply()) == [("7E0", data)]
    assert ecus.requests("engine")[-1] == f"1902{bit:02X}"


DTC = request("dtc", report("SUPPORTED_DTCS"))
ALL = request("all", report("SUPPORTED_DTCS"), [{"ifname": "c", "phy-req-id": "1", "phy-resp-id": "2"}])
BROADCAST = next(row[0] for row in examples() if "j1939" in row[0]["body"].get("version", {}))
SIGNAL = ("body", "version", "j1939", "signal", 0)
REFUSED = [
    (VALID, ("reply-id",), ...), (VALID, ("reply-id",), 7), (VALID, ("type",), ...), (VALID, ("body",), ...),
    (VALID, ("replyid",), "x"), (VALID, ("body", "targetAddress"), ...), (VALID, ("body", "mode"), "can"),
    (VALID, ("body", "can"), ...), (VALID, ("body", "can"), []), (VALID, ("body", "can", "ifname"), ...),
    (VALID, ("body", "can", "ifname"), "x" * 128), (VALID, ("body", "can", "phy-req-id"), "7G0"),
    (VALID, ("body", "can", "phy-resp-id"), ...), (VALID, ("body", "can", "st-min"), "100"),
    (VALID, ("body", "can", "func-addr"), "7DF"), (VALID, ("body", "routine"), ...),
    (VALID, ("body", "routine", "commands"), ...), (VALID, ("body", "routine", "commands", 0, "service"), ...),
    (VALID, ("body", "routine", "commands", 0, "data"), "123"),
    (VALID, ("body", "routine", "commands", 0, "data"), "00" * 1023),
    (VALID, ("body", "routine", "commands", 0, "timer"), "soon"), (VALID, ("body", "routine", "security_access"), ...),
    (VALID, ("body", "routine", "security_access", "script"), ...), (VALID, ("body", "uds"), DTC["body"]["uds"]),
    (DTC, ("body", "uds", "SID"), "22"), (DTC, ("body", "uds", "subfunction"), "UDS_REPORT_DTC"),
    (DTC, ("body", "uds", "subfunction"), "UDS_REPORT_DTC_BY_STATUS_MASK"),
    (ALL, ("body", "can"), {}), (ALL, ("body", "can", 0, "phy-req-id"), ...),
    (ALL, ("body", "can"), ALL["body"]["can"] * 257), (BROADCAST, ("body", "version"), {}),
    (BROADCAST, ("body", "version", "uds"), ["22F189"]), (BROADCAST, ("body", "version"), {"uds": ["22F18"]}),
    (BROADCAST, ("body", "version"), {"uds": ["00" * 2049]}),
    (BROADCAST, ("body", "version", "j1939", "timeout"), ...), (BROADCAST, (*SIGNAL, "factor"), ...),
    (BROADCAST, (*SIGNAL, "start_bit"), "-1"),
]


@pytest.mark.parametrize("document, path, value", REFUSED)
def test_the_schema_refuses_what_the_agent_would_not_run_as_meant(document, path, value):
    REQUEST.validate(document)
    assert not REQUEST.is_valid(changed(document, path, value))


REPLY_CHANGES = [
    ("routine", ("type",), "x"), ("routine", ("reply-to",), ...), ("routine", ("body", "targetAddress"), ...),
    ("routine", ("body", "routine-response", 0, "error"), "ok"),
    ("routine", ("body", "routine-response", 0, "response-data"), "7f"),
    ("routine", ("body", "routine-response", 0, "requested-time"), "now"),
    ("uds", ("body", "uds", "resp"), "0x62"), ("uds", ("body", "uds", "data-record"), []),
    ("uds", ("body", "uds", "data-record", 0, "data"), "FF0"), ("uds", ("body", "version"), "1"),
    ("version", ("body", "version"), 42), ("error", ("body", "error", "error-type"), "OTHER"),
    ("error", ("body", "targetAddress"), "7E0"),
]


@pytest.mark.parametrize("kind, path, value", REPLY_CHANGES)
def test_the_schema_refuses_what_is_no_reply(kind, path, value):
    key = "routine-response" if kind == "routine" else kind
    reply = next(reply for _, replies in examples() for reply in replies if key in reply["body"])
    REPLY.validate(reply)
    assert not REPLY.is_valid(changed(reply, path, value))


def test_the_page_and_the_help_of_quillet_ecu_agree():
    page = (DOCS / "virtual-ecu.md").read_text()
    shown = subprocess.run([str(BIN / "quillet-ecu"), "--help"], capture_output=True, text=True, timeout=60).stdout
    options = re.findall(r"^ +(?:-h,)?(--[a-z0-9-]+)", shown, re.M)
    assert re.findall(r"^\| `(--[a-z-]+)", page, re.M) and "--bus" in options
    assert set(re.findall(r"^\| `(--[a-z-]+)", page, re.M)) == set(options) - {"--help"}
    for bus in ("SocketCAN", "QUILLET_CAN_SERVER"):
        assert bus in shown and bus in page
