"""Identities and topics that are wrong: each is refused, said in one line that names the cause, and disturbs nobody. A
good requester talks to its agent all the time, and both are looked at after each."""

import re
import socket
import ssl
import subprocess
import time

import pytest

from bystander import BrokerLog, Exchange
from harness import BIN, PATIENCE, Broker, Pki, free_port
from intruder import SERVER, Forge, Intruder, tls_context, utf8
from requester import Requester
from wrong_brokers import BROKERS

REFUSED = 0x87
FORGED = b"forged"  # what no good node may ever be given
ANYBODYS = "movra/v1/status/+/DM-CLIENT"  # the filter that every node may subscribe to


@pytest.fixture(scope="module")
def pki(folder):
    made = Pki(folder / "pki")
    for name, role in (("AGENT-1", "agent"), ("AGENT-2", "agent"), ("TESTER-1", "requester"), ("STOLEN", "requester")):
        made.node(name, role)
    made.run("revoke", "STOLEN")
    return made


@pytest.fixture(scope="module")
def broker(pki, plugin, folder):
    port = free_port()
    configuration = pki.broker(port, plugin)
    with open(configuration, "a") as more:
        more.write("plugin_opt_bridge BRIDGE UNIT-1,UNIT-2\n")
    with open(configuration.parent / "rules", "a") as more:
        more.write("allow LIMITED AGENT-2\n")
    process = Broker(configuration, port, folder)
    yield process
    process.stop()


@pytest.fixture(scope="module")
def forge(pki, folder):
    return Forge(pki, folder)


@pytest.fixture(scope="module")
def exchange(pki, broker, agent):
    requester = Requester(pki.folder / "TESTER-1", broker.port)
    thread = Exchange(requester)
    thread.start()
    thread.wait_for_another()
    yield thread
    thread.over.set()
    thread.join()
    losses = thread.losses
    requester.close()
    assert losses == 0
    assert [line for line in agent.log() if line[0] == "ERR"] == []
    senders = {re.search(r"Received msg from (\S+)", text)[1] for _, _, text in agent.log() if "Received msg" in text}
    assert senders == {"TESTER-1"}
    assert FORGED.decode() not in agent.text()
    assert len(agent.lines("Movra Bus connection: running")) == 1


@pytest.fixture(autouse=True)
def nobody_disturbed(exchange):
    exchange.wait_for_another()
    yield
    exchange.wait_for_another()


@pytest.fixture
def log(pki, broker):
    seen = BrokerLog(pki)
    seen.mark()
    return seen


def query(cert_dir, port):
    """quillet-query with that identity: its exit status and what it says."""
    done = subprocess.run(
        [BIN / "quillet-query", "--verbose", "--to", "AGENT-1", "--certs", cert_dir, "--broker", f"127.0.0.1:{port}",
         "routine", "--ecu", "7E0:7E8", "--interface", "can0", "--command", "3E:00"],
        capture_output=True, text=True, timeout=30 * PATIENCE)
    assert done.stdout == ""
    return done.returncode, done.stderr.splitlines()


def of_another_ca(pki, folder):
    other = Pki(folder / f"other-{time.monotonic_ns()}")
    other.node("TESTER-1")
    (other.folder / "ca" / "ca.pem").write_bytes((pki.folder / "ca" / "ca.pem").read_bytes())
    return other.folder / "TESTER-1"


FAULT = "bus: the broker has reason to refuse TESTER-1: "

# Certificates that the broker refuses during the handshake.
CERTIFICATES = [
    ("expired", lambda forge, pki: forge.identity("TESTER-1", start=-10, days=5), FAULT + "certificate has expired"),
    ("not yet valid", lambda forge, pki: forge.identity("TESTER-1", start=5), FAULT + "certificate is not yet valid"),
    ("self-signed", lambda forge, pki: forge.identity("TESTER-1", self_signed=True),
     FAULT + "self-signed certificate"),
    ("of another CA", lambda forge, pki: of_another_ca(pki, forge.folder),
     FAULT + "unable to get local issuer certificate"),
    ("for servers only", lambda forge, pki: forge.identity("TESTER-1", usage=SERVER),
     FAULT + "unsuitable certificate purpose"),
]


@pytest.mark.parametrize("make, line", [row[1:] for row in CERTIFICATES], ids=[row[0] for row in CERTIFICATES])
def test_a_certificate_that_the_broker_refuses(pki, forge, broker, log, make, line):
    status, lines = query(make(forge, pki), broker.port)
    assert status == 4
    assert lines.count(line) == 1, lines
    assert not any("New client connected" in text for text in log.lines())


def test_a_certificate_that_was_revoked(pki, broker, log):
    context = tls_context(pki.folder / "STOLEN")
    context.maximum_version = ssl.TLSVersion.TLSv1_2  # the alert comes before anything that a reset could overtake
    with pytest.raises(ssl.SSLError, match="alert certificate revoked"):
        Intruder(None, broker.port, context=context)
    status, lines = query(pki.folder / "STOLEN", broker.port)
    assert status == 4
    line = (f"quillet-query: 127.0.0.1:{broker.port}: the broker refuses this identity: its certificate has to be in "
            "date, of the broker's CA and not revoked")
    assert lines.count(line) == 1, lines
    assert not any("New client connected" in line for line in log.lines())


BAD_NAME = ("bus: client not started: the certificate's CN is no usable name: empty, too long, not UTF-8, or with / + "
            "# or a control character")
NOT_ONE_CN = "bus: client not started: the certificate has not exactly one CN"
UNFIT = "its certificate has not exactly one CN that can be a name"
UNAUTHORISED = "Client intruder disconnected, not authorised."

# Certificates of the right CA with names that are none: what a node says of itself, and what the broker says of a
# client that comes with it all the same.
NAMES = [
    ("an empty CN", ("",), BAD_NAME, rf"quillet:  may not subscribe to .*: {UNFIT}"),
    ("no CN", (), NOT_ONE_CN, UNAUTHORISED),
    ("two CNs", ("INTRUDER", "AGENT-1"), NOT_ONE_CN, rf"quillet: INTRUDER may not subscribe to .*: {UNFIT}"),
    ("a CN with /", ("AGENT/1",), BAD_NAME, rf"quillet: AGENT/1 may not subscribe to .*: {UNFIT}"),
    ("a CN with +", ("+",), BAD_NAME, rf"quillet: \+ may not subscribe to .*: {UNFIT}"),
    ("a CN with #", ("#",), BAD_NAME, rf"quillet: # may not subscribe to .*: {UNFIT}"),
    ("a CN with a control character", ("AGENT-1\x01",), BAD_NAME,
     rf"quillet: AGENT-1\? may not subscribe to .*: {UNFIT}"),
    ("a CN with a zero in it", ("AGENT-1\0x",), BAD_NAME, UNAUTHORISED),
    ("a CN of 129 bytes", ("A" * 129,), BAD_NAME, rf"quillet: A{{129}} may not subscribe to .*: {UNFIT}"),
]


def comes_in(cert_dir, port):
    try:
        return Intruder(cert_dir, port).welcome == 0
    except OSError:
        return False


@pytest.mark.parametrize("names, own, brokers", [row[1:] for row in NAMES], ids=[row[0] for row in NAMES])
def test_a_certificate_whose_name_is_none(forge, broker, log, names, own, brokers):
    cert_dir = forge.identity(*names)
    status, lines = query(cert_dir, broker.port)
    assert status == 4
    assert lines.count(own) == 1, lines
    assert log.lines() == [], "it does not even go there"

    if brokers == UNAUTHORISED:
        assert not comes_in(cert_dir, broker.port)
    else:
        node = Intruder(cert_dir, broker.port)
        assert [node.subscribe(ANYBODYS) for _ in range(3)] == [REFUSED] * 3
        node.drop()
    log.wait_for(brokers)
    assert sum(bool(re.fullmatch(brokers, line)) for line in log.lines()) == 1


# Keys that are not to be used: said by the node itself.
KEYS = [
    ("encrypted", {"password": b"secret"}, "bus: client not started: the private key is encrypted"),
    ("of another certificate", {"other_key": True},
     "bus: client not started: the private key is not the certificate's"),
]


@pytest.mark.parametrize("settings, line", [row[1:] for row in KEYS], ids=[row[0] for row in KEYS])
def test_a_key_that_is_not_to_be_used(forge, broker, log, settings, line):
    status, lines = query(forge.identity("TESTER-1", **settings), broker.port)
    assert status == 4
    assert lines.count(line) == 1, lines
    assert log.lines() == []


def without_tls(pki, port):
    with socket.create_connection(("127.0.0.1", port), timeout=10 * PATIENCE) as plain:
        plain.sendall(b"\x10\x0e\0\4MQTT\5\2\0\x3c\0\0\1x")
        if plain.recv(64)[:1] != b"\x20":
            raise ConnectionError("no CONNACK")


def without_certificate(pki, port):
    Intruder(None, port, context=tls_context(pki.folder / "TESTER-1", with_certificate=False))


def with_old_tls(pki, port):
    context = tls_context(pki.folder / "TESTER-1")
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = context.maximum_version = ssl.TLSVersion.TLSv1_1
    Intruder(None, port, context=context)


SOCKETS = [
    ("without TLS", without_tls, "wrong version number"),
    ("with TLS 1.1", with_old_tls, "unsupported protocol"),
    ("without a certificate", without_certificate, "peer did not return a certificate"),
]


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion.TLSv1_1 is deprecated")
@pytest.mark.parametrize("come, cause", [row[1:] for row in SOCKETS], ids=[row[0] for row in SOCKETS])
def test_a_client_that_does_not_prove_who_it_is(pki, broker, log, come, cause):
    with pytest.raises(OSError):
        come(pki, broker.port)
    log.wait_for(f".*:SSL routines::{cause}.?")
    assert sum(cause in line for line in log.lines()) == 1


@pytest.mark.parametrize("make, cause", [row[1:] for row in BROKERS], ids=[row[0] for row in BROKERS])
def test_a_broker_that_is_not_the_right_one(pki, plugin, folder, make, cause):
    port = free_port()
    wrong = Broker(make(pki, plugin, port, folder), port, folder)
    status, lines = query(pki.folder / "TESTER-1", port)
    wrong.stop()
    assert status == 4
    assert lines.count(f"bus: no connection to 127.0.0.1:{port}: broker's certificate refused: {cause}") == 1, lines


OTHER_SENDER = "the sender in the topic is another node"
NO_RULE = "no rule allows it"
NO_TOPIC = "that is no topic of the bus"
NOT_ITS_OWN = "that is neither its own inbox nor a status of its group"
WILDCARD = "a wildcard stands for other nodes' addresses"
OTHER_GROUP = "that is the status of another group"
NO_STATUS = "a status says on, off or nothing, and has no properties but its expiry"
MANY_GROUPS = "a bridge may name 4 groups for a unit, of 128 bytes at most, until the broker is started anew"
OF_THE_BROKER = "the bus has no topics that begin with '$' and no shared subscriptions"

# A node of the right CA, in the group "strangers"; {me} is its own name.
PUBLISHES = [
    ("a forged sender", "ua/AGENT-1/TESTER-1", OTHER_SENDER),
    ("no rule", "ua/AGENT-1/{me}", NO_RULE),
    ("a requester without a rule for it", "ua/TESTER-1/{me}", NO_RULE),
    ("no rule for the group", "grp/vehicles/{me}", NO_RULE),
    ("no rule for its own group", "grp/strangers/{me}", NO_RULE),
    ("no rule for the special address", "special/0/{me}", NO_RULE),
    ("a special address that nobody has", "special/7/{me}", NO_RULE),
    ("the status of somebody else", "status/strangers/AGENT-1", OTHER_SENDER),
    ("the status of a foreign group", "status/vehicles/{me}", OTHER_GROUP),
    ("the status without a group", "status//{me}", OTHER_GROUP),
    ("a level too few", "ua/AGENT-1", NO_TOPIC),
    ("a level too many", "ua/AGENT-1/{me}/more", NO_TOPIC),
    ("no destination", "ua//{me}", NO_TOPIC),
    ("no sender", "ua/AGENT-1/", OTHER_SENDER),
    ("a kind that is none", "everybody/AGENT-1/{me}", NO_TOPIC),
]
SUBSCRIPTIONS = [
    ("a foreign inbox", "ua/AGENT-1/+", NOT_ITS_OWN),
    ("an inbox under a foreign sender", "ua/{me}/TESTER-1", NOT_ITS_OWN),
    ("every inbox", "ua/+/+", WILDCARD),
    ("its inbox and what may be below", "ua/{me}/#", WILDCARD),
    ("the whole bus", "#", WILDCARD),
    ("everything of the broker", "/#", WILDCARD),
    ("a shared subscription to its own inbox", "/$share/g/movra/v1/ua/{me}/+", OF_THE_BROKER),
    ("a shared subscription to a foreign inbox", "/$share/g/movra/v1/ua/AGENT-1/+", OF_THE_BROKER),
    ("the broker's statistics", "/$SYS/#", OF_THE_BROKER),
    ("the inbox of a foreign group", "grp/vehicles/+", NOT_ITS_OWN),
    ("the inbox of every group", "grp/+/+", WILDCARD),
    ("the status of a foreign group", "status/vehicles/+", NOT_ITS_OWN),
    ("the status of the whole fleet", "status/+/+", WILDCARD),
    ("the special address of the DM-CLIENT", "special/0/+", NOT_ITS_OWN),
    ("a foreign bus", "/+/v1/ua/{me}/+", NO_TOPIC),
]


def topic_of(text, me):
    """Texts of the tables are below the bus's prefix, except those that begin with a slash."""
    return (text[1:] if text.startswith("/") else "movra/v1/" + text).format(me=me)


def expect_line(log, me, action, topic, cause):
    line = f"quillet: {me} may not {action} {topic}: {cause}"
    log.wait_for(re.escape(line))
    assert log.lines().count(line) == 1


@pytest.fixture
def stranger(forge, broker):
    """A name that no other test uses, and what connects under it."""
    me = f"STRANGER-{time.monotonic_ns()}"
    opened = []

    def connect(name=me, group="strangers", **settings):
        node = Intruder(forge.identity(name, group=group), broker.port, **settings)
        assert node.welcome == 0
        opened.append(node)
        return node

    connect.me = me
    yield connect
    for node in opened:
        node.drop()


@pytest.mark.parametrize("text, cause", [row[1:] for row in PUBLISHES], ids=[row[0] for row in PUBLISHES])
def test_a_publish_that_is_refused(stranger, log, text, cause):
    topic = topic_of(text, stranger.me)
    node = stranger()
    assert [node.publish(topic, FORGED, retained="status" in text) for _ in range(3)] == [REFUSED] * 3
    expect_line(log, stranger.me, "publish to", topic, cause)


@pytest.mark.parametrize("text, cause", [row[1:] for row in SUBSCRIPTIONS], ids=[row[0] for row in SUBSCRIPTIONS])
def test_a_subscription_that_is_refused(stranger, log, exchange, text, cause):
    topic = topic_of(text, stranger.me)
    node = stranger()
    assert [node.subscribe(topic) for _ in range(3)] == [REFUSED] * 3
    expect_line(log, stranger.me, "subscribe to", topic, cause)
    exchange.wait_for_another()
    assert node.subscribe(ANYBODYS) == 1
    assert node.messages == [], "nothing of the exchange has come here"


def test_an_agent_that_commands_an_agent(forge, pki, broker, log):
    node = Intruder(pki.folder / "AGENT-2", broker.port)
    assert node.publish("movra/v1/ua/AGENT-1/AGENT-2", FORGED) == REFUSED
    expect_line(log, "AGENT-2", "publish to", "movra/v1/ua/AGENT-1/AGENT-2", NO_RULE)
    node.drop()


def test_a_requester_that_uses_the_rule_of_another(stranger, log):
    node = stranger("LIMITED")
    assert node.publish("movra/v1/ua/AGENT-2/LIMITED", FORGED) == 0x10, "its own rule: nobody is there"
    assert node.publish("movra/v1/ua/AGENT-1/LIMITED", FORGED) == REFUSED
    expect_line(log, "LIMITED", "publish to", "movra/v1/ua/AGENT-1/LIMITED", NO_RULE)
    assert node.publish("movra/v1/ua/AGENT-1/TESTER-1", FORGED) == REFUSED
    expect_line(log, "LIMITED", "publish to", "movra/v1/ua/AGENT-1/TESTER-1", OTHER_SENDER)


def test_a_message_to_be_kept_in_an_inbox(stranger, log):
    node = stranger("LIMITED")
    assert node.publish("movra/v1/ua/AGENT-2/LIMITED", FORGED, retained=True) == REFUSED
    expect_line(log, "LIMITED", "publish to", "movra/v1/ua/AGENT-2/LIMITED", "an inbox keeps no retained messages")


def test_a_requester_without_a_rule_is_told_so(forge, broker):
    status, lines = query(forge.identity(f"STRANGER-{time.monotonic_ns()}"), broker.port)
    assert status == 4
    assert lines[-1] == ('quillet-query: the broker did not pass the request on: no node is connected as "AGENT-1", or '
                         "the broker's rules do not let this identity reach it")
    assert any(re.fullmatch(r"bus: publish \d+: refused by the broker \(135\)", line) for line in lines), lines


def user_properties(size):
    """As many as make up so many bytes."""
    one = b"\x26" + utf8("n" * 60_000) + utf8("v" * 60_000)
    return one * (size // len(one))


# In a node's own status, which its whole group is given without any rule.
STATUSES = [
    ("a text of 12 MB", b"x" * 12_000_000, b""),
    ("a command", FORGED, b""),
    ("on and more", b"on\0", b""),
    ("on with user properties of 12 MB", b"on", user_properties(12_000_000)),
    ("off with a content type", b"off", b"\x03" + utf8("application/json")),
]


@pytest.mark.parametrize("payload, properties", [row[1:] for row in STATUSES], ids=[row[0] for row in STATUSES])
def test_a_status_that_is_none(stranger, log, payload, properties):
    topic = f"movra/v1/status/strangers/{stranger.me}"
    watcher, node = stranger(name=f"WATCHER-{stranger.me}"), stranger()
    assert watcher.subscribe("movra/v1/status/strangers/+") == 1
    for retained in (True, False):
        assert node.publish(topic, payload, retained, properties) == REFUSED
    expect_line(log, stranger.me, "publish to", topic, NO_STATUS)

    expiry = b"\x02" + (180).to_bytes(4, "big")
    for status in (b"on", b"off", b""):
        assert node.publish(topic, status, retained=True, properties=expiry) == 0
    assert watcher.publish(f"movra/v1/status/strangers/WATCHER-{stranger.me}", b"on") == 0
    statuses = [body[body.index(stranger.me.encode()) + len(stranger.me):] for body in watcher.messages]
    assert [body.rsplit(b"\x02\0\0\0\xb4")[-1] for body in statuses[:3]] == [b"on", b"off", b""]


WILLS = [
    ("the status of somebody else", "status/strangers/AGENT-1", OTHER_SENDER),
    ("a request of somebody else", "ua/AGENT-1/TESTER-1", OTHER_SENDER),
    ("what is no status", "status/strangers/{me}", NO_STATUS),
]


@pytest.mark.parametrize("text, cause", [row[1:] for row in WILLS], ids=[row[0] for row in WILLS])
def test_a_forged_will(stranger, log, text, cause):
    topic = topic_of(text, stranger.me)
    watcher = stranger(name=f"WATCHER-{stranger.me}")
    assert watcher.subscribe("movra/v1/status/strangers/+") == 1
    node = stranger(will=(topic, FORGED))
    assert node.subscribe(ANYBODYS) == 1, "its certificate is known"
    node.drop()
    expect_line(log, stranger.me, "publish to", topic, cause)
    assert watcher.subscribe(ANYBODYS) == 1
    assert watcher.messages == []


@pytest.mark.parametrize("name", ["AGENT-1", "TESTER-1"])
def test_a_stolen_client_id(stranger, log, name):
    node = stranger(client_id=name)
    assert node.subscribe(f"movra/v1/ua/{name}/+") == REFUSED
    assert node.publish(f"movra/v1/ua/AGENT-1/{name}", FORGED) == REFUSED
    expect_line(log, stranger.me, "publish to", f"movra/v1/ua/AGENT-1/{name}", OTHER_SENDER)
    named = rf"New client connected from \S+ as {stranger.me} \(p5, .*, u'{stranger.me}'\)\."
    assert sum(bool(re.fullmatch(named, line)) for line in log.lines()) == 1
    assert not any(f"Client {name} " in line for line in log.lines()), "its owner was thrown out"


BEYOND = "the bridge does not speak for that unit"


BRIDGED = [
    ("publish to", "ua/AGENT-1/TESTER-1", BEYOND),
    ("publish to", "ua/AGENT-1/BRIDGE", BEYOND),
    ("publish to", "status/vehicles/AGENT-1", BEYOND),
    ("publish to", "ua/AGENT-1/UNIT-1", NO_RULE),
    ("publish to", "status/vehicles/UNIT-1", NO_STATUS),
    ("subscribe to", "ua/AGENT-1/+", BEYOND),
    ("subscribe to", "status/+/AGENT-1", BEYOND),
    ("subscribe to", "ua/BRIDGE/+", BEYOND),
    ("subscribe to", "#", WILDCARD),
]


def test_a_bridge_beyond_its_units(stranger, log):
    node = stranger("BRIDGE", group=None)
    assert node.subscribe("movra/v1/ua/UNIT-1/+") == 1
    told = set()
    for action, text, cause in BRIDGED:
        act = node.publish if action == "publish to" else node.subscribe
        topic = topic_of(text, "BRIDGE")
        assert act(topic) == REFUSED, topic
        if cause not in told:  # the first of each cause has the line
            expect_line(log, "BRIDGE", action, topic, cause)
        told.add(cause)
    assert sum("quillet: BRIDGE " in line for line in log.lines()) == len(told)


def test_a_bridge_that_names_groups_without_end(stranger, log):
    """Each would be one status more that the broker keeps."""
    node = stranger("BRIDGE", group=None)
    names = [f"group-{number}" for number in range(20)]
    codes = [node.publish(f"movra/v1/status/{name}/UNIT-2", b"on", retained=True) for name in names]
    assert codes == [0x10] * 4 + [REFUSED] * 16
    expect_line(log, "BRIDGE", "publish to", "movra/v1/status/group-4/UNIT-2", MANY_GROUPS)
    assert node.publish("movra/v1/status/group-0/UNIT-2", b"off", retained=True) == 0x10, "a known one"
    node.drop()
    log.wait_for("Client BRIDGE closed its connection.")

    watcher = stranger(group="group-19")
    assert watcher.subscribe("movra/v1/status/group-19/+") == 1
    log.mark()
    node = stranger("BRIDGE", group=None, will=("movra/v1/status/group-19/UNIT-2", b"off"))
    assert node.subscribe("movra/v1/ua/UNIT-1/+") == 1, "its certificate is known"
    node.drop()
    log.wait_for("Client BRIDGE closed its connection.")
    assert watcher.subscribe(ANYBODYS) == 1
    assert watcher.messages == []
