#!/usr/bin/python3
"""scapy's ISO-TP in the place of bench_transport; what it is told and answers is described in transport_node.cpp.

    scapy_node.py HOST:PORT BUS SEND_ID RECEIVE_ID BLOCK_SIZE
"""

import pathlib
import resource
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "peers"))

import scapy_bus  # noqa: E402

WARM_UP = 20


class Server:
    def __init__(self, address):
        self.host, port = address.rsplit(":", 1)
        self.port = int(port)


def processor_us():
    used = resource.getrusage(resource.RUSAGE_SELF)
    return (used.ru_utime + used.ru_stime) * 1e6


def send(node, length):
    began = time.monotonic_ns()
    node.send(bytes(length))
    return f"sent {began}"


def receive(node, _):
    pdu = scapy_bus.receive(node)
    return f"received {time.monotonic_ns()} {len(pdu) if pdu else 0}"


def ask(node, count):
    samples = []
    for number in range(WARM_UP + count):
        if number == WARM_UP:
            began_us = processor_us()
        began = time.monotonic_ns()
        scapy_bus.ask(node, b"\x22\xf1\x90")
        if number >= WARM_UP:
            samples.append((time.monotonic_ns() - began) / 1000)
    samples.sort()
    each_us = (processor_us() - began_us) / count
    return f"asked {samples[count // 2]:.1f} {samples[count * 99 // 100]:.1f} {each_us:.1f}"


def main():
    address, bus, send_id, receive_id, block_size = sys.argv[1:]
    node = scapy_bus.isotp_socket(Server(address), bus, int(send_id, 16), int(receive_id, 16), int(block_size))
    print("ready", flush=True)
    for line in sys.stdin:
        word, number = (line + " 0").split()[:2]
        print({"send": send, "receive": receive, "ask": ask}[word](node, int(number)), flush=True)
    node.close()


if __name__ == "__main__":
    main()
