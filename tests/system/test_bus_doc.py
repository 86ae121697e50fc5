"""What docs/bus.md says: its node in C and its commands are taken out of it and run, with nothing but ports and paths
changed, and its numbers are held against the sources."""

import os
import re
import subprocess

import pytest

from documents import DOCS
from harness import LIB, PATIENCE, SOURCE, Process, wait_until
from requester import reply_in

TEXT = (DOCS / "bus.md").read_text()
LIBRARY = SOURCE / "platform" / "tervbus"


def blocks(language):
    """The document's blocks of this language, each with the plain block that follows it."""
    found = re.findall(rf"^```{language}\n(.*?)^```\n(?:\n```\n(.*?)^```\n)?", TEXT, re.M | re.S)
    assert found, f"there is no {language} in bus.md"
    return found


def rows(first_cell):
    """The rows of the table whose head begins with this cell."""
    table = re.search(rf"^\| {re.escape(first_cell)} \|.*\n\|[-|]+\n((?:\|.*\n)+)", TEXT, re.M)
    assert table, f"there is no table of {first_cell} in bus.md"
    return [line.strip("| ").split(" | ") for line in table[1].splitlines()]


COMPILE, REQUEST, REFUSED = blocks("sh")


@pytest.fixture(scope="module")
def pki(pki):
    pki.node("AGENT-2", "agent")
    return pki


@pytest.fixture
def here(pki, broker):
    """Puts this test's ports and paths into a text of the document."""
    places = {"9133": str(broker.port), "pki/": f"{pki.folder}/", "platform/include": f"{SOURCE}/platform/include",
              "$PWD/build/lib": str(LIB), "build/lib": str(LIB)}

    def change(text):
        return re.sub("|".join(map(re.escape, places)), lambda found: places[found[0]], text)
    return change


def run(script, **more):
    return subprocess.run(["bash", "-c", script], capture_output=True, text=True, timeout=60 * PATIENCE, **more)


def test_the_node_in_c_is_built_and_run_as_it_stands(here, pki, broker, tmp_path):
    (tmp_path / "node.c").write_text(blocks("c")[0][0])
    build, start = here(COMPILE[0]).splitlines()
    sanitizers = os.environ.get("QUILLET_SANITIZE")
    built = run(build + " -Wpedantic -Werror" + (f" -fsanitize={sanitizers}" if sanitizers else ""), cwd=tmp_path)
    assert built.returncode == 0, built.stderr

    program = str(tmp_path / "node")
    assert start.split()[0] == "./node"
    receiver = Process("receiver", [program, *start.split()[1:]], tmp_path)
    wait_until(lambda: "condition 0" in receiver.text() or not receiver.running(), "a receiver that is connected")
    assert receiver.running(), receiver.text()
    sender = Process("sender", [program, pki.folder / "AGENT-2", f"tcp://localhost:{broker.port}", "TESTER-2", "hello"],
                     tmp_path)
    wait_until(lambda: "message 1 delivered\n" in sender.text(), "a message that is delivered")
    wait_until(lambda: "text/plain from AGENT-2: hello\n" in receiver.text(), "a message that comes in")
    for node in (sender, receiver):
        assert node.stop(2) == 0
        told = [line for line in node.text().splitlines() if line.startswith(("condition", "released"))]
        assert told == ["condition 7", "condition 0", "condition 6", "released"]


def test_a_requester_needs_mosquitto_s_clients_only(here, agent, ecus):
    asked = len(ecus.requests("engine"))
    done = run(here(REQUEST[0]))
    assert done.returncode == 0, done.stderr
    head, text = done.stdout.split("\n", 1)
    expected = re.sub("[0-9a-f]{32}", "[0-9a-f]{32}", REQUEST[1].splitlines()[0])
    assert re.fullmatch(expected, head), done.stdout
    reply = reply_in(text.encode())
    assert reply["reply-to"] == "req-1"
    assert [row["error"] for row in reply["body"]["routine-response"]] == ["none", "none"]
    assert ecus.requests("engine")[asked:] == ["22F190", "22F187"]


def test_what_the_broker_refuses_shows_at_once(here, agent):
    done = run(here(REFUSED[0]) + "\n", stdin=subprocess.DEVNULL)
    said = (done.stdout + done.stderr).splitlines()
    assert sorted(said) == sorted(REFUSED[1].splitlines())


def number_of(name):
    """A constant of the library, worked out."""
    sources = "".join(path.read_text() for path in sorted(LIBRARY.iterdir()) if path.suffix in (".h", ".cpp"))
    found = re.findall(rf"constexpr \w+ {name} = ([^;]+);", sources)
    assert len(found) == 1, f"{name} is defined {len(found)} times"
    return eval(re.sub(r"(?<=\d)('|u\b)", "", found[0]))  # digits, shifts and products only


# A row's beginning, and the constants whose numbers stand in its second cell, in thousandths where the row says seconds.
LIMITS = [
    ("a name", ["name_max"]),
    ("a message, to send", ["outgoing_max"]),
    ("a message that comes in", ["incoming_default", "outgoing_max"]),
    ("messages accepted", ["outbox_waiting_max"]),
    ("publishes without", ["outbox_in_flight_max"]),
    ("the life of a message", ["outbox_lifetime_ms s"]),
    ("a session without", ["session_expiry_s"]),
    ("keep-alive", ["keepalive_s"]),
    ("ids remembered", ["seen_ids_window"]),
    ("senders whose ids", ["seen_ids_senders_max", "seen_ids_senders", "seen_ids_silence_ms s"]),
    ("peers whose", ["presence_peers_max"]),
    ("a status", ["status_expiry_s", "status_refresh_ms s"]),
    ("name resolution", ["resolve_timeout_ms s", "phase_timeout_ms s"]),
    ("the wait between", ["backoff_first_ms", "backoff_last_ms s"]),
    ("stopping", ["drain_ms", "leave_ms", "disconnect_ms"]),
    ("a certificate or key", ["buffer_max"]),
]


@pytest.mark.parametrize("what, constants", LIMITS, ids=[row[0] for row in LIMITS])
def test_a_limit_is_the_library_s(what, constants):
    row = next(row for row in rows("what") if row[0].startswith(what))
    said = {int(number) for number in re.findall(r"\d+", row[1])}
    for constant in constants:
        name, *seconds = constant.split()
        number = number_of(name)
        assert (number // 1000 if seconds else number) in said, constant


def test_every_limit_of_the_table_is_looked_at():
    assert len(rows("what")) == len(LIMITS)


def test_the_conditions_are_the_header_s():
    header = (SOURCE / "platform" / "include" / "tervbus.h").read_text()
    names = {name.lower().replace("_", " "): int(number)
             for name, number in re.findall(r"TERVBUS_CONDITION_(\w+) = (\d)", header)}
    assert {row[1]: int(row[0]) for row in rows("number")} == names


def test_the_unit_s_lines_are_those_of_the_file():
    lines = (SOURCE / "packaging" / "movra-quillet.service").read_text().splitlines()
    for line in blocks("ini")[0][0].splitlines():
        assert line.startswith("#") or line in lines
