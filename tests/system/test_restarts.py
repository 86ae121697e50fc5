"""Nodes that go and come back while a hundred requests flow in each second: a requester that is restarted gets its
replies, an agent that is killed runs nothing twice, and two processes with one identity do not fight for ever. The cases
run side by side, each in a world of its own, and each test looks at the outcome of one."""

import random
import time

import pytest

from flow import identifier, wait_until_settled
from harness import LONG_TIER, PATIENCE, times, wait_until
from world import AGENTS, BROKE, RUNNING, side_by_side

KNOWN_TO_ENGINE = "0100"
A_WHILE = (("3E", "00", "", str(2 * PATIENCE)), ("3E", "00"))
CONTEST_S = 12 if LONG_TIER else 3
TWIN = "does another process use the identity of AGENT-1?"


def begin_long_job(world, requester):
    """A job of the first agent's that is under way, for some seconds from now."""
    number = world.flow.send(requester, AGENTS[0], KNOWN_TO_ENGINE, A_WHILE)
    request = f"22{KNOWN_TO_ENGINE}{identifier(number)}"
    wait_until(lambda: request in world.ecus.request_log.read_text(), "a job that has begun")
    return number


def restart_requester(world):
    """What is answered while a requester is away waits for it, for up to a minute."""
    account = world.node.account
    for _ in range(times(20)):
        number = begin_long_job(world, world.node)
        world.node.stop()
        assert number not in account.replies
        time.sleep(random.uniform(0, 1.5))
        world.node.start()
        wait_until(lambda: number in account.replies, "the reply to a request of before the restart")
        world.flow.wait_until_answered()


def kill_agent(world):
    """What it had already is lost with it; what the broker still holds is for the next process."""
    world.lossy.add(AGENTS[0][0])
    killed = []
    for _ in range(times(20)):
        killed.append(begin_long_job(world, random.choice(world.flow.requesters)))
        world.agents[0].kill()
        world.agents[0] = world.start_agent(0)
        world.wait_until_answered(0)
    assert not any(number in requester.account.replies for number in killed for requester in world.flow.requesters)


def share_identity(world):
    """Each throws the other out when it connects: both say so and take more and more time. What one of them had and had
    not acknowledged by then comes to the other as well, so nothing is sent to them meanwhile."""
    world.flow.agents = AGENTS[1:]
    wait_until_settled(world.flow, [name for name, _ in AGENTS[1:]])
    assert world.agents[0].interrupt() == 255
    twins = [world.start_agent(0, options=("-v",)) for _ in range(2)]  # -v: with what the bus library says
    time.sleep(CONTEST_S)
    for twin in twins:
        twin.wait_for(BROKE, "ERR", count=2)
        wait_until(lambda: TWIN in twin.text(), "a suspicion of the other")
        assert twin.running()
    # At 250 ms and its doubles, half of each at the least.
    assert sum(len(twin.lines(RUNNING)) for twin in twins) <= 20

    world.agents[0] = twins.pop(random.randrange(2))
    assert twins[0].interrupt() == 255
    wait_until(lambda: len(world.agents[0].lines(RUNNING)) > len(world.agents[0].lines(BROKE)), "one that wins", 35)
    number = world.flow.send(world.node, AGENTS[0])
    wait_until(lambda: number in world.node.account.replies, "an answer of the one that won")


CASES = [restart_requester, kill_agent, share_identity]


@pytest.fixture(scope="module")
def outcomes(folder, plugin):
    return side_by_side(CASES, folder, plugin)


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.__name__)
def test_nothing_twice(case, outcomes):
    outcomes[case].result()
