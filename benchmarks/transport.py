#!/usr/bin/python3
"""The transport library on virtual buses beside scapy's ISO-TP: how full a transfer keeps a bus of 500 kbit/s, and what
an exchange takes on a bus that takes no time. The same beside the kernel's ISO-TP: tests/vm/run amd64|armhf bench.

    cmake --preset release && cmake --build --preset release && benchmarks/transport.py [build folder]
"""

import os
import statistics
import sys
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[1]
if __name__ == "__main__":
    os.environ["QUILLET_BUILD"] = str(Path(sys.argv[1] if len(sys.argv) > 1 else SOURCE / "build-release").resolve())
sys.path.insert(0, str(SOURCE / "tests" / "peers"))

import processes  # noqa: E402  (it reads the build folder from the environment)

BITRATE = 500_000
LENGTHS = (4095, 8191)
ROUNDS = {"ours": 7, "scapy": 3}
EXCHANGES = {"ours": 3000, "scapy": 150}
ANSWERS = (4, 20, 4095)  # bytes: a single frame, some, many
LEAST_PERCENT = 97
# Of a frame of 8 bytes with an 11-bit identifier, stuff bits and interframe space as quillet-can counts them.
FRAME_BITS = 34 + 64 + (34 + 64) // 16 + 13


def frames(length, block_size):
    """All frames of a segmented transfer, flow controls included."""
    consecutive = -(-(length - (6 if length < 4096 else 2)) // 7)
    blocks = -(-consecutive // block_size) if block_size else 1
    return 1 + consecutive + blocks


def start(kind, server, send_id, receive_id, block_size):
    bus = ("can0", f"{send_id:x}", f"{receive_id:x}", block_size)
    if kind == "ours":
        node = processes.Process(processes.BUILD / "bin/bench_transport", *bus, environment=server.environment)
    else:
        node = processes.Process(sys.executable, SOURCE / "benchmarks/scapy_node.py", f"{server.host}:{server.port}",
                                 *bus)
    answer = node.line()
    if answer != "ready":
        sys.exit(f"transport.py: {answer} {node.errors}")
    return node


def told(node, word):
    """The numbers behind the word that the node is to answer."""
    answer = node.line().split()
    if answer[:1] != [word]:
        sys.exit(f"transport.py: {' '.join(answer)}; {node.errors}")
    return [float(number) for number in answer[1:]]


def elapsed_ms(sender, receiver, length):
    """From the call that sends until the one that receives has returned."""
    receiver.tell("receive")
    sender.tell(f"send {length}")
    began, = told(sender, "sent")
    ended, received = told(receiver, "received")
    if received != length:
        sys.exit(f"transport.py: of {length} bytes came {received:.0f}")
    return (ended - began) / 1e6


def fullness(server, kinds, block_size):
    """Prints for each length how much of the time there was a frame on the bus."""
    sender = start(kinds[0], server, 0x7E0, 0x7E8, block_size)
    receiver = start(kinds[1], server, 0x7E8, 0x7E0, block_size)
    for length in LENGTHS:
        bus_ms = frames(length, block_size) * FRAME_BITS * 1000 / BITRATE
        times = [elapsed_ms(sender, receiver, length) for _ in range(min(ROUNDS[kind] for kind in kinds))]
        shares = sorted(100 * bus_ms / time for time in times)
        wanted = f" (wanted: at least {LEAST_PERCENT} %)" if kinds == ("ours", "ours") and block_size == 0 else ""
        print(f"{kinds[0]:>6} to {kinds[1]:<6} block size {block_size}  {length} bytes{wanted}: median "
              f"{statistics.median(shares):5.1f} % of the bus, {shares[0]:.1f} to {shares[-1]:.1f} %; "
              f"{bus_ms:.1f} ms on the bus, {statistics.median(times):.1f} ms in all", flush=True)
    for node in (sender, receiver):
        node.end()


def exchanges(server, length):
    """A request of 3 bytes and an answer of that length from a node of ours, which is the same for both testers."""
    ecu = start("ours", server, 0x7E8, 0x7E0, 0)
    ecu.tell(f"serve {length}")
    rows = {}
    for kind, count in EXCHANGES.items():
        tester = start(kind, server, 0x7E0, 0x7E8, 0)
        tester.tell(f"ask {count // 10 if length > 1000 else count}")
        rows[kind] = told(tester, "asked")
        tester.end()
        p50, p99, processor = rows[kind]
        print(f"{kind:>6}  answer of {length:4} bytes: p50 {p50:9.1f} us   p99 {p99:9.1f} us   "
              f"processor time an exchange {processor:9.1f} us", flush=True)
    ecu.end()
    return [theirs / our for our, theirs in zip(rows["ours"], rows["scapy"])]


def run():
    print(f"transfers on a bus of {BITRATE // 1000} kbit/s: bus time of all frames, flow controls included / time in "
          "all")
    server = processes.CanServer("--bitrate", BITRATE, "can0")
    for block_size in (0, 8):
        for kinds in (("ours", "ours"), ("scapy", "ours"), ("ours", "scapy"), ("scapy", "scapy")):
            fullness(server, kinds, block_size)
    server.end()
    print("a request of 3 bytes and its answer on a bus that takes no time; the ECU is the same node of ours for both")
    server = processes.CanServer("can0")
    for length in ANSWERS:
        p50, p99, processor = exchanges(server, length)
        print(f"        scapy / ours: p50 {p50:.0f}, p99 {p99:.0f}, processor time {processor:.0f}", flush=True)
    server.end()


if __name__ == "__main__":
    if not (processes.BUILD / "bin/bench_transport").exists():
        sys.exit("transport.py: build the release preset first: "
                 "cmake --preset release && cmake --build --preset release")
    run()
