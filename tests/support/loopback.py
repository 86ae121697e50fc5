"""Ports of 127.0.0.1 for servers that a test starts, or has refuse connections."""

import socket

held = []


def free_port():
    """A port that is this process's to its end: connections are refused until a server listens there, which may go and
    come back, and no other program is given it meanwhile. The server has to bind with SO_REUSEADDR, as servers do."""
    holder = socket.socket()
    holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    holder.bind(("127.0.0.1", 0))
    held.append(holder)
    return holder.getsockname()[1]
