"""A broker, a bus of virtual ECUs and some agents, each behind a proxy of its own, with requests flowing: what the tests
break."""

from concurrent.futures import ThreadPoolExecutor

from diagnosis import BODY, ENGINE, TRANSMISSION
from flow import Flow, NodeRequester, PahoRequester, check_account
from harness import Agent, Broker, CanServer, Ecus, Pki, free_port
from proxy import Proxy

RUNNING = "Movra Bus connection: running"
BROKE = "Movra Bus error: connection broke"
AGENTS = (("AGENT-1", ENGINE), ("AGENT-2", TRANSMISSION), ("AGENT-3", BODY))


class World:
    def __init__(self, folder, plugin):
        self.folder = folder
        self.lossy = set()  # agents whose requests may be lost, because the test kills their process
        self.pki = Pki(folder / "pki")
        for name, _ in AGENTS:
            self.pki.node(name, "agent")
        for name in ("TESTER-1", "TESTER-2"):
            self.pki.node(name)
        self.port = free_port()
        self.configuration = self.pki.broker(self.port, plugin)
        self.start_broker()
        self.can = CanServer(free_port(), folder, "can0")
        self.ecus = Ecus(self.can.port, folder)
        self.proxies = [Proxy(self.port) for _ in AGENTS]
        self.agents = [self.start_agent(index) for index in range(len(AGENTS))]
        self.node = NodeRequester(self.pki.folder / "TESTER-1", self.port, folder)
        self.other = PahoRequester(self.pki.folder / "TESTER-2", self.port)
        self.flow = Flow([self.node, self.other], AGENTS)
        self.flow.wait_until_answered()

    def start_broker(self):
        self.broker = Broker(self.configuration, self.port, self.folder)

    def start_agent(self, index, connected=True, options=()):
        agent = Agent(self.pki.folder / AGENTS[index][0], self.proxies[index].port, self.folder,
                      can_port=self.can.port, options=options)
        if connected:
            agent.wait_until_connected()
        return agent

    def wait_until_answered(self, index):
        self.flow.wait_until_answered([AGENTS[index]])

    def close(self):
        """Every program ends in order."""
        self.flow.end()
        self.node.stop()
        self.other.close()
        for agent in self.agents:
            assert agent.interrupt() == 255
        for proxy in self.proxies:
            proxy.close()
        for process in (self.ecus, self.can, self.broker):
            process.stop()


def _run(case, folder, plugin):
    own = folder / case.__name__
    own.mkdir()
    own.chmod(0o711)
    world = World(own, plugin)
    try:
        case(world)
        check_account(world.flow, world.ecus, world.lossy)
        world.close()
    finally:
        world.flow.end()


def side_by_side(cases, folder, plugin):
    """Runs each case in a world of its own; {case: its future}, all of them done."""
    with ThreadPoolExecutor(len(cases)) as pool:
        return {case: pool.submit(_run, case, folder, plugin) for case in cases}
