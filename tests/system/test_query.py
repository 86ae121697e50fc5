"""quillet-query against a real agent: what it prints and how it ends."""

import fcntl
import json
import os
import re
import shlex
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

from documents import REPLY
from harness import BENCH, BIN, PATIENCE, SOURCE, Process, free_port, wait_until
from requester import Requester, outcomes, routine


@pytest.fixture(scope="module")
def pki(pki):
    for name in ("AGENT-2", "AGENT-3"):
        pki.node(name, "agent")
    return pki


@pytest.fixture
def query(pki, broker):
    """Runs quillet-query to its end; status, the JSON texts it printed, its standard error."""

    def run(*arguments, certs="TESTER-2", to="AGENT-1", port=broker.port, stdin=""):
        command = [BIN / "quillet-query", "--to", to, "--certs", pki.folder / certs, "--broker", f"127.0.0.1:{port}"]
        done = subprocess.run([str(part) for part in (*command, *arguments)], input=stdin, capture_output=True,
                              text=True, timeout=60)
        replies = [json.loads(line) for line in done.stdout.splitlines()]
        for reply in replies:
            REPLY.validate(reply)
        return done.returncode, replies, done.stderr

    return run


@pytest.fixture
def decoded(pki, broker):
    """Runs quillet-query with --decode to its end; status and the lines it printed."""

    def run(*arguments):
        command = [BIN / "quillet-query", "--to", "AGENT-1", "--certs", pki.folder / "TESTER-2", "--broker",
                   f"127.0.0.1:{broker.port}", "--decode", *arguments]
        done = subprocess.run([str(part) for part in command], capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout.splitlines()

    return run


ENGINE = ("--ecu", "7E0:7E8", "--interface", "can0")
ROUTINE = ("routine", "--ecu", "7E0:7E8", "--interface", "can0")


def test_a_reply_is_printed_and_the_status_is_0(agent, query):
    status, replies, errors = query(*ROUTINE, "--command", "10:03", "--command", "3E:00;timer=1")
    assert (status, errors) == (0, "")
    assert [outcomes(reply) for reply in replies] == [[("0x10", "5003003201F4", "none"), ("0x3E", "7E00", "none")]]


def test_an_error_reply_after_a_routine_that_did_not_begin_gives_status_1(agent, query):
    status, replies, _ = query("--reply-id", "mine", "routine", "--ecu", "7E0:7E8", "--interface", "can9", "--command",
                               "22:F190")
    assert status == 1
    assert [reply["reply-to"] for reply in replies] == ["mine", "mine"]
    assert outcomes(replies[0]) == [("0x22", "-", "Command not executed")]
    assert replies[1]["body"] == {"error": {"error-type": "UDS_NO_RESPONSE", "uds-nrc": "can9 is not available"}}


def test_a_file_is_sent_with_its_own_reply_id(agent, query, tmp_path):
    path = tmp_path / "request.json"
    path.write_text(json.dumps(routine("from-file", [("3E", "00")])))
    status, replies, _ = query("--file", path)
    assert status == 0 and replies[0]["reply-to"] == "from-file"


def test_standard_input_is_sent(agent, query):
    status, replies, _ = query("--file", "-", "--reply-id", "piped", stdin=json.dumps(routine("x", [("3E", "00")])))
    assert status == 0 and replies[0]["reply-to"] == "piped"


def test_a_request_that_fails_validation_gives_status_2_and_points_to_the_log(agent, query):
    status, replies, errors = query("--timeout", "0.3", "--file", "-", stdin="{}")
    assert (status, replies) == (2, [])
    assert "fails validation gets no reply" in errors and "the agent's log tells why" in errors
    agent.wait_for("target not found in JSON message", "ERR")


def test_replies_to_earlier_requests_are_passed_over(agent, query, broker):
    late = routine("late", [("22", "", "F18C")], ecu=("7E1", "7E9"))
    status, replies, _ = query("--timeout", "0", "--file", "-", certs="TESTER-3", stdin=json.dumps(late))
    assert (status, replies) == (2, [])
    status, replies, _ = query(*ROUTINE, "--reply-id", "fresh", "--command", "3E:00", certs="TESTER-3")
    assert status == 0 and [reply["reply-to"] for reply in replies] == ["fresh"]


def reply_of_a_routine(reply_id, response, error):
    row = {"service": "0x3E", "requested-time": "2026-05-01T10:00:00Z", "responded-time": "2026-05-01T10:00:00Z",
           "response-data": response, "error": error}
    return {"type": "movra.quillet-query-update", "reply-to": reply_id,
            "body": {"routine-response": [row], "targetAddress": "7E0"}}


def test_a_late_reply_of_another_agent_to_the_same_id_is_passed_over(query, pki, broker):
    """The one that was asked before comes first with its answer."""
    before, asked = (Requester(pki.folder / name, broker.port) for name in ("AGENT-2", "AGENT-3"))
    with ThreadPoolExecutor(1) as pool:
        run = pool.submit(query, "--timeout", "30", "--reply-id", "same", *ROUTINE, "--command", "3E:00",
                          certs="TESTER-3", to="AGENT-3")
        asked.next_message()
        late = reply_of_a_routine("same", "7F3E13", "Negative response")
        before.send("TESTER-3", late).wait_for_publish(10 * PATIENCE)
        asked.send("TESTER-3", reply_of_a_routine("same", "7E00", "none"))
        status, replies, _ = run.result()
    assert (status, [outcomes(reply) for reply in replies]) == (0, [[("0x3E", "7E00", "none")]])
    before.close()
    asked.close()


def test_an_agent_that_is_not_there_gives_status_4(agent, query):
    status, replies, errors = query(*ROUTINE, "--command", "3E:00", to="AGENT-9")
    assert (status, replies) == (4, [])
    assert 'no node is connected as "AGENT-9"' in errors


def test_no_broker_gives_status_4(query):
    status, _, errors = query(*ROUTINE, "--command", "3E:00", port=free_port())
    assert status == 4 and "no connection to the broker" in errors


def test_no_identity_gives_status_4(query):
    status, _, errors = query(*ROUTINE, "--command", "3E:00", certs="nobody")
    assert status == 4 and "--certs" in errors


def test_a_unit_address_that_is_none_gives_status_3(query):
    status, _, errors = query(*ROUTINE, "--command", "3E:00", to="AGENT/1")
    assert status == 3 and '--to "AGENT/1" is not a unit address' in errors


def test_a_broker_without_a_port_gives_status_3(query):
    status, _, errors = query(*ROUTINE, "--command", "3E:00", port="")
    assert status == 3 and '--broker "127.0.0.1:" is not HOST:PORT' in errors


def test_dtcs_are_read_by_readable_arguments(agent, query):
    status, replies, _ = query("dtc", "--report", "extended-data-by-dtc", "--dtc", "P0123-45", "--record", "01",
                               *ENGINE)
    assert status == 0
    assert replies[0]["body"]["uds"] == {
        "resp": "0x59", "subfunction": "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_DTC_NUMBER",
        "data-record": [{"phy-req-id": "7E0", "data": "012345AF0102"}]}


def test_dtcs_of_a_whole_bench_are_decoded(agent, decoded):
    assert decoded("dtc", "--report", "by-status-mask", "--status-mask", "warning-indicator", "--bench", BENCH) == (0, [
        "report by-status-mask",
        "ECU 7E0 engine: 1 DTC; supported status bits FF",
        "  P0123-45 (012345) status AF: test-failed, test-failed-this-cycle, pending, confirmed, failed-since-clear, "
        "warning-indicator",
        "ECU 7E1 transmission: no answer",
        "ECU 18DA10F1 body: refused: NRC 22 conditionsNotCorrect"])


def test_ecus_that_all_stay_silent_are_named_after_the_error(agent, decoded):
    assert decoded("dtc", "--report", "supported", "--ecu", "7E5:7ED", "--interface", "can0") == (1, [
        "error UDS_NO_RESPONSE: send_dtc_response_to_bridge failed", "ECU 7E5: no answer"])


def test_versions_are_decoded(agent, decoded):
    assert decoded("version", "--uds", "22F195", *ENGINE) == (0, ["version 0042"])
    signals = ("--signal", "major:0:8", "--signal", "minor:8:8:1", "--signal", "patch:16:8:1:0")
    assert decoded("version", "--j1939", "18FEDA00", *signals, "--interface", "can0") == (0, ["version 1.4.12"])


def test_a_routine_is_decoded_one_line_a_command(agent, decoded):
    assert decoded(*ROUTINE, "--command", "22:F190", "--command", "31:01:0303", "--command", "3E:00") == (0, [
        '22F190: 62F19057514C544553543042454E434830303031 "WQLTEST0BENCH0001"',
        "31010303: 7F3122 refused: NRC 22 conditionsNotCorrect", "3E00: Command not executed"])


@pytest.mark.parametrize("arguments, says", [
    ((), "either --file or the subcommand"),
    ((*ROUTINE, "--command", "1"), "is not SID"),
    ((*ROUTINE, "--command", "27:01"), "--security-location"),
    (("--file", "/nonexistent"), "cannot be read"),
    (("--file", "-"), "not JSON"),
    (("--frobnicate",), "frobnicate"),
    (("--file", "x", *ROUTINE, "--command", "10:03"), "either --file or the subcommand"),
    (("dtc", *ENGINE), "--report is required"),
    (("dtc", "--report", "all", *ENGINE), "there is no report"),
    (("dtc", "--report", "by-status-mask", *ENGINE), "needs --status-mask"),
    (("dtc", "--report", "supported"), "give either --ecu"),
    (("dtc", "--report", "supported", "--bench", "/nonexistent"), "/nonexistent"),
    (("version", *ENGINE), "give either --uds"),
    (("version", "--j1939", "18FEDA00", "--interface", "can0"), "at least one --signal"),
    (("--pretty", "--decode", *ROUTINE, "--command", "10:03"), "excludes"),
])
def test_wrong_use_gives_status_3(query, arguments, says):
    status, replies, errors = query(*arguments)
    assert (status, replies) == (3, [])
    assert says in errors


def test_a_second_run_under_one_identity_waits_and_says_so(agent, pki, broker, folder):
    with open(pki.folder / "TESTER-2" / "query.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        second = Process("query", [BIN / "quillet-query", "--to", "AGENT-1", "--certs", pki.folder / "TESTER-2",
                                   "--broker", f"127.0.0.1:{broker.port}", *ROUTINE, "--command", "3E:00"], folder)
        wait_until(lambda: "another run uses the identity" in second.text(), "a word about the lock")
        assert second.running()
    assert second.wait(timeout=10) == 0
    assert '"7E00"' in second.text()


def test_progress_is_shown_on_a_terminal_only(agent, pki, broker):
    primary, secondary = os.openpty()
    identity = pki.folder / "TESTER-2"
    command = [BIN / "quillet-query", "--to", "AGENT-1", "--certs", identity, "--broker", f"127.0.0.1:{broker.port}",
               *ROUTINE, "--command", "3E:00;timer=1"]
    shown = b""
    with open(identity / "query.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        run = subprocess.Popen([str(part) for part in command], stdout=subprocess.PIPE, stderr=secondary)
        os.close(secondary)
        while b"waiting for the other run 0.1 s" not in shown:
            shown += os.read(primary, 65536)
    output, _ = run.communicate(timeout=60)
    shown += os.read(primary, 65536)
    os.close(primary)
    assert run.returncode == 0 and b"\r" not in output
    assert b"waiting for AGENT-1" in shown


PAGE = (SOURCE / "docs" / "query.md").read_text()


def examples():
    """The commands of the page, with the lines that it says they print."""
    for block in re.findall(r"^```\n(quillet-query .*?)^```$", PAGE.replace("\\\n", " "), re.M | re.S):
        command, *printed = block.splitlines()
        yield shlex.split(command), printed


@pytest.mark.parametrize("words, printed", examples())
def test_an_example_prints_what_stands_below_it(agent, pki, broker, words, printed):
    replaced = {"…": ["--to", "AGENT-1", "--certs", "pki/TESTER-1"], "quillet-query": [BIN / "quillet-query"]}
    command = [part for word in words for part in replaced.get(word, [word])]
    command = [pki.folder / "TESTER-1" if part == "pki/TESTER-1" else part for part in command]
    command[1:1] = ["--broker", f"127.0.0.1:{broker.port}"]
    done = subprocess.run([str(part) for part in command], cwd=SOURCE, capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stdout.splitlines()) == (0, printed), done.stderr


def test_the_page_has_the_options_that_there_are():
    options = set()
    for subcommand in ([], ["routine"], ["dtc"], ["version"]):
        done = subprocess.run([str(BIN / "quillet-query"), *subcommand, "--help"], capture_output=True, text=True,
                              timeout=60)
        assert done.returncode == 0
        options |= set(re.findall(r"^ +(?:-h,)?(--[a-z0-9-]+)", done.stdout, re.M))
    cells = re.findall(r"^\| (`--[^|]*) \|", PAGE, re.M)
    assert {option for cell in cells for option in re.findall("`(--[a-z0-9-]+)", cell)} == options - {"--help"}
