#!/usr/bin/python3
"""A fleet on one machine: real agents on one broker with its plugin and rules, requests spread over them. Prints for
each size of the fleet how many requests a second get through, how long one takes, and what memory it needs.

    cmake --preset release && cmake --build --preset release
    benchmarks/fleet.py [--full | --agents N...] [--persistence disk|memory|off] [build folder]

Without --full the sizes are 10 and 100, in less than a minute; with it up to 500, also as a table for the documents.
"""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[1]


def parse_arguments():
    parser = argparse.ArgumentParser(description="Measures a fleet of agents on one broker.")
    parser.add_argument("build", nargs="?", default=SOURCE / "build-release", type=Path, help="build folder")
    parser.add_argument("--full", action="store_true", help="up to 500 agents, and a table for the documents")
    parser.add_argument("--agents", nargs="+", type=int, metavar="N", help="these sizes, measured as with --full")
    parser.add_argument("--persistence", choices=("disk", "memory", "off"), default="disk",
                        help="where the broker keeps what it has acknowledged; disk is what quillet-pki sets")
    return parser.parse_args()


if __name__ == "__main__":
    ARGUMENTS = parse_arguments()
    os.environ["QUILLET_BUILD_DIR"] = str(ARGUMENTS.build.resolve())
sys.path.insert(0, str(SOURCE / "tests" / "system"))

import harness  # noqa: E402  (it reads the build folder from the environment)

SHORT = (10, 100)
FULL = (10, 50, 100, 250, 500)
REQUESTERS = 4
LANES = 16  # requests under way at once, each at an ECU of its own
IDLE_S = 5
COLUMNS = (
    ("agents", "agents", "{:d}"),
    ("per_second", "requests/s", "{:.0f}"),
    ("together_p50", "p50, 16 at once", "{:.1f} ms"),
    ("together_p99", "p99, 16 at once", "{:.1f} ms"),
    ("single_p50", "p50, one at a time", "{:.2f} ms"),
    ("single_p99", "p99, one at a time", "{:.2f} ms"),
    ("agent_mb", "memory of an agent", "{:.2f} MB"),
    ("broker_mb", "memory of the broker", "{:.1f} MB"),
    ("connect_s", "start until all are connected", "{:.1f} s"),
    ("reconnect_s", "broker restarted until all are back", "{:.1f} s"),
    ("idle_percent", "a core's share when idle", "{:.1f} %"),
    ("identities_s", "identities made in", "{:.1f} s"),
)


def pss_mb(pid):
    """Proportional set size: what several processes share counts once for all of them together."""
    for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith("Pss:"):
            return int(line.split()[1]) / 1024
    raise RuntimeError(f"the memory of process {pid} cannot be read")


def cpu_s(pids):
    """Processor time that the processes have had so far, in seconds; counted finer than in ticks."""
    return sum(int(path.read_text().split()[0])
               for pid in pids for path in Path(f"/proc/{pid}/task").glob("*/schedstat")) / 1e9


def description(folder):
    """A bench with an ECU for each lane."""
    ecus = [{"name": f"lane-{lane}", "request_id": f"{0x600 + lane:X}", "response_id": f"{0x680 + lane:X}",
             "identifiers": [{"id": "F190", "text": "WQLTEST0BENCH0001"}]} for lane in range(LANES)]
    path = folder / "fleet.json"
    path.write_text(json.dumps({"bus": "can0", "ecus": ecus}))
    return path


def wait_until_connected(agents, count, began):
    """Seconds from then until each of the agents has been connected that often."""
    waiting = list(agents)
    while waiting:
        waiting = [agent for agent in waiting if agent.text().count("connection: running") < count]
        for agent in waiting:
            if not agent.running():
                raise RuntimeError(f"an agent has ended: {agent.text()}")
        if time.monotonic() - began > 120:
            raise RuntimeError(f"{len(waiting)} of {len(agents)} agents are not connected after 120 s: {waiting[0].text()}")
        time.sleep(0.02)
    return time.monotonic() - began


def start_agents(pki, count, broker_port, can_port, folder):
    """Starts all of them at once; the agents, and the seconds until the last one is connected."""
    began = time.monotonic()
    agents = [harness.Agent(pki.folder / f"agent-{number:04d}", broker_port, folder, can_port=can_port)
              for number in range(count)]
    return agents, wait_until_connected(agents, 1, began)


def restart_broker(broker, configuration, port, folder, agents):
    """Stops the broker and starts it again; the new one, and the seconds until the last agent is back."""
    broker.stop()
    broker = harness.Broker(configuration, port, folder)
    return broker, wait_until_connected(agents, 2, time.monotonic())


def idle_share(pids):
    """How much of one core the processes take together while nothing is asked of them, in percent."""
    before, began = cpu_s(pids), time.monotonic()
    time.sleep(IDLE_S)
    return 100 * (cpu_s(pids) - before) / (time.monotonic() - began)


def load(port, count, pki, full):
    """Requests a second and times, as bench_fleet prints them."""
    identities = [str(pki.folder / f"tester-{number}") for number in range(REQUESTERS)]
    single, together = (2000, 20000) if full else (500, 4000)
    done = subprocess.run([str(harness.BIN / "bench_fleet"), f"tcp://127.0.0.1:{port}", str(count),
                           str(min(LANES, count)), str(single), str(together), *identities],
                          capture_output=True, text=True, timeout=300)
    if done.returncode != 0:
        sys.exit(f"fleet.py: {done.stderr}")
    return {line.split()[0]: [float(word) for word in line.split()[1:]] for line in done.stdout.splitlines()}


def set_persistence(configuration, where):
    """Changes the broker's configuration as quillet-pki has made it; the folder that the caller removes, or None."""
    if where == "disk":
        return None
    text = configuration.read_text()
    if where == "off":
        text, count = re.subn(r"^(persistence true|(plugin_opt_)?persistence(_location)? /.*|autosave_.*)\n", "", text,
                              flags=re.M)
        folder = None
    else:
        folder = Path(tempfile.mkdtemp(prefix="quillet-broker-", dir="/dev/shm"))
        folder.chmod(0o777)  # the broker's user writes there
        # The plugin's journal goes where the broker's file is.
        text, count = re.subn(r"^(persistence_location|plugin_opt_persistence) .*?(/?)$", rf"\1 {folder}\2", text,
                              flags=re.M)
    if count < 2:
        raise RuntimeError(f"{configuration} says nothing of persistence")
    configuration.write_text(text)
    return folder


def measure(count, full, persistence="disk"):
    folder = harness.make_folder()
    persistence_folder = None
    running = []
    try:
        began = time.monotonic()
        pki = harness.Pki(folder / "pki")
        for number in range(count):
            pki.node(f"agent-{number:04d}", "agent")
        for number in range(REQUESTERS):
            pki.node(f"tester-{number}", "requester")
        identities_s = time.monotonic() - began

        broker_port, can_port = harness.free_port(), harness.free_port()
        configuration = pki.broker(broker_port, harness.copy_plugin(folder))
        persistence_folder = set_persistence(configuration, persistence)
        broker = harness.Broker(configuration, broker_port, folder)
        running.append(broker)
        running.append(harness.CanServer(can_port, folder, "can0"))
        ecus = harness.Process("ecus", [harness.BIN / "quillet-ecu", description(folder)], folder,
                               QUILLET_CAN_SERVER=f"127.0.0.1:{can_port}")
        running.append(ecus)
        harness.wait_until(lambda: f"serving {LANES} ECUs" in ecus.text(), "virtual ECUs that are ready")

        agents, connect_s = start_agents(pki, count, broker_port, can_port, folder)
        running.extend(agents)
        idle_percent = idle_share([process.popen.pid for process in (broker, *agents)])
        figures = load(broker_port, count, pki, full)
        agent_mb = sum(pss_mb(agent.popen.pid) for agent in agents) / count
        broker_mb = pss_mb(broker.popen.pid)
        broker, reconnect_s = restart_broker(broker, configuration, broker_port, folder, agents)
        running.append(broker)
        return {
            "agents": count,
            "per_second": figures["together"][0],
            "together_p50": figures["together"][1] / 1000, "together_p99": figures["together"][2] / 1000,
            "single_p50": figures["single"][1] / 1000, "single_p99": figures["single"][2] / 1000,
            "agent_mb": agent_mb, "broker_mb": broker_mb, "connect_s": connect_s, "reconnect_s": reconnect_s,
            "idle_percent": idle_percent, "identities_s": identities_s,
        }
    finally:
        for process in reversed(running):
            process.kill()
        shutil.rmtree(folder, ignore_errors=True)
        if persistence_folder is not None:
            shutil.rmtree(persistence_folder, ignore_errors=True)


def print_rows(rows):
    for key, title, form in COLUMNS:
        values = "".join(f"{form.format(row[key]):>12}" for row in rows)
        print(f"{title:<38}{values}", flush=True)
    first, last = rows[0], rows[-1]
    if first is last:
        return
    print(f"from {first['agents']} to {last['agents']} agents: requests/s x {last['per_second'] / first['per_second']:.2f}, "
          f"p99 at 16 at once x {last['together_p99'] / first['together_p99']:.2f}, "
          f"memory of an agent x {last['agent_mb'] / first['agent_mb']:.2f}, "
          f"broker's memory for each further agent "
          f"{1024 * (last['broker_mb'] - first['broker_mb']) / (last['agents'] - first['agents']):.0f} kB", flush=True)


def print_table(rows):
    """The same for docs/fleet.md."""
    print("| " + " | ".join(title for _, title, _ in COLUMNS) + " |")
    print("|" + "---|" * len(COLUMNS))
    for row in rows:
        print("| " + " | ".join(form.format(row[key]) for key, _, form in COLUMNS) + " |")
    print(flush=True)


def run(sizes, full, persistence="disk"):
    rows = []
    for count in sizes:
        before = os.getloadavg()[0]
        rows.append(measure(count, full, persistence))
        print(f"fleet of {count}, load average {before:.1f} before: "
              + ", ".join(f"{title} {form.format(rows[-1][key])}" for key, title, form in COLUMNS[1:]),
              file=sys.stderr, flush=True)
    print_rows(rows)
    return rows


def main():
    if not (harness.BIN / "bench_fleet").exists():
        sys.exit(f"fleet.py: {harness.BIN}/bench_fleet is missing; build the release preset first: "
                 "cmake --preset release && cmake --build --preset release")
    full = ARGUMENTS.full or ARGUMENTS.agents is not None
    rows = run(ARGUMENTS.agents or (FULL if full else SHORT), full, ARGUMENTS.persistence)
    if full:
        print_table(rows)


if __name__ == "__main__":
    main()
