"""A vehicle's broker bridged to a fleet's, each with a CA, rules and nodes of its own: requests and replies cross, a cut
bridge loses nothing, and neither side can speak as somebody it is not."""

import itertools
import os
import queue
import re
import shlex
import shutil
import socket
import subprocess
import time

import pytest

from bridge import GROUP, Sides, end_in_order, make_vehicle, read, start_uplink, user_options, write
from harness import BIN, LONG_TIER, PATIENCE, SOURCE, Broker, free_port, wait_until
from requester import Requester, decode, outcomes, routine

GRANTED, NO_SUBSCRIBERS, NOT_AUTHORIZED = 0x01, 0x10, 0x87
PROBES = (f"probe-{number}" for number in itertools.count())


@pytest.fixture(scope="module")
def sides(folder, plugin, can, ecus):
    made = Sides(folder, plugin, can)
    yield made
    made.close()


@pytest.fixture
def tester(sides):
    node = sides.fleet_node("TESTER-1")
    yield node
    node.close()


@pytest.fixture(autouse=True)
def bridged(sides, tester):
    """Each test begins with a bridge that carries."""
    wait_until(lambda: reaches(tester), "a bridge that carries", timeout=30)


def reaches(tester):
    """Replies to probes before this one may still come; no test has sent anything."""
    probe = next(PROBES)
    tester.send("AGENT-1", routine(probe, [("3E", "00")]))
    try:
        while tester.next_reply(timeout=1)["reply-to"] != probe:
            pass
    except queue.Empty:
        return False
    return True


def next_reply(tester):
    return decode(next_message(tester))


def next_message(tester, timeout=10.0):
    """The next but those to probes."""
    while True:
        message = tester.next_message(timeout)
        if not probed(message):
            return message


def probed(message):
    return decode(message)["reply-to"].startswith("probe-")


def test_requests_and_replies_cross_the_bridge(sides, tester):
    tester.send("AGENT-1", routine("far", [("10", "03"), ("22", "", "F190")]))
    reply = next_reply(tester)
    assert reply["reply-to"] == "far"
    assert [row[0] for row in outcomes(reply)] == ["0x10", "0x22"]


def test_quillet_query_asks_across_the_bridge(sides):
    done = subprocess.run([str(BIN / "quillet-query"), "--to", "AGENT-1", "--certs",
                           str(sides.fleet.folder / "TESTER-2"), "--broker", f"127.0.0.1:{sides.fleet_port}",
                           "--timeout", str(10 * PATIENCE), "routine", "--ecu", "7E0:7E8", "--interface", "can0",
                           "--command", "10:03"], capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")
    assert '"5003003201F4"' in done.stdout


def test_a_message_keeps_its_id_its_content_type_and_its_expiry(sides, tester):
    unit = sides.local_node("UNIT-2")
    tester.send("UNIT-2", b"a\0b", movra_id="0123456789abcdef" * 2, content_type="application/octet-stream")
    message = unit.next_message()
    assert (message.topic, message.payload) == ("movra/v1/ua/UNIT-2/TESTER-1", b"a\0b")
    assert message.properties.ContentType == "application/octet-stream"
    assert message.properties.UserProperty == [("movra-id", "0123456789abcdef" * 2)]
    assert 50 < message.properties.MessageExpiryInterval <= 60
    unit.close()


def test_a_reply_keeps_its_id_its_content_type_and_its_expiry(tester):
    tester.send("AGENT-1", routine("kept", [("3E", "00")]))
    properties = next_message(tester).properties
    assert properties.ContentType == "application/json"
    assert [name for name, _ in properties.UserProperty] == ["movra-id"]
    assert re.fullmatch("[0-9a-f]{32}", properties.UserProperty[0][1])
    assert 50 < properties.MessageExpiryInterval <= 60


def test_the_status_of_bridged_units_is_seen(sides):
    topic = f"movra/v1/status/{GROUP}/AGENT-1"

    def next_status():
        message = watcher.next_message()
        return message if message.topic == topic else next_status()

    watcher = sides.fleet_node("WATCHER")
    watcher.client.subscribe(f"movra/v1/status/{GROUP}/+", qos=1)
    status = next_status()
    assert (status.payload, status.retain) == (b"on", True)
    assert 0 < status.properties.MessageExpiryInterval <= 180
    assert sides.agent.interrupt() == 255
    assert next_status().payload == b"off"
    sides.start_agent()
    assert next_status().payload == b"on"
    watcher.close()


def new_replies(tester, count):
    """A reply whose acknowledgement the cut has taken comes once more, under the same id: a requester drops it."""
    seen, replies = set(), []
    while len(replies) < count:
        message = next_message(tester, timeout=40)
        identity = dict(message.properties.UserProperty)["movra-id"]
        if identity not in seen:
            replies.append(decode(message))
        seen.add(identity)
    time.sleep(0.2)
    while not tester.replies.empty():
        message = tester.replies.get_nowait()
        assert dict(message.properties.UserProperty)["movra-id"] in seen or probed(message)
    return replies


# Seconds of the cut. A wall is noticed at once; a hole only by what stays away.
CUTS = [("wall", 2), ("hole", 30 if LONG_TIER else 2)]


@pytest.mark.parametrize("to, seconds", CUTS)
def test_a_cut_bridge_loses_nothing_and_runs_nothing_twice(sides, tester, ecus, to, seconds):
    count = 40
    base = 0xA000 if to == "wall" else 0xB000
    names = [f"{to}-{number}" for number in range(count)]
    for number in range(count):
        if number == 10:
            sides.link.cut(to)
        sent = tester.send("AGENT-1", routine(names[number], [("22", "", f"{base + number:04X}")]))
        sent.wait_for_publish(10 * PATIENCE)
        if number >= 10:
            time.sleep(seconds / (count - 10))
    sides.link.mend()

    replies = new_replies(tester, count)
    assert [reply["reply-to"] for reply in replies] == names
    assert all(outcomes(reply) == [("0x22", "7F2231", "Negative response")] for reply in replies)
    wanted = [f"22{base + number:04X}" for number in range(count)]
    assert [request for request in ecus.requests("engine") if request in set(wanted)] == wanted


def test_a_message_to_a_unit_that_is_off_is_told_as_delivered(sides):
    """At its own broker it would fail: behind a bridge nobody can know. UNIT-2 has no node here and no session."""
    topic = "movra/v1/ua/UNIT-2"
    own, far = sides.vehicle.folder / "LOCAL-1", sides.fleet.folder / "TESTER-2"
    assert write(own, sides.port, f"{topic}/LOCAL-1") == NO_SUBSCRIBERS
    assert write(far, sides.fleet_port, f"{topic}/TESTER-2") == 0


# Of the bridge CAR-8, whose one unit is AGENT-8.
FAR_WRITES = [
    ("ua/TESTER-1/AGENT-8", True),
    ("status/car/AGENT-8", True),
    ("ua/TESTER-1/AGENT-1", False),  # another bridge's unit
    ("ua/AGENT-1/TESTER-1", False),  # a node of the fleet
    ("ua/TESTER-1/CAR-8", False),  # the bridge itself is nobody
    ("ua/AGENT-1/AGENT-8", False),  # from unit to unit
    ("status/car/AGENT-1", False),
    ("grp/car/AGENT-8", False),
]


@pytest.mark.parametrize("topic, allowed", FAR_WRITES)
def test_the_fleet_lets_a_bridge_write_for_its_units_only(sides, topic, allowed):
    payload = "on" if topic.startswith("status/") else "x"
    code = write(sides.fleet.folder / "CAR-8", sides.fleet_port, f"movra/v1/{topic}", payload)
    assert code in ((0, NO_SUBSCRIBERS) if allowed else (NOT_AUTHORIZED,))


FAR_READS = [
    ("ua/AGENT-8/+", GRANTED),
    ("ua/AGENT-8/TESTER-1", GRANTED),
    ("status/+/AGENT-8", GRANTED),
    ("ua/AGENT-1/+", NOT_AUTHORIZED),
    ("ua/TESTER-1/+", NOT_AUTHORIZED),
    ("ua/+/+", NOT_AUTHORIZED),
    ("#", NOT_AUTHORIZED),
    ("special/0/+", NOT_AUTHORIZED),
    ("grp/car/+", NOT_AUTHORIZED),
    ("status/car/+", NOT_AUTHORIZED),
    ("status/+/AGENT-1", NOT_AUTHORIZED),
]


@pytest.mark.parametrize("topic, code", FAR_READS)
def test_the_fleet_lets_a_bridge_read_for_its_units_only(sides, topic, code):
    filter_ = topic if topic == "#" else f"movra/v1/{topic}"
    assert read(sides.fleet.folder / "CAR-8", sides.fleet_port, filter_) == code


def test_the_vehicle_lets_no_node_take_the_bridges_name(sides):
    """A certificate that its CA should never have signed; quillet-pki would not."""
    done = subprocess.run([str(BIN / "quillet-pki"), "--dir", str(sides.vehicle.folder), "node", "bridge/CAR-7"],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 1 and "'/'" in done.stderr


def lawless_broker(fleet, folder):
    """A far broker that lets anybody send anything, behind the fleet's own certificate."""
    port, open_port = free_port(), free_port()
    path = folder / "lawless.conf"
    own = folder / "lawless"
    own.mkdir()
    shutil.copytree(fleet.folder / "broker", own / "broker")
    path.write_text(f"per_listener_settings true\nlistener {open_port} 127.0.0.1\nallow_anonymous true\n"
                    f"listener {port} 127.0.0.1\nallow_anonymous true\ncafile {fleet.folder}/ca/ca.pem\n"
                    f"certfile {own}/broker/cert.pem\nkeyfile {own}/broker/private.pem\nrequire_certificate true\n"
                    f"use_identity_as_username true\n" + (f"user root\n" if os.geteuid() == 0 else ""))
    return Broker(path, port, folder), port, open_port


LIES = [
    ("movra/v1/ua/UNIT-2/LOCAL-1", "a node of this side"),
    ("movra/v1/ua/UNIT-2/AGENT-1", "the bridge's own unit"),
    ("movra/v1/ua/UNIT-2/STRANGER", "nobody's peer"),
    ("movra/v1/ua/UNIT-2/bridge/CAR-7", "the bridge"),
    ("movra/v1/ua/LOCAL-1/TESTER-1", "no rule"),
    ("movra/v1/grp/car/TESTER-1", "no rule for the group"),
    ("movra/v1/status/car/UNIT-2", "another's status"),
    ("movra/v1/status/car/STRANGER", "a stranger's status"),
]


@pytest.fixture(scope="module")
def lied_to(folder, plugin, sides):
    """A vehicle whose bridge, over TLS of the broker's own, asks a lawless broker for everything."""
    made = folder / "second"
    made.mkdir()
    made.chmod(0o711)
    vehicle = make_vehicle(made)
    port = free_port()
    far, far_port, open_port = lawless_broker(sides.fleet, made)
    configuration = vehicle.broker(port, plugin)
    vehicle.run("uplink", sides.fleet.folder / "CAR-7", "--to", f"localhost:{far_port}", "--peers", "TESTER-1",
                "--direct")
    bridge = vehicle.folder / "broker" / "bridges" / "CAR-7.conf"
    bridge.write_text(bridge.read_text() + "topic movra/v1/# in 1\n")
    own = Broker(configuration, port, made)
    unit = Requester(vehicle.folder / "UNIT-2", port)
    wait_until(lambda: through(unit, open_port), "a bridge that carries", timeout=20)
    unit.close()
    yield vehicle, port, open_port
    own.stop()
    far.stop()


def lie(open_port, topic, payload="lie", *options):
    subprocess.run(["mosquitto_pub", "-V", "5", "-h", "127.0.0.1", "-p", str(open_port), "-q", "1", "-t", topic, "-m",
                    payload, *options], check=True, timeout=20 * PATIENCE)


def through(unit, open_port):
    lie(open_port, "movra/v1/ua/UNIT-2/TESTER-1", "true")
    try:
        return unit.next_message(timeout=1).payload == b"true"
    except queue.Empty:
        return False


def test_the_far_end_of_a_bridge_cannot_pose_as_anybody_else(lied_to):
    vehicle, port, open_port = lied_to
    unit, local = Requester(vehicle.folder / "UNIT-2", port), Requester(vehicle.folder / "LOCAL-1", port)
    unit.client.subscribe([(f"movra/v1/grp/{GROUP}/+", 1), (f"movra/v1/status/{GROUP}/+", 1)])
    assert [code.value for code in unit.subscribed.get(timeout=10 * PATIENCE)] == [1, 1]
    for topic, _ in LIES:
        lie(open_port, topic)
        lie(open_port, topic, "lie", "-r")
    lie(open_port, "movra/v1/ua/UNIT-2/TESTER-1", "kept", "-r")
    lie(open_port, "movra/v1/ua/UNIT-2/TESTER-1", "last")
    heard = []
    while b"last" not in heard:
        heard.append(unit.next_message().payload)
    assert heard == [b"last"]
    assert local.replies.empty()
    unit.close()
    local.close()


def test_a_bridge_without_a_list_brings_in_nothing(lied_to):
    vehicle, port, open_port = lied_to
    rules = vehicle.folder / "broker" / "rules"
    text = rules.read_text()
    unit = Requester(vehicle.folder / "UNIT-2", port)
    log = vehicle.folder / "broker" / "data" / "broker.log"

    def refusals():
        return log.read_text().count("bridge/CAR-7 may not publish to movra/v1/ua/UNIT-2/TESTER-1: ")

    refused = refusals()
    rules.write_text(re.sub(r"(?m)^bridge .*\n", "", text))
    time.sleep(1.2)  # the broker looks once a second
    lie(open_port, "movra/v1/ua/UNIT-2/TESTER-1", "unlisted")
    wait_until(lambda: refusals() > refused, "its refusal")
    rules.write_text(text)
    time.sleep(1.2)
    lie(open_port, "movra/v1/ua/UNIT-2/TESTER-1", "listed")
    assert unit.next_message().payload == b"listed"
    unit.close()


CONNECT = bytes([0x10, 15]) + b"\0\4MQTT\5\2\0\12\0\0\2B1"


@pytest.fixture
def lone_uplink(sides, folder):
    """Starts an uplink whose far broker is not there."""
    started = []

    def start(user=user_options(), host="127.0.0.1"):
        port = free_port()
        process = start_uplink(sides.vehicle, "CAR-7", free_port(), port, folder, user, host)
        started.append(process)
        wait_until(lambda: "waiting for the user" in process.text(), "an uplink that listens")
        return process, port

    yield start
    for process in started:
        end_in_order(process)


def test_the_way_to_the_fleet_is_for_the_brokers_user_alone(lone_uplink):
    root = os.geteuid() == 0
    allowed = "mosquitto" if root else "root"
    uplink, port = lone_uplink(("--user", allowed))
    knock = f"import socket; s = socket.create_connection(('127.0.0.1', {port})); s.sendall({CONNECT!r}); input()"
    stranger = subprocess.Popen(["/usr/bin/python3", "-c", knock], stdin=subprocess.PIPE,
                                user="nobody" if root else None)
    wait_until(lambda: f"refused a connection that is not by the user {allowed}" in uplink.text(), "the refusal")
    stranger.communicate(b"\n", timeout=10)
    assert "Connection refused" not in uplink.text()


def test_an_uplink_says_what_keeps_it_from_the_far_broker(lone_uplink):
    uplink, port = lone_uplink()
    for sent, said in [(CONNECT, "no connection: Connection refused"), (b"GET / HTTP/1.1\r\n", "no bridge of MQTT 5")]:
        with socket.create_connection(("127.0.0.1", port)) as local:
            local.sendall(sent)
            wait_until(lambda: said in uplink.text(), "the cause")


def test_an_uplink_takes_an_ipv6_address_in_brackets(lone_uplink):
    """Whether this machine has IPv6 or not, there is nobody at that port; but the address is one."""
    uplink, port = lone_uplink(host="[::1]")
    with socket.create_connection(("127.0.0.1", port)) as local:
        local.sendall(CONNECT)
        wait_until(lambda: re.search(r"\[::1\]:\d+: ", uplink.text()), "the cause")
    assert "no connection:" in uplink.text(), uplink.text()


WRONG_UPLINKS = [
    (("--to", "nowhere"), '"nowhere" is not HOST:PORT'),
    (("--to", "::1:8883"), '"::1:8883" is not HOST:PORT, as in bus.example:8883 or [2001:db8::7]:8883'),
    (("--identity", "/nonexistent"), "/nonexistent/ca.pem cannot be used"),
    (("--user", "no-such-user"), 'there is no user "no-such-user"'),
]


@pytest.mark.parametrize("wrong, says", WRONG_UPLINKS)
def test_an_uplink_that_cannot_work_says_why_and_ends(sides, wrong, says):
    arguments = {"--identity": str(sides.vehicle.folder / "CAR-7"), "--to": "127.0.0.1:1", "--port": str(free_port())}
    arguments.update([wrong])
    done = subprocess.run([str(BIN / "quillet-uplink"), *sum(arguments.items(), ())], capture_output=True, text=True,
                          timeout=20 * PATIENCE)
    assert (done.returncode, says in done.stderr) == (1, True), done.stderr


def test_the_commands_of_the_page_work_in_their_order(folder, plugin):
    page = (SOURCE / "docs" / "fleet.md").read_text()
    commands = [line for block in re.findall(r"```sh\n(.*?)```", page, re.S) for line in block.splitlines()
                if line.startswith("quillet-pki ")]
    commands += re.findall(r"`(quillet-pki --dir fleet (?:renew|revoke|node)[^`]*)`", page)
    assert len(commands) == 14
    place = folder / "page"
    place.mkdir()
    for command in commands:
        words = shlex.split(command.replace("/usr/lib/quillet/quillet_broker_plugin.so", plugin))
        if os.geteuid() != 0 and "--user" in words:
            del words[words.index("--user"):words.index("--user") + 2]
        done = subprocess.run([str(BIN / words[0]), *words[1:]], cwd=place, capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, f"{command}: {done.stderr}"
