"""Routine requests on the whole road, seen by a requester on another MQTT library."""

import json
import re
import time

from harness import BUILD
from requester import decode, outcomes, routine

VIN = "WQLTEST0BENCH0001".encode().hex().upper()
TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")


def test_a_session_change_and_a_vin_read(agent, requester):
    requester.send("AGENT-1", routine("vin", [("10", "03"), ("22", "", "F190")]))
    reply = requester.next_reply()
    assert outcomes(reply) == [("0x10", "5003003201F4", "none"), ("0x22", "62F190" + VIN, "none")]
    assert reply["type"] == "movra.quillet-query-update"
    assert reply["reply-to"] == "vin"
    assert reply["body"]["targetAddress"] == "7E0"
    for row in reply["body"]["routine-response"]:
        assert TIME.fullmatch(row["requested-time"]) and TIME.fullmatch(row["responded-time"])


def test_a_security_access_with_seed_and_key(agent, requester):
    security = {"level": "1", "script": "bench-engine", "location": str(BUILD / "lib")}
    requester.send("AGENT-1", routine("key", [("10", "03"), ("27", "01"), ("22", "", "0102")], security=security))
    assert outcomes(requester.next_reply()) == [
        ("0x10", "5003003201F4", "none"), ("0x27", "6702", "none"), ("0x22", "620102DEADBEEF", "none")]


def test_a_security_access_without_a_plug_in_keeps_the_seed_as_its_answer(agent, requester):
    security = {"level": "1", "script": "bench-engine", "location": "/nonexistent"}
    requester.send("AGENT-1", routine("seed", [("10", "03"), ("27", "01"), ("22", "", "F190")], security=security))
    rows = outcomes(requester.next_reply())
    assert rows[1][0] == "0x27" and re.fullmatch("6701[0-9A-F]{8}", rows[1][1]) and rows[1][2] == "none"
    assert rows[2] == ("0x22", "62F190" + VIN, "none")


def test_a_routine_that_is_pending_four_times_over_three_seconds(agent, requester):
    pending = "NRC: 0x78: requestCorrectlyReceived-ResponsePending"
    seen = len(agent.lines(pending, "INFO"))
    began = time.monotonic()
    requester.send("AGENT-1", routine("slow", [("31", "01", "0300")]))
    assert outcomes(requester.next_reply()) == [("0x31", "7101030000", "none")]
    assert time.monotonic() - began >= 2.9
    assert len(agent.lines(pending, "INFO")) - seen == 4


def test_a_pause_of_more_than_two_seconds_keeps_the_session_alive_every_two(agent, requester, ecus):
    seen = len(ecus.requests("engine"))
    requester.send("AGENT-1", routine("pauses", [("10", "03", "", "3"), ("22", "", "F190", "2"), ("10", "01")]))
    assert [row[2] for row in outcomes(requester.next_reply(timeout=20))] == ["none"] * 3
    assert ecus.requests("engine")[seen:] == ["1003", "3E00", "3E00", "22F190", "1001"]


def test_a_refused_command_ends_the_routine(agent, requester):
    requester.send("AGENT-1", routine("refused", [("31", "01", "0303"), ("22", "", "F190")]))
    reply = requester.next_reply()
    assert outcomes(reply) == [("0x31", "7F3122", "Negative response"), ("0x22", "-", "Command not executed")]
    assert reply["body"]["routine-response"][1]["requested-time"] == ""
    agent.wait_for("Negative Response 31", "ERR")


def test_a_silent_ecu_ends_the_routine(agent, requester):
    requester.send("AGENT-1", routine("silent", [("22", "", "0111"), ("22", "", "F190")], ecu=("7E1", "7E9")))
    assert outcomes(requester.next_reply()) == [
        ("0x22", "-", "recv_diag_command failed"), ("0x22", "-", "Command not executed")]


def test_an_interface_that_does_not_exist_gives_two_replies(agent, requester):
    requester.send("AGENT-1", routine("nowhere", [("22", "", "F190")], interface="can9"))
    first, second = requester.next_message(), requester.next_message()
    assert outcomes(decode(first)) == [("0x22", "-", "Command not executed")]
    assert decode(second)["reply-to"] == "nowhere"
    assert second.payload == (
        b'{ "type": "movra.quillet-query-update", "reply-to": "nowhere", "body": { "error": '
        b'{ "error-type": "UDS_NO_RESPONSE", "uds-nrc": "can9 is not available" } } }\0')
    agent.wait_for("can9 is not available", "ERR")


def test_an_ecu_with_29_bit_identifiers(agent, requester):
    requester.send("AGENT-1", routine("body", [("22", "", "0120")], ecu=("18DA10F1", "18DAF110")))
    data = bytes(range(32)).hex().upper()
    assert outcomes(requester.next_reply()) == [("0x22", "620120" + data, "none")]


def test_the_form_of_a_reply_on_the_wire(agent, requester):
    requester.send("AGENT-1", routine('id "with" /odd\\ signs é', [("3E", "00")]))
    message = requester.next_message()
    assert decode(message)["reply-to"] == 'id "with" /odd\\ signs é'
    assert message.topic == "movra/v1/ua/TESTER-1/AGENT-1"
    assert message.properties.ContentType == "application/json"
    assert 0 < message.properties.MessageExpiryInterval <= 60
    ((key, value),) = message.properties.UserProperty
    assert key == "movra-id" and re.fullmatch("[0-9a-f]{32}", value)
    assert message.qos == 1 and not message.retain
    assert re.fullmatch(
        rb'\{ "type": "movra\.quillet-query-update", "reply-to": "id \\"with\\" \\/odd\\\\ signs \xc3\xa9", '
        rb'"body": \{ "routine-response": \[ \{ "service": "0x3E", "requested-time": "[^"]+", '
        rb'"responded-time": "[^"]+", "response-data": "7E00", "error": "none" \} \], "targetAddress": "7E0" \} \}\0',
        message.payload)


def test_a_redelivered_request_runs_once(agent, requester):
    request = routine("twice", [("3E", "00")])
    seen = len(agent.lines(f"Received msg from TESTER-1 : {json.dumps(request)}", "INFO"))
    for _ in range(2):
        requester.send("AGENT-1", request, movra_id="00112233445566778899aabbccddeeff")
    requester.send("AGENT-1", routine("after", [("3E", "00")]))
    assert requester.next_reply()["reply-to"] == "twice"
    assert requester.next_reply()["reply-to"] == "after"
    assert len(agent.lines(f"Received msg from TESTER-1 : {json.dumps(request)}", "INFO")) == seen + 1


def test_a_request_may_end_in_a_zero_byte(agent, requester):
    requester.send("AGENT-1", json.dumps(routine("zero", [("3E", "00")])).encode() + b"\0")
    assert requester.next_reply()["reply-to"] == "zero"
