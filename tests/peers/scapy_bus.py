"""scapy's ISO-TP and UDS over python-can's socketcand interface."""

import itertools
import logging
import socket as sockets
import threading
import time

from scapy.config import conf

conf.contribs["ISOTP"] = {"use-can-isotp-kernel-module": False}
conf.contribs["CANSocket"] = {"use-python-can": True}
conf.verb = 0

from can.interfaces.socketcand import SocketCanDaemonBus  # noqa: E402
from scapy.contrib import cansocket_python_can  # noqa: E402
from scapy.contrib.automotive.ecu import EcuAnsweringMachine  # noqa: E402
from scapy.contrib.automotive.uds import UDS  # noqa: E402
from scapy.contrib.isotp import ISOTP, ISOTPSoftSocket  # noqa: E402

logging.getLogger("scapy.contrib.isotp").setLevel(logging.ERROR)


class WholeMessages:
    """Stands between python-can and its TCP socket and hands out whole messages only.

    python-can 4.1 drops one character after the messages that it has parsed, which is the "<" of the next one when a
    read ends inside it: about every thirtieth frame of a burst is lost. The protocol has no separator to spare, so the
    reads are cut at message ends here, before python-can parses them.
    """

    def __init__(self, socket):
        # Frames leave when they are sent, not when the one before has been acknowledged (40 ms later).
        socket.setsockopt(sockets.IPPROTO_TCP, sockets.TCP_NODELAY, 1)
        self.socket = socket
        self.rest = b""

    def recv(self, size):
        received = self.rest + self.socket.recv(size)
        end = received.rfind(b">") + 1
        self.rest = received[end:]
        return received[:end]

    def fileno(self):
        return self.socket.fileno()

    def __getattr__(self, name):
        return getattr(self.socket, name)


_original_init = SocketCanDaemonBus.__init__


def _init_with_whole_messages(self, *arguments, **named):
    _original_init(self, *arguments, **named)
    self._SocketCanDaemonBus__socket = WholeMessages(self._SocketCanDaemonBus__socket)


SocketCanDaemonBus.__init__ = _init_with_whole_messages


class InOrderOfArrival(cansocket_python_can.PriotizedCanMessage):
    """scapy 2.5 queues frames by time stamp and numbers all of them 1, so frames of the same microsecond come out in
    any order; with numbers that go up they come out as they came in."""

    numbers = itertools.count()

    def __init__(self, message, _number):
        super().__init__(message, next(self.numbers))


cansocket_python_can.PriotizedCanMessage = InOrderOfArrival


def isotp_socket(server, bus, tx_id, rx_id, block_size=0, st_min=0, basecls=ISOTP):
    """A scapy node; closing it closes its CAN socket too."""
    can_socket = cansocket_python_can.PythonCANSocket(
        bustype="socketcand", channel=bus, host=server.host, port=server.port
    )
    socket = ISOTPSoftSocket(
        can_socket, tx_id=tx_id, rx_id=rx_id, bs=block_size, stmin=st_min, padding=True, basecls=basecls
    )
    close = socket.close

    def close_both():
        close()
        # scapy's thread looks at the CAN socket once more before it notices that the ISO-TP socket is closed.
        time.sleep(0.02)
        can_socket.close()

    socket.close = close_both
    return socket


def receive(socket, patience_s=20):
    """The next PDU as scapy decodes it, or None."""
    ready = socket.select([socket], patience_s)
    return socket.recv() if ready else None


def ask(socket, request):
    socket.send(request)
    answer = receive(socket)
    assert answer is not None, "no answer"
    return answer


def raw(answer):
    return bytes(answer).hex()


class ScapyEcu:
    """scapy's answering machine on an ISO-TP socket of UDS, in a thread of its own. The socket is taken over."""

    def __init__(self, socket, responses):
        self.socket = socket
        self.machine = EcuAnsweringMachine(
            supported_responses=list(responses), main_socket=socket, basecls=UDS, verbose=False
        )
        self.ending = threading.Event()
        self.requests = []
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        # scapy's own loop would only notice at the next request that it is to end.
        while not self.ending.is_set():
            request = receive(self.socket, 0.05)
            if request is not None:
                self.requests.append(bytes(request).hex())
                self.machine.reply(request)

    def end(self):
        self.ending.set()
        self.thread.join(timeout=20)
        assert not self.thread.is_alive()
        self.socket.close()
