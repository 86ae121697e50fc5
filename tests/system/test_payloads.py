"""What a message may hold: any bytes of any length up to the limits, whatever its properties. What is above a limit is
refused by one line, and the link stays."""

import json
import secrets
import subprocess

import pytest
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from harness import BIN, PATIENCE, Agent, Pki, wait_until
from intruder import Intruder
from requester import decode, outcomes, routine

MIB = 1 << 20
PACKET_TOO_LARGE = 0x95


@pytest.fixture(scope="module")
def pki(folder):
    made = Pki(folder / "pki")
    for number in (1, 2):
        made.node(f"AGENT-{number}", "agent")
        made.node(f"TESTER-{number}")
    return made


@pytest.fixture(scope="module")
def agent(pki, broker, can, ecus, folder):
    """An agent that also tells what its bus library says, and has had one connection at its end."""
    process = Agent(pki.folder / "AGENT-1", broker.port, folder, can_port=can.port, options=("-v", "-v"))
    process.wait_until_connected()
    yield process
    assert process.interrupt() == 255
    assert len(process.lines("Movra Bus connection: running")) == 1


@pytest.fixture
def large_agent(pki, broker, can, ecus, folder, monkeypatch):
    """One that takes messages as large as the bus carries."""
    monkeypatch.setenv("TERVBUS_MAX_INCOMING", str(16 * MIB))
    process = Agent(pki.folder / "AGENT-2", broker.port, folder, can_port=can.port)
    process.wait_until_connected()
    yield process
    assert process.interrupt() == 255
    assert len(process.lines("Movra Bus connection: running")) == 1


def text_of(reply_id):
    return json.dumps(routine(reply_id, [("3E", "00")])).encode()


def expect_answer(requester, to="AGENT-1"):
    requester.send(to, text_of("next"))
    assert requester.next_reply(timeout=20)["reply-to"] == "next"


ANSWERED = [
    ("text without a final zero", text_of("it")),
    ("text with a final zero", text_of("it") + b"\0"),
    ("text with several final zeros", text_of("it") + b"\0" * 7),
    ("bytes behind a zero", text_of("it") + b"\0\xff\xfe garbage"),
    ("line ends around it", b"\r\n\t " + text_of("it") + b"\r\n"),
    ("exactly 1 MiB", text_of("it").ljust(MIB)),
    ("exactly 1 MiB with its final zero", text_of("it").ljust(MIB - 1) + b"\0"),
]


@pytest.mark.parametrize("payload", [row[1] for row in ANSWERED], ids=[row[0] for row in ANSWERED])
def test_is_answered(agent, requester, payload):
    requester.send("AGENT-1", payload)
    assert requester.next_reply()["reply-to"] == "it"
    requester.silence(0.05)


DROPPED = [
    ("nothing", b"", "len is 0"),
    ("a zero byte", b"\0", "Could not parse JSON message "),
    ("a zero before the text", b"\0" + text_of("it"), "Could not parse JSON message "),
    ("a zero within the text", text_of("it").replace(b"body", b"bo\0dy"),
     'Could not parse JSON message {"reply-id": "it", "t'),
    ("bytes that are no UTF-8", b"\xff\xfe\x80", "Could not parse JSON message \ufffd\ufffd\ufffd"),
    ("UTF-16", "hello".encode("utf-16-be"), "Could not parse JSON message "),
]


@pytest.mark.parametrize("payload, line", [row[1:] for row in DROPPED], ids=[row[0] for row in DROPPED])
def test_is_dropped_with_one_line(agent, requester, payload, line):
    before = agent.log()
    requester.send("AGENT-1", payload)
    expect_answer(requester)
    new = agent.log()[len(before):]
    errors = [text for level, _, text in new if level == "ERR"]
    assert len(errors) == 1 and errors[0].startswith(line), errors
    requester.silence(0.05)


def test_a_reply_id_that_is_no_utf8_comes_back_as_it_was(agent, requester):
    requester.send("AGENT-1", text_of("it").replace(b'"it"', b'"\xff\xfeit"'))
    message = requester.next_message()
    assert b'"reply-to": "\xff\xfeit"' in message.payload
    assert decode(message)["reply-to"] == "\ufffd\ufffdit"


def test_a_reply_s_acknowledgement_is_told_on_the_second_v(agent, requester):
    requester.send("AGENT-1", text_of("acknowledged"))
    requester.next_reply()
    expect_answer(requester)  # lines of this level wait for one that matters more
    wait_until(lambda: any(level == "D2BG" and text.startswith("BUS ACK ") and '"acknowledged"' in text
                           for level, _, text in agent.log()), "the line of its acknowledgement")


@pytest.mark.parametrize("length", [MIB + 1, 2 * MIB, 16 * MIB])
def test_more_than_1_mib_is_refused_by_the_node_with_one_line(agent, requester, length):
    line = f"message of {length} bytes from TESTER-1 dropped: above the limit of {MIB}"
    before = agent.log()
    requester.send("AGENT-1", text_of("it").ljust(length))
    expect_answer(requester)
    new = agent.log()[len(before):]
    assert [text for level, _, text in new if level == "DBG" and "dropped" in text] == [line]
    assert [text for level, _, text in new if level == "ERR"] == []
    requester.silence(0.05)


def test_large_messages_leave_the_order_of_the_others(agent, requester):
    for number in range(8):
        requester.send("AGENT-1", text_of("it").ljust(MIB + number % 2))
        requester.send("AGENT-1", text_of(f"small-{number}"))
    wanted = [name for number in range(8) for name in ["it"] * (number % 2 == 0) + [f"small-{number}"]]
    assert [requester.next_reply(timeout=20)["reply-to"] for _ in wanted] == wanted


def properties(content_type=None, movra_ids=()):
    made = Properties(PacketTypes.PUBLISH)
    if content_type is not None:
        made.ContentType = content_type
    for movra_id in movra_ids:
        made.UserProperty = ("movra-id", movra_id)
    return made


def fresh_id():
    return secrets.token_hex(16)


# The agent goes by what a message holds, not by what it is called. How often it is sent, how many replies come.
LABELS = [
    ("another content type", properties("text/plain", [fresh_id()]), 1, 1),
    ("an empty content type", properties("", [fresh_id()]), 1, 1),
    ("a very long content type", properties("x" * 60000, [fresh_id()]), 1, 1),
    ("no content type", properties(None, [fresh_id()]), 1, 1),
    ("no id", properties("application/json"), 2, 2),
    ("no properties", None, 2, 2),
    ("an id in capitals", properties("application/json", ["ABCDEF01" * 4]), 2, 2),
    ("an empty id", properties("application/json", [""]), 2, 2),
    ("an id that is too long", properties("application/json", [fresh_id() + "0"]), 2, 2),
    ("an id of 60000 bytes", properties("application/json", ["a" * 60000]), 2, 2),
    ("the same id again", properties("application/json", [fresh_id()]), 2, 1),
]


@pytest.mark.parametrize("label, sent, replies", [row[1:] for row in LABELS], ids=[row[0] for row in LABELS])
def test_is_taken_whatever_its_properties(agent, requester, label, sent, replies):
    for _ in range(sent):
        requester.client.publish("movra/v1/ua/AGENT-1/TESTER-1", text_of("it"), qos=1, properties=label)
    requester.send("AGENT-1", text_of("next"))
    got = [requester.next_reply()["reply-to"] for _ in range(replies + 1)]
    assert got == ["it"] * replies + ["next"]


def reply_of(length, base):
    """The request whose reply has that length: the reply writes a slash of the reply-id as two characters."""
    slashes, others = divmod(length - base, 2)
    return text_of("/" * slashes + "x" * others)


@pytest.fixture
def reply_base(large_agent, requester):
    """The length of a reply, its final zero included, without its reply-id."""
    requester.send("AGENT-2", text_of("x"))
    message = requester.next_message()
    assert decode(message)["reply-to"] == "x"
    return len(message.payload) - 1


def test_a_reply_of_16_mib_is_carried(large_agent, requester, reply_base):
    requester.send("AGENT-2", reply_of(16 * MIB, reply_base))
    message = requester.next_message(timeout=30)
    assert len(message.payload) == 16 * MIB
    assert outcomes(decode(message)) == [("0x3E", "7E00", "none")]
    expect_answer(requester, "AGENT-2")


def test_a_larger_reply_is_refused_and_the_link_stays(large_agent, requester, reply_base):
    requester.send("AGENT-2", reply_of(16 * MIB + 1, reply_base))
    expect_answer(requester, "AGENT-2")
    assert [text for level, _, text in large_agent.log() if level == "ERR"] == [
        "Failed to send message over Movra Bus"]
    requester.silence(0.05)


def query_file(pki, broker, folder, payload):
    path = folder / "request.json"
    path.write_bytes(payload)
    return subprocess.run(
        [BIN / "quillet-query", "--to", "AGENT-2", "--certs", pki.folder / "TESTER-2", "--broker",
         f"127.0.0.1:{broker.port}", "--file", path, "--timeout", "30"],
        capture_output=True, timeout=60 * PATIENCE)


def test_quillet_query_takes_a_reply_of_16_mib(large_agent, pki, broker, folder, requester, reply_base):
    done = query_file(pki, broker, folder, reply_of(16 * MIB, reply_base))
    assert (done.returncode, done.stderr) == (0, b"")
    assert len(done.stdout) == 16 * MIB, "a line end stands where the zero was"


def test_quillet_query_cannot_send_more_than_16_mib(pki, broker, folder):
    done = query_file(pki, broker, folder, text_of("it" + "x" * (16 * MIB)))
    assert done.returncode == 4
    assert b"the request cannot be sent" in done.stderr and b"a message at most 16 MiB" in done.stderr


def test_the_broker_refuses_more_than_16_mib(agent, requester, pki, broker):
    node = Intruder(pki.folder / "TESTER-2", broker.port)
    assert node.publish("movra/v1/ua/AGENT-1/TESTER-2", text_of("it").ljust(16 * MIB + 1)) == PACKET_TOO_LARGE
    assert node.publish("movra/v1/ua/AGENT-1/TESTER-2", text_of("it")) == 0
    node.drop()
    expect_answer(requester)
