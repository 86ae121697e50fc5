"""The CAN server goes away, or stands still, in the middle of things: each job ends in time with an error, the agent says
why, and the next job works as soon as the server is back."""

import json
import signal
import time

import pytest

from diagnosis import BODY, answers, by_status, everyone, report, request
from harness import BENCH, PATIENCE, Agent, CanServer, Ecus, free_port, times, wait_until
from requester import outcomes, routine

SLOW = "7F"  # 127 ms between segments
LONG_VALUE = "590AFF" + "12345601" * 200
LOST = "udsutils: the connection to the CAN server is lost: "
VIN = "62F190" + "WQLTEST0BENCH0001".encode().hex().upper()


def slow_bench(folder):
    """The bench, with an engine that takes long requests slowly, and a body that has a long answer."""
    description = json.loads(BENCH.read_text())
    for one in description["ecus"]:
        if one["name"] == "engine":
            one["st_min"] = SLOW
        if one["name"] == "body":
            one["overrides"] = [{"request": start, "answer": LONG_VALUE} for start in ("190A", "22F189")]
    path = folder / f"slow_bench.{time.monotonic_ns()}.json"
    path.write_text(json.dumps(description))
    return path


class Bench:
    """A CAN server and ECUs that come back after it by themselves."""

    def __init__(self, folder):
        self.folder = folder
        self.server = CanServer(free_port(), folder, "can0")
        self.ecus = Ecus(self.server.port, folder, slow_bench(folder))

    def restart(self):
        served = self.ecus.text().count("serving 3 ECUs")
        self.server = CanServer(self.server.port, self.folder, "can0")
        wait_until(lambda: self.ecus.text().count("serving 3 ECUs") > served, "ECUs that are back", timeout=15)

    def stop(self):
        self.ecus.stop()
        self.server.stop()


@pytest.fixture(scope="module")
def bench(folder):
    made = Bench(folder)
    yield made
    made.stop()


@pytest.fixture(scope="module")
def ecus(bench):
    return bench.ecus


@pytest.fixture(scope="module")
def can(bench):
    return bench.server


def slow(document):
    for one in (document["body"]["can"] if isinstance(document["body"]["can"], list) else [document["body"]["can"]]):
        one["st-min"] = SLOW
    return document


def long_read():
    return slow(routine("receive", [("22", "", "F189"), ("3E", "00")], ecu=BODY))


def paused(seconds):
    return routine("pause", [("3E", "00", "", str(seconds)), ("22", "", "F187")])


# What is under way, what the agent's log shows then, and the outcomes of the routine.
ROUTINES = {
    "send": (routine("send", [("2E", "", "F190" + "00" * 1000), ("3E", "00")]), "sent 7E0 [8] 22",
             [("0x2E", "-", "send_diag_command failed"), ("0x3E", "-", "Command not executed")]),
    "receive": (long_read(), "received 18DAF110 [8] 22",
                [("0x22", "-", "recv_diag_command failed"), ("0x3E", "-", "Command not executed")]),
    "wait": (routine("wait", [("31", "01", "0301"), ("3E", "00")]), "received 7E8 [8] 03 7F 31 78",
             [("0x31", "7F3178", "recv_diag_command failed"), ("0x3E", "-", "Command not executed")]),
    "pause": (paused(3 * PATIENCE), "received 7E8 [8] 02 7E 00",
              [("0x3E", "7E00", "none"), ("0x22", "-", "send_diag_command failed")]),
}


def begin(agent, requester, document, sign):
    """Sends a request and waits until the agent is in the middle of it."""
    seen = agent.text().count(sign)
    requester.send("AGENT-1", document)
    wait_until(lambda: agent.text().count(sign) > seen, f'"{sign}"')


def the_next_job_works(requester):
    requester.send("AGENT-1", routine("next", [("22", "", "F190")]))
    reply = requester.next_reply()
    assert reply["reply-to"] == "next" and outcomes(reply) == [("0x22", VIN, "none")]


@pytest.fixture(scope="module")
def watched_agent(pki, broker, bench, folder):
    """An agent whose log shows every frame."""
    process = Agent(pki.folder / "AGENT-1", broker.port, folder, can_port=bench.server.port, options=["-vvv"])
    process.wait_until_connected()
    yield process
    assert process.interrupt() == 255


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM][:times(2)])
@pytest.mark.parametrize("phase", ROUTINES)
def test_a_server_that_ends_in_the_middle_of_a_routine(watched_agent, requester, bench, phase, number):
    document, sign, expected = ROUTINES[phase]
    begin(watched_agent, requester, document, sign)
    lost = watched_agent.text().count(LOST)
    ended = time.monotonic()
    bench.server.send(number)
    bench.server.wait()
    reply = requester.next_reply()
    assert time.monotonic() - ended < 5 * PATIENCE
    assert outcomes(reply) == expected
    assert watched_agent.text().count(LOST) > lost
    bench.restart()
    the_next_job_works(requester)


def test_a_server_that_comes_back_during_a_pause_serves_the_next_job_only(watched_agent, requester, bench):
    document, sign, expected = ROUTINES["pause"]
    begin(watched_agent, requester, document, sign)
    bench.server.kill()
    bench.restart()
    assert requester.replies.empty(), "the pause is not over"
    assert outcomes(requester.next_reply()) == expected
    the_next_job_works(requester)


def test_a_server_that_ends_while_all_ecus_are_asked(watched_agent, requester, bench):
    document = slow(request("all", report("SUPPORTED_DTCS"), everyone()))
    begin(watched_agent, requester, document, "received 18DAF110 [8] 22")
    bench.server.kill()
    reply = requester.next_reply()
    assert reply["reply-to"] == "all"
    assert "18DA10F1" not in [name for name, data in answers(reply) if data]
    bench.restart()
    requester.send("AGENT-1", request("again", by_status("CONFIRMED_DTC"), everyone()))
    assert len([data for _, data in answers(requester.next_reply()) if data]) == 3


def test_a_server_that_ends_while_a_broadcast_is_waited_for(watched_agent, requester, bench):
    query = {"ifname": "can0", "id": "18FEDA01", "timeout": "5000", "signal": []}
    failed = len(watched_agent.lines("Unable to read Version", "ERR"))
    open_before = watched_agent.sockets()
    begin(watched_agent, requester, request("never", {"version": {"j1939": query}}), "Using J1939")
    wait_until(lambda: watched_agent.sockets() > open_before, "a port, which is opened behind that line")
    time.sleep(0.2 * PATIENCE)  # for the words between it and the server
    ended = time.monotonic()
    bench.server.kill()
    watched_agent.wait_for("Unable to read Version", "ERR", count=failed + 1)
    assert time.monotonic() - ended < 4 * PATIENCE, "not the 5 s of the receive"
    assert requester.next_reply()["reply-to"] == "never"
    bench.restart()
    the_next_job_works(requester)


def test_without_a_server_each_job_fails_at_once(watched_agent, requester, bench):
    bench.server.kill()
    for _ in range(times(10)):
        requester.send("AGENT-1", routine("nobody", [("22", "", "F190")]))
        assert outcomes(requester.next_reply()) == [("0x22", "-", "Command not executed")]
        assert requester.next_reply()["body"]["error"]["uds-nrc"] == "can0 is not available"
    assert f"127.0.0.1:{bench.server.port} cannot be reached: Connection refused" in watched_agent.text()
    bench.restart()
    the_next_job_works(requester)


def test_a_server_that_stands_still(watched_agent, requester, bench):
    document, sign, expected = ROUTINES["receive"]
    begin(watched_agent, requester, document, sign)
    bench.server.send(signal.SIGSTOP)
    assert outcomes(requester.next_reply()) == expected
    requester.send("AGENT-1", routine("still", [("22", "", "F190")]))
    assert outcomes(requester.next_reply()) == [("0x22", "-", "Command not executed")]
    assert requester.next_reply()["body"]["error"]["uds-nrc"] == "can0 is not available"
    bench.server.send(signal.SIGCONT)
    the_next_job_works(requester)
