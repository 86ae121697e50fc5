"""Requests that cannot be run: each is dropped with its line, gets no reply, and the next one works."""

import json
import time

import pytest

from requester import changed, routine

GOOD = routine("bad", [("3E", "00")])
MIB = 1024 * 1024


def without(*path):
    return changed(GOOD, path)


def with_value(*path, value):
    return changed(GOOD, path, value)


def with_uds(uds):
    request = without("body", "routine")
    request["body"]["uds"] = uds
    return request


def with_version(version):
    request = without("body", "routine")
    request["body"]["version"] = version
    return request


def with_report(*record):
    uds = {"SID": "19", "subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK"}
    return with_uds({**uds, "data-record": record[0]} if record else uds)


FOUND = "Subfunction found"  # an error by its level only
EXPAND = "Unable to expand record"
UDS_FAILED = "UDS info parsing failed"
CAN = ("body", "can")
CAN_FAILED = "CAN Configuration parsing failed"

DROPPED = [
    ("text that is no JSON", b"hello", ["Could not parse JSON message hello"]),
    ("half a request", b'{"reply-id": "x"', ['Could not parse JSON message {"reply-id": "x"']),
    ("a list", b"[1, 2]", ["reply-id not found in JSON message"]),
    ("a number", b"7", ["reply-id not found in JSON message"]),
    ("an empty object", {}, ["reply-id not found in JSON message"]),
    ("a reply-id that is a number", with_value("reply-id", value=7), ["reply-id not found in JSON message"]),
    ("a reply-id that is null", with_value("reply-id", value=None), ["reply-id not found in JSON message"]),
    ("no target", without("body", "targetAddress"), ["target not found in JSON message"]),
    ("no body", without("body"), ["target not found in JSON message"]),
    ("a body that is a list", with_value("body", value=[1]), ["target not found in JSON message"]),
    ("no type", without("type"), ["No 'type' field found"]),
    ("a type that is an object", with_value("type", value={}), ["No 'type' field found"]),
    ("no commands", without("body", "routine", "commands"), ["No Command property"]),
    ("commands that are an object", with_value("body", "routine", "commands", value={}), ["No Command property"]),
    ("a command without a service", with_value("body", "routine", "commands", value=[{"subfn": "01"}]),
     ["service not found in JSON message"]),
    ("no mode", without("body", "mode"), ["mode not found in JSON message"]),
    ("mode in lower case", with_value("body", "mode", value="can"), ["can Transport type not supported yet!!"]),
    ("a foreign mode", with_value("body", "mode", value="DoIP"), ["DoIP Transport type not supported yet!!"]),
    ("no transport settings", without(*CAN), ["'ifname' not found in JSON message", CAN_FAILED]),
    ("no interface", without(*CAN, "ifname"), ["'ifname' not found in JSON message", CAN_FAILED]),
    ("no request identifier", without(*CAN, "phy-req-id"), ["phy-req-id not found in JSON message", CAN_FAILED]),
    ("no response identifier", without(*CAN, "phy-resp-id"), ["phy-resp-id not found in JSON message", CAN_FAILED]),
    ("all ECUs without a list", with_value("body", "targetAddress", value="-1"),
     ["'can_dev' not found in JSON message", CAN_FAILED]),
    ("a service that is not read", with_uds({"SID": "22"}), ["SID(0x22) not Supported"]),
    ("no service identifier", with_uds({}), ["SID not found in JSON message"]),
    ("no report", with_uds({"SID": "19"}), ["Unable to get subfunction", UDS_FAILED]),
    ("a report by its number", with_uds({"SID": "19", "subfunction": "02"}), ["Unable to get subfunction", UDS_FAILED]),
    ("a report without its data", with_report(), ["Unable to get data-record", FOUND, UDS_FAILED]),
    ("data without a type", with_report({"record": "FF"}), ["Unable to get 'type'", FOUND, EXPAND, UDS_FAILED]),
    ("data of an unknown type", with_report({"type": "MASK", "record": "FF"}), [FOUND, EXPAND, UDS_FAILED]),
    ("data without a record", with_report({"type": "RECORD"}), ["Unable to get 'record'", FOUND, EXPAND, UDS_FAILED]),
    ("a mask that is a text", with_report({"type": "STATUS_MASK", "record": "FF"}),
     ["Unable to get 'record'", FOUND, EXPAND, UDS_FAILED]),
    ("an empty mask", with_report({"type": "STATUS_MASK", "record": []}),
     ["Array size is zero", "Invalid mask", FOUND, EXPAND, UDS_FAILED]),
    ("a version request without a query", with_version({}), ["No version info available"]),
    ("a version query of the wrong type", with_version({"uds": {}}), ["No version info available"]),
    ("a broadcast that is a list", with_version({"j1939": []}), ["'j1939' not found in version JSON message"]),
]


@pytest.mark.parametrize("payload, lines", [row[1:] for row in DROPPED], ids=[row[0] for row in DROPPED])
def test_is_dropped_with_its_line_and_no_reply(agent, requester, payload, lines):
    seen = {line: len(agent.lines(line, "ERR")) for line in lines}
    errors = len([line for line in agent.log() if line[0] == "ERR"])
    requester.send("AGENT-1", payload)
    for line in lines:
        agent.wait_for(line, "ERR", seen[line] + 1)
    requester.send("AGENT-1", routine("next", [("3E", "00")]))
    assert requester.next_reply()["reply-to"] == "next"
    assert len([line for line in agent.log() if line[0] == "ERR"]) == errors + len(lines)


def test_an_empty_message_is_told_apart(agent, requester):
    seen = len(agent.lines("len is 0", "ERR"))
    requester.send("AGENT-1", b"")
    agent.wait_for("len is 0", "ERR", seen + 1)
    requester.send("AGENT-1", routine("next", [("3E", "00")]))
    assert requester.next_reply()["reply-to"] == "next"


def test_what_follows_a_zero_byte_is_not_read(agent, requester):
    requester.send("AGENT-1", json.dumps(routine("before", [("3E", "00")])).encode() + b"\0" + b"garbage" * 10)
    assert requester.next_reply()["reply-to"] == "before"


def test_a_key_exchange_without_settings_keeps_the_commands_before_it(agent, requester):
    seen = len(agent.lines("No security_access property", "ERR"))
    requester.send("AGENT-1", routine("kept", [("3E", "00"), ("27", "01"), ("10", "01")]))
    reply = requester.next_reply()
    assert [row["service"] for row in reply["body"]["routine-response"]] == ["0x3E"]
    assert len(agent.lines("No security_access property", "ERR")) == seen + 1


SECURITY = {"level": "1", "script": "x" * 1000, "location": "/nowhere"}
COMMAND = {"service": "22", "data": "F190"}


def many(commands, security=None):
    return json.dumps({**routine("big", [], interface="nowhere"), "body": {
        **routine("big", [], interface="nowhere")["body"],
        "routine": {"commands": commands, **({"security_access": security} if security else {})}}}).encode()


def padded(text):
    return text + b" " * (MIB - len(text))


# Of each: how many replies come. A routine on an interface that does not exist gives two.
LARGE = [
    ("1 MiB of brackets", b"[" * MIB, 0),
    ("1 MiB of nested objects", b'{"a":' * (MIB // 5), 0),
    ("1 MiB of one text", b'{"reply-id": "' + b"x" * (MIB - 20) + b'"}', 0),
    ("1 MiB of nulls", b"[" + b"null," * (MIB // 5 - 2) + b"null]", 0),
    ("1 MiB of digits", b"9" * MIB, 0),
    ("1 MiB of bytes that are no text", bytes(range(128, 256)) * (MIB // 128), 0),
    ("1 MiB of one key again and again", b"{" + b'"body":{},' * (MIB // 10 - 2) + b'"body":{}}', 0),
    ("30,000 commands", padded(many([COMMAND] * 20000 + [{"service": "3E"}] * 10000)), 0),
    ("16,000 commands", many([COMMAND] * 16000), 2),
    ("10,000 key exchanges", many([{"service": "27", "subfn": "01"}] * 10000, SECURITY), 2),
    ("10,000 key exchanges without settings", many([{"service": "27", "subfn": "01"}] * 10000), 1),
]


@pytest.mark.parametrize("payload, replies", [row[1:] for row in LARGE], ids=[row[0] for row in LARGE])
def test_a_large_message_is_handled_within_two_seconds(agent, requester, slowness, payload, replies):
    assert len(payload) <= MIB
    requester.send("AGENT-1", payload).wait_for_publish(10)
    began = time.monotonic()
    requester.send("AGENT-1", routine("next", [("3E", "00")]))
    got = [requester.next_reply(timeout=20)["reply-to"] for _ in range(replies + 1)]
    assert time.monotonic() - began < 2 * slowness
    assert got == ["big"] * replies + ["next"]
