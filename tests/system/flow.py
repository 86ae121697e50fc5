"""Numbered requests that flow from two requesters to some agents, and the account of what became of each: one requester
is a program on the bus library, the other is on another MQTT library. Every request reads a data identifier that is its
number, so the log of the virtual ECUs tells what was run and how often."""

import json
import re
import secrets
import subprocess
import threading
import time
from collections import Counter, defaultdict

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from harness import BUILD, PATIENCE, SANITIZER_REPORT, Process, wait_until
from requester import reply_in, routine

RATE_PER_S = 100 // PATIENCE
FIRST_IDENTIFIER = 0x1000  # up to EFFF the bench's ECUs have none
SESSION_S = 60

DIGITS = re.compile(r"[0-9A-F]+")


class Account:
    """What one requester has sent and what has come of it, by number. It is asked a hundred times a second in a process
    that carries the traffic as well: what is asked so often is kept, not looked for."""

    def __init__(self):
        self.lock = threading.Lock()
        self.sent = {}
        self.refused = set()  # the library did not accept it
        self.told = defaultdict(list)  # the end of the send: has the broker acknowledged it?
        self.replies = defaultdict(list)  # when they came, redeliveries dropped
        self.newest = {}  # by agent: the highest number that it has answered
        self.untold = set()  # sent, without an end
        self.unanswered = set()  # acknowledged, without a reply
        self.forms = {}  # a reply of each form, to be looked at when the flow is over: thousands would stop all threads

    def note_sent(self, number, agent):
        with self.lock:
            self.sent[number] = agent
            self.untold.add(number)

    def note_told(self, number, ok):
        with self.lock:
            self.told[number].append(bool(ok))
            self.untold.discard(number)
            if self.told[number][0] and number not in self.replies:
                self.unanswered.add(number)

    def note_refused(self, number):
        with self.lock:
            self.refused.add(number)
            self.untold.discard(number)

    def note_reply(self, text):
        reply = json.loads(text.rstrip("\0"))
        number = int(reply["reply-to"])
        with self.lock:
            self.replies[number].append(time.monotonic())
            self.unanswered.discard(number)
            agent = self.sent.get(number)
            self.newest[agent] = max(number, self.newest.get(agent, number))
            self.forms.setdefault(DIGITS.sub("0", text), text)

    def answered_from(self, agent, first):
        """Has this agent answered a request that is not older than that?"""
        with self.lock:
            return self.newest.get(agent, -1) >= first

    def acknowledged(self, lossy=()):
        """What the broker has taken, but for requests to these agents."""
        with self.lock:
            return {number for number, ends in self.told.items() if ends[0] and self.sent[number] not in lossy}

    def open(self, lossy=()):
        """Sends without an end, and acknowledged requests without a reply, but for those to these agents."""
        with self.lock:
            return {number for number in self.untold | self.unanswered if self.sent[number] not in lossy}

    def story(self, lossy):
        """Of what is still open: (number, agent, told)."""
        return [(number, self.sent[number], self.told.get(number)) for number in sorted(self.open(lossy))]


class NodeRequester:
    """The program on the bus library. It can be stopped in order and started again; its account goes on."""

    def __init__(self, cert_dir, port, folder):
        self.account = Account()
        self.command = [str(BUILD / "tests" / "bus_node"), str(cert_dir), f"tcp://127.0.0.1:{port}"]
        self.errors = folder / f"bus_node.{time.monotonic_ns()}.log"
        self.lock = threading.Lock()  # of the program's input
        self.away = True
        self.conditions = []
        self.start()

    def start(self):
        self.conditions.clear()
        with open(self.errors, "ab") as errors:
            self.popen = subprocess.Popen(self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors,
                                          text=True)
        Process.started.append(self.popen)
        self.reader = threading.Thread(target=self.read, args=(self.popen.stdout,), daemon=True)
        self.reader.start()
        wait_until(lambda: 0 in self.conditions, "a requester that is connected")
        self.away = False

    def read(self, lines):
        for line in lines:
            word, rest = line.rstrip("\n").split(" ", 1) if " " in line else (line.strip(), "")
            if word == "condition":
                self.conditions.append(int(rest))
            elif word == "refused":
                self.account.note_refused(int(rest))
            elif word == "delivered":
                self.account.note_told(*(int(text) for text in rest.split()))
            elif word == "message":
                self.account.note_reply(rest)

    def send(self, number, agent, document):
        with self.lock:
            if self.away:
                return
            self.account.note_sent(number, agent)
            self.popen.stdin.write(f"send {agent} {number} {json.dumps(document)}\n")
            self.popen.stdin.flush()

    def stop(self):
        """An orderly stop; until the next start nothing is sent."""
        with self.lock:
            self.away = True
            self.popen.stdin.close()
        assert self.popen.wait(10 * PATIENCE) == 0, self.errors.read_text()
        self.reader.join()
        assert not SANITIZER_REPORT.search(self.errors.read_text()), self.errors.read_text()


class LastingClient(mqtt.Client):
    """The other library's client, whose thread does not die of a TLS connection that ends in the middle of a write."""

    def _sock_send(self, buf):
        return self._or_lost(super()._sock_send, buf)

    def _sock_recv(self, bufsize):
        return self._or_lost(super()._sock_recv, bufsize)

    @staticmethod
    def _or_lost(call, argument):
        try:
            return call(argument)
        except (BlockingIOError, ConnectionError):
            raise
        except OSError as error:
            raise ConnectionError(str(error)) from error


class PahoRequester:
    """On the other library. Like every receiver at QoS 1 it drops a message that it has seen before by its id."""

    def __init__(self, cert_dir, port):
        self.name = cert_dir.name
        self.account = Account()
        self.lock = threading.Lock()  # of the two that follow
        self.numbers = {}  # by packet identifier; there are enough of those for no second use
        self.published = set()
        self.seen = set()
        self.client = LastingClient(client_id=self.name, protocol=mqtt.MQTTv5)
        self.client.tls_set(str(cert_dir.parent / "ca" / "ca.pem"), str(cert_dir / "cert.pem"),
                            str(cert_dir / "private.pem"))
        self.client.reconnect_delay_set(1, 1)
        self.client.on_message = self.note_message
        self.client.on_publish = self.note_published
        subscribed = threading.Event()
        self.client.on_subscribe = lambda *_: subscribed.set()
        session = Properties(PacketTypes.CONNECT)
        session.SessionExpiryInterval = SESSION_S
        self.client.connect("127.0.0.1", port, clean_start=False, properties=session)
        self.client.loop_start()
        self.client.subscribe(f"movra/v1/ua/{self.name}/+", qos=1)
        assert subscribed.wait(10 * PATIENCE)

    def note_message(self, _client, _user, message):
        (movra_id,) = [value for key, value in message.properties.UserProperty if key == "movra-id"]
        if movra_id not in self.seen:
            self.seen.add(movra_id)
            self.account.note_reply(message.payload.decode())

    def note_published(self, _client, _user, identifier):
        with self.lock:
            self.published.add(identifier)
        self.match(identifier)

    def match(self, identifier):
        """The acknowledgement may come before the publish has returned its identifier."""
        with self.lock:
            if identifier not in self.published or identifier not in self.numbers:
                return
            self.published.remove(identifier)
            self.account.note_told(self.numbers.pop(identifier), True)

    def send(self, number, agent, document):
        self.account.note_sent(number, agent)
        properties = Properties(PacketTypes.PUBLISH)
        properties.ContentType = "application/json"
        properties.MessageExpiryInterval = SESSION_S
        properties.UserProperty = ("movra-id", secrets.token_hex(16))
        publish = self.client.publish(f"movra/v1/ua/{agent}/{self.name}", json.dumps(document), qos=1,
                                      properties=properties)
        with self.lock:
            self.numbers[publish.mid] = number
        self.match(publish.mid)

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()


class Flow:
    """A thread that sends the numbered requests, by turns from each requester to each agent."""

    def __init__(self, requesters, agents):
        self.requesters = requesters
        self.agents = agents  # (name, identifiers of its ECU)
        self.next = 0
        self.lock = threading.Lock()  # of the numbers
        self.ending = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        began = time.monotonic()
        for turn in range(1 << 30):
            if self.ending.wait(max(0.0, began + turn / RATE_PER_S - time.monotonic())):
                return
            requester = self.requesters[turn % len(self.requesters)]
            self.send(requester, self.agents[turn // len(self.requesters) % len(self.agents)])

    def send(self, requester, agent, known="", further=()):
        """One request, which a test may add to those of the flow; its number. With an identifier that the ECU knows the
        answer is positive, so that further commands are carried out."""
        with self.lock:
            number = self.next
            self.next += 1
        name, ecu = agent
        requester.send(number, name, routine(str(number), [("22", "", known + identifier(number)), *further], ecu=ecu))
        return number

    def wait_until_answered(self, agents=None, requesters=None, timeout=45.0):
        """Until each of these agents has answered each of these requesters something that was sent after now."""
        first = self.next
        pairs = [(requester, name) for requester in requesters or self.requesters for name, _ in agents or self.agents]
        for requester, name in pairs:
            wait_until(lambda: requester.account.answered_from(name, first), f"an answer of {name}", timeout)

    def end(self):
        self.ending.set()
        self.thread.join()


def identifier(number):
    return f"{FIRST_IDENTIFIER + number:04X}"


def runs(ecus):
    """How often each number was run, by the ECUs' own log."""
    counts = Counter()
    for line in ecus.request_log.read_text().splitlines():
        request = line.split()[2]
        if request.startswith("22"):
            counts[int(request[-4:], 16) - FIRST_IDENTIFIER] += 1
    return counts


def check_account(flow, ecus, lossy=(), timeout=30.0):
    """Ends the flow and looks at the account: what was acknowledged has been run once and answered once, and nothing at
    all has been run or answered twice. Requests to the lossy agents, whose process was killed, may be lost."""
    flow.wait_until_answered()
    flow.end()
    accounts = [requester.account for requester in flow.requesters]
    try:
        wait_until(lambda: not any(account.open(lossy) for account in accounts),
                   "every send told and every acknowledged request answered", timeout)
    except AssertionError as failure:
        raise AssertionError(f"{failure}: {[account.story(lossy) for account in accounts]}") from None
    time.sleep(0.5)  # for what comes once too often
    counts = runs(ecus)
    expect_none({number: count for number, count in counts.items() if count > 1}, "run twice")
    for account in accounts:
        for text in account.forms.values():
            reply_in(text.encode())
        acknowledged = account.acknowledged(lossy)
        assert acknowledged, "nothing has been sent"
        expect_none(acknowledged - set(counts), "acknowledged and not run")
        expect_none(account.refused & set(counts), "refused and run")
        expect_none(set(account.sent) - account.refused - set(account.told), "never told")
        expect_none({number: ends for number, ends in account.told.items() if len(ends) > 1}, "told twice")
        expect_none({number: times for number, times in account.replies.items() if len(times) > 1}, "answered twice")


def wait_until_settled(flow, others):
    """Until every agent but these has answered what was sent to it; the flow has left it out before."""
    wait_until(lambda: not any(requester.account.open(others) for requester in flow.requesters), "the last answers")


def expect_none(found, what):
    assert not found, f"{what}: {found}"
