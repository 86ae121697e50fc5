"""The broker is killed, stopped and frozen, and the agents' links to it are cut, while a hundred requests flow in each
second: what was acknowledged is run once and answered once. The cases run side by side, each in a world of its own, and
each test looks at the outcome of one."""

import random
import signal
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from harness import LONG_TIER, times
from world import BROKE, side_by_side

# The bus library takes a connection that held so long for a good one and begins its back-off anew.
GOOD_CONNECTION_S = 10.5
ROUNDS_BETWEEN_RESTS = 4
BLACK_HOLE_S = 12
SLOW_BYTES_PER_S = 4096
SLOW_S = 2


def pause_after(turn, rounds):
    """A while of undisturbed flow; now and then a long one, so that the back-off does not grow to its half minute."""
    rest = turn % ROUNDS_BETWEEN_RESTS == ROUNDS_BETWEEN_RESTS - 1 and turn < rounds - 1
    time.sleep(GOOD_CONNECTION_S if rest else random.uniform(0, 0.5))


def kill_broker(world):
    """At any moment, also before everybody is back from the last time."""
    rounds = times(20)
    for turn in range(rounds):
        world.broker.kill()
        time.sleep(random.uniform(0, 0.3))
        world.start_broker()
        time.sleep(random.uniform(0, 1))
        if turn % ROUNDS_BETWEEN_RESTS == ROUNDS_BETWEEN_RESTS - 1:
            world.flow.wait_until_answered()
            pause_after(turn, rounds)
    for agent in world.agents:
        assert len(agent.lines(BROKE, "ERR")) >= (rounds + ROUNDS_BETWEEN_RESTS - 1) // ROUNDS_BETWEEN_RESTS


def stop_broker(world):
    rounds = times(20)
    for turn in range(rounds):
        world.broker.stop()
        world.start_broker()
        world.flow.wait_until_answered()
        pause_after(turn, rounds)
    for agent in world.agents:
        assert len(agent.lines(BROKE, "ERR")) == rounds


def freeze_broker(world):
    """In the long tier until the agents say that they have noticed, which takes them two keep-alives."""
    world.broker.send(signal.SIGSTOP)
    if LONG_TIER:
        for agent in world.agents:
            agent.wait_for(BROKE, "ERR", timeout=25)
    else:
        time.sleep(BLACK_HOLE_S)
    world.broker.send(signal.SIGCONT)
    world.flow.wait_until_answered()


def cut_link(world, index, cut, rounds):
    """What the proxy does to one agent's link."""
    proxy = world.proxies[index]
    for turn in range(rounds):
        assert cut(proxy) == 1
        world.wait_until_answered(index)
        pause_after(turn, rounds)
    assert len(world.agents[index].lines(BROKE, "ERR")) == rounds


def hide_broker(world, index, rounds):
    for _ in range(rounds):
        world.proxies[index].black_hole()
        time.sleep(BLACK_HOLE_S)
        world.proxies[index].black_hole(False)
        world.wait_until_answered(index)


def slow_down(world, index):
    """To less than what flows, for a while."""
    world.proxies[index].throttle(SLOW_BYTES_PER_S)
    time.sleep(SLOW_S)
    world.proxies[index].throttle(None)
    world.wait_until_answered(index)


def reset_and_slow_down(world, index, rounds):
    cut_link(world, index, lambda proxy: proxy.reset(), rounds)
    slow_down(world, index)


def cut_links(world):
    """One kind of cut at each agent."""
    rounds = times(20)
    with ThreadPoolExecutor() as pool:
        ends = [pool.submit(reset_and_slow_down, world, 0, rounds),
                pool.submit(cut_link, world, 1, lambda proxy: proxy.finish(), rounds),
                pool.submit(hide_broker, world, 2, times(6))]
    for end in ends:
        end.result()


def hide_broker_from_all(world):
    """The long tier's other black holes."""
    with ThreadPoolExecutor() as pool:
        ends = [pool.submit(hide_broker, world, index, rounds) for index, rounds in enumerate((5, 5, 4))]
    for end in ends:
        end.result()


CASES = [kill_broker, stop_broker, freeze_broker, cut_links] + ([hide_broker_from_all] if LONG_TIER else [])


@pytest.fixture(scope="module")
def outcomes(folder, plugin):
    return side_by_side(CASES, folder, plugin)


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.__name__)
def test_loses_and_doubles_nothing(case, outcomes):
    outcomes[case].result()
