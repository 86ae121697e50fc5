#!/usr/bin/python3
"""Runs every benchmark on real processes of a release build and prints what was measured, beside its floor.

    cmake --preset release && cmake --build --preset release && benchmarks/run.py [build folder]
"""

import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[1]
BUILD = Path(sys.argv[1] if len(sys.argv) > 1 else SOURCE / "build-release").resolve()
os.environ["QUILLET_BUILD_DIR"] = os.environ["QUILLET_BUILD"] = str(BUILD)
sys.path.insert(0, str(SOURCE / "tests" / "system"))

import fleet  # noqa: E402
import harness  # noqa: E402  (it reads the build folder from the environment)
import transport  # noqa: E402

REQUESTS = 10_000
STARTS = 11


def start_to_running(certs, broker_port, can_port, folder):
    """Milliseconds from the start of the process to its line that the bus connection runs; one value a start."""
    times = []
    for _ in range(STARTS):
        began = time.monotonic()
        agent = harness.Agent(certs, broker_port, folder, can_port=can_port)
        agent.wait_until_connected()
        times.append((time.monotonic() - began) * 1000)
        agent.interrupt()
    return sorted(times)


def wait_until_ready(echo):
    harness.wait_until(lambda: "echo ready" in echo.text() or not echo.running(), "an echo node that is ready")
    if not echo.running():
        sys.exit(f"run.py: {echo.text()}")


def bus_round_trip(folder):
    """The bus library beside bare libmosquitto: a near and a far end of each, on one broker. It keeps nothing: with its
    writing to the disk in each round trip, the two would differ less than they do."""
    pki = harness.Pki(folder / "pki")
    far, bare_far = pki.node("echo-1", "agent"), pki.node("echo-2", "agent")
    near, bare_near = pki.node("tester-1", "requester"), pki.node("tester-2", "requester")
    port = harness.free_port()
    program = BUILD / "bin" / "bench_bus_round_trip"
    configuration = pki.broker(port, harness.copy_plugin(folder))
    fleet.set_persistence(configuration, "off")
    running = [harness.Broker(configuration, port, folder)]
    try:
        for role, identity in (("echo", far), ("bare-echo", bare_far)):
            running.append(harness.Process(role, [program, role, identity, "127.0.0.1", port], folder))
            wait_until_ready(running[-1])
        subprocess.run([program, "measure", near, bare_near, "127.0.0.1", str(port), "echo-1", "echo-2"], check=True,
                       timeout=120)
    finally:
        for process in reversed(running):
            process.kill()


def main():
    for program in ("bench_agent_overhead", "bench_road", "bench_bus_round_trip", "bench_fleet", "bench_transport",
                    "movra-quillet"):
        if not (BUILD / "bin" / program).exists():
            sys.exit(f"run.py: {BUILD}/bin/{program} is missing; build the release preset first: "
                     "cmake --preset release && cmake --build --preset release")

    subprocess.run([BUILD / "bin" / "bench_agent_overhead"], check=True, timeout=120)

    folder = harness.make_folder()
    running = []
    try:
        pki = harness.Pki(folder / "pki")
        agent_certs = pki.node("vehicle-1", "agent")
        # The far end of the bus alone stands where the agent does: the same rules let the requester reach it.
        echo_certs = pki.node("echo-1", "agent")
        requester_certs = pki.node("tester-1", "requester")
        broker_port, can_port = harness.free_port(), harness.free_port()
        configuration = pki.broker(broker_port, harness.copy_plugin(folder))
        running.append(harness.Broker(configuration, broker_port, folder))
        running.append(harness.CanServer(can_port, folder, "can0"))
        running.append(harness.Ecus(can_port, folder))

        times = start_to_running(agent_certs, broker_port, can_port, folder)
        print(f"start to \"running\" (wanted: under 300 ms): median {times[len(times) // 2]:.0f} ms, "
              f"{times[0]:.0f} to {times[-1]:.0f} ms, {len(times)} starts", flush=True)

        url = f"tcp://127.0.0.1:{broker_port}"
        echo = harness.Process("echo", [BUILD / "bin" / "bench_road", "echo", echo_certs, url], folder)
        running.append(echo)
        wait_until_ready(echo)
        agent = harness.Agent(agent_certs, broker_port, folder, can_port=can_port)
        running.append(agent)
        agent.wait_until_connected()
        subprocess.run([BUILD / "bin" / "bench_road", "measure", requester_certs, url, "vehicle-1", "echo-1", "can0",
                        str(agent.popen.pid), str(REQUESTS)], check=True, timeout=240,
                       env={**os.environ, "QUILLET_CAN_SERVER": f"127.0.0.1:{can_port}"})
    finally:
        for process in reversed(running):
            process.kill()
        shutil.rmtree(folder, ignore_errors=True)

    folder = harness.make_folder()
    try:
        bus_round_trip(folder)
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    fleet.run(fleet.SHORT, full=False)
    transport.run()


if __name__ == "__main__":
    main()
