"""Peers that no server wishes for, for the soak: five come each second and stay for some two."""

import collections
import contextlib
import random
import socket
import struct
import time

from peer import packet_bytes, wire_bytes

PAUSE_S = 0.2
GUESTS = 10
ASKED = 4 << 20  # bytes of a request whose reply nobody reads

MISDEEDS = (
    b"",
    b"GET / HTTP/1.1\r\n\r\n" * 100,  # another protocol
    packet_bytes(11, b"x" * 100)[:11],  # half a head
    packet_bytes(11, b"x" * 8192, total_len=256 << 20),  # the beginning of much
    packet_bytes(11, b"wrong") * 20,  # messages without a record
    packet_bytes(11, b"x" * 10, total_len=30) + b"garbage" * 10,
    wire_bytes(11, bytes(ASKED)),
)


def end(guest, roughly):
    if roughly:
        guest.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    guest.close()


def run(port, is_over, seed):
    """Until `is_over`, an event, is set."""
    dice = random.Random(seed)
    guests = collections.deque()
    while not is_over.is_set():
        guest = socket.create_connection(("127.0.0.1", port), 10)
        with contextlib.suppress(OSError):  # thrown out while it talks
            guest.sendall(dice.choice(MISDEEDS))
        guests.append(guest)
        if len(guests) > GUESTS:
            end(guests.popleft(), dice.random() < 0.5)
        time.sleep(PAUSE_S)
    while guests:
        end(guests.popleft(), True)
