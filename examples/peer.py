#!/usr/bin/env python3
"""peer.py: a client and a server of the protocol in docs/protocol.md, written from that page alone.

    peer.py PORT TEXT      asks the server on that port of this machine and prints the reply
    peer.py PORT           serves there: each request is answered with its content

For those who carry the protocol to another language. It shares nothing with the library, so that a
fault of one side cannot hide behind the same fault of the other. Message ids are ints here,
payloads are bytes. Sockets give up after WAIT_S.
"""
import collections
import contextlib
import itertools
import socket
import struct
import sys
import threading

HEAD = struct.Struct("<4s4siii")  # Magic, MsgID, TotalLen, ChunkIndex, ChunkLen
MAGIC = b"NMSG"
CHUNK_LEN = 8192                  # of every chunk we send but the last
MAX_CHUNK_LEN = 1 << 20           # that we take
MAX_MESSAGE_LEN = 256 << 20
MIN_RECORD_LEN = 20
WAIT_S = 30

CLOSE_NOTICE = 0
CANCEL = 1
OWN_IDS = 6, 7, 8, 9, 5           # the server's own messages, in the order of their use
REQUEST_IDS = *range(11, 10000), 10

Record = collections.namedtuple("Record", "msg_id payload")


# --- messages to bytes ---

def record_bytes(msg_id, payload):
    return b"<Msg%04d>%d</Msg%04d>" % (msg_id, len(payload), msg_id) + payload


def packet_bytes(msg_id, chunk, index=0, total_len=None):
    """One packet; without more, one that is a whole message."""
    total_len = len(chunk) if total_len is None else total_len
    return HEAD.pack(MAGIC, b"%04d" % msg_id, total_len, index, len(chunk)) + chunk


def message_bytes(msg_id, message, chunk_len=CHUNK_LEN):
    """The packets of a message, one after the other."""
    return b"".join(packet_bytes(msg_id, message[at:at + chunk_len], at // chunk_len, len(message))
                    for at in range(0, len(message), chunk_len))


def wire_bytes(msg_id, payload):
    """All that a message with one record is on the wire."""
    return message_bytes(msg_id, record_bytes(msg_id, payload))


# --- bytes to messages ---

def messages_of(read):
    """The messages in what read(count) gives, until that ends or is no packet."""
    chunks, expected = [], None  # expected: MsgID and ChunkIndex that continue the message
    while len(head := read(HEAD.size)) == HEAD.size and head.startswith(MAGIC):
        _, msg_id, total_len, index, chunk_len = HEAD.unpack(head)
        if not (0 <= total_len <= MAX_MESSAGE_LEN and 0 <= chunk_len <= MAX_CHUNK_LEN):
            break
        if (msg_id, index) != expected:
            chunks.clear()
        expected = msg_id, index + 1
        chunks.append(read(chunk_len))
        have = sum(map(len, chunks))
        if have >= total_len:
            expected = None
        if have == total_len:
            yield b"".join(chunks)


def records_of(message):
    """The records at the front of a message. One with COUNT 0 is the last."""
    while len(message) >= MIN_RECORD_LEN and message.startswith(b"<Msg"):
        digits = message[9:].partition(b"<")[0]
        count, start = digits or b"0", 9 + len(digits) + 10
        if not (count.isdigit() and message[4:8].isdigit()) or int(count) > len(message) - start:
            break
        end = start + int(count)
        yield Record(int(message[4:8]), message[start:end])
        message = message[end:] if end > start else b""


# --- the ends of a connection ---

class Connection:
    """A socket and what came out of it."""

    def __init__(self, sock):
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        sock.settimeout(WAIT_S)
        self.received = bytearray()     # every byte that was ever taken ...
        self.records = []               # ... and every record
        self._sock = sock
        self._coming = (record for message in messages_of(self._read)
                        for record in records_of(message))

    def _read(self, count):
        """Less than `count` bytes at the end of the stream only; raises TimeoutError."""
        data = bytearray()
        try:
            while len(data) < count and (more := self._sock.recv(count - len(data))):
                data += more
        except ConnectionResetError:
            pass
        self.received += data
        return bytes(data)

    def send(self, msg_id, payload):
        self._sock.sendall(wire_bytes(msg_id, payload))

    def receive(self):
        """The next record, or None at the end of the stream."""
        record = next(self._coming, None)
        self.records += [record] if record else []
        return record

    def close(self):
        self._sock.close()


class Client(Connection):
    def __init__(self, port):
        super().__init__(socket.create_connection(("127.0.0.1", port), WAIT_S))
        self._ids = itertools.cycle(REQUEST_IDS)

    def ask(self, payload):
        """The reply to a request, whatever comes before it; None if the server closes instead."""
        msg_id = next(self._ids)
        self.send(msg_id, payload)
        while (record := self.receive()) and record.msg_id != msg_id:
            pass
        return record and record.payload


class Session(Connection):
    """A client, as the server sees it."""

    def __init__(self, sock):
        super().__init__(sock)
        self.ended = threading.Event()  # nothing more comes from the client

    def serve(self, handler):
        """Calls handler(session, record) for each request until the client is gone or silent."""
        try:
            while (record := self.receive()) is not None:
                if record.msg_id >= min(REQUEST_IDS):
                    handler(self, record)
        except OSError:
            pass                        # silent, or gone while the handler was at work
        self.close()
        self.ended.set()


class Server:
    """Serves on a port of the loopback, each client in a thread of its own, until close()."""

    def __init__(self, handler, port=0):
        self.sessions = []
        self._handler = handler
        self._listener = socket.create_server(("127.0.0.1", port))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def _accept(self):
        try:
            while True:
                session = Session(self._listener.accept()[0])
                self.sessions.append(session)
                threading.Thread(target=session.serve, args=(self._handler,), daemon=True).start()
        except OSError:
            pass                        # close() was called


def main(port, text=None):
    if text is None:
        Server(lambda session, request: session.send(*request), int(port))
        with contextlib.suppress(KeyboardInterrupt):
            threading.Event().wait()
    else:
        reply = Client(int(port)).ask(text.encode("gbk"))
        print("no reply" if reply is None else reply.decode("gbk"))


if __name__ == "__main__":
    main(*sys.argv[1:])
