"""An agent that waits for a slow ECU while far more requests come than it can keep: it keeps its 1024, says of each
other one that it is refused, does not grow, and goes on as before when the ECU is done."""

import json
import re

import pytest

from harness import LONG_TIER, PATIENCE, Broker, Ecus, free_port, wait_until
from intruder import Intruder
from requester import Requester, outcomes, routine

REQUESTS = 100_000 if LONG_TIER else 3_000
KEPT = 1024  # the one that runs is one of them
BATCH = 1000  # well below what the broker keeps for a node that is slower than its requesters
REFUSED = "too many pending requests"
# What 1024 requests and the messages on their way may take. A sanitizer's freed memory stays for a while.
GROWTH_KIB = 8 * 1024 if PATIENCE == 1 else 400 * 1024


class Follower:
    """Counts the lines of a log that grows by megabytes."""

    def __init__(self, agent, text):
        self.file = open(agent.path, "rb")
        self.pattern = re.compile(rb"ERR .* " + text.encode() + rb"$", re.MULTILINE)
        self.rest = b""
        self.count = 0

    def look(self):
        text = self.rest + self.file.read()
        whole, end, self.rest = text.rpartition(b"\n")
        self.count += len(self.pattern.findall(whole))
        return self.count


def memory_kib(agent, name):
    with open(f"/proc/{agent.popen.pid}/status") as status:
        return int(re.search(rf"^{name}:\s+(\d+) kB", status.read(), re.MULTILINE)[1])


@pytest.fixture(scope="module")
def broker(pki, plugin, folder):
    """Without its file of sessions: it would write all that is on its way anew with each acknowledgement, so that a
    burst cost it the square of its length, and the agent would see little of it."""
    port = free_port()
    configuration = pki.broker(port, plugin)
    configuration.write_text(configuration.read_text().replace("persistence true\n", "persistence false\n"))
    process = Broker(configuration, port, folder)
    yield process
    process.stop()


@pytest.fixture
def ecus():
    """The test starts and stops them itself."""


def keep_busy(agent, requester):
    """With a command of which the ECU says, as long as there is one, that it is under way."""
    requester.send("AGENT-1", routine("busy", [("31", "01", "0301")]))
    agent.wait_for("NRC: 0x78: requestCorrectlyReceived-ResponsePending", "INFO")


def request_of(number):
    return json.dumps(routine(str(number), [("3E", "00", "0")])).encode()


def flood(node, agent, follower):
    """All requests, with as many on their way as the broker keeps; the agent's memory after each batch."""
    memory = []
    for begin in range(0, REQUESTS, BATCH):
        batch = [request_of(number) for number in range(begin, min(begin + BATCH, REQUESTS))]
        assert set(node.publish_all("movra/v1/ua/AGENT-1/TESTER-2", batch)) == {0}
        refused = max(begin + len(batch) - (KEPT - 1), 0)
        wait_until(lambda: follower.look() >= refused, f"{refused} lines of refusal", timeout=30)
        memory.append(memory_kib(agent, "VmRSS"))
    return memory


def test_refuses_what_it_cannot_keep_and_goes_on(start_agent, can, folder, pki, broker, requester):
    slow = Ecus(can.port, folder)
    agent = start_agent()
    follower = Follower(agent, REFUSED)
    keep_busy(agent, requester)
    before = memory_kib(agent, "VmRSS")

    node = Intruder(pki.folder / "TESTER-2", broker.port)
    memory = flood(node, agent, follower)
    node.drop()
    assert max(memory) - before <= GROWTH_KIB, memory
    assert memory_kib(agent, "VmHWM") - before <= GROWTH_KIB
    assert [text for level, _, text in agent.log() if level == "ERR" and text != REFUSED] == []

    flooder = Requester(pki.folder / "TESTER-2", broker.port)
    slow.stop()
    well = Ecus(can.port, folder)
    assert requester.next_reply()["reply-to"] == "busy"
    replies = [flooder.next_reply(timeout=30) for _ in range(KEPT - 1)]
    assert [reply["reply-to"] for reply in replies] == [str(number) for number in range(KEPT - 1)]
    requester.send("AGENT-1", routine("after", [("3E", "00")]))
    assert outcomes(requester.next_reply()) == [("0x3E", "7E00", "none")]
    flooder.silence(0.2)
    assert follower.look() == REQUESTS - (KEPT - 1)
    flooder.close()
    well.stop()
