"""Two hundred requests from three requesters at once: in order per requester, none lost, none run twice."""

import pytest

from harness import times
from requester import outcomes, routine

REQUESTS = 200


@pytest.mark.parametrize("turn", range(times(10)))
def test_two_hundred_requests_from_three_requesters(turn, agent, ecus, requesters):
    def identifier(requester, number):
        """A data identifier that belongs to one request alone; the ECU has none of them."""
        return f"{(requester + 1) * 0x1000 + turn * REQUESTS + number:04X}"

    shares = [[number for number in range(REQUESTS) if number % len(requesters) == index]
              for index in range(len(requesters))]
    for number in range(REQUESTS):
        index = number % len(requesters)
        requesters[index].send("AGENT-1", routine(f"{index}-{number}", [("22", "", identifier(index, number))]))

    for index, requester in enumerate(requesters):
        replies = [requester.next_reply(timeout=60) for _ in shares[index]]
        assert [reply["reply-to"] for reply in replies] == [f"{index}-{number}" for number in shares[index]]
        assert all(outcomes(reply) == [("0x22", "7F2231", "Negative response")] for reply in replies)

    asked = ecus.requests("engine")
    for index in range(len(requesters)):
        wanted = ["22" + identifier(index, number) for number in shares[index]]
        assert [request for request in asked if request in set(wanted)] == wanted
    for requester in requesters:
        requester.silence(0.2)
