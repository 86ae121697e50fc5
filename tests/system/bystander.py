"""Those who belong on the bus while somebody else does wrong: a requester that talks to its agent all the time, and the
broker's log."""

import queue
import re
import threading

from harness import wait_until
from requester import routine


class Exchange(threading.Thread):
    """One request after another, each with its reply, until told to stop."""

    def __init__(self, requester):
        super().__init__()
        self.requester = requester
        self.over = threading.Event()
        self.started = self.done = 0
        self.failure = None
        self.losses = 0
        requester.client.on_disconnect = self.count_loss

    def count_loss(self, *_):
        self.losses += 1

    def run(self):
        while not self.over.wait(0.02) and self.failure is None:
            self.started += 1
            self.requester.send("AGENT-1", routine(f"good-{self.started}", [("3E", "00")]))
            try:
                reply = self.requester.next_reply(timeout=5)
                assert reply["reply-to"] == f"good-{self.started}", reply
                self.done += 1
            except (queue.Empty, AssertionError) as failure:
                self.failure = repr(failure)

    def wait_for_another(self):
        """Until a request that is sent from now on has its reply."""
        goal = self.started + 1
        wait_until(lambda: self.failure or self.done >= goal, "a reply to the good requester")
        assert self.failure is None


class BrokerLog:
    """What the broker has logged since it was last looked at."""

    def __init__(self, pki):
        self.path = pki.folder / "broker" / "data" / "broker.log"
        self.seen = 0

    def mark(self):
        self.seen = len(self.path.read_text())

    def lines(self):
        return [line.split(": ", 1)[-1] for line in self.path.read_text()[self.seen:].splitlines()]

    def wait_for(self, pattern):
        wait_until(lambda: any(re.fullmatch(pattern, line) for line in self.lines()), f"{pattern} in the broker's log")
