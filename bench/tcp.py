"""The sockets of both load generators."""

import socket
import struct

STALL = struct.pack("ll", 600, 0)  # SO_RCVTIMEO: unlike a timeout of Python's, it costs no system call


def connection(host, port):
    """A TCP connection without Nagle's delay; a peer that says nothing for ten minutes is an OSError."""
    made = socket.create_connection((host, port))
    made.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    made.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, STALL)
    return made
